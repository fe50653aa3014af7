#include "slots/device_monitor.h"

#include "frame/module_state.h"
#include "log/log.h"
#include "platform/platform.h"

namespace
{

constexpr std::chrono::milliseconds POLLING_PERIOD{1000};

} // namespace

void deviceMonitorLoop(SecretText* /*password*/)
{
    ModuleState& state = moduleState();
    logDebug("Session monitor thread started.");
    state.monitorRunning = true;
    while (!state.stopMonitor)
        platform::sleep(POLLING_PERIOD);
    logDebug("Session monitor thread stopped.");
    state.monitorRunning = false;
}

void stopDeviceMonitor()
{
    ModuleState& state = moduleState();
    state.stopMonitor = true;
    state.slotEventCv.notify_all();
    if (state.monitorThread.joinable() && state.monitorThread.get_id() != std::this_thread::get_id()) {
        state.monitorThread.join();
        logDebug("Monitor thread joined (stopDeviceMonitor).");
    }
    state.monitorRunning = false;
}
