#include "strict/lifecycle.h"

#include <chrono>
#include <cstring>
#include <exception>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "log/log.h"
#include "platform/platform.h"
#include "strict/device_access.h"
#include "strict/sessions.h"
#include "strict/slots.h"
#include "strict/state.h"
#include "strict/system.h"
#include "strict/texts.h"

namespace velkor::strict
{
namespace
{

using std::chrono::milliseconds;

constexpr milliseconds PATIENCE_WITH_END{10000};
constexpr milliseconds PATIENCE_WITH_LOGOUT{20};
constexpr milliseconds LOOK_AGAIN{1};
/// How long the module needs, after a start without its device library, before it bears another one.
constexpr milliseconds REST_AFTER_FAILED_START{1100};

std::chrono::steady_clock::time_point restUntil; // Under lifeLock.

/// CKF_LIBRARY_CANT_CREATE_OS_THREADS is passed over: p11-kit always sets it, and the module cannot be without its
/// thread.
CK_RV checkArguments(const CK_C_INITIALIZE_ARGS* arguments)
{
    if (arguments == nullptr)
        return CKR_OK;
    if (arguments->pReserved != nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Initialize: pReserved is not NULL");
    const int callbacks = (arguments->CreateMutex != nullptr ? 1 : 0) + (arguments->DestroyMutex != nullptr ? 1 : 0) +
                          (arguments->LockMutex != nullptr ? 1 : 0) + (arguments->UnlockMutex != nullptr ? 1 : 0);
    if (callbacks != 0 && callbacks != 4)
        return refuse(CKR_ARGUMENTS_BAD, "C_Initialize: some of the mutex callbacks are missing");
    if (callbacks != 0 && (arguments->flags & CKF_OS_LOCKING_OK) == 0)
        return refuse(CKR_CANT_LOCK, "C_Initialize: locking by callbacks alone is not supported");
    return CKR_OK;
}

/// The module's functions are looked up one by one: to ask for its table is a call, of which the log would tell.
bool bindFunctions(void* library, CK_FUNCTION_LIST& functions)
{
    bool complete = true;
#define EXPORT(name)                                                                                                   \
    functions.name = reinterpret_cast<CK_##name>(system::symbolOf(library, #name));                                    \
    complete = complete && functions.name != nullptr;
#include "frame/exports.inc"
    return complete;
}

CK_RV loadModule(State& state)
{
    if (state.isModuleLoaded)
        return CKR_OK;
    std::string error;
    void* library = system::loadModule(error);
    if (library == nullptr)
        return refuse(CKR_GENERAL_ERROR, "C_Initialize: the module is not loaded: ", error);
    if (!bindFunctions(library, state.module))
        return refuse(CKR_GENERAL_ERROR, "C_Initialize: the module lacks a function");
    state.isModuleLoaded = true;
    system::atExit([] { destroyPairsAtExit(); });
    return CKR_OK;
}

/// A thread that cannot be created leaves the module's C_Initialize as an exception; the module then has started.
CK_RV startModule(State& state)
{
    const CK_FUNCTION_LIST& functions = state.module;
    state.isModuleUsed = true; // Before it is: a child that is forked in the midst of it has to end it first.
    CK_RV result = CKR_OK;
    try {
        // By this argument the module knows who starts it, and leaves standard output to the host.
        result = functions.C_Initialize(reinterpret_cast<void*>(functions.C_Initialize));
    } catch (...) {
        functions.C_Finalize(nullptr);
        state.isModuleUsed = false;
        return refuse(CKR_FUNCTION_FAILED, "C_Initialize: the module's thread cannot be created");
    }
    state.isModuleUsed = result == CKR_OK;
    if (result == CKR_CRYPTOKI_ALREADY_INITIALIZED)
        return refuse(CKR_FUNCTION_FAILED, "C_Initialize: the host uses the module itself");
    if (result != CKR_OK)
        return refuse(CKR_FUNCTION_FAILED, "C_Initialize: the module answers ", result);
    CK_INFO info{};
    if (functions.C_GetInfo(&info) == CKR_OK)
        return CKR_OK;
    state.isModuleUsed = false;
    restUntil = std::chrono::steady_clock::now() + REST_AFTER_FAILED_START;
    return refuse(CKR_FUNCTION_FAILED, "C_Initialize: the device library did not start");
}

void endModuleOfParent(State& state)
{
    if (!state.isModuleForked)
        return;
    state.module.C_Finalize(nullptr);
    state.isModuleForked = false;
}

CK_RV start(State& state)
{
    CK_RV result = loadModule(state);
    if (result != CKR_OK)
        return result;
    endModuleOfParent(state);
    std::this_thread::sleep_until(restUntil);
    result = startModule(state);
    if (result != CKR_OK)
        return result;
    beginSlots();
    ++state.life;
    state.phase = Phase::Running;
    return CKR_OK;
}

/// Runs behind C_Finalize: lets calls that are inside come to their end, and ends the module.
void endModule(State& state, const std::vector<DoomedPair>& doomed) noexcept
{
    while (state.callsInside != 0)
        platform::sleep(LOOK_AGAIN);
    try {
        destroyPairs(doomed);
    } catch (...) {
        logError("C_Finalize: key pairs of sessions were not deleted");
    }
    state.module.C_Finalize(nullptr);
    state.isModuleUsed = false;
    forgetModuleSessions();
    const std::scoped_lock life(state.lifeLock);
    state.phase = Phase::Ended;
    state.lifeChanged.notify_all();
}

/// The module keeps its PIN until its end, which waits for a thread: it is taken away before that, unless key pairs
/// are still to be deleted with it, or a call is using it.
void takePinAway(State& state)
{
    if (auto stay = state.gate.enterAlone(PATIENCE_WITH_LOGOUT))
        dropPin(*stay);
}

} // namespace

CK_RV initialize(CK_VOID_PTR pInitArgs)
{
    createLogFolders(); // The process may have become another user's since it loaded the library.
    const CK_RV result = checkArguments(static_cast<const CK_C_INITIALIZE_ARGS*>(pInitArgs));
    if (result != CKR_OK)
        return result;
    State& state = strict::state();
    std::unique_lock life(state.lifeLock);
    if (state.phase == Phase::Running)
        return refuse(CKR_CRYPTOKI_ALREADY_INITIALIZED, "C_Initialize: already initialized");
    if (!state.lifeChanged.wait_for(life, PATIENCE_WITH_END, [&] { return state.phase != Phase::Ending; }))
        return refuse(CKR_FUNCTION_FAILED, "C_Initialize: the module has not ended yet");
    if (state.phase == Phase::Running)
        return refuse(CKR_CRYPTOKI_ALREADY_INITIALIZED, "C_Initialize: already initialized");
    return start(state);
}

CK_RV finalize(CK_VOID_PTR pReserved)
{
    State& state = strict::state();
    std::unique_lock life(state.lifeLock);
    if (state.phase != Phase::Running)
        return refuse(CKR_CRYPTOKI_NOT_INITIALIZED, "C_Finalize: not initialized");
    if (pReserved != nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Finalize: pReserved is not NULL");
    state.phase = Phase::Ending;
    std::vector<DoomedPair> doomed = closeEverything();
    if (doomed.empty())
        takePinAway(state);
    wakeEventWaiters();
    try {
        std::thread(endModule, std::ref(state), doomed).detach();
    } catch (const std::exception&) { // Of the system, or for lack of memory.
        life.unlock();
        endModule(state, doomed); // Late, but without a thread there is no other way.
    }
    return CKR_OK;
}

CK_RV getInfo(CK_INFO_PTR pInfo)
{
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetInfo: pInfo is NULL");
    std::memset(pInfo, 0, sizeof *pInfo);
    const CK_RV result = module().C_GetInfo(pInfo);
    pad(pInfo->manufacturerID);
    pad(pInfo->libraryDescription);
    return result;
}

} // namespace velkor::strict
