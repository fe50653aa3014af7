// A host that loads the strict front and then ends in one of the ways that hosts do. It must end by itself, with 0, and
// print nothing.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
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

const char* path = nullptr;
const char* self = nullptr;
void* library = nullptr;
CK_FUNCTION_LIST_PTR p11 = nullptr;

void load(int flags = RTLD_NOW | RTLD_LOCAL)
{
    library = dlopen(path, flags);
    if (library == nullptr)
        std::fprintf(stderr, "%s\n", dlerror());
    REQUIRE(library != nullptr);
    const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
    REQUIRE(getFunctionList != nullptr);
    REQUIRE(getFunctionList(&p11) == CKR_OK);
}

void start()
{
    load();
    REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
}

CK_SESSION_HANDLE openUserSession()
{
    CK_SLOT_ID slots[8];
    CK_ULONG count = 8;
    REQUIRE(p11->C_GetSlotList(CK_TRUE, slots, &count) == CKR_OK);
    REQUIRE(count != 0);
    CK_SESSION_HANDLE session = 0;
    REQUIRE(p11->C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session) == CKR_OK);
    CK_UTF8CHAR pin[] = "1234";
    REQUIRE(p11->C_Login(session, CKU_USER, pin, 4) == CKR_OK);
    return session;
}

void makeSessionPair(CK_SESSION_HANDLE session)
{
    CK_BYTE p256[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    CK_ATTRIBUTE curve = {CKA_EC_PARAMS, p256, sizeof p256};
    CK_MECHANISM mechanism = {CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    CK_OBJECT_HANDLE publicKey = 0;
    CK_OBJECT_HANDLE privateKey = 0;
    REQUIRE(p11->C_GenerateKeyPair(session, &mechanism, &curve, 1, nullptr, 0, &publicKey, &privateKey) == CKR_OK);
}

/// Keeps a thread in the front until the process ends.
void keepBusy()
{
    std::thread([] {
        CK_INFO info;
        CK_SLOT_ID slots[8];
        for (;;) {
            CK_ULONG count = 8;
            p11->C_GetSlotList(CK_TRUE, slots, &count);
            p11->C_GetInfo(&info);
        }
    }).detach();
    std::thread([] {
        CK_SLOT_ID slot = 0;
        p11->C_WaitForSlotEvent(0, &slot, nullptr);
    }).detach();
}

void callAfterMain()
{
    start();
    openUserSession();
    std::atexit([] {
        CK_INFO info;
        REQUIRE(p11->C_GetInfo(&info) == CKR_OK);
        REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
        REQUIRE(p11->C_GetInfo(&info) == CKR_CRYPTOKI_NOT_INITIALIZED);
    });
}

/// Host objects that die after everything else, and still call.
struct LastCaller {
    ~LastCaller()
    {
        CK_INFO info;
        if (p11 != nullptr)
            p11->C_GetInfo(&info);
    }
};
LastCaller lastCaller;

void forkAndWait(const std::function<void()>& inChild)
{
    const pid_t child = fork();
    if (child == 0) {
        inChild();
        std::exit(0);
    }
    int status = 0;
    REQUIRE(waitpid(child, &status, 0) == child);
    REQUIRE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

void unloadAndLoadAgain()
{
    start();
    REQUIRE(dlclose(library) == 0);
    load();
    REQUIRE(p11->C_Initialize(nullptr) == CKR_CRYPTOKI_ALREADY_INITIALIZED);
    REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
    REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
}

void forkWorkers()
{
    start();
    const CK_SESSION_HANDLE session = openUserSession();
    for (int worker = 0; worker < 3; ++worker) {
        forkAndWait([] {
            REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
            openUserSession();
        });
    }
    CK_SESSION_INFO info;
    REQUIRE(p11->C_GetSessionInfo(session, &info) == CKR_OK);
    REQUIRE(info.state == CKS_RW_USER_FUNCTIONS);
}

void execute()
{
    start();
    openUserSession();
    keepBusy();
    execl(self, self, path, "cycles", static_cast<char*>(nullptr));
    REQUIRE(false);
}

void loadedByRelativePath()
{
    const std::filesystem::path whole(path);
    std::filesystem::current_path(whole.parent_path());
    const std::string relative = "./" + whole.filename().string();
    path = relative.c_str();
    load();
    std::filesystem::current_path("/");
    REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
    openUserSession();
}

/// The front's names are then everybody's, the module's own included.
void loadedGlobally()
{
    load(RTLD_NOW | RTLD_GLOBAL);
    REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
    openUserSession();
    REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
}

/// Without the module in its folder the front says so, wherever else a module may be.
void withoutModule()
{
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / "alone";
    std::filesystem::create_directories(folder);
    const std::string copy = folder / std::filesystem::path(path).filename();
    std::filesystem::copy_file(path, copy, std::filesystem::copy_options::overwrite_existing);
    path = copy.c_str();
    load();
    REQUIRE(p11->C_Initialize(nullptr) == CKR_GENERAL_ERROR);
    REQUIRE(p11->C_Finalize(nullptr) == CKR_CRYPTOKI_NOT_INITIALIZED);
}

const std::map<std::string, std::function<void()>> ways = {
    {"load", [] { load(); }},
    {"exit", [] { start(); }},
    {"exit-logged-in",
     [] {
         start();
         openUserSession();
     }},
    {"exit-with-session-pair",
     [] {
         start();
         makeSessionPair(openUserSession());
     }},
    {"exit-busy",
     [] {
         start();
         openUserSession();
         keepBusy();
     }},
    {"exit-in-thread",
     [] {
         start();
         std::thread([] { std::exit(0); }).detach();
         std::this_thread::sleep_for(std::chrono::minutes(1));
     }},
    {"quick-exit",
     [] {
         start();
         std::quick_exit(0);
     }},
    {"exit-while-ending",
     [] {
         start();
         REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
     }},
    {"finalize-after-main", callAfterMain},
    {"unload",
     [] {
         start();
         REQUIRE(dlclose(library) == 0);
         std::this_thread::sleep_for(std::chrono::milliseconds(1500));
     }},
    {"unload-while-ending",
     [] {
         start();
         REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
         REQUIRE(dlclose(library) == 0);
         std::this_thread::sleep_for(std::chrono::milliseconds(1500));
     }},
    {"unload-and-load-again", unloadAndLoadAgain},
    {"cycles",
     [] {
         load();
         for (int cycle = 0; cycle < 4; ++cycle) {
             REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
             REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
             REQUIRE(p11->C_Finalize(nullptr) == CKR_CRYPTOKI_NOT_INITIALIZED);
         }
     }},
    {"fork-before-start",
     [] {
         load();
         forkAndWait([] { REQUIRE(p11->C_Initialize(nullptr) == CKR_OK); });
         REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
     }},
    {"fork-workers", forkWorkers},
    {"fork-busy",
     [] {
         start();
         openUserSession();
         keepBusy();
         forkAndWait([] {
             REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
             openUserSession();
         });
     }},
    {"fork-while-ending",
     [] {
         start();
         REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
         forkAndWait([] { REQUIRE(p11->C_Initialize(nullptr) == CKR_OK); });
     }},
    {"fork-and-exit",
     [] {
         start();
         forkAndWait([] {});
     }},
    {"execute", execute},
    {"relative-path", loadedByRelativePath},
    {"global", loadedGlobally},
    {"without-module", withoutModule},
};

} // namespace

int main(int argumentCount, char** arguments)
{
    REQUIRE(argumentCount == 3);
    self = arguments[0];
    path = arguments[1];
    const auto way = ways.find(arguments[2]);
    REQUIRE(way != ways.end());
    way->second();
    return 0;
}
