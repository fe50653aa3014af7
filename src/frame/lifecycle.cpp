#include "frame/lifecycle.h"

#include "frame/module_state.h"
#include "log/log.h"
#include "slots/device_monitor.h"
#include "util/text_fields.h"
#include "velkor/device_service.h"

namespace velkor
{

CK_RV chooseOutput(bool isLeftAlone)
{
    if (moduleState().libraryInstance == nullptr) // Else whoever has started the module has chosen.
        tellsOfLostLines = !isLeftAlone;
    return CKR_OK;
}

CK_RV createLibraryInstance()
{
    ModuleState& state = moduleState();
    if (state.libraryInstance != nullptr)
        return refuse(CKR_CRYPTOKI_ALREADY_INITIALIZED, "C_Initialize: already initialized");
    void* instance = nullptr;
    velkor_createInstance(&instance);
    state.libraryInstance = instance;
    if (state.monitorRunning) {
        logDebug("Monitor already running. Stopping old thread.");
        stopDeviceMonitor();
    } else if (state.monitorThread.joinable()) {
        stopDeviceMonitor(); // Of a start that failed a moment ago: it has not come to say that it runs.
    }
    state.stopMonitor = false;
    return CKR_OK;
}

void startDeviceMonitor()
{
    ModuleState& state = moduleState();
    state.monitorThread = std::thread(deviceMonitorLoop, &state.cachedUserPassword);
}

CK_RV reportStart()
{
    // A library that did not start is told in the log only; every later call answers that nothing is initialised.
    if (moduleState().libraryInstance == nullptr)
        logError("Init pkcs11 library failed failed");
    return CKR_OK;
}

CK_RV finalize()
{
    ModuleState& state = moduleState();
    stopDeviceMonitor();
    velkor_releaseInstance(state.libraryInstance);
    state.libraryInstance = nullptr;
    {
        const std::scoped_lock lock(state.lock);
        state.slotMap.clear();
        state.sessionMap.clear();
        state.cachedUserPassword = {};
    }
    logDebug("C_Finalize completed successfully.");
    return CKR_OK;
}

CK_RV getInfo(CK_INFO* pInfo)
{
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetInfo: pInfo is NULL");
    pInfo->cryptokiVersion = {CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR};
    copyTerminated(pInfo->manufacturerID, "Brenmoor");
    pInfo->flags = 0;
    copyTerminated(pInfo->libraryDescription, "Velkor PKCS11 Library");
    pInfo->libraryVersion = {VELKOR_VERSION_MAJOR, VELKOR_VERSION_MINOR};
    return CKR_OK;
}

} // namespace velkor
