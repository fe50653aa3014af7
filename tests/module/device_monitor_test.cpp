// The device monitor and C_WaitForSlotEvent.
#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>

#include "session_fixture.h"

namespace
{

using testing::Contains;
using testing::Not;

constexpr std::chrono::seconds LONG_ENOUGH{60};
constexpr CK_FLAGS BLOCK = 0;
constexpr CK_SLOT_ID UNTOUCHED_SLOT = 77;

const std::string DISCONNECTED = "DEBUG Device disconnected, clearing userPassword";
const Answer NO_EVENT =
    refusal(CKR_NO_EVENT, "C_WaitForSlotEvent", "C_WaitForSlotEvent: no event pending (non-blocking)");
const Answer COLLECTED = {
    CKR_OK, {"DEBUG C_WaitForSlotEvent", "DEBUG C_WaitForSlotEvent: non-blocking, returning slot 1342177281"}};
const Answer WOKEN = {CKR_OK,
                      {"DEBUG C_WaitForSlotEvent", "DEBUG C_WaitForSlotEvent: blocking, returning slot 1342177281"}};
const Answer STOPPED = refusal(CKR_CRYPTOKI_NOT_INITIALIZED, "C_WaitForSlotEvent",
                               "C_WaitForSlotEvent: monitor stopped, returning CKR_CRYPTOKI_NOT_INITIALIZED");

std::string countChanged(int before, int after)
{
    return "DEBUG Slot event: device count changed from " + std::to_string(before) + " to " + std::to_string(after);
}

/// Counts the queries of the device list and can make them fail; the monitor sleeps until it is woken. The module is
/// not initialised yet.
class MonitorTest : public SessionTest
{
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        monitorSleep_.hold();
        EXPECT_CALL(*device_, velkor_getConnectedDeviceList(false, instance()))
            .WillRepeatedly([this](bool refresh, void* libraryInstance) {
                ++queries_;
                if (queriesFail_)
                    throw std::runtime_error("no answer");
                return device_->defaults.velkor_getConnectedDeviceList(refresh, libraryInstance);
            });
    }

    /// Ends the monitor before the members that its queries use.
    void TearDown() override
    {
        finalize();
        SessionTest::TearDown();
    }

    void setConnected(const std::vector<std::string>& names) { device_->defaults.setConnected(names); }

    /// The monitor sees the devices once.
    void showToMonitor(const std::vector<std::string>& names)
    {
        setConnected(names);
        ASSERT_TRUE(monitorSleep_.runCycle());
    }

    void initializeWith(const std::vector<std::string>& names)
    {
        setConnected(names);
        ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    }

    /// Waits for the monitor to raise an event and takes it.
    static void takeEvent()
    {
        CK_SLOT_ID slot = UNTOUCHED_SLOT;
        ASSERT_EQ(C_WaitForSlotEvent(BLOCK, &slot, nullptr), CKR_OK);
        ASSERT_EQ(slot, FIRST_SLOT);
    }

    Answer poll()
    {
        slot_ = UNTOUCHED_SLOT;
        return answer(C_WaitForSlotEvent, CKF_DONT_BLOCK, &slot_, nullptr);
    }

    std::atomic<int> queries_ = 0;
    std::atomic<bool> queriesFail_ = false;
    CK_SLOT_ID slot_ = UNTOUCHED_SLOT;
};

// ---- Slot events ----

TEST_F(MonitorTest, FirstCycleWithADeviceRaisesAnEvent)
{
    initializeWith({FIRST_DEVICE});
    EXPECT_EQ(answer(C_WaitForSlotEvent, BLOCK, &slot_, reinterpret_cast<void*>(1)), WOKEN);
    EXPECT_EQ(slot_, FIRST_SLOT);
    EXPECT_THAT(wholeLog(), Contains(countChanged(0, 1)));
    EXPECT_EQ(poll(), NO_EVENT);
}

TEST_F(MonitorTest, FirstCycleWithoutDevicesRaisesNone)
{
    initializeWith({});
    ASSERT_TRUE(monitorSleep_.waitForIt());
    EXPECT_EQ(queries_, 1);
    ASSERT_TRUE(monitorSleep_.runCycle()); // A second's sleep is between two looks.
    EXPECT_EQ(queries_, 2);
    EXPECT_EQ(poll(), NO_EVENT);
    EXPECT_EQ(slot_, UNTOUCHED_SLOT);
    EXPECT_THAT(wholeLog(), Not(Contains(countChanged(0, 0))));
}

TEST_F(MonitorTest, PendingEventIsCollectedOnceWithoutBlocking)
{
    initializeWith({FIRST_DEVICE, SECOND_DEVICE});
    ASSERT_TRUE(monitorSleep_.waitForIt());
    EXPECT_EQ(poll(), COLLECTED);
    EXPECT_EQ(slot_, FIRST_SLOT);
    EXPECT_EQ(poll(), NO_EVENT);
    EXPECT_EQ(slot_, UNTOUCHED_SLOT);
}

TEST_F(MonitorTest, EveryChangeOfTheCountRaisesOneEventOfTheFirstSlot)
{
    initializeWith({FIRST_DEVICE});
    takeEvent();
    showToMonitor({FIRST_DEVICE, SECOND_DEVICE});
    takeEvent();
    EXPECT_EQ(poll(), NO_EVENT);
    showToMonitor({});
    takeEvent();
    EXPECT_EQ(poll(), NO_EVENT);
    EXPECT_EQ(timesLogged(countChanged(1, 2)), 1);
    EXPECT_EQ(timesLogged(countChanged(2, 0)), 1);
}

TEST_F(MonitorTest, SeveralChangesCollapseIntoOneEvent)
{
    initializeWith({FIRST_DEVICE});
    ASSERT_TRUE(waitForLine(countChanged(0, 1)));
    showToMonitor({FIRST_DEVICE, SECOND_DEVICE});
    ASSERT_THAT(wholeLog(), Contains(countChanged(1, 2)));
    EXPECT_EQ(poll(), COLLECTED);
    EXPECT_EQ(poll(), NO_EVENT);
}

TEST_F(MonitorTest, ExchangedDeviceRaisesNoEvent)
{
    initializeWith({FIRST_DEVICE});
    takeEvent();
    showToMonitor({SECOND_DEVICE});
    EXPECT_EQ(poll(), NO_EVENT);
}

TEST_F(MonitorTest, OneEventServesOneOfSeveralWaiters)
{
    initializeWith({});
    std::vector<std::future<CK_RV>> waiters(2);
    for (std::future<CK_RV>& waiter : waiters) {
        waiter = std::async(std::launch::async, [] {
            CK_SLOT_ID slot;
            return C_WaitForSlotEvent(BLOCK, &slot, nullptr);
        });
    }
    showToMonitor({FIRST_DEVICE});
    ASSERT_TRUE(waitForLine("DEBUG C_WaitForSlotEvent: blocking, returning slot 1342177281"));
    ASSERT_EQ(finalize(), CKR_OK);
    EXPECT_THAT((std::vector{waiters[0].get(), waiters[1].get()}),
                testing::UnorderedElementsAre(CKR_OK, CKR_CRYPTOKI_NOT_INITIALIZED));
}

TEST_F(MonitorTest, EventThatNobodyTookOutlivesFinalize)
{
    initializeWith({FIRST_DEVICE});
    ASSERT_TRUE(waitForLine(countChanged(0, 1)));
    ASSERT_EQ(finalize(), CKR_OK);
    EXPECT_EQ(poll(),
              refusal(CKR_CRYPTOKI_NOT_INITIALIZED, "C_WaitForSlotEvent", "C_WaitForSlotEvent: not initialized"));
    initializeWith({});
    EXPECT_EQ(poll(), COLLECTED);
}

// ---- Arguments of C_WaitForSlotEvent ----

TEST_F(MonitorTest, NullSlotIsRefusedAndTheEventStays)
{
    initializeWith({FIRST_DEVICE});
    const Answer refused = refusal(CKR_ARGUMENTS_BAD, "C_WaitForSlotEvent", "C_WaitForSlotEvent: pSlot is NULL");
    EXPECT_EQ(answer(C_WaitForSlotEvent, BLOCK, nullptr, nullptr), refused);
    EXPECT_EQ(answer(C_WaitForSlotEvent, CKF_DONT_BLOCK, nullptr, nullptr), refused);
    takeEvent();
    EXPECT_EQ(answer(C_WaitForSlotEvent, CKF_DONT_BLOCK, nullptr, nullptr), refused);
}

TEST_F(MonitorTest, OnlyTheFlagForNotBlockingCounts)
{
    initializeWith({FIRST_DEVICE});
    EXPECT_EQ(answer(C_WaitForSlotEvent, ~CKF_DONT_BLOCK, &slot_, nullptr), WOKEN);
    EXPECT_EQ(answer(C_WaitForSlotEvent, ~CK_FLAGS{0}, &slot_, nullptr), NO_EVENT);
}

// ---- Finalising ----

TEST_F(MonitorTest, FinalizeWaitsForTheMonitorsSleep)
{
    initializeWith({FIRST_DEVICE});
    ASSERT_TRUE(monitorSleep_.waitForIt());
    std::future<CK_RV> finalized = std::async(std::launch::async, C_Finalize, nullptr);
    EXPECT_TRUE(waitForLine("DEBUG C_Finalize"));
    EXPECT_EQ(finalized.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    monitorSleep_.skip();
    EXPECT_EQ(finalized.get(), CKR_OK);
    const std::vector<std::string> log = wholeLog();
    EXPECT_EQ((std::vector(log.end() - 4, log.end())),
              (std::vector<std::string>{"DEBUG C_Finalize", "DEBUG Session monitor thread stopped.",
                                        "DEBUG Monitor thread joined (stopDeviceMonitor).",
                                        "DEBUG C_Finalize completed successfully."}));
}

TEST_F(MonitorTest, FinalizeWakesABlockedWaiter)
{
    initializeWith({});
    std::future<CK_RV> waiter =
        std::async(std::launch::async, [&] { return C_WaitForSlotEvent(BLOCK, &slot_, nullptr); });
    ASSERT_TRUE(waitForLine("DEBUG C_WaitForSlotEvent"));
    ASSERT_TRUE(monitorSleep_.waitForIt());
    std::future<CK_RV> finalized = std::async(std::launch::async, C_Finalize, nullptr);
    EXPECT_EQ(waiter.wait_for(LONG_ENOUGH), std::future_status::ready); // The monitor sleeps on.
    monitorSleep_.skip();
    EXPECT_EQ(waiter.get(), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(finalized.get(), CKR_OK);
    EXPECT_EQ(slot_, UNTOUCHED_SLOT);
    EXPECT_THAT(wholeLog(), Contains(STOPPED.lines[1]));
}

TEST_F(MonitorTest, StopWinsOverAPendingEventAndLeavesIt)
{
    // Between its end of the monitor and its own, C_Finalize releases the library instance.
    Answer blocking{};
    Answer nonBlocking{};
    EXPECT_CALL(*device_, velkor_releaseInstance(instance())).WillOnce([&] {
        blocking = answer(C_WaitForSlotEvent, BLOCK, &slot_, nullptr);
        EXPECT_EQ(slot_, UNTOUCHED_SLOT);
        nonBlocking = poll();
    });
    initializeWith({FIRST_DEVICE});
    ASSERT_TRUE(waitForLine(countChanged(0, 1)));
    ASSERT_EQ(finalize(), CKR_OK);
    EXPECT_EQ(blocking, STOPPED);
    EXPECT_EQ(nonBlocking, COLLECTED);
}

// ---- Sessions of devices that go ----

class VanishingDeviceTest : public MonitorTest
{
protected:
    /// Both devices are connected and slots, and the event of that is taken.
    void SetUp() override
    {
        MonitorTest::SetUp();
        initializeWith({FIRST_DEVICE, SECOND_DEVICE});
        takeEvent();
        listSlots();
    }
};

TEST_F(VanishingDeviceTest, UserSessionsBecomePublicAndThePinIsForgotten)
{
    const CK_SESSION_HANDLE readOnly = openSession(READ_ONLY);
    const CK_SESSION_HANDLE readWrite = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, readWrite), CKR_OK);
    showToMonitor({SECOND_DEVICE});
    takeEvent();
    EXPECT_EQ(stateOf(readOnly), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(stateOf(readWrite), CKS_RW_PUBLIC_SESSION);
    EXPECT_FALSE(isUserLoggedIn());
    EXPECT_EQ(timesLogged(DISCONNECTED), 2);
    ASSERT_EQ(loginAs(CKU_USER, readOnly), CKR_OK); // The slot is still there.
}

TEST_F(VanishingDeviceTest, SessionsOfConnectedDevicesKeepTheirStateWithoutThePin)
{
    const CK_SESSION_HANDLE gone = openSession(READ_WRITE, FIRST_SLOT);
    ASSERT_EQ(loginAs(CKU_USER, gone), CKR_OK);
    const CK_SESSION_HANDLE staying = openSession(READ_ONLY, SECOND_SLOT);
    showToMonitor({SECOND_DEVICE});
    takeEvent();
    EXPECT_EQ(stateOf(gone), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(stateOf(staying), CKS_RO_USER_FUNCTIONS);
    EXPECT_FALSE(isUserLoggedIn());
    EXPECT_EQ(timesLogged(DISCONNECTED), 1);
}

TEST_F(VanishingDeviceTest, PublicAndSecurityOfficerSessionsAreLeftAlone)
{
    const std::vector publicSessions = {openSession(READ_ONLY), openSession(READ_WRITE)};
    const CK_SESSION_HANDLE officer = openSession(READ_WRITE, SECOND_SLOT);
    ASSERT_EQ(loginAs(CKU_SO, officer), CKR_OK);
    showToMonitor({});
    takeEvent();
    EXPECT_EQ(stateOf(publicSessions[0]), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(stateOf(publicSessions[1]), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(stateOf(officer), CKS_RW_SO_FUNCTIONS);
    EXPECT_EQ(timesLogged(DISCONNECTED), 0);
}

TEST_F(VanishingDeviceTest, PublicSessionOfAGoneDeviceLeavesThePinOfAnother)
{
    const CK_SESSION_HANDLE gone = openSession(READ_WRITE, FIRST_SLOT);
    const CK_SESSION_HANDLE staying = openSession(READ_WRITE, SECOND_SLOT);
    ASSERT_EQ(loginAs(CKU_USER, staying), CKR_OK);
    showToMonitor({SECOND_DEVICE});
    takeEvent();
    EXPECT_EQ(stateOf(gone), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(stateOf(staying), CKS_RW_USER_FUNCTIONS);
    EXPECT_TRUE(isUserLoggedIn());
}

TEST_F(VanishingDeviceTest, ExchangedDeviceLogsOutWithoutAnEvent)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    showToMonitor({SECOND_DEVICE, "VK100003"});
    EXPECT_EQ(stateOf(handle), CKS_RW_PUBLIC_SESSION);
    EXPECT_FALSE(isUserLoggedIn());
    EXPECT_EQ(poll(), NO_EVENT);
}

TEST_F(VanishingDeviceTest, OnlyTheWholeNameInItsOwnCaseIsTheDevice)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    showToMonitor({"vk100001", "VK10000", "VK1000011"});
    takeEvent();
    EXPECT_EQ(stateOf(handle), CKS_RW_PUBLIC_SESSION);
}

TEST_F(VanishingDeviceTest, ConnectedDeviceKeepsItsLogin)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    showToMonitor({FIRST_DEVICE});
    takeEvent();
    EXPECT_EQ(stateOf(handle), CKS_RW_USER_FUNCTIONS);
    EXPECT_TRUE(isUserLoggedIn());
}

TEST_F(VanishingDeviceTest, SerialNumberIsComparedNotTheNameInTheSlotTable)
{
    first().token.serialNumber = "another name";
    listSlots();
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    EXPECT_CALL(*device_, velkor_validatePassword).WillOnce(testing::Return(0));
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    ASSERT_TRUE(monitorSleep_.runCycle());
    EXPECT_EQ(stateOf(handle), CKS_RW_PUBLIC_SESSION);
}

TEST_F(VanishingDeviceTest, FailedQueryCountsAsNoDevices)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    ASSERT_EQ(loginAs(CKU_USER, handle), CKR_OK);
    queriesFail_ = true;
    ASSERT_TRUE(monitorSleep_.runCycle());
    takeEvent();
    queriesFail_ = false;
    EXPECT_EQ(stateOf(handle), CKS_RW_PUBLIC_SESSION);
    EXPECT_FALSE(isUserLoggedIn());
    EXPECT_THAT(wholeLog(), Contains(countChanged(2, 0)));
    ASSERT_TRUE(monitorSleep_.runCycle());
    takeEvent();
    EXPECT_THAT(wholeLog(), Contains(countChanged(0, 2)));
}

} // namespace
