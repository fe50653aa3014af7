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

/// Unlike `StrEq` it makes no copy of the text.
MATCHER_P(Spells, text, "")
{
    return std::string_view(arg) == text;
}

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

    VelkorKeyPair& keyPair() const { return first().keyPairs.at(KEY - 1); }

    void clearLabel() const { std::fill(std::begin(keyPair().label), std::end(keyPair().label), '\0'); }

    CK_RV setLabel() const
    {
        char label[] = "new";
        CK_ATTRIBUTE change = {CKA_LABEL, label, 3};
        return C_SetAttributeValue(handle_, privateKey(KEY), &change, 1);
    }

    /// Reads an attribute, for which an empty label is computed and written back.
    CK_RV readKeyType() const
    {
        CK_ATTRIBUTE entry = {CKA_KEY_TYPE, nullptr, 0};
        return C_GetAttributeValue(handle_, privateKey(KEY), &entry, 1);
    }

    /// As `readKeyType`.
    CK_RV searchByLabel() const
    {
        CK_OBJECT_CLASS objectClass = CKO_PUBLIC_KEY;
        char label[] = "label";
        CK_ATTRIBUTE criteria[] = {{CKA_CLASS, &objectClass, sizeof objectClass}, {CKA_LABEL, label, 5}};
        return C_FindObjectsInit(handle_, criteria, 2);
    }

    CK_RV sign() const
    {
        CK_BYTE signature[1024];
        CK_ULONG length = sizeof signature;
        return beginSigning() != CKR_OK ? CKR_GENERAL_ERROR : C_Sign(handle_, DATA, sizeof DATA, signature, &length);
    }

    CK_RV signInParts() const
    {
        CK_BYTE signature[1024];
        CK_ULONG length = sizeof signature;
        if (beginSigning() != CKR_OK || C_SignUpdate(handle_, DATA, sizeof DATA) != CKR_OK)
            return CKR_GENERAL_ERROR;
        return C_SignFinal(handle_, signature, &length);
    }

    auto& expectUpdate() const
    {
        return EXPECT_CALL(*device_, velkor_updateKeyPairDetails(_, _, Spells(OLD_PIN), _, _, _, _));
    }

    auto& expectSignature() const
    {
        return EXPECT_CALL(*device_, velkor_signHash(_, _, Spells(OLD_PIN), _, _, _, _, _, _, _));
    }

    static CK_RV setPin(CK_SESSION_HANDLE hSession, const std::string& oldPin, const std::string& newPin)
    {
        return C_SetPIN(hSession, characters(oldPin), lengthOf(oldPin), characters(newPin), lengthOf(newPin));
    }

    CK_SESSION_HANDLE handle_ = 0;
    CK_SESSION_HANDLE otherHandle_ = 0;

private:
    CK_RV beginSigning() const
    {
        CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
        return C_SignInit(handle_, &mechanism, privateKey(KEY));
    }

    static constexpr CK_ULONG KEY = 2; ///< A certificate of the double has its public key.
    static inline CK_BYTE DATA[] = {1, 2, 3};
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

TEST_F(PinMemoryTest, ChangingAKeyPairReleasesNone)
{
    login();
    expectUpdate();
    EXPECT_EQ(found([&] { ASSERT_EQ(setLabel(), CKR_OK); }), 0);
}

TEST_F(PinMemoryTest, RefusedChangeReleasesNone)
{
    login();
    expectUpdate().WillOnce(testing::Return(7));
    EXPECT_EQ(found([&] { ASSERT_EQ(setLabel(), CKR_FUNCTION_FAILED); }), 0);
}

TEST_F(PinMemoryTest, WritingALabelBackReleasesNone)
{
    login();
    expectUpdate().Times(2);
    clearLabel();
    EXPECT_EQ(found([&] { ASSERT_EQ(readKeyType(), CKR_OK); }), 0);
    clearLabel();
    EXPECT_EQ(found([&] { ASSERT_EQ(searchByLabel(), CKR_OK); }), 0);
}

TEST_F(PinMemoryTest, SigningReleasesNone)
{
    login();
    expectSignature().Times(2);
    EXPECT_EQ(found([&] { ASSERT_EQ(sign(), CKR_OK); }), 0);
    EXPECT_EQ(found([&] { ASSERT_EQ(signInParts(), CKR_OK); }), 0);
}

TEST_F(PinMemoryTest, FailedSigningReleasesNone)
{
    login();
    expectSignature().Times(2).WillRepeatedly(testing::Return(7));
    EXPECT_EQ(found([&] { ASSERT_EQ(sign(), CKR_FUNCTION_FAILED); }), 0);
    EXPECT_EQ(found([&] { ASSERT_EQ(signInParts(), CKR_FUNCTION_FAILED); }), 0);
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
    EXPECT_EQ(found([&] { ASSERT_EQ(finalize(), CKR_OK); }), 0);
}

TEST_F(PinMemoryTest, NoPinIsLogged)
{
    login();
    loginAs(CKU_USER, otherHandle_, OLD_PIN);
    loginAs(CKU_SO, otherHandle_, OTHER_PIN);
    loginAs(CKU_CONTEXT_SPECIFIC, otherHandle_, OTHER_PIN);
    setPin(handle_, OTHER_PIN, OLD_PIN);
    ASSERT_EQ(setLabel(), CKR_OK);
    clearLabel();
    ASSERT_EQ(readKeyType(), CKR_OK);
    clearLabel();
    ASSERT_EQ(searchByLabel(), CKR_OK);
    ASSERT_EQ(C_FindObjectsFinal(handle_), CKR_OK);
    ASSERT_EQ(sign(), CKR_OK);
    ASSERT_EQ(signInParts(), CKR_OK);
    expectUpdate().WillOnce(testing::Return(7));
    ASSERT_EQ(setLabel(), CKR_FUNCTION_FAILED);
    expectSignature().WillOnce(testing::Return(7));
    ASSERT_EQ(sign(), CKR_FUNCTION_FAILED);
    setPin(handle_, OLD_PIN, OTHER_PIN);
    ASSERT_EQ(C_Logout(handle_), CKR_OK);
    EXPECT_THAT(wholeLog(), testing::Each(testing::Not(testing::HasSubstr(std::string(MARKER)))));
}

} // namespace
