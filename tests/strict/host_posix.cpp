// The host on POSIX systems: how it loads the library, and the ways to end that only they have.
#include <algorithm>
#include <cstdlib>
#include <iterator>

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "eventually.h"
#include "host.h"

namespace
{

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

void forkTwice()
{
    start();
    openUserSession();
    forkAndWait([] {
        REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
        openUserSession();
        forkAndWait([] {
            REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
            openUserSession();
        });
        REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
    });
}

/// Another program takes the place of this one, with whatever threads are in the library, and does its own work with
/// it.
void execute()
{
    const std::string self = programFile();
    execl(self.c_str(), self.c_str(), path.c_str(), "cycles", static_cast<char*>(nullptr));
    REQUIRE(false);
}

/// As a worker that has become another user than the server that loaded the library: the log is elsewhere from then on.
void moveLogAfterLoading()
{
    load();
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / "moved";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    setenv("TMPDIR", folder.c_str(), 1);
    int reserved = 0;
    CK_C_INITIALIZE_ARGS arguments{nullptr, nullptr, nullptr, nullptr, 0, &reserved};
    REQUIRE(p11->C_Initialize(&arguments) == CKR_ARGUMENTS_BAD);
    const std::filesystem::recursive_directory_iterator files(folder);
    REQUIRE(std::any_of(begin(files), end(files), [](const auto& file) { return file.is_regular_file(); }));
}

/// The front's names are then everybody's, the module's own included.
void loadedGlobally()
{
    load(true);
    REQUIRE(p11->C_Initialize(nullptr) == CKR_OK);
    openUserSession();
    REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
}

} // namespace

std::filesystem::path programFile()
{
    return std::filesystem::read_symlink("/proc/self/exe");
}

void* loadLibrary(const std::string& file, bool globally)
{
    void* loaded = dlopen(file.c_str(), RTLD_NOW | (globally ? RTLD_GLOBAL : RTLD_LOCAL));
    if (loaded == nullptr)
        std::fprintf(stderr, "%s\n", dlerror());
    return loaded;
}

void* symbolOf(void* loaded, const char* name)
{
    return dlsym(loaded, name);
}

bool unloadLibrary(void* loaded)
{
    return dlclose(loaded) == 0;
}

void awaitEndOfThreads()
{
#ifdef __SANITIZE_THREAD__
    constexpr std::ptrdiff_t OWN_THREADS = 2; // The sanitizer has one.
#else
    constexpr std::ptrdiff_t OWN_THREADS = 1;
#endif
    using std::filesystem::directory_iterator;
    REQUIRE(test_system::eventually(
        [] { return std::distance(directory_iterator("/proc/self/task"), {}) == OWN_THREADS; }));
}

Ways waysOfThisSystem()
{
    return {
        {"quick-exit",
         [] {
             start();
             std::quick_exit(0);
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
        {"fork-after-end",
         [] {
             start();
             REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
             awaitEndOfThreads();
             forkAndWait([] { REQUIRE(p11->C_Initialize(nullptr) == CKR_OK); });
         }},
        {"fork-twice", forkTwice},
        {"fork-and-exit",
         [] {
             start();
             forkAndWait([] {});
         }},
        {"fork-with-session-pair",
         [] {
             start();
             const CK_SESSION_HANDLE session = openUserSession();
             const CK_OBJECT_HANDLE key = makeSessionPair(session);
             forkAndWait([] {});
             signWith(session, key);
         }},
        {"execute-with-session-pair",
         [] {
             start();
             makeSessionPair(openUserSession());
             execute();
         }},
        {"execute",
         [] {
             start();
             openUserSession();
             keepBusy();
             execute();
         }},
        {"execute-before-start",
         [] {
             load();
             execute();
         }},
        {"execute-while-ending",
         [] {
             start();
             REQUIRE(p11->C_Finalize(nullptr) == CKR_OK);
             execute();
         }},
        {"global", loadedGlobally},
        {"log-moved", moveLogAfterLoading},
    };
}
