#include "slots/device_monitor.h"

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "frame/module_state.h"
#include "log/log.h"
#include "platform/platform.h"
#include "velkor/device_service.h"

namespace velkor
{
namespace
{

constexpr std::chrono::milliseconds POLLING_PERIOD{1000};

/// A query that fails counts as an empty list.
std::vector<std::string> queryDevices()
{
    try {
        return velkor_getConnectedDeviceList(false, moduleState().libraryInstance);
    } catch (...) {
        return {};
    }
}

void raiseSlotEvent()
{
    ModuleState& state = moduleState();
    {
        const std::scoped_lock lock(state.eventLock);
        state.eventSlotId = SLOT_ID_BASE; // Whichever device came or went.
        state.slotEventPending = true;
    }
    state.slotEventCv.notify_all();
}

/// What the monitor does in each cycle, and what it remembers of the last one.
class DeviceWatch
{
public:
    explicit DeviceWatch(SecretText& password) : password_(password) {}

    /// One look at the devices. A lack of memory must not end the thread, and with it the host: the next cycle looks
    /// again.
    void runCycle()
    {
        try {
            const std::size_t count = scanDevices();
            if (count == deviceCount_)
                return;
            logDebug("Slot event: device count changed from ", deviceCount_, " to ", count);
            raiseSlotEvent();
            deviceCount_ = count;
        } catch (const std::bad_alloc&) { // NOLINT(bugprone-empty-catch)
        }
    }

private:
    /// Scans the sessions once; gives the number of connected devices.
    std::size_t scanDevices()
    {
        const std::scoped_lock scanning(moduleState().deviceLock);
        const std::vector<std::string> devices = queryDevices();
        const int loggedOut = logOutSessionsWithoutDevice(devices);
        // Written when the sessions are free again: a slow disk must not keep the application's calls waiting.
        for (int session = 0; session < loggedOut; ++session)
            logDebug("Device disconnected, clearing userPassword");
        return devices.size();
    }

    /// Puts user sessions of devices that are not connected back to their public state. Gives their number.
    int logOutSessionsWithoutDevice(const std::vector<std::string>& devices)
    {
        ModuleState& state = moduleState();
        const std::scoped_lock lock(state.lock);
        int loggedOut = 0;
        for (const auto& [handle, session] : state.sessionMap) {
            if (!isUserState(session->state) ||
                std::find(devices.begin(), devices.end(), session->token.serialNumber) != devices.end())
                continue;
            password_ = {};
            session->state = session->state == CKS_RW_USER_FUNCTIONS ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
            ++loggedOut;
        }
        return loggedOut;
    }

    SecretText& password_; ///< The cached user PIN.
    std::size_t deviceCount_ = 0;
};

CK_RV takeSlotEvent(CK_SLOT_ID* pSlot)
{
    ModuleState& state = moduleState();
    if (!state.slotEventPending.exchange(false))
        return refuse(CKR_NO_EVENT, "C_WaitForSlotEvent: no event pending (non-blocking)");
    *pSlot = state.eventSlotId;
    logDebug("C_WaitForSlotEvent: non-blocking, returning slot ", *pSlot);
    return CKR_OK;
}

CK_RV awaitSlotEvent(CK_SLOT_ID* pSlot)
{
    ModuleState& state = moduleState();
    std::unique_lock lock(state.eventLock);
    state.slotEventCv.wait(lock, [&] { return state.slotEventPending || state.stopMonitor; });
    if (state.stopMonitor) // Wins over a pending event.
        return refuse(CKR_CRYPTOKI_NOT_INITIALIZED,
                      "C_WaitForSlotEvent: monitor stopped, returning CKR_CRYPTOKI_NOT_INITIALIZED");
    state.slotEventPending = false;
    *pSlot = state.eventSlotId;
    logDebug("C_WaitForSlotEvent: blocking, returning slot ", *pSlot);
    return CKR_OK;
}

} // namespace

void deviceMonitorLoop(SecretText* password)
{
    ModuleState& state = moduleState();
    logDebug("Session monitor thread started.");
    state.monitorRunning = true;
    DeviceWatch watch(*password);
    while (!state.stopMonitor) {
        watch.runCycle();
        platform::sleep(POLLING_PERIOD);
    }
    logDebug("Session monitor thread stopped.");
    state.monitorRunning = false;
}

void stopDeviceMonitor()
{
    ModuleState& state = moduleState();
    {
        // Under the lock, so that no waiter misses it between its test and its wait.
        const std::scoped_lock lock(state.eventLock);
        state.stopMonitor = true;
    }
    state.slotEventCv.notify_all();
    if (state.monitorThread.joinable() && state.monitorThread.get_id() != std::this_thread::get_id()) {
        state.monitorThread.join();
        logDebug("Monitor thread joined (stopDeviceMonitor).");
    }
    state.monitorRunning = false;
}

CK_RV waitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID* pSlot)
{
    if (pSlot == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_WaitForSlotEvent: pSlot is NULL");
    return (flags & CKF_DONT_BLOCK) != 0 ? takeSlotEvent(pSlot) : awaitSlotEvent(pSlot);
}

} // namespace velkor
