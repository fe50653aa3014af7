// What is POSIX's own: the default folder, whom it and its files admit, files that go while they are open.
#include "world.h"

#include "platform/default_folder.h"
#include "test_system.h"

#include <sys/stat.h>
#include <thread>

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
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(velkor_getTokenInfo(SERIAL, instance).label, "Another");
}

} // namespace
} // namespace softkey::test
