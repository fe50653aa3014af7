// What is POSIX's own: the default folder, whom it and its files admit, files that go while they are open.
#include "world.h"

#include "eventually.h"
#include "platform/default_folder.h"
#include "platform/file_lock.h"
#include "test_system.h"

#include <atomic>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace softkey::test
{
namespace
{

using Names = std::vector<std::string>;

class PosixFilesTest : public SoftkeyTest
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
    EXPECT_EQ(velkor_validatePassword(SERIAL, PIN, 1, &tries, instance), 0);
    EXPECT_NO_THROW(createKey(cheapSettings("NEW")));
    close(folder);
}

TEST_F(PosixFilesTest, WhoHoldsOneKeyKeepsNobodyFromAnother)
{
    createKey(cheapSettings("OTHER"));
    const FileLock held(lockOfKey(keyPath()), Patience());
    EXPECT_EQ(permissionsOf(lockOfKey(keyPath())), 0600U);
    int tries = 0;
    EXPECT_EQ(velkor_validatePassword("OTHER", PIN, 1, &tries, instance), 0);
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

} // namespace
} // namespace softkey::test
