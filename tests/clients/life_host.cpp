// A host that leaves the module in every way that hosts do, from every state that they leave it in. Each pair of both
// is a process of its own, which has to end as it was told to, and within half a minute.
//   life_host LIBRARY STATE     all ways from that state; the exit code is 0 when none failed
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <dlfcn.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cryptoki.h"

namespace
{

#define REQUIRE(condition)                                                                                             \
    if (!(condition)) {                                                                                                \
        std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition);                                                   \
        std::_Exit(1);                                                                                                 \
    }

constexpr unsigned SECONDS_ALLOWED = 30;
constexpr std::chrono::milliseconds A_MOMENT{50}; // For threads to come to their waits, of which nothing tells.

const char* path = nullptr;
void* library = nullptr;
CK_FUNCTION_LIST_PTR p11 = nullptr;
CK_SESSION_HANDLE session = 0;
bool isStarted = false;

// ---- States ----

void load()
{
    library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    REQUIRE(library != nullptr);
    const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
    REQUIRE(getFunctionList != nullptr && getFunctionList(&p11) == CKR_OK);
}

void start()
{
    load();
    REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
    isStarted = true;
}

CK_SESSION_HANDLE openUserSession()
{
    CK_SLOT_ID slots[8];
    CK_ULONG count = 8;
    REQUIRE(p11->C_GetSlotList(CK_TRUE, slots, &count) == CKR_OK && count != 0);
    CK_SESSION_HANDLE opened = 0;
    REQUIRE(p11->C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &opened) == CKR_OK);
    CK_UTF8CHAR pin[] = {'1', '2', '3', '4'};
    REQUIRE(p11->C_Login(opened, CKU_USER, pin, sizeof pin) == CKR_OK);
    return opened;
}

void logIn()
{
    start();
    session = openUserSession();
}

void beginOperations()
{
    logIn();
    CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
    CK_BYTE data[32] = {};
    REQUIRE(p11->C_SignInit(session, &mechanism, 0x70000005) == CKR_OK);
    REQUIRE(p11->C_SignUpdate(session, data, sizeof data) == CKR_OK);
}

void waitForEvents()
{
    CK_SLOT_ID slot = 0;
    while (p11->C_WaitForSlotEvent(0, &slot, nullptr) == CKR_OK) {
    }
}

void haveWaiter()
{
    logIn();
    std::thread(waitForEvents).detach();
    std::this_thread::sleep_for(A_MOMENT);
}

void beBusy()
{
    haveWaiter();
    for (int thread = 0; thread < 3; ++thread) {
        std::thread([] {
            for (;;) {
                CK_SLOT_ID slots[8];
                CK_ULONG count = 8;
                CK_SESSION_INFO info;
                CK_BYTE bytes[16];
                p11->C_GetSlotList(CK_TRUE, slots, &count);
                p11->C_GetSessionInfo(session, &info);
                p11->C_GenerateRandom(session, bytes, sizeof bytes);
            }
        }).detach();
    }
    std::this_thread::sleep_for(A_MOMENT);
}

void end()
{
    logIn();
    REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
    isStarted = false;
}

struct State {
    const char* name;
    void (*reach)();
    bool hasThreadsInside = false;
};

constexpr State STATES[] = {
    {"loaded", load},
    {"started", start},
    {"logged-in", logIn},
    {"operating", beginOperations},
    {"waiting", haveWaiter, true},
    {"busy", beBusy, true},
    {"finalized", end},
};

// ---- Ways ----

/// From whatever it was before; C_Initialize of a process that is started is the host's mistake, not its child's.
void beginAnew()
{
    const CK_RV code = p11->C_Finalize(nullptr);
    REQUIRE(code == (isStarted ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED));
    REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
    session = openUserSession();
    CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
    CK_BYTE data[32] = {};
    CK_BYTE signature[1024];
    CK_ULONG length = sizeof signature;
    REQUIRE(p11->C_SignInit(session, &mechanism, 0x70000005) == CKR_OK);
    REQUIRE(p11->C_Sign(session, data, sizeof data, signature, &length) == CKR_OK);
    REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
}

void expectSuccessOf(pid_t child)
{
    int status = 0;
    REQUIRE(waitpid(child, &status, 0) == child);
    REQUIRE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

/// A child does its part, and the parent then goes on as before.
void forkAnd(void (*childsPart)())
{
    // The monitor has looked, and sleeps: AddressSanitizer's allocator stays locked for a child in whose parent a
    // thread was just then in its midst.
    std::this_thread::sleep_for(A_MOMENT);
    const pid_t child = fork();
    if (child == 0) {
        alarm(SECONDS_ALLOWED - 5);
        childsPart();
        std::_Exit(0);
    }
    expectSuccessOf(child);
    CK_SESSION_INFO info;
    REQUIRE(session == 0 || !isStarted || p11->C_GetSessionInfo(session, &info) == CKR_OK);
}

void executeInVfork()
{
    const pid_t child = vfork();
    if (child == 0) {
        execl("/bin/true", "true", static_cast<char*>(nullptr));
        _exit(1);
    }
    expectSuccessOf(child);
}

void spawn()
{
    char name[] = "true";
    char* arguments[] = {name, nullptr};
    pid_t child = 0;
    REQUIRE(posix_spawn(&child, "/bin/true", nullptr, nullptr, arguments, environ) == 0);
    expectSuccessOf(child);
}

/// Calls are interrupted again and again, by a handler that does nothing.
void getSignals()
{
    struct sigaction action {
    };
    action.sa_handler = [](int) {};
    REQUIRE(sigaction(SIGUSR1, &action, nullptr) == 0);
    for (int round = 0; round < 100; ++round) {
        REQUIRE(kill(getpid(), SIGUSR1) == 0);
        CK_INFO info;
        REQUIRE(p11->C_GetInfo(&info) == (isStarted ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED));
    }
}

/// Of threads that are in the midst of calls, one of which waits. They end when their call has come back.
void cancelThreads()
{
    const auto callForever = [](void* waits) -> void* {
        for (;;) {
            CK_SLOT_ID slots[8];
            CK_ULONG count = 8;
            if (waits != nullptr)
                p11->C_WaitForSlotEvent(0, slots, nullptr);
            p11->C_GetSlotList(CK_TRUE, slots, &count);
            pthread_testcancel();
        }
    };
    pthread_t threads[2];
    REQUIRE(pthread_create(&threads[0], nullptr, callForever, nullptr) == 0);
    REQUIRE(pthread_create(&threads[1], nullptr, callForever, library) == 0);
    std::this_thread::sleep_for(A_MOMENT);
    for (const pthread_t thread : threads)
        REQUIRE(pthread_cancel(thread) == 0);
    REQUIRE(p11->C_Finalize(nullptr) == (isStarted ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED));
    for (const pthread_t thread : threads) {
        void* result = nullptr;
        REQUIRE(pthread_join(thread, &result) == 0 && result == PTHREAD_CANCELED);
    }
    isStarted = false;
    beginAnew();
}

void unload()
{
    REQUIRE(dlclose(library) == 0);
    std::this_thread::sleep_for(A_MOMENT);
    CK_INFO info;
    REQUIRE(p11->C_GetInfo(&info) == (isStarted ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED)); // It stays mapped.
}

struct Way {
    const char* name;
    void (*leave)();
    int signal = 0;              ///< That ends the process; 0: it exits, with 0.
    bool wantsToBeAlone = false; ///< Whether no other thread may be in the module: its locks stay taken in a child.
};

const Way WAYS[] = {
    {"exit", [] { std::exit(0); }},
    {"_exit", [] { _exit(0); }},
    {"quick_exit", [] { std::quick_exit(0); }},
    {"exit in a thread",
     [] {
         std::thread([] { std::exit(0); }).detach();
         std::this_thread::sleep_for(std::chrono::minutes(1));
     }},
    {"end of the main thread",
     [] {
         std::thread([] {
             std::this_thread::sleep_for(A_MOMENT);
             std::exit(0);
         }).detach();
         pthread_exit(nullptr);
     }},
    {"C_Finalize", [] { REQUIRE(p11->C_Finalize(nullptr) == (isStarted ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED)); }},
    {"C_Finalize at exit",
     [] {
         REQUIRE(std::atexit([] { p11->C_Finalize(nullptr); }) == 0);
         std::exit(0);
     }},
    {"abort", [] { std::abort(); }, SIGABRT},
    {"SIGTERM", [] { raise(SIGTERM); }, SIGTERM},
    {"SIGKILL", [] { raise(SIGKILL); }, SIGKILL},
    {"signals that are handled", getSignals},
    {"dlclose", unload},
    {"fork, and the child begins anew", [] { forkAnd(beginAnew); }, 0, true},
    {"fork, and the child exits", [] { forkAnd([] { std::exit(0); }); }},
    {"fork, and the child just ends", [] { forkAnd([] {}); }},
    {"vfork and execl", executeInVfork},
    {"posix_spawn", spawn},
    {"cancellation", cancelThreads},
};

/// Whether a process that takes the way from the state ends as it should.
bool holds(const State& state, const Way& way)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(SECONDS_ALLOWED);
        state.reach();
        way.leave();
        std::exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const bool isGood = way.signal != 0 ? WIFSIGNALED(status) && WTERMSIG(status) == way.signal
                                        : WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!isGood)
        std::fprintf(stderr, "%s, %s: %s %d\n", state.name, way.name, WIFSIGNALED(status) ? "signal" : "exit code",
                     WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    return isGood;
}

} // namespace

int main(int argumentCount, char** arguments)
{
    REQUIRE(argumentCount == 3);
    path = arguments[1];
    int failures = 0;
    int done = 0;
    for (const State& state : STATES) {
        for (const Way& way : WAYS) {
            if (state.name != std::string(arguments[2]) || (way.wantsToBeAlone && state.hasThreadsInside))
                continue;
            ++done;
            failures += holds(state, way) ? 0 : 1;
        }
    }
    return done != 0 && failures == 0 ? 0 : 1;
}
