// No memory that the module gives back still holds a PIN, and no line of its log does.
#include <stdexcept>

#include "session_fixture.h"
#include "watched_memory.h"

namespace
{

using testing::_;

/// Both PINs hold it, so that one search finds either, also when its first bytes were overwritten.
constexpr std::string_view MARKER = "-what-no-released-memory-may-hold";
const std::string OLD_PIN = "old" + std::string(MARKER);
const std::string OTHER_PIN = "other" + std::string(MARKER);

/// The first device has OLD_PIN, the second OTHER_PIN, both for user and security officer.
class PinMemoryTest : public SessionTest
{
protected:
    void SetUp() override
    {
        SessionTest::SetUp();
        first().userPin = first().soPin = OLD_PIN;
        second().userPin = second().soPin = OTHER_PIN;
        first().userPin.reserve(64); // The double changes its PIN in place.
        handle_ = openSession(READ_WRITE);
        otherHandle_ = openSession(READ_WRITE, SECOND_SLOT);
    }

    static int found(const std::function<void()>& work) { return releasedBlocksWith(MARKER, work); }

    void login() const { ASSERT_EQ(loginAs(CKU_USER, handle_, OLD_PIN), CKR_OK); }

    static CK_RV setPin(CK_SESSION_HANDLE hSession, const std::string& oldPin, const std::string& newPin)
    {
        return C_SetPIN(hSession, characters(oldPin), lengthOf(oldPin), characters(newPin), lengthOf(newPin));
    }

    CK_SESSION_HANDLE handle_ = 0;
    CK_SESSION_HANDLE otherHandle_ = 0;
};

using WatchedModuleTest = PinMemoryTest;

TEST_F(WatchedModuleTest, UnwipedCopyOfTheDoubleIsSeen)
{
    EXPECT_CALL(*device_, velkor_validatePassword(_, _, _, _, _))
        .WillOnce([](const char*, const char* pin, int, int*, void*) { return std::string(pin).empty() ? 1 : 0; });
    EXPECT_EQ(found([&] { login(); }), 1);
}

TEST_F(WatchedModuleTest, UnwipedTextOfTheModuleIsSeen)
{
    first().token.label = MARKER;
    listSlots();
    const CK_SESSION_HANDLE handle = openSession(READ_ONLY); // It keeps a copy of the token's texts.
    EXPECT_GE(found([&] { ASSERT_EQ(C_CloseSession(handle), CKR_OK); }), 1);
}

TEST_F(PinMemoryTest, LoginReleasesNone)
{
    EXPECT_EQ(found([&] { login(); }), 0);
}

TEST_F(PinMemoryTest, SecurityOfficerLoginReleasesNone)
{
    EXPECT_EQ(found([&] { ASSERT_EQ(loginAs(CKU_SO, handle_, OLD_PIN), CKR_OK); }), 0);
}

TEST_F(PinMemoryTest, RefusedLoginReleasesNone)
{
    EXPECT_EQ(found([&] { ASSERT_EQ(loginAs(CKU_USER, handle_, OTHER_PIN), CKR_PIN_INCORRECT); }), 0);
}

TEST_F(PinMemoryTest, LoginThatTheLibraryBreaksReleasesNone)
{
    EXPECT_CALL(*device_, velkor_validatePassword(_, _, _, _, _))
        .WillOnce(testing::Throw(std::runtime_error("broken")));
    EXPECT_EQ(found([&] { ASSERT_EQ(loginAs(CKU_USER, handle_, OLD_PIN), CKR_GENERAL_ERROR); }), 0);
}

TEST_F(PinMemoryTest, LoginByTheCachedPinReleasesNone)
{
    second().userPin = OLD_PIN;
    login();
    EXPECT_EQ(found([&] { ASSERT_EQ(loginAs(CKU_USER, otherHandle_, OLD_PIN), CKR_OK); }), 0);
}

TEST_F(PinMemoryTest, ReplacedPinIsWiped)
{
    login();
    EXPECT_EQ(found([&] { ASSERT_EQ(loginAs(CKU_USER, otherHandle_, OTHER_PIN), CKR_OK); }), 0);
}

TEST_F(PinMemoryTest, LogoutWipesThePin)
{
    login();
    EXPECT_EQ(found([&] { ASSERT_EQ(C_Logout(handle_), CKR_OK); }), 0);
}

TEST_F(PinMemoryTest, PinChangeReleasesNeitherPin)
{
    login();
    EXPECT_EQ(found([&] { ASSERT_EQ(setPin(handle_, OLD_PIN, OTHER_PIN), CKR_OK); }), 0);
}

TEST_F(PinMemoryTest, RefusedPinChangeReleasesNeitherPin)
{
    login();
    EXPECT_EQ(found([&] { ASSERT_EQ(setPin(handle_, OTHER_PIN, OLD_PIN), CKR_FUNCTION_FAILED); }), 0);
}

TEST_F(PinMemoryTest, PinChangeThatTheLibraryBreaksReleasesNeitherPin)
{
    EXPECT_CALL(*device_, velkor_changeUserPassword(_, _, _, _, _, _, _))
        .WillOnce(testing::Throw(std::runtime_error("broken")));
    login();
    EXPECT_EQ(found([&] { ASSERT_EQ(setPin(handle_, OLD_PIN, OTHER_PIN), CKR_GENERAL_ERROR); }), 0);
}

TEST_F(PinMemoryTest, VanishedDeviceWipesThePin)
{
    CK_SLOT_ID slot = 0;
    login();
    ASSERT_EQ(C_WaitForSlotEvent(0, &slot, nullptr), CKR_OK);
    EXPECT_EQ(found([&] {
                  device_->defaults.setConnected({SECOND_DEVICE});
                  ASSERT_EQ(C_WaitForSlotEvent(0, &slot, nullptr), CKR_OK);
              }),
              0);
    EXPECT_FALSE(isUserLoggedIn());
}

TEST_F(PinMemoryTest, FinalizeWipesThePin)
{
    login();
    EXPECT_EQ(found([&] { ASSERT_EQ(C_Finalize(nullptr), CKR_OK); }), 0);
}

TEST_F(PinMemoryTest, NoPinIsLogged)
{
    login();
    loginAs(CKU_USER, otherHandle_, OLD_PIN);
    loginAs(CKU_SO, otherHandle_, OTHER_PIN);
    loginAs(CKU_CONTEXT_SPECIFIC, otherHandle_, OTHER_PIN);
    setPin(handle_, OTHER_PIN, OLD_PIN);
    setPin(handle_, OLD_PIN, OTHER_PIN);
    ASSERT_EQ(C_Logout(handle_), CKR_OK);
    EXPECT_THAT(wholeLog(), testing::Each(testing::Not(testing::HasSubstr(std::string(MARKER)))));
}

} // namespace
