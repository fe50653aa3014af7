// Backups of a key, which is at work or was left in the midst of a change, and the way back.
#include "tool_fixture.h"

#include "eventually.h"
#include "store/backup.h"
#include "store/sqlite.h"

#include <atomic>
#include <thread>

#ifndef _WIN32
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace
{

std::atomic<int> linkFailure{0}; ///< The error that every link fails with; 0: none.

} // namespace

// What the key's own code calls in this program.
extern "C" int link(const char* file, const char* name) noexcept
{
    if (linkFailure == 0)
        return linkat(AT_FDCWD, file, AT_FDCWD, name, 0);
    errno = linkFailure;
    return -1;
}
#endif

namespace softkey::test
{
namespace
{

class BackupTest : public ToolTest
{
protected:
    std::string backup() const { return path("KEY1.backup"); }

    static bool isWhole(const std::filesystem::path& file)
    {
        Database database(file, Database::Mode::Existing);
        Statement check(database, "PRAGMA integrity_check");
        return check.step() && check.text(0) == "ok";
    }
};

TEST_F(BackupTest, AKeyComesBackWithAllThatWasOnIt)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256, "kept");
    EXPECT_EQ(result("backup KEY1 " + backup())["serial"], SERIAL);
    EXPECT_EQ(velkor_deleteKeyPair(SERIAL, key.keyIdentifier, PIN, false, instance), 0);
    EXPECT_EQ(result("restore --yes " + backup())["serial"], SERIAL);
    ASSERT_TRUE(test_system::eventually([&] { return keyPairs().size() == 1; })); // Files are looked at at intervals.
    EXPECT_STREQ(keyPairs()[0].label, "kept");
    EXPECT_EQ(trySign(keyPairs()[0], Data(32, 1)), 0);
}

TEST_F(BackupTest, ABackupIsOneFileThatReplacesNothing)
{
    generate(KEY_KIND_EC_P256);
    result("backup KEY1 " + backup());
    EXPECT_FALSE(std::filesystem::exists(backup() + "-journal"));
    EXPECT_TRUE(isWhole(backup()));
#ifndef _WIN32
    EXPECT_EQ(std::filesystem::status(backup()).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
#endif
    const Data before = readFile(backup());
    expectFailure("backup KEY1 " + backup(), 9);
    EXPECT_EQ(readFile(backup()), before);
    expectFailure("restore " + backup(), 6);
    result("remove KEY1 --yes");
    result("restore " + backup());
    EXPECT_EQ(result("list").size(), 1U);
}

TEST_F(BackupTest, ADamagedKeyMakesNoBackup)
{
    generate(KEY_KIND_EC_P256);
    Database(keyPath(), Database::Mode::Existing).execute("UPDATE key_pair SET identifier = zeroblob(16)");
    expectFailure("backup KEY1 " + backup(), 7);
    EXPECT_FALSE(std::filesystem::exists(backup()));
}

#ifndef _WIN32
TEST_F(BackupTest, ALinkIsNotReplacedByABackup)
{
    result("backup KEY1 " + backup());
    const std::filesystem::path target = scratch.path() / "KEY1.velkorkey";
    std::filesystem::rename(keyPath(), target);
    std::filesystem::create_symlink(target, keyPath());
    const Data before = readFile(target);
    expectFailure("restore --yes " + backup(), 9);
    EXPECT_TRUE(std::filesystem::is_symlink(keyPath()));
    EXPECT_EQ(readFile(target), before);
}
#endif

#ifndef _WIN32
TEST_F(BackupTest, WhereThereAreNoLinksABackupIsMadeAllTheSame)
{
    generate(KEY_KIND_EC_P256);
    for (const int failure : {EPERM, EOPNOTSUPP}) {
        linkFailure = failure;
        const std::filesystem::path copy = path("copy" + std::to_string(failure));
        backUp(otherProcess()->file(), copy);
        EXPECT_TRUE(isWhole(copy));
        const Data before = readFile(copy);
        EXPECT_THROW(backUp(otherProcess()->file(), copy), Refusal) << "what is there is not replaced";
        EXPECT_EQ(readFile(copy), before);
    }
    linkFailure = EIO;
    EXPECT_THROW(backUp(otherProcess()->file(), path("none")), Refusal);
    linkFailure = 0;
    EXPECT_FALSE(std::filesystem::exists(path("none")));
    for (const auto& file : std::filesystem::directory_iterator(scratch.path()))
        EXPECT_FALSE(file.path().filename().string().starts_with('.')) << file.path();
}
#endif

TEST_F(BackupTest, BackupsOfAKeyThatIsBeingChangedAreWhole)
{
    std::atomic<bool> done{false};
    std::thread writer([&] {
        const std::unique_ptr<SoftKey> other = otherProcess();
        while (!done)
            other->change(PIN, [](Database& database) { database.execute("UPDATE device SET label = label || 'x'"); });
    });
    for (int i = 0; i < 10; ++i) {
        const std::filesystem::path copy = path("copy" + std::to_string(i));
        backUp(otherProcess()->file(), copy);
        EXPECT_TRUE(isWhole(copy));
    }
    done = true;
    writer.join();
}

/// Leaves the key as a process does that is killed in the midst of a large change: half written, with its journal.
void breakOff(const std::filesystem::path& file, const std::filesystem::path& scratch)
{
    const std::filesystem::path journal = file.string() + "-journal";
    {
        Database writer(file, Database::Mode::Existing);
        writer.execute("PRAGMA cache_size = 1; PRAGMA cache_spill = 1; BEGIN; UPDATE device SET label = 'half';"
                       "CREATE TABLE filler (x); WITH RECURSIVE n(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n "
                       "WHERE i < 300) INSERT INTO filler SELECT randomblob(500) FROM n");
        std::filesystem::copy_file(file, scratch / "half");
        std::filesystem::copy_file(journal, scratch / "half-journal");
    }
    std::filesystem::copy_file(scratch / "half", file, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::copy_file(scratch / "half-journal", journal, std::filesystem::copy_options::overwrite_existing);
}

TEST_F(BackupTest, AJournalThatAKilledProcessLeftIsNotPlayedIntoTheBackup)
{
    generate(KEY_KIND_EC_P256, "kept");
    result("backup KEY1 " + backup());
    velkor_releaseInstance(instance);
    breakOff(keyPath(), scratch.path());
    EXPECT_GT(std::filesystem::file_size(keyPath().string() + "-journal"), 0U);
    result("restore --yes " + backup());
    EXPECT_FALSE(std::filesystem::exists(keyPath().string() + "-journal"));
    EXPECT_EQ(readFile(keyPath()), readFile(backup()));
    EXPECT_TRUE(isWhole(keyPath()));
    velkor_createInstance(&instance);
    ASSERT_EQ(keyPairs().size(), 1U);
    EXPECT_EQ(trySign(keyPairs()[0], Data(32, 1)), 0);
}

TEST_F(BackupTest, WhatIsNotWholeIsNotRestored)
{
    generate(KEY_KIND_EC_P256);
    result("backup KEY1 " + backup());
    const Data good = readFile(backup());
    const Data before = readFile(keyPath());
    scratch.file("short", Bytes(good).first(good.size() / 2));
    expectFailure("restore --yes " + path("short"), 7);
    scratch.file("text", bytesOf("no key"));
    expectFailure("restore --yes " + path("text"), 7);
    Data broken = good;
    std::fill(broken.begin() + 4096, broken.begin() + 8192, static_cast<unsigned char>(0xa5));
    scratch.file("broken", broken);
    expectFailure("restore --yes " + path("broken"), 7);
    expectFailure("restore --yes " + path("none"), 7);
    scratch.file("open", good);
    scratch.file("open-journal", bytesOf("unfinished"));
    expectFailure("restore --yes " + path("open"), 7);
    EXPECT_EQ(readFile(keyPath()), before);
    EXPECT_EQ(result("list").size(), 1U);
}

TEST_F(BackupTest, AKeyThatIsDamagedIsReplaced)
{
    result("backup KEY1 " + backup());
    velkor_releaseInstance(instance);
    writeFile(keyPath(), bytesOf("damaged"));
    result("restore --yes " + backup());
    velkor_createInstance(&instance);
    EXPECT_EQ(devices(true), std::vector<std::string>{SERIAL});
}

} // namespace
} // namespace softkey::test
