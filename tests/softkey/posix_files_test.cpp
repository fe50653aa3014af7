// What is POSIX's own: the default folder, whom it and its files admit, files that go while they are open.
#include "tool_fixture.h"

#include "eventually.h"
#include "platform/default_folder.h"
#include "platform/file_lock.h"
#include "platform/uptime_clock.h"
#include "test_system.h"

#include <array>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace softkey::test
{
namespace
{

using Names = std::vector<std::string>;

class PosixFilesTest : public ToolTest
{
};

mode_t permissionsOf(const std::filesystem::path& path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 0777;
}

TEST_F(PosixFilesTest, FilesAndFolderAreTheOwnersAlone)
{
    const std::filesystem::path fresh = scratch.path() / "deep" / "keys";
    const mode_t before = umask(0);
    EXPECT_TRUE(ensureFolder(fresh));
    createKeyFile(fresh, cheapSettings("M1"), PIN, SO_PIN);
    SoftKey(fresh / "M1.velkorkey").file().setPlugged(false);
    umask(before);
    EXPECT_EQ(permissionsOf(fresh), 0700U);
    EXPECT_EQ(permissionsOf(fresh / "M1.velkorkey"), 0600U);
    EXPECT_EQ(permissionsOf(fresh / "M1.velkorkey-journal"), 0600U);
}

TEST_F(PosixFilesTest, TheFolderFollowsTheEnvironmentOfTheFirstInstance)
{
    velkor_releaseInstance(instance);
    test_system::removeEnvironment("VELKOR_SOFTKEY_HOME");
    test_system::setEnvironment("XDG_DATA_HOME", (scratch.path() / "data").string());
    velkor_createInstance(&instance);
    EXPECT_EQ(devices(), Names{});
    EXPECT_EQ(permissionsOf(scratch.path() / "data" / "velkor-softkey"), 0700U);
    test_system::removeEnvironment("XDG_DATA_HOME");
    test_system::setEnvironment("HOME", scratch.path().string());
    EXPECT_EQ(defaultKeysFolder(), scratch.path() / ".local/share/velkor-softkey");
}

TEST_F(PosixFilesTest, ALockOfSomebodyElseOnTheFolderKeepsNobodyFromAKey)
{
    const int folder = open(home.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(folder, LOCK_EX), 0); // Whoever may read a folder may lock it.
    int tries = 0;
    EXPECT_EQ(velkor_validatePassword(SERIAL, PIN, USER_TYPE_USER, &tries, instance), 0);
    EXPECT_NO_THROW(createKey(cheapSettings("NEW")));
    close(folder);
}

TEST_F(PosixFilesTest, WhoHoldsOneKeyKeepsNobodyFromAnother)
{
    createKey(cheapSettings("OTHER"));
    const FileLock held(lockOfKey(keyPath()), Patience());
    EXPECT_EQ(permissionsOf(lockOfKey(keyPath())), 0600U);
    int tries = 0;
    EXPECT_EQ(velkor_validatePassword("OTHER", PIN, USER_TYPE_USER, &tries, instance), 0);
}

TEST_F(PosixFilesTest, ALockFileThatOthersMayOpenBecomesTheOwnersAlone)
{
    writeFile(lockOfKey(keyPath()), {});
    std::filesystem::permissions(lockOfKey(keyPath()), static_cast<std::filesystem::perms>(0666));
    const FileLock held(lockOfKey(keyPath()), Patience());
    EXPECT_EQ(permissionsOf(lockOfKey(keyPath())), 0600U);
}

TEST_F(PosixFilesTest, WhoWaitsForAKeyIsServedBeforeWhoComesLater)
{
    std::optional<FileLock> held(std::in_place, lockOfKey(keyPath()), Patience());
    std::thread waiting([&] { otherProcess()->file().setPlugged(true); });
    EXPECT_TRUE(test_system::eventually([&] { return !FileLock::tryTake(queueOfKey(keyPath())); }))
        << "nobody stands in the queue";
    held.reset();
    waiting.join();
    EXPECT_TRUE(FileLock::tryTake(queueOfKey(keyPath()))) << "it was not left";
}

TEST_F(PosixFilesTest, ALockWhoseFileWasTakenAwayIsLeftForTheNewOne)
{
    const std::filesystem::path file = scratch.path() / "lock";
    std::optional<FileLock> first(std::in_place, file, Patience());
    std::atomic<bool> locked{false};
    std::thread waiting([&] {
        const FileLock second(file, Patience());
        locked = true;
        EXPECT_TRUE(std::filesystem::exists(file));
    });
    std::filesystem::remove(file);
    first.reset();
    waiting.join();
    EXPECT_TRUE(locked);
}

/// A process that takes a lock, leaves a child behind and is killed; gives the child, which does nothing.
pid_t leaveChildOfWhoHolds(const std::filesystem::path& file)
{
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        const FileLock held(file, Patience());
        const pid_t left = fork();
        if (left == 0) {
            for (;;)
                pause();
        }
        if (write(ends[1], &left, sizeof left) == sizeof left)
            raise(SIGKILL);
        _exit(1);
    }
    close(ends[1]);
    pid_t left = -1;
    EXPECT_EQ(read(ends[0], &left, sizeof left), static_cast<ssize_t>(sizeof left));
    close(ends[0]);
    int status = 0;
    waitpid(holder, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    return left;
}

TEST_F(PosixFilesTest, TheChildOfWhoHeldALockDoesNotKeepIt)
{
    const pid_t left = leaveChildOfWhoHolds(lockOfKey(keyPath()));
    ASSERT_GT(left, 0);
    // It may not have run at all yet.
    EXPECT_TRUE(test_system::eventually([&] { return FileLock::tryTake(lockOfKey(keyPath())).has_value(); }));
    kill(left, SIGKILL);
}

TEST_F(PosixFilesTest, ALockOutlivesTheChildrenOfWhoHoldsIt)
{
    const FileLock held(lockOfKey(keyPath()), Patience());
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_FALSE(FileLock::tryTake(lockOfKey(keyPath())));
}

TEST_F(PosixFilesTest, IdleTimeIsCountedByTheClockOfTheMachinesUptime)
{
    std::ifstream file("/proc/uptime"); // Which goes on while the machine sleeps.
    double seconds = 0;
    ASSERT_TRUE(file >> seconds);
    const std::chrono::duration<double> now = UptimeClock::now().time_since_epoch();
    EXPECT_NEAR(now.count(), seconds, 5);
}

TEST_F(PosixFilesTest, KeysMadeAndRemovedByHandAreSeen)
{
    EXPECT_EQ(devices(), Names{SERIAL});
    createKey(cheapSettings("NEW"));
    EXPECT_EQ(devices(), (Names{SERIAL, "NEW"}));
    std::filesystem::remove(keyPath());
    EXPECT_EQ(devices(), Names{"NEW"});
}

TEST_F(PosixFilesTest, AKeyThatIsExchangedIsReadAnew)
{
    EXPECT_EQ(velkor_getTokenInfo(SERIAL, instance).label, "Velkor Soft Key");
    otherProcess()->file().setPlugged(false);
    std::filesystem::remove(keyPath());
    KeySettings settings = cheapSettings(SERIAL);
    settings.label = "Another";
    createKey(settings);
    EXPECT_EQ(velkor_getTokenInfo(SERIAL, instance).label, "Another");
}

TEST_F(PosixFilesTest, AKeyThatIsExchangedByHandIsNoticedShortly)
{
    EXPECT_EQ(velkor_getTokenInfo(SERIAL, instance).label, "Velkor Soft Key");
    std::filesystem::remove(keyPath());
    KeySettings settings = cheapSettings(SERIAL);
    settings.label = "Another";
    createKey(settings);
    EXPECT_TRUE(test_system::eventually([&] { return velkor_getTokenInfo(SERIAL, instance).label == "Another"; }));
}

TEST_F(PosixFilesTest, AFileOrFolderThatOthersMayWriteIsRefused)
{
    using std::filesystem::perms;
    EXPECT_EQ(velkor_initDevice(SERIAL, true, instance), 0);
    for (const auto& [path, permissions] : {std::pair(keyPath(), 0620), {keyPath(), 0602}, {home.path(), 0770}}) {
        const perms before = std::filesystem::status(path).permissions();
        std::filesystem::permissions(path, static_cast<perms>(permissions));
        void* second = nullptr;
        velkor_releaseInstance(instance);
        velkor_createInstance(&second);
        EXPECT_EQ(velkor_initDevice(SERIAL, true, second), code(SoftkeyStatus::FileExposed)) << path;
        EXPECT_TRUE(velkor_getConnectedDeviceList(true, second).empty());
        velkor_releaseInstance(second);
        velkor_createInstance(&instance);
        const Outcome refused = tool("info KEY1");
        EXPECT_EQ(refused.exitCode, 7);
        EXPECT_NE(refused.error.find(path.string()), std::string::npos) << refused.error;
        std::filesystem::permissions(path, before);
        EXPECT_EQ(tool("info KEY1").exitCode, 0);
    }
}

TEST_F(PosixFilesTest, ALinkThroughAFolderThatOthersMayWriteIsRefused)
{
    using std::filesystem::perms;
    const std::filesystem::path folder = scratch.path() / "elsewhere";
    const std::filesystem::path target = folder / "KEY1.velkorkey";
    const std::filesystem::path way = scratch.path() / "way";
    std::filesystem::create_directory(folder);
    std::filesystem::permissions(folder, perms::owner_all);
    velkor_releaseInstance(instance);
    std::filesystem::rename(keyPath(), target);
    std::filesystem::create_symlink("elsewhere/KEY1.velkorkey", way);
    std::filesystem::create_symlink(way, keyPath());
    EXPECT_EQ(tool("info KEY1").exitCode, 0);
    for (const std::filesystem::path& exposed :
         {folder, scratch.path()}) { // That of the file, that of a link on the way.
        for (const perms who : {perms::group_write, perms::others_write, perms::others_write | perms::sticky_bit}) {
            std::filesystem::permissions(exposed, perms::owner_all | who);
            const Outcome refused = tool("info KEY1");
            EXPECT_EQ(refused.exitCode, 7) << exposed;
            EXPECT_NE(refused.error.find(keyPath().string()), std::string::npos) << refused.error;
        }
        std::filesystem::permissions(exposed, perms::owner_all);
        EXPECT_EQ(tool("info KEY1").exitCode, 0);
    }
    velkor_createInstance(&instance);
}

TEST_F(PosixFilesTest, AFileOrFolderThatOthersMayReadIsWarnedOf)
{
    using std::filesystem::perm_options;
    using std::filesystem::perms;
    for (const std::filesystem::path& path : {keyPath(), home.path()}) {
        EXPECT_EQ(tool("info KEY1").error, "");
        std::filesystem::permissions(path, perms::others_read, perm_options::add);
        const Outcome told = tool("info KEY1");
        EXPECT_EQ(told.exitCode, 0);
        EXPECT_EQ(told.error, "velkor-softkey: warning: others may read " + path.string() + " (chmod go-rwx)\n");
        std::filesystem::permissions(path, perms::others_read, perm_options::remove);
    }
}

TEST_F(PosixFilesTest, RemovingALinkRemovesTheKeyThatItLeadsTo)
{
    const std::filesystem::path target = scratch.path() / "KEY1.velkorkey";
    velkor_releaseInstance(instance);
    std::filesystem::rename(keyPath(), target);
    std::filesystem::create_symlink(target, keyPath());
    velkor_createInstance(&instance);
    EXPECT_EQ(velkor_initDevice(SERIAL, true, instance), 0);
    EXPECT_EQ(tool("remove KEY1 --yes").exitCode, 0);
    EXPECT_FALSE(std::filesystem::exists(target));
    EXPECT_FALSE(std::filesystem::is_symlink(keyPath()));
    EXPECT_TRUE(std::filesystem::is_empty(scratch.path()));
}

TEST_F(PosixFilesTest, AFolderThatCannotBeListedIsAnErrorOfTheList)
{
    if (geteuid() == 0) { // Who may read everything: another user asks.
        const std::string shown = "setpriv --reuid=65534 --regid=65534 --clear-groups " + softkeyTool();
        if (run(shown + " --help").exitCode != 0)
            GTEST_SKIP() << "another user cannot run the tool here";
        EXPECT_EQ(chown(home.path().c_str(), 65534, 65534), 0);
        std::filesystem::permissions(home.path(), std::filesystem::perms::owner_exec);
        const Outcome refused = run(shown + " --home " + home.path().string() + " list");
        EXPECT_EQ(refused.exitCode, 7);
        EXPECT_NE(refused.error.find(home.path().string()), std::string::npos) << refused.error;
        return;
    }
    std::filesystem::permissions(home.path(), std::filesystem::perms::owner_exec);
    expectFailure("list", 7);
    std::filesystem::permissions(home.path(), std::filesystem::perms::owner_all);
}

} // namespace
} // namespace softkey::test
