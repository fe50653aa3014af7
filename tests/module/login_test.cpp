// C_Login, C_Logout and C_SetPIN.
#include <new>
#include <stdexcept>

#include "session_fixture.h"

namespace
{

using testing::_;
using testing::DoAll;
using testing::Pointee;
using testing::Return;
using testing::SetArgPointee;
using testing::StrEq;

constexpr int DEVICE_USER = 1;
constexpr int DEVICE_OFFICER = 2;
const std::string NEW_PIN = "new-pin-5678";

using States = std::vector<CK_STATE>;

class LoginTest : public SessionTest
{
protected:
    void SetUp() override
    {
        SessionTest::SetUp();
        witness_ = openSession(READ_WRITE, SECOND_SLOT);
    }

    Answer login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, const std::string& pin) const
    {
        return answer(C_Login, hSession, userType, characters(pin), pin.size());
    }

    Answer setPin(CK_SESSION_HANDLE hSession, const std::string& oldPin, const std::string& newPin) const
    {
        return answer(C_SetPIN, hSession, characters(oldPin), oldPin.size(), characters(newPin), newPin.size());
    }

    /// Opens a session of the first slot. One that comes to state 4 takes the other read/write ones along.
    CK_SESSION_HANDLE openInState(CK_STATE state) const
    {
        const bool user = state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS;
        if (user) {
            EXPECT_EQ(loginAs(CKU_USER, witness_), CKR_OK);
        }
        const CK_SESSION_HANDLE handle = openSession(state < CKS_RW_PUBLIC_SESSION ? READ_ONLY : READ_WRITE);
        if (user) {
            EXPECT_EQ(C_Logout(witness_), CKR_OK);
        }
        if (state == CKS_RW_SO_FUNCTIONS)
            loginAs(CKU_SO, handle);
        EXPECT_EQ(stateOf(handle), state);
        return handle;
    }

    std::vector<CK_SESSION_HANDLE> openInStates(const States& states) const
    {
        std::vector<CK_SESSION_HANDLE> handles;
        for (const CK_STATE state : states)
            handles.push_back(openInState(state));
        return handles;
    }

    static States statesOf(const std::vector<CK_SESSION_HANDLE>& handles)
    {
        States states;
        for (const CK_SESSION_HANDLE handle : handles)
            states.push_back(stateOf(handle));
        return states;
    }

    /// Whether the module holds this PIN. The second device accepts none here, so only the cached one gets in.
    bool isCached(const std::string& pin) const
    {
        second().userPin = "none of those in the tests";
        return loginAs(CKU_USER, witness_, pin) == CKR_OK;
    }

    void expectNoDeviceCall() const
    {
        EXPECT_CALL(*device_, velkor_validatePassword(_, _, _, _, _)).Times(0);
        EXPECT_CALL(*device_, velkor_changeUserPassword(_, _, _, _, _, _, _)).Times(0);
    }

    CK_SESSION_HANDLE witness_ = 0; ///< A read/write session on the second slot, open before any login.
};

// ---- C_Login: what is refused before the device is asked ----

class PinLengthTest : public LoginTest, public testing::WithParamInterface<CK_ULONG>
{
};

INSTANTIATE_TEST_SUITE_P(Refused, PinLengthTest,
                         testing::Values(0, 3, 64, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, ~CK_ULONG{0}));

TEST_P(PinLengthTest, IsRefusedByLogin)
{
    expectNoDeviceCall();
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    const Answer refused =
        refusal(CKR_PIN_LEN_RANGE, "C_Login", "C_Login: pin length out of range, ulPinLen=" + logged(GetParam()));
    EXPECT_EQ(answer(C_Login, handle, CKU_USER, characters(USER_PIN), GetParam()), refused);
    EXPECT_EQ(answer(C_Login, handle, CKU_SO, characters(SO_PIN), GetParam()), refused);
    EXPECT_EQ(stateOf(handle), CKS_RW_PUBLIC_SESSION);
    EXPECT_FALSE(isUserLoggedIn());
}

TEST_P(PinLengthTest, IsRefusedByPinChange)
{
    expectNoDeviceCall();
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    EXPECT_EQ(answer(C_SetPIN, handle, characters(USER_PIN), GetParam(), characters(NEW_PIN), NEW_PIN.size()),
              refusal(CKR_PIN_LEN_RANGE, "C_SetPIN",
                      "C_SetPIN: old pin length out of range, ulOldLen=" + logged(GetParam())));
    EXPECT_EQ(answer(C_SetPIN, handle, characters(USER_PIN), USER_PIN.size(), characters(NEW_PIN), GetParam()),
              refusal(CKR_PIN_LEN_RANGE, "C_SetPIN",
                      "C_SetPIN: new pin length out of range, ulNewLen=" + logged(GetParam())));
}

#ifdef CRYPTOKI_HOST_LAYOUT
INSTANTIATE_TEST_SUITE_P(RefusedAlsoWhereTheLowerHalfIsGood, PinLengthTest,
                         testing::Values(0x100000004, 0x10000003F, 0x8000000000000004));
#endif

TEST_F(LoginTest, UnknownUserTypesAreRefusedFirst)
{
    expectNoDeviceCall();
    const CK_SESSION_HANDLE handle = openInState(CKS_RW_PUBLIC_SESSION);
    for (const CK_USER_TYPE userType : {CKU_CONTEXT_SPECIFIC, CK_USER_TYPE{3}, CK_USER_TYPE{256}, ~CK_USER_TYPE{0}}) {
        EXPECT_EQ(answer(C_Login, handle, userType, nullptr, 0),
                  refusal(CKR_USER_TYPE_INVALID, "C_Login", "C_Login: unsupported userType=" + logged(userType)));
    }
    EXPECT_EQ(stateOf(handle), CKS_RW_PUBLIC_SESSION);
}

TEST_F(LoginTest, UserTypeIsCheckedBeforeTheState)
{
    const CK_SESSION_HANDLE handle = openInState(CKS_RW_USER_FUNCTIONS);
    EXPECT_EQ(C_Login(handle, CKU_CONTEXT_SPECIFIC, nullptr, 0), CKR_USER_TYPE_INVALID);
}

TEST_F(LoginTest, SecondUserLoginIsRefusedBeforeThePinIsLookedAt)
{
    const auto handles = openInStates({CKS_RO_USER_FUNCTIONS, CKS_RW_USER_FUNCTIONS});
    expectNoDeviceCall();
    for (const CK_SESSION_HANDLE handle : handles) {
        EXPECT_EQ(answer(C_Login, handle, CKU_USER, nullptr, 0),
                  (Answer{CKR_USER_ALREADY_LOGGED_IN, {"DEBUG C_Login", "DEBUG C_Login: User already logged in"}}));
    }
    EXPECT_EQ(statesOf(handles), (States{CKS_RO_USER_FUNCTIONS, CKS_RW_USER_FUNCTIONS}));
}

TEST_F(LoginTest, NullPinIsRefusedBeforeItsLength)
{
    expectNoDeviceCall();
    const auto handles = openInStates({CKS_RO_PUBLIC_SESSION, CKS_RW_PUBLIC_SESSION});
    for (const CK_SESSION_HANDLE handle : handles) {
        for (const CK_USER_TYPE userType : {CKU_USER, CKU_SO}) {
            EXPECT_EQ(answer(C_Login, handle, userType, nullptr, 64),
                      refusal(CKR_ARGUMENTS_BAD, "C_Login", "C_Login: pPin is NULL"));
        }
    }
    EXPECT_EQ(statesOf(handles), (States{CKS_RO_PUBLIC_SESSION, CKS_RW_PUBLIC_SESSION}));
}

TEST_F(LoginTest, SecurityOfficerLoginLooksAtThePinWhateverTheState)
{
    for (const CK_STATE state : {CKS_RO_USER_FUNCTIONS, CKS_RW_SO_FUNCTIONS, CKS_RW_USER_FUNCTIONS})
        EXPECT_EQ(C_Login(openInState(state), CKU_SO, nullptr, 0), CKR_ARGUMENTS_BAD);
}

// ---- C_Login: the device's answer ----

TEST_F(LoginTest, UserPinGoesToTheDevice)
{
    EXPECT_CALL(*device_,
                velkor_validatePassword(StrEq(FIRST_DEVICE), StrEq(USER_PIN), DEVICE_USER, Pointee(0), instance()));
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    EXPECT_EQ(login(handle, CKU_USER, USER_PIN),
              (Answer{CKR_OK, {"DEBUG C_Login", "DEBUG Login state : 2", "DEBUG Login end result : 0"}}));
    EXPECT_EQ(stateOf(handle), CKS_RW_USER_FUNCTIONS);
    EXPECT_TRUE(isCached(USER_PIN));
}

TEST_F(LoginTest, SecurityOfficerPinGoesToTheDeviceAndIsNotCached)
{
    EXPECT_CALL(*device_,
                velkor_validatePassword(StrEq(SECOND_DEVICE), StrEq(SO_PIN), DEVICE_OFFICER, Pointee(0), instance()));
    EXPECT_EQ(login(witness_, CKU_SO, SO_PIN),
              (Answer{CKR_OK, {"DEBUG C_Login", "DEBUG Login state : 2", "DEBUG Login end result : 0"}}));
    EXPECT_EQ(stateOf(witness_), CKS_RW_SO_FUNCTIONS);
    EXPECT_FALSE(isUserLoggedIn());
}

TEST_F(LoginTest, SecurityOfficerLoginLeavesACachedUserPin)
{
    const auto handles = openInStates({CKS_RW_PUBLIC_SESSION});
    ASSERT_EQ(loginAs(CKU_USER, handles[0]), CKR_OK);
    ASSERT_EQ(loginAs(CKU_SO, handles[0]), CKR_OK);
    EXPECT_EQ(stateOf(handles[0]), CKS_RW_SO_FUNCTIONS);
    EXPECT_TRUE(isUserLoggedIn());
    EXPECT_TRUE(isCached(USER_PIN));
}

TEST_F(LoginTest, ShortestAndLongestPinReachTheDevice)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    for (const CK_ULONG length : {4U, 63U}) {
        // Memory that ends with the PIN, so that reading on would be seen.
        std::vector<CK_UTF8CHAR> pin(length, 'p');
        EXPECT_CALL(*device_, velkor_validatePassword(_, StrEq(std::string(length, 'p')), DEVICE_OFFICER, _, _))
            .WillOnce(Return(0));
        EXPECT_EQ(C_Login(handle, CKU_SO, pin.data(), length), CKR_OK);
        ASSERT_EQ(C_Logout(handle), CKR_OK);
    }
}

TEST_F(LoginTest, EmbeddedZeroEndsThePinForTheDeviceOnly)
{
    const std::string pin("1234\0abc", 8);
    EXPECT_CALL(*device_, velkor_validatePassword(_, StrEq("1234"), DEVICE_USER, _, _));
    ASSERT_EQ(loginAs(CKU_USER, openSession(READ_WRITE), pin), CKR_OK);
    testing::Mock::VerifyAndClearExpectations(device_.get());
    EXPECT_FALSE(isCached("1234"));
    EXPECT_FALSE(isCached(std::string("1234\0abd", 8)));
    EXPECT_TRUE(isCached(pin));
}

TEST_F(LoginTest, PinOfZerosCountsAsLoggedIn)
{
    EXPECT_CALL(*device_, velkor_validatePassword(_, StrEq(""), DEVICE_USER, _, _)).WillOnce(Return(0));
    ASSERT_EQ(loginAs(CKU_USER, openSession(READ_WRITE), std::string(4, '\0')), CKR_OK);
    EXPECT_TRUE(isUserLoggedIn());
}

struct Rejection {
    int status;
    int retryCount;
    CK_RV code;

    friend std::ostream& operator<<(std::ostream& out, const Rejection& rejection)
    {
        return out << "status " << rejection.status << ", retry count " << rejection.retryCount;
    }
};

class RejectionTest : public LoginTest, public testing::WithParamInterface<Rejection>
{
protected:
    void SetUp() override
    {
        LoginTest::SetUp();
        handles_ = openInStates({CKS_RO_PUBLIC_SESSION, CKS_RW_PUBLIC_SESSION});
        expected_.lines.push_back("ERROR Token password validation failed : " + std::to_string(GetParam().status));
        if (GetParam().code != CKR_FUNCTION_FAILED)
            expected_.lines.push_back("ERROR Token password validation failed, retry count : " +
                                      std::to_string(GetParam().retryCount));
    }

    void rejectNextPin() const
    {
        EXPECT_CALL(*device_, velkor_validatePassword(_, _, _, _, _))
            .WillOnce(DoAll(SetArgPointee<3>(GetParam().retryCount), Return(GetParam().status)));
    }

    std::vector<CK_SESSION_HANDLE> handles_;
    Answer expected_{GetParam().code, {"DEBUG C_Login"}};
};

INSTANTIATE_TEST_SUITE_P(Statuses, RejectionTest,
                         testing::Values(Rejection{20, 2, CKR_PIN_INCORRECT}, Rejection{20, 1, CKR_PIN_INCORRECT},
                                         Rejection{20, 0, CKR_PIN_LOCKED}, Rejection{1, -1, CKR_PIN_INCORRECT},
                                         Rejection{-1, 0, CKR_PIN_LOCKED}, Rejection{40, 5, CKR_PIN_INCORRECT},
                                         Rejection{242, 0, CKR_PIN_LOCKED}, Rejection{48, 2, CKR_FUNCTION_FAILED},
                                         Rejection{48, 0, CKR_FUNCTION_FAILED}));

TEST_P(RejectionTest, LeavesSessionsPublic)
{
    for (const CK_USER_TYPE userType : {CKU_USER, CKU_SO}) {
        for (const CK_SESSION_HANDLE handle : handles_) {
            rejectNextPin();
            EXPECT_EQ(login(handle, userType, USER_PIN), expected_);
        }
    }
    EXPECT_EQ(statesOf(handles_), (States{CKS_RO_PUBLIC_SESSION, CKS_RW_PUBLIC_SESSION}));
    EXPECT_FALSE(isUserLoggedIn());
}

TEST_P(RejectionTest, LeavesTheCachedPin)
{
    ASSERT_EQ(loginAs(CKU_USER, witness_), CKR_OK);
    for (const CK_USER_TYPE userType : {CKU_USER, CKU_SO}) {
        rejectNextPin();
        EXPECT_EQ(login(handles_[1], userType, "wrong pin"), expected_);
        EXPECT_EQ(stateOf(witness_), CKS_RW_USER_FUNCTIONS);
        EXPECT_TRUE(isUserLoggedIn());
    }
    EXPECT_EQ(loginAs(CKU_USER, handles_[1]), CKR_OK); // By the cached PIN: the mock would not be asked again.
}

// ---- C_Login: the cached PIN ----

TEST_F(LoginTest, CachedPinIsNotAskedOfTheDeviceAgain)
{
    const auto handles = openInStates({CKS_RO_PUBLIC_SESSION, CKS_RW_PUBLIC_SESSION});
    ASSERT_EQ(loginAs(CKU_USER, witness_), CKR_OK);
    expectNoDeviceCall();
    EXPECT_EQ(login(handles[0], CKU_USER, USER_PIN),
              (Answer{CKR_OK, {"DEBUG C_Login", "DEBUG Login state : 0", "DEBUG Login end result : 0"}}));
    EXPECT_EQ(statesOf(handles), (States{CKS_RO_USER_FUNCTIONS, CKS_RW_USER_FUNCTIONS}));
}

TEST_F(LoginTest, PinThatOnlyResemblesTheCachedOneGoesToTheDevice)
{
    first().userPin = "user-pin";
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, openSession(READ_WRITE), "user-pin"), CKR_OK);
    for (const char* pin : {"user-pi", "user-pin1", "user-piN", "User-pin"}) {
        EXPECT_CALL(*device_, velkor_validatePassword(StrEq(SECOND_DEVICE), StrEq(pin), DEVICE_USER, _, _))
            .WillOnce(Return(20));
        EXPECT_EQ(loginAs(CKU_USER, witness_, pin), CKR_PIN_LOCKED);
    }
    EXPECT_EQ(stateOf(handle), CKS_RW_USER_FUNCTIONS);
}

TEST_F(LoginTest, SecurityOfficerPinGoesToTheDeviceEvenWhenItIsCachedAsTheUsers)
{
    first().soPin = USER_PIN;
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    EXPECT_CALL(*device_, velkor_validatePassword(_, StrEq(USER_PIN), DEVICE_OFFICER, _, _));
    EXPECT_EQ(loginAs(CKU_SO, handle, USER_PIN), CKR_OK);
}

TEST_F(LoginTest, PinOfAnotherTokenReplacesTheCachedOne)
{
    device_->defaults.devices["VK100003"].token.serialNumber = "VK100003";
    device_->defaults.setConnected({FIRST_DEVICE, SECOND_DEVICE, "VK100003"});
    listSlots();
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    const CK_SESSION_HANDLE third = openSession(READ_WRITE, SECOND_SLOT + 1);
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    EXPECT_CALL(*device_, velkor_validatePassword(StrEq("VK100003"), StrEq(NEW_PIN), DEVICE_USER, _, _))
        .WillOnce(Return(0));
    ASSERT_EQ(loginAs(CKU_USER, third, NEW_PIN), CKR_OK);
    testing::Mock::VerifyAndClearExpectations(device_.get());
    EXPECT_FALSE(isCached(USER_PIN));
    EXPECT_TRUE(isCached(NEW_PIN));
}

// ---- C_Login: the session states ----

struct Walk {
    const char* name;
    CK_USER_TYPE userType;
    States before; ///< In handle order; the session that logs in comes last and is public.
    States after;
    CK_RV result;
    std::vector<std::string> errors;

    friend std::ostream& operator<<(std::ostream& out, const Walk& walk) { return out << walk.name; }
};

class WalkTest : public LoginTest, public testing::WithParamInterface<Walk>
{
};

const std::string READ_ONLY_EXISTS = "ERROR C_Login: read-only session exists, cannot log in as SO";
const std::string OFFICER_IS_IN = "ERROR C_Login: SO already logged in on another session";

constexpr CK_RV READ_ONLY_CODE = CKR_SESSION_READ_ONLY_EXISTS;
constexpr CK_RV OFFICER_CODE = CKR_USER_ANOTHER_ALREADY_LOGGED_IN;
constexpr CK_RV ALREADY_CODE = CKR_USER_ALREADY_LOGGED_IN;

const Walk WALKS[] = {
    {"UserFromRoPublic", CKU_USER, {0, 2}, {1, 3}, CKR_OK, {}},
    {"UserFromRoUser", CKU_USER, {1, 2}, {1, 3}, CKR_OK, {}},
    {"UserFromRwPublic", CKU_USER, {2, 2}, {3, 3}, CKR_OK, {}},
    {"UserFromRwUser", CKU_USER, {3, 2}, {3, 3}, CKR_OK, {}},
    {"UserFromRwOfficer", CKU_USER, {4, 2}, {4, 3}, OFFICER_CODE, {OFFICER_IS_IN}},
    {"OfficerFromRoPublic", CKU_SO, {0, 2}, {0, 4}, READ_ONLY_CODE, {READ_ONLY_EXISTS}},
    {"OfficerFromRoUser", CKU_SO, {1, 2}, {1, 4}, READ_ONLY_CODE, {READ_ONLY_EXISTS}},
    {"OfficerFromRwPublic", CKU_SO, {2, 2}, {4, 4}, CKR_OK, {}},
    {"OfficerFromRwUser", CKU_SO, {3, 2}, {4, 4}, CKR_OK, {}},
    {"OfficerFromRwOfficer", CKU_SO, {4, 2}, {4, 4}, ALREADY_CODE, {}},
    // An error neither stops the walk, nor does a session without one undo it.
    {"UserWithOfficerFirst", CKU_USER, {4, 0, 1, 2, 3, 2}, {4, 1, 1, 3, 3, 3}, OFFICER_CODE, {OFFICER_IS_IN}},
    {"UserWithTwoOfficers", CKU_USER, {0, 4, 4, 2}, {1, 4, 4, 3}, OFFICER_CODE, {OFFICER_IS_IN, OFFICER_IS_IN}},
    {"OfficerWithReadOnlyFirst", CKU_SO, {0, 2, 3, 2}, {0, 4, 4, 4}, READ_ONLY_CODE, {READ_ONLY_EXISTS}},
    {"OfficerWithTwoReadOnly",
     CKU_SO,
     {1, 3, 0, 2},
     {1, 4, 0, 4},
     READ_ONLY_CODE,
     {READ_ONLY_EXISTS, READ_ONLY_EXISTS}},
    // The last session that sets a result decides.
    {"OfficerWithReadOnlyThenOfficer", CKU_SO, {0, 4, 2}, {0, 4, 4}, ALREADY_CODE, {READ_ONLY_EXISTS}},
    {"OfficerWithOfficerThenReadOnly", CKU_SO, {4, 0, 2}, {4, 0, 4}, READ_ONLY_CODE, {READ_ONLY_EXISTS}},
    {"OfficerWithOfficerReadOnlyOfficer", CKU_SO, {4, 1, 4, 2}, {4, 1, 4, 4}, ALREADY_CODE, {READ_ONLY_EXISTS}},
};

INSTANTIATE_TEST_SUITE_P(Table, WalkTest, testing::ValuesIn(WALKS), [](const auto& walk) { return walk.param.name; });

TEST_P(WalkTest, ChangesEverySessionOfTheToken)
{
    const Walk& walk = GetParam();
    const auto handles = openInStates(walk.before);
    ASSERT_EQ(statesOf(handles), walk.before);
    EXPECT_CALL(*device_, velkor_validatePassword(StrEq(FIRST_DEVICE), _, _, _, _)).Times(1);
    std::vector<std::string> lines = {"DEBUG C_Login", "DEBUG Login state : 2"};
    lines.insert(lines.end(), walk.errors.begin(), walk.errors.end());
    lines.push_back("DEBUG Login end result : " + logged(walk.result));
    EXPECT_EQ(login(handles.back(), walk.userType, walk.userType == CKU_USER ? USER_PIN : SO_PIN),
              (Answer{walk.result, lines}));
    EXPECT_EQ(statesOf(handles), walk.after);
    EXPECT_EQ(stateOf(witness_), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(isUserLoggedIn(), walk.userType == CKU_USER);
}

TEST_F(LoginTest, SecurityOfficerTwiceIsAskedOfTheDeviceTwice)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    EXPECT_CALL(*device_, velkor_validatePassword(_, StrEq(SO_PIN), DEVICE_OFFICER, _, _)).Times(2);
    ASSERT_EQ(loginAs(CKU_SO, handle), CKR_OK);
    EXPECT_EQ(login(handle, CKU_SO, SO_PIN),
              (Answer{CKR_USER_ALREADY_LOGGED_IN,
                      {"DEBUG C_Login", "DEBUG Login state : 4", "DEBUG Login end result : 256"}}));
    EXPECT_EQ(stateOf(handle), CKS_RW_SO_FUNCTIONS);
}

TEST_F(LoginTest, WrongPinOfASecondSecurityOfficerIsAWrongPin)
{
    const CK_SESSION_HANDLE handle = openInState(CKS_RW_SO_FUNCTIONS);
    EXPECT_EQ(loginAs(CKU_SO, handle, "wrong pin"), CKR_PIN_INCORRECT);
    EXPECT_EQ(stateOf(handle), CKS_RW_SO_FUNCTIONS);
}

TEST_F(LoginTest, SecurityOfficerLoginOnAReadOnlySessionCostsAPinCheck)
{
    const CK_SESSION_HANDLE handle = openSession(READ_ONLY);
    EXPECT_CALL(*device_, velkor_validatePassword(_, StrEq(SO_PIN), DEVICE_OFFICER, _, _)).Times(1);
    EXPECT_EQ(login(handle, CKU_SO, SO_PIN),
              (Answer{CKR_SESSION_READ_ONLY_EXISTS,
                      {"DEBUG C_Login", "DEBUG Login state : 0", READ_ONLY_EXISTS, "DEBUG Login end result : 183"}}));
    EXPECT_EQ(stateOf(handle), CKS_RO_PUBLIC_SESSION);
}

TEST_F(LoginTest, UserLoginOnTheSecurityOfficersSessionIsAskedOfTheDeviceAndCached)
{
    const CK_SESSION_HANDLE handle = openInState(CKS_RW_SO_FUNCTIONS);
    EXPECT_CALL(*device_, velkor_validatePassword(StrEq(FIRST_DEVICE), StrEq(USER_PIN), DEVICE_USER, _, _));
    EXPECT_EQ(login(handle, CKU_USER, USER_PIN),
              (Answer{CKR_USER_ANOTHER_ALREADY_LOGGED_IN,
                      {"DEBUG C_Login", "DEBUG Login state : 4", OFFICER_IS_IN, "DEBUG Login end result : 260"}}));
    testing::Mock::VerifyAndClearExpectations(device_.get());
    EXPECT_EQ(stateOf(handle), CKS_RW_SO_FUNCTIONS);
    EXPECT_TRUE(isCached(USER_PIN));
}

TEST_F(LoginTest, SameTokenMeansSameSerialNumber)
{
    for (const char* name : {"SN1", "SN10", "other slot", "sn1"})
        device_->defaults.devices[name].token.serialNumber = name;
    device_->defaults.devices["other slot"].token.serialNumber = "SN1";
    device_->defaults.setConnected({"SN1", "SN10", "other slot", "sn1"});
    listSlots();
    std::vector<CK_SESSION_HANDLE> handles;
    for (CK_SLOT_ID slot = FIRST_SLOT; slot < FIRST_SLOT + 4; ++slot)
        handles.push_back(openSession(READ_WRITE, slot));
    EXPECT_CALL(*device_, velkor_validatePassword(StrEq("SN1"), _, _, _, _)).WillOnce(Return(0));
    ASSERT_EQ(loginAs(CKU_SO, handles[0]), CKR_OK);
    EXPECT_EQ(statesOf(handles), (States{4, 2, 4, 2}));
    ASSERT_EQ(C_Logout(handles[2]), CKR_OK);
    EXPECT_EQ(statesOf(handles), (States{2, 2, 2, 2}));
}

TEST_F(LoginTest, ExceptionOfTheLibraryLeavesEverythingAsItWas)
{
    EXPECT_CALL(*device_, velkor_validatePassword(_, _, _, _, _)).WillOnce(testing::Throw(std::bad_alloc()));
    EXPECT_EQ(login(witness_, CKU_USER, USER_PIN), refusal(CKR_HOST_MEMORY, "C_Login", "C_Login: out of memory"));
    EXPECT_EQ(stateOf(witness_), CKS_RW_PUBLIC_SESSION);
    EXPECT_FALSE(isUserLoggedIn());
}

// ---- C_Logout ----

using LogoutTest = LoginTest;

TEST_F(LogoutTest, PublicSessionsAreRefusedAndTheCachedPinStays)
{
    const auto handles = openInStates({CKS_RO_PUBLIC_SESSION, CKS_RW_PUBLIC_SESSION});
    ASSERT_EQ(loginAs(CKU_USER, witness_), CKR_OK);
    EXPECT_EQ(answer(C_Logout, handles[0]),
              refusal(CKR_USER_NOT_LOGGED_IN, "C_Logout", "C_Logout: user not logged in, session state=0"));
    EXPECT_EQ(answer(C_Logout, handles[1]),
              refusal(CKR_USER_NOT_LOGGED_IN, "C_Logout", "C_Logout: user not logged in, session state=2"));
    EXPECT_EQ(stateOf(witness_), CKS_RW_USER_FUNCTIONS);
    EXPECT_TRUE(isUserLoggedIn());
}

TEST_F(LogoutTest, PublicSessionBesideALoggedInOneOfItsTokenIsRefused)
{
    const auto handles = openInStates({CKS_RW_USER_FUNCTIONS, CKS_RW_PUBLIC_SESSION});
    EXPECT_EQ(C_Logout(handles[1]), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(stateOf(handles[0]), CKS_RW_USER_FUNCTIONS);
}

class LogoutFromTest : public LoginTest, public testing::WithParamInterface<CK_STATE>
{
};

INSTANTIATE_TEST_SUITE_P(States, LogoutFromTest,
                         testing::Values(CKS_RO_USER_FUNCTIONS, CKS_RW_USER_FUNCTIONS, CKS_RW_SO_FUNCTIONS));

TEST_P(LogoutFromTest, MakesEverySessionOfTheTokenPublicAndForgetsThePin)
{
    const States before = {4, 0, 1, 2, 3};
    const auto handles = openInStates(before);
    const auto caller = std::find(before.begin(), before.end(), GetParam()) - before.begin();
    ASSERT_EQ(loginAs(CKU_USER, witness_), CKR_OK);
    expectNoDeviceCall();
    EXPECT_EQ(answer(C_Logout, handles[static_cast<std::size_t>(caller)]),
              (Answer{CKR_OK, {"DEBUG C_Logout", "DEBUG C_Logout end"}}));
    EXPECT_EQ(statesOf(handles), (States{2, 0, 0, 2, 2}));
    EXPECT_FALSE(isUserLoggedIn());
    EXPECT_EQ(stateOf(witness_), CKS_RW_USER_FUNCTIONS); // A session of another token keeps its state.
}

TEST_F(LogoutTest, LogoutTwiceIsRefused)
{
    const CK_SESSION_HANDLE handle = openInState(CKS_RW_USER_FUNCTIONS);
    ASSERT_EQ(C_Logout(handle), CKR_OK);
    EXPECT_EQ(C_Logout(handle), CKR_USER_NOT_LOGGED_IN);
}

TEST_F(LogoutTest, LoginAfterLogoutAsksTheDeviceAgain)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    EXPECT_CALL(*device_, velkor_validatePassword(_, StrEq(USER_PIN), DEVICE_USER, _, _)).Times(2);
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    ASSERT_EQ(C_Logout(handle), CKR_OK);
    EXPECT_EQ(loginAs(CKU_USER, handle), CKR_OK);
}

// ---- C_SetPIN ----

using SetPinTest = LoginTest;

TEST_F(SetPinTest, ReadOnlySessionsAreRefusedFirst)
{
    expectNoDeviceCall();
    EXPECT_EQ(answer(C_SetPIN, openSession(READ_ONLY), nullptr, 0, nullptr, 0),
              refusal(CKR_SESSION_READ_ONLY, "C_SetPIN", "C_SetPIN: session is read-only, state=0"));
    testing::Mock::VerifyAndClearExpectations(device_.get());
    EXPECT_EQ(answer(C_SetPIN, openInState(CKS_RO_USER_FUNCTIONS), nullptr, 0, nullptr, 0),
              refusal(CKR_SESSION_READ_ONLY, "C_SetPIN", "C_SetPIN: session is read-only, state=1"));
}

TEST_F(SetPinTest, OldPinIsExaminedBeforeTheNewOne)
{
    expectNoDeviceCall();
    struct Row {
        bool hasOld;
        CK_ULONG oldLength;
        bool hasNew;
        CK_ULONG newLength;
        CK_RV code;
        const char* text;
    };
    const Row rows[] = {
        {false, 3, false, 64, CKR_ARGUMENTS_BAD, "pOldPin is NULL"},
        {false, 4, true, 64, CKR_ARGUMENTS_BAD, "pOldPin is NULL"},
        {true, 3, false, 64, CKR_PIN_LEN_RANGE, "old pin length out of range, ulOldLen=3"},
        {true, 64, true, 3, CKR_PIN_LEN_RANGE, "old pin length out of range, ulOldLen=64"},
        {true, 4, false, 64, CKR_ARGUMENTS_BAD, "pNewPin is NULL"},
        {true, 4, true, 64, CKR_PIN_LEN_RANGE, "new pin length out of range, ulNewLen=64"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(answer(C_SetPIN, witness_, row.hasOld ? characters(USER_PIN) : nullptr, row.oldLength,
                         row.hasNew ? characters(NEW_PIN) : nullptr, row.newLength),
                  refusal(row.code, "C_SetPIN", std::string("C_SetPIN: ") + row.text));
    }
}

TEST_F(SetPinTest, BothPinsGoToTheDevice)
{
    EXPECT_CALL(*device_, velkor_changeUserPassword(StrEq(FIRST_DEVICE), StrEq(USER_PIN), StrEq(NEW_PIN), Pointee(0),
                                                    false, false, instance()));
    EXPECT_EQ(setPin(openSession(READ_WRITE), USER_PIN, NEW_PIN), (Answer{CKR_OK, {"DEBUG C_SetPIN"}}));
    EXPECT_EQ(first().userPin, NEW_PIN);
}

TEST_F(SetPinTest, ShortestAndLongestPinReachTheDevice)
{
    std::vector<CK_UTF8CHAR> shortest(4, 'p');
    std::vector<CK_UTF8CHAR> longest(63, 'q');
    EXPECT_CALL(*device_, velkor_changeUserPassword(_, StrEq("pppp"), StrEq(std::string(63, 'q')), _, _, _, _))
        .WillOnce(Return(true));
    EXPECT_EQ(C_SetPIN(witness_, shortest.data(), 4, longest.data(), 63), CKR_OK);
    EXPECT_CALL(*device_, velkor_changeUserPassword(_, StrEq(std::string(63, 'q')), StrEq("pppp"), _, _, _, _))
        .WillOnce(Return(true));
    EXPECT_EQ(C_SetPIN(witness_, longest.data(), 63, shortest.data(), 4), CKR_OK);
}

TEST_F(SetPinTest, EmbeddedZeroEndsThePinsForTheDeviceOnly)
{
    const std::string newPin("56\0\0\0\0", 6);
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    EXPECT_CALL(*device_, velkor_changeUserPassword(_, StrEq("1"), StrEq("56"), _, _, _, _)).WillOnce(Return(true));
    EXPECT_EQ(setPin(handle, std::string("1\0xy", 4), newPin).code, CKR_OK);
    EXPECT_FALSE(isCached(std::string("56\0\0", 4)));
    EXPECT_TRUE(isCached(newPin));
}

TEST_F(SetPinTest, PublicSessionCachesNothing)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(setPin(handle, USER_PIN, NEW_PIN).code, CKR_OK);
    EXPECT_EQ(stateOf(handle), CKS_RW_PUBLIC_SESSION);
    EXPECT_FALSE(isUserLoggedIn());
}

TEST_F(SetPinTest, UserSessionReplacesTheCachedPin)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    ASSERT_EQ(setPin(handle, USER_PIN, NEW_PIN).code, CKR_OK);
    EXPECT_EQ(stateOf(handle), CKS_RW_USER_FUNCTIONS);
    EXPECT_FALSE(isCached(USER_PIN));
    EXPECT_TRUE(isCached(NEW_PIN));
}

TEST_F(SetPinTest, CachedPinOfAnotherTokenIsReplacedToo)
{
    const CK_SESSION_HANDLE other = openSession(READ_WRITE, SECOND_SLOT);
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, other), CKR_OK);
    ASSERT_EQ(setPin(handle, USER_PIN, NEW_PIN).code, CKR_OK);
    EXPECT_EQ(stateOf(handle), CKS_RW_PUBLIC_SESSION);
    expectNoDeviceCall();
    EXPECT_EQ(loginAs(CKU_USER, handle, NEW_PIN), CKR_OK);
}

TEST_F(SetPinTest, SecurityOfficersSessionChangesTheUserPin)
{
    const CK_SESSION_HANDLE handle = openInState(CKS_RW_SO_FUNCTIONS);
    EXPECT_CALL(*device_, velkor_changeUserPassword(_, StrEq(USER_PIN), StrEq(NEW_PIN), _, false, false, _));
    EXPECT_EQ(setPin(handle, USER_PIN, NEW_PIN).code, CKR_OK);
    EXPECT_EQ(stateOf(handle), CKS_RW_SO_FUNCTIONS);
    EXPECT_FALSE(isUserLoggedIn());
    EXPECT_EQ(first().soPin, SO_PIN);
}

TEST_F(SetPinTest, RefusedChangeLeavesStatesAndCachedPin)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    for (const int failureCount : {0, 3, -1}) {
        EXPECT_CALL(*device_, velkor_changeUserPassword(_, _, _, _, _, _, _))
            .WillOnce(DoAll(SetArgPointee<3>(failureCount), Return(false)));
        EXPECT_EQ(setPin(handle, "wrong pin", NEW_PIN),
                  refusal(CKR_FUNCTION_FAILED, "C_SetPIN",
                          "C_SetPIN: velkor_changeUserPassword failed, failureCount=" + std::to_string(failureCount)));
    }
    EXPECT_EQ(stateOf(handle), CKS_RW_USER_FUNCTIONS);
    EXPECT_FALSE(isCached(NEW_PIN));
    EXPECT_TRUE(isCached(USER_PIN));
}

TEST_F(SetPinTest, ExceptionOfTheLibraryLeavesStatesAndCachedPin)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    EXPECT_CALL(*device_, velkor_changeUserPassword(_, _, _, _, _, _, _))
        .WillOnce(testing::Throw(std::runtime_error("broken")));
    EXPECT_EQ(setPin(handle, USER_PIN, NEW_PIN),
              refusal(CKR_GENERAL_ERROR, "C_SetPIN", "C_SetPIN: unexpected exception: broken"));
    EXPECT_EQ(stateOf(handle), CKS_RW_USER_FUNCTIONS);
    EXPECT_FALSE(isCached(NEW_PIN));
    EXPECT_TRUE(isCached(USER_PIN));
}

} // namespace
