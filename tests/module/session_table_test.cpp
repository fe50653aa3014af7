// C_OpenSession, C_CloseSession, C_CloseAllSessions and C_GetSessionInfo.
#include <cstring>

#include "session_fixture.h"

namespace
{

using testing::_;
using testing::StrEq;

constexpr CK_SESSION_HANDLE SECOND_SESSION = FIRST_SESSION + 1;
constexpr CK_SESSION_HANDLE THIRD_SESSION = FIRST_SESSION + 2;

using SessionTableTest = SessionTest;

// ---- Handles ----

TEST_F(SessionTableTest, HandlesCountUpOverAllSlots)
{
    EXPECT_EQ(openSession(READ_ONLY, SECOND_SLOT), FIRST_SESSION);
    EXPECT_EQ(openSession(READ_WRITE, FIRST_SLOT), SECOND_SESSION);
    EXPECT_EQ(openSession(READ_ONLY, SECOND_SLOT), THIRD_SESSION);
}

TEST_F(SessionTableTest, HandleOfTheLargestClosedSessionIsUsedAgain)
{
    openSession(READ_ONLY);
    openSession(READ_ONLY);
    ASSERT_EQ(C_CloseSession(SECOND_SESSION), CKR_OK);
    EXPECT_EQ(openSession(READ_ONLY), SECOND_SESSION);
}

TEST_F(SessionTableTest, GapBelowTheLargestHandleIsNotFilled)
{
    openSession(READ_ONLY);
    openSession(READ_ONLY);
    ASSERT_EQ(C_CloseSession(FIRST_SESSION), CKR_OK);
    EXPECT_EQ(openSession(READ_ONLY), THIRD_SESSION);
}

TEST_F(SessionTableTest, HandlesStartAgainOnceTheTableIsEmpty)
{
    openSession(READ_ONLY);
    openSession(READ_ONLY);
    ASSERT_EQ(C_CloseSession(FIRST_SESSION), CKR_OK);
    ASSERT_EQ(C_CloseSession(SECOND_SESSION), CKR_OK);
    EXPECT_EQ(openSession(READ_ONLY), FIRST_SESSION);
    openSession(READ_ONLY);
    ASSERT_EQ(C_CloseAllSessions(FIRST_SLOT), CKR_OK);
    EXPECT_EQ(openSession(READ_ONLY), FIRST_SESSION);
}

TEST_F(SessionTableTest, ThousandsOfSessionsCanBeOpen)
{
    setLogLevel("0");
    for (CK_SESSION_HANDLE expected = FIRST_SESSION; expected < FIRST_SESSION + 5000; ++expected)
        ASSERT_EQ(openSession(READ_WRITE), expected);
    EXPECT_EQ(stateOf(FIRST_SESSION), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(stateOf(FIRST_SESSION + 4999), CKS_RW_PUBLIC_SESSION);
}

// ---- C_OpenSession ----

TEST_F(SessionTableTest, OpeningTellsTheHandle)
{
    const auto notify = [](CK_SESSION_HANDLE, CK_NOTIFICATION, void*) -> CK_RV {
        ADD_FAILURE() << "the module calls nobody back";
        return CKR_OK;
    };
    CK_SESSION_HANDLE handle = 0;
    EXPECT_EQ(answer(C_OpenSession, FIRST_SLOT, READ_ONLY, reinterpret_cast<void*>(1), +notify, &handle),
              (Answer{CKR_OK, {"DEBUG C_OpenSession", "DEBUG Opensession  : " + logged(FIRST_SESSION)}}));
    EXPECT_EQ(handle, FIRST_SESSION);
}

struct Opening {
    CK_FLAGS flags;
    CK_STATE publicState;
    CK_STATE userState; ///< While a user is logged in.
};

class OpeningTest : public SessionTest, public testing::WithParamInterface<Opening>
{
};

INSTANTIATE_TEST_SUITE_P(Flags, OpeningTest,
                         testing::Values(Opening{CKF_SERIAL_SESSION, CKS_RO_PUBLIC_SESSION, CKS_RO_USER_FUNCTIONS},
                                         Opening{CKF_SERIAL_SESSION | CKF_RW_SESSION, CKS_RW_PUBLIC_SESSION,
                                                 CKS_RW_USER_FUNCTIONS},
                                         Opening{~CKF_RW_SESSION, CKS_RO_PUBLIC_SESSION, CKS_RO_USER_FUNCTIONS},
                                         Opening{~CK_FLAGS{0}, CKS_RW_PUBLIC_SESSION, CKS_RW_USER_FUNCTIONS}),
                         [](const auto& opening) { return "With" + std::to_string(opening.index); });

TEST_P(OpeningTest, StateFollowsTheFlagsAndTheLogin)
{
    EXPECT_EQ(stateOf(openSession(GetParam().flags)), GetParam().publicState);
    ASSERT_EQ(loginAs(CKU_USER, FIRST_SESSION), CKR_OK);
    EXPECT_EQ(stateOf(openSession(GetParam().flags)), GetParam().userState);
}

TEST_P(OpeningTest, LoginOnAnotherSlotCountsToo)
{
    ASSERT_EQ(loginAs(CKU_USER, openSession(READ_WRITE, SECOND_SLOT)), CKR_OK);
    EXPECT_EQ(stateOf(openSession(GetParam().flags)), GetParam().userState);
}

TEST_P(OpeningTest, SessionIsPublicWhileTheSecurityOfficerIsLoggedIn)
{
    ASSERT_EQ(loginAs(CKU_SO, openSession(READ_WRITE)), CKR_OK);
    EXPECT_EQ(stateOf(openSession(GetParam().flags)), GetParam().publicState);
}

TEST_F(SessionTableTest, OpeningChecksSlotThenFlagsThenPointer)
{
    struct Row {
        CK_SLOT_ID slotID;
        CK_FLAGS flags;
        bool hasPointer;
        CK_RV code;
        const char* text;
    };
    const Row rows[] = {
        {0, CKF_RW_SESSION, false, CKR_SLOT_ID_INVALID, "invalid slotID=0"},
        {FIRST_SLOT - 1, READ_ONLY, true, CKR_SLOT_ID_INVALID, "invalid slotID=1342177280"},
        {SECOND_SLOT + 1, 0, true, CKR_SLOT_ID_INVALID, "invalid slotID=1342177283"},
        {~CK_SLOT_ID{0}, READ_ONLY, false, CKR_SLOT_ID_INVALID, "invalid slotID=-1"},
        {FIRST_SLOT, CKF_RW_SESSION, false, CKR_SESSION_PARALLEL_NOT_SUPPORTED, "CKF_SERIAL_SESSION not set, flags=2"},
        {FIRST_SLOT, 0, true, CKR_SESSION_PARALLEL_NOT_SUPPORTED, "CKF_SERIAL_SESSION not set, flags=0"},
        {FIRST_SLOT, ~CKF_SERIAL_SESSION, true, CKR_SESSION_PARALLEL_NOT_SUPPORTED,
         "CKF_SERIAL_SESSION not set, flags=-5"},
        {FIRST_SLOT, READ_ONLY, false, CKR_ARGUMENTS_BAD, "phSession is NULL"},
    };
    for (const Row& row : rows) {
        CK_SESSION_HANDLE handle = 77;
        EXPECT_EQ(answer(C_OpenSession, row.slotID, row.flags, nullptr, nullptr, row.hasPointer ? &handle : nullptr),
                  refusal(row.code, "C_OpenSession", std::string("C_OpenSession: ") + row.text));
        EXPECT_EQ(handle, 77u);
    }
    EXPECT_EQ(openSession(READ_ONLY), FIRST_SESSION);
}

TEST_F(SessionTableTest, SlotOfADeviceThatWasNeverListedCannotBeOpened)
{
    device_->defaults.setConnected({});
    listSlots();
    CK_SESSION_HANDLE handle = 0;
    EXPECT_EQ(C_OpenSession(FIRST_SLOT, READ_ONLY, nullptr, nullptr, &handle), CKR_SLOT_ID_INVALID);
}

TEST_F(SessionTableTest, SessionKeepsTheTokenItWasOpenedWith)
{
    const CK_SESSION_HANDLE old = openSession(READ_WRITE);
    first().token.serialNumber = "VK900009";
    listSlots();
    const CK_SESSION_HANDLE fresh = openSession(READ_WRITE);
    EXPECT_CALL(*device_, velkor_validatePassword(StrEq(FIRST_DEVICE), _, _, _, _)).WillOnce(testing::Return(0));
    EXPECT_EQ(loginAs(CKU_SO, old), CKR_OK);
    EXPECT_CALL(*device_, velkor_validatePassword(StrEq("VK900009"), _, _, _, _)).WillOnce(testing::Return(0));
    EXPECT_EQ(loginAs(CKU_SO, fresh), CKR_OK);
}

TEST_F(SessionTableTest, SessionOutlivesItsSlot)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE, SECOND_SLOT);
    device_->defaults.setConnected({});
    listSlots();
    CK_SESSION_INFO info{};
    EXPECT_EQ(C_GetSessionInfo(handle, &info), CKR_OK);
    EXPECT_EQ(CK_SLOT_ID{info.slotID}, SECOND_SLOT);
    EXPECT_EQ(loginAs(CKU_USER, handle), CKR_OK);
}

// ---- C_CloseSession ----

TEST_F(SessionTableTest, ClosingRemovesThatSessionOnly)
{
    openSession(READ_ONLY);
    openSession(READ_ONLY);
    EXPECT_EQ(answer(C_CloseSession, FIRST_SESSION), (Answer{CKR_OK, {"DEBUG C_CloseSession"}}));
    CK_SESSION_INFO info;
    EXPECT_EQ(C_GetSessionInfo(FIRST_SESSION, &info), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(C_GetSessionInfo(SECOND_SESSION, &info), CKR_OK);
    EXPECT_EQ(C_CloseSession(FIRST_SESSION), CKR_SESSION_HANDLE_INVALID);
}

TEST_F(SessionTableTest, ReopenedHandleHasNoOperation)
{
    openSession(READ_WRITE);
    ASSERT_EQ(C_FindObjectsInit(FIRST_SESSION, nullptr, 0), CKR_OK);
    ASSERT_EQ(C_CloseSession(FIRST_SESSION), CKR_OK);
    ASSERT_EQ(openSession(READ_WRITE), FIRST_SESSION);
    CK_OBJECT_HANDLE object = 0;
    CK_ULONG count = 0;
    EXPECT_EQ(C_FindObjects(FIRST_SESSION, &object, 1, &count), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(C_FindObjectsFinal(FIRST_SESSION), CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(SessionTableTest, ClosingTheLastSessionLeavesTheUserLoggedIn)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    ASSERT_EQ(C_CloseSession(handle), CKR_OK);
    EXPECT_TRUE(isUserLoggedIn());
}

// ---- C_CloseAllSessions ----

TEST_F(SessionTableTest, CloseAllSessionsClosesSessionsOfEverySlot)
{
    openSession(READ_ONLY, FIRST_SLOT);
    openSession(READ_WRITE, SECOND_SLOT);
    EXPECT_EQ(answer(C_CloseAllSessions, FIRST_SLOT),
              (Answer{CKR_OK, {"DEBUG C_CloseAllSessions", "DEBUG Close all session"}}));
    CK_SESSION_INFO info;
    EXPECT_EQ(C_GetSessionInfo(FIRST_SESSION, &info), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(C_GetSessionInfo(SECOND_SESSION, &info), CKR_SESSION_HANDLE_INVALID);
}

TEST_F(SessionTableTest, CloseAllSessionsLeavesTheUserLoggedIn)
{
    ASSERT_EQ(loginAs(CKU_USER, openSession(READ_WRITE)), CKR_OK);
    ASSERT_EQ(C_CloseAllSessions(SECOND_SLOT), CKR_OK);
    EXPECT_TRUE(isUserLoggedIn());
}

TEST_F(SessionTableTest, CloseAllSessionsNeedsNoSession)
{
    EXPECT_EQ(C_CloseAllSessions(FIRST_SLOT), CKR_OK);
}

TEST_F(SessionTableTest, CloseAllSessionsOfAnInvalidSlotClosesNothing)
{
    openSession(READ_ONLY, FIRST_SLOT);
    openSession(READ_WRITE, SECOND_SLOT);
    for (const CK_SLOT_ID slotID : {CK_SLOT_ID{0}, FIRST_SLOT - 1, SECOND_SLOT + 1, ~CK_SLOT_ID{0}}) {
        EXPECT_EQ(answer(C_CloseAllSessions, slotID), refusal(CKR_SLOT_ID_INVALID, "C_CloseAllSessions",
                                                              "C_CloseAllSessions: invalid slotID=" + logged(slotID)));
    }
    EXPECT_EQ(stateOf(FIRST_SESSION), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(stateOf(SECOND_SESSION), CKS_RW_PUBLIC_SESSION);
}

// ---- C_GetSessionInfo ----

class SessionInfoTest : public SessionTest
{
protected:
    using Fields = std::array<CK_ULONG, 4>;

    /// Slot ID, state, flags and device error.
    Fields describe(CK_SESSION_HANDLE hSession) const
    {
        CK_SESSION_INFO info;
        std::memset(&info, 0xAA, sizeof info);
        EXPECT_EQ(answer(C_GetSessionInfo, hSession, &info), (Answer{CKR_OK, {"DEBUG C_GetSessionInfo"}}));
        return {info.slotID, info.state, info.flags, info.ulDeviceError};
    }
};

TEST_F(SessionInfoTest, DescribesPublicSessions)
{
    EXPECT_EQ(describe(openSession(READ_ONLY)), (Fields{FIRST_SLOT, CKS_RO_PUBLIC_SESSION, 4, 0}));
    EXPECT_EQ(describe(openSession(READ_WRITE, SECOND_SLOT)), (Fields{SECOND_SLOT, CKS_RW_PUBLIC_SESSION, 6, 0}));
}

TEST_F(SessionInfoTest, DescribesUserSessions)
{
    const CK_SESSION_HANDLE readOnly = openSession(READ_ONLY);
    const CK_SESSION_HANDLE readWrite = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, readOnly), CKR_OK);
    EXPECT_EQ(describe(readOnly), (Fields{FIRST_SLOT, CKS_RO_USER_FUNCTIONS, 4, 0}));
    EXPECT_EQ(describe(readWrite), (Fields{FIRST_SLOT, CKS_RW_USER_FUNCTIONS, 6, 0}));
}

TEST_F(SessionInfoTest, DescribesSessionsOfTheSecurityOfficer)
{
    const CK_SESSION_HANDLE officer = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_SO, officer), CKR_OK);
    EXPECT_EQ(describe(officer), (Fields{FIRST_SLOT, CKS_RW_SO_FUNCTIONS, 6, 0}));
}

TEST_F(SessionInfoTest, NullPointerIsRefused)
{
    EXPECT_EQ(answer(C_GetSessionInfo, openSession(READ_ONLY), nullptr),
              refusal(CKR_ARGUMENTS_BAD, "C_GetSessionInfo", "C_GetSessionInfo: pInfo is NULL"));
}

class UnknownHandleTest : public SessionTest, public testing::WithParamInterface<CK_SESSION_HANDLE>
{
protected:
    template <typename... Parameters, typename... Arguments>
    void expectRefused(const std::string& name, CK_RV (*function)(CK_SESSION_HANDLE, Parameters...),
                       Arguments... arguments) const
    {
        EXPECT_EQ(answer(function, GetParam(), arguments...),
                  refusal(CKR_SESSION_HANDLE_INVALID, name, name + ": invalid hSession=" + logged(GetParam())));
    }
};

INSTANTIATE_TEST_SUITE_P(Handles, UnknownHandleTest,
                         testing::Values(0, FIRST_SESSION - 1, FIRST_SESSION + 1, FIRST_SLOT, 0x80000000,
                                         ~CK_SESSION_HANDLE{0}));

TEST_P(UnknownHandleTest, IsRefusedBeforeAnythingElse)
{
    openSession(READ_WRITE);
    CK_SESSION_INFO info;
    CK_SESSION_INFO before;
    std::memset(&info, 0xAA, sizeof info);
    before = info;
    expectRefused("C_CloseSession", C_CloseSession);
    expectRefused("C_GetSessionInfo", C_GetSessionInfo, nullptr);
    expectRefused("C_GetSessionInfo", C_GetSessionInfo, &info);
    expectRefused("C_Login", C_Login, CKU_CONTEXT_SPECIFIC, nullptr, 0);
    expectRefused("C_Logout", C_Logout);
    expectRefused("C_SetPIN", C_SetPIN, nullptr, 0, nullptr, 0);
    EXPECT_EQ(std::memcmp(&info, &before, sizeof info), 0);
    EXPECT_EQ(stateOf(FIRST_SESSION), CKS_RW_PUBLIC_SESSION);
}

// ---- Finalising ----

TEST_F(SessionTableTest, FinalizeDestroysSessionsAndLogin)
{
    ASSERT_EQ(loginAs(CKU_USER, openSession(READ_WRITE)), CKR_OK);
    openSession(READ_ONLY, SECOND_SLOT);
    ASSERT_EQ(finalize(), CKR_OK);
    CK_SESSION_INFO info;
    EXPECT_EQ(C_GetSessionInfo(FIRST_SESSION, &info), CKR_CRYPTOKI_NOT_INITIALIZED);
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(C_GetSessionInfo(FIRST_SESSION, &info), CKR_SESSION_HANDLE_INVALID);
    listSlots();
    EXPECT_EQ(openSession(READ_WRITE), FIRST_SESSION);
    EXPECT_EQ(stateOf(FIRST_SESSION), CKS_RW_PUBLIC_SESSION);
}

} // namespace
