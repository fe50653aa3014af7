// A host that loads the strict front and then ends in one of the ways that hosts do. It must end by itself, with 0, and
// print nothing.
//   strict_host LIBRARY WAY      the library's path holds from the program's own folder
#include "host.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "eventually.h"
#include "hurried_monitor.h"

using test_system::eventually;
using test_system::hurryMonitor;
using test_system::monitorCycles;

std::string path;
void* library = nullptr;
CK_FUNCTION_LIST_PTR p11 = nullptr;

void load(bool globally)
{
    library = loadLibrary(path, globally);
    REQUIRE(library != nullptr);
    const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(symbolOf(library, "C_GetFunctionList"));
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

std::atomic<int> busyRounds = 0;

void keepBusy()
{
    std::thread([] {
        CK_INFO info;
        CK_SLOT_ID slots[8];
        for (;; ++busyRounds) {
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

CK_OBJECT_HANDLE makeSessionPair(CK_SESSION_HANDLE session)
{
    CK_BYTE p256[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    CK_ATTRIBUTE curve = {CKA_EC_PARAMS, p256, sizeof p256};
    CK_MECHANISM mechanism = {CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    CK_OBJECT_HANDLE publicKey = 0;
    CK_OBJECT_HANDLE privateKey = 0;
    REQUIRE(p11->C_GenerateKeyPair(session, &mechanism, &curve, 1, nullptr, 0, &publicKey, &privateKey) == CKR_OK);
    return privateKey;
}

void signWith(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key)
{
    CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
    CK_BYTE data[32] = {};
    CK_BYTE signature[64];
    CK_ULONG length = sizeof signature;
    REQUIRE(p11->C_SignInit(session, &mechanism, key) == CKR_OK);
    REQUIRE(p11->C_Sign(session, data, sizeof data, signature, &length) == CKR_OK);
}

namespace
{

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

/// Calls that are in the library go on, and so does what it knows.
void unloadWhileBusy()
{
    start();
    const CK_SESSION_HANDLE session = openUserSession();
    keepBusy();
    const auto goesOn = [before = busyRounds.load()] { return busyRounds >= before + 10; };
    REQUIRE(eventually(goesOn));
    REQUIRE(unloadLibrary(library));
    const auto stillGoesOn = [before = busyRounds.load()] { return busyRounds >= before + 100; };
    REQUIRE(eventually(stillGoesOn));
    CK_SESSION_INFO info;
    REQUIRE(p11->C_GetSessionInfo(session, &info) == CKR_OK);
    REQUIRE(info.state == CKS_RW_USER_FUNCTIONS);
}

/// The monitor must still have its code.
void unloadBesideTheMonitor()
{
    hurryMonitor();
    start();
    hurryMonitor(); // Windows has the calls of libraries that are loaded.
    REQUIRE(unloadLibrary(library));
    const auto goesOn = [before = monitorCycles.load()] { return monitorCycles >= before + 2; };
    REQUIRE(eventually(goesOn));
}

void unloadAndLoadAgain()
{
    start();
    REQUIRE(unloadLibrary(library));
    load();
    REQUIRE(p11->C_Initialize(nullptr) == CKR_CRYPTOKI_ALREADY_INITIALIZED);
    REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
    REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
}

void loadedByRelativePath()
{
    const std::filesystem::path whole(path);
    std::filesystem::current_path(whole.parent_path());
    path = "./" + whole.filename().string();
    load();
    std::filesystem::current_path(whole.root_path());
    REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
    openUserSession();
}

/// Without the module in its folder the front says so, wherever else a module may be.
void withoutModule()
{
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / "alone";
    std::filesystem::create_directories(folder);
    const std::filesystem::path copy = folder / std::filesystem::path(path).filename();
    std::filesystem::copy_file(path, copy, std::filesystem::copy_options::overwrite_existing);
    path = copy.string();
    load();
    REQUIRE(p11->C_Initialize(nullptr) == CKR_GENERAL_ERROR);
    REQUIRE(p11->C_Finalize(nullptr) == CKR_CRYPTOKI_NOT_INITIALIZED);
}

const Ways waysOfAnySystem = {
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
    {"exit-while-ending",
     [] {
         start();
         REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
     }},
    {"finalize-after-main", callAfterMain},
    {"unload", unloadBesideTheMonitor},
    {"unload-before-start",
     [] {
         load();
         REQUIRE(unloadLibrary(library));
         REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
         openUserSession();
     }},
    {"unload-with-session-pair",
     [] {
         start();
         const CK_SESSION_HANDLE session = openUserSession();
         const CK_OBJECT_HANDLE key = makeSessionPair(session);
         REQUIRE(unloadLibrary(library));
         signWith(session, key);
     }},
    {"unload-while-ending",
     [] {
         start();
         REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
         REQUIRE(unloadLibrary(library));
         awaitEndOfThreads();
     }},
    {"unload-busy", unloadWhileBusy},
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
    {"relative-path", loadedByRelativePath},
    {"without-module", withoutModule},
};

} // namespace

int main(int argumentCount, char** arguments)
{
    REQUIRE(argumentCount == 3);
    path = (programFile().parent_path() / arguments[1]).lexically_normal().make_preferred().string();
    Ways ways = waysOfAnySystem;
    ways.merge(waysOfThisSystem());
    const auto way = ways.find(arguments[2]);
    REQUIRE(way != ways.end());
    way->second();
    return 0;
}
