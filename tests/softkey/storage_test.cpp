// A key's file: its layouts, damaged and foreign files, what it keeps from a reader, and threads at work in it.
#include "world.h"

#include "crypto/keys.h"
#include "eventually.h"
#include "platform/file_lock.h"
#include "sleeps.h"
#include "store/schema.h"
#include "store/snapshot.h"

#include <atomic>
#include <cstring>
#include <random>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace softkey::test
{
namespace
{

class StorageTest : public SoftkeyTest
{
protected:
    /// Runs SQL on the key's file with the sqlite3 command line.
    std::string sqlite(const std::string& sql, const std::string& serialNumber = SERIAL) const
    {
        const Outcome outcome = run("sqlite3 " + keyPath(serialNumber).string(), sql);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
        return outcome.out;
    }

    /// The file is refused with that status, not listed, and left as it is.
    void expectRefused(const std::string& serialNumber, SoftkeyStatus status) const
    {
        const Data before = readFile(keyPath(serialNumber));
        EXPECT_EQ(velkor_initDevice(serialNumber.c_str(), true, instance), code(status));
        EXPECT_EQ(velkor_getTokenInfo(serialNumber.c_str(), instance).serialNumber, "");
        EXPECT_EQ(devices(true), std::vector<std::string>{SERIAL});
        int tries = 0;
        EXPECT_EQ(velkor_validatePassword(serialNumber.c_str(), PIN, USER_TYPE_USER, &tries, instance),
                  STATUS_CHECK_NOT_POSSIBLE);
        EXPECT_EQ(readFile(keyPath(serialNumber)), before);
    }

    bool fileContains(Bytes secret) const
    {
        const Data file = readFile(keyPath());
        return std::search(file.begin(), file.end(), secret.begin(), secret.end()) != file.end();
    }
};

TEST_F(StorageTest, AFileOfLayout1IsBroughtUpToDateAndItsKeySigns)
{
    sqlite(LAYOUT_1, "OLD1");
    const std::vector<VelkorKeyPair> keys = keyPairs("OLD1");
    ASSERT_EQ(keys.size(), 1U);
    EXPECT_STREQ(keys[0].label, "old pair");
    EXPECT_EQ(keys[0].usageFlags, USAGE_SIGN_VERIFY | USAGE_DECRYPT_ENCRYPT);
    EXPECT_EQ(sqlite("PRAGMA user_version", "OLD1"), std::to_string(SCHEMA_VERSION) + "\n");
    Data signature(64);
    int size = 64;
    const Data hash(32, 3);
    EXPECT_EQ(velkor_signHash("OLD1", keys[0].keyIdentifier, PIN, hash.data(), 32, signature.data(), &size, false,
                              instance, false),
              0);
    EXPECT_EQ(verify(keys[0], hash, signature), 0);
}

TEST_F(StorageTest, TwoOpenersMigrateOnce)
{
    sqlite(LAYOUT_1, "OLD1");
    std::vector<std::thread> openers;
    std::atomic<int> failures{0};
    for (int i = 0; i < 4; ++i)
        openers.emplace_back([&] {
            try {
                if (otherProcess("OLD1")->contents()->keyPairs.size() != 1)
                    ++failures;
            } catch (const Refusal&) {
                ++failures;
            }
        });
    for (std::thread& opener : openers)
        opener.join();
    EXPECT_EQ(failures, 0);
}

TEST_F(StorageTest, AFileOfLayout1ThatIsDamagedOrForeignIsNotMigrated)
{
    const struct {
        const char* damage;
        SoftkeyStatus status;
    } cases[] = {
        {"UPDATE pin SET scrypt_log_n = 60", SoftkeyStatus::FileDamaged},
        {"DELETE FROM pin WHERE role = 2", SoftkeyStatus::FileDamaged},
        {"DELETE FROM device", SoftkeyStatus::FileDamaged},
        {"DROP TABLE certificate", SoftkeyStatus::FileDamaged},
        {"ALTER TABLE key_pair ADD COLUMN usage_flags INTEGER", SoftkeyStatus::FileDamaged},
        {"CREATE VIEW v AS SELECT 1", SoftkeyStatus::FileDamaged},
        {"UPDATE device SET serial_number = 'OTHER'", SoftkeyStatus::FileForeign},
    };
    for (const auto& [damage, status] : cases) {
        SCOPED_TRACE(damage);
        sqlite(std::string(LAYOUT_1) + damage, "OLD1");
        expectRefused("OLD1", status);
        EXPECT_THROW(otherProcess("OLD1")->file().setPlugged(false), Refusal);
        EXPECT_EQ(sqlite("PRAGMA user_version", "OLD1"), "1\n");
        std::filesystem::remove(keyPath("OLD1"));
        devices(true); // Forget the file that was there.
    }
}

TEST_F(StorageTest, AChangeNeverStartsWithAFileThatIsRefused)
{
    std::filesystem::copy_file(keyPath(), keyPath("COPY"));
    const Data before = readFile(keyPath("COPY"));
    EXPECT_THROW(otherProcess("COPY")->file().setPlugged(false), Refusal);
    EXPECT_EQ(readFile(keyPath("COPY")), before);
}

TEST_F(StorageTest, AFileThatBecomesNewerWhileOpenIsRefused)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
    const std::unique_ptr<SoftKey> open = otherProcess();
    open->contents();
    sqlite("ALTER TABLE device ADD COLUMN newer INTEGER; PRAGMA user_version = " + std::to_string(SCHEMA_VERSION + 1));
    const Data before = readFile(keyPath());
    EXPECT_EQ(trySign(key, Data(32, 1)), code(SoftkeyStatus::FileNewer));
    EXPECT_EQ(velkor_initDevice(SERIAL, true, instance), code(SoftkeyStatus::FileNewer));
    EXPECT_EQ(velkor_deleteKeyPair(SERIAL, key.keyIdentifier, PIN, false, instance), code(SoftkeyStatus::FileNewer));
    int tries = 0;
    EXPECT_EQ(velkor_validatePassword(SERIAL, WRONG_PIN, USER_TYPE_USER, &tries, instance), STATUS_CHECK_NOT_POSSIBLE);
    EXPECT_TRUE(keyPairs().empty());
    EXPECT_TRUE(devices().empty());
    try {
        open->file().setPlugged(false); // Straight into a change, without a look at the contents.
        FAIL() << "the newer file was written";
    } catch (const Refusal& refusal) {
        EXPECT_EQ(refusal.status(), SoftkeyStatus::FileNewer);
    }
    EXPECT_EQ(readFile(keyPath()), before);
}

TEST_F(StorageTest, AFileOfANewerLayoutIsRefused)
{
    createKey(cheapSettings("NEWER"));
    sqlite("PRAGMA user_version = " + std::to_string(SCHEMA_VERSION + 1), "NEWER");
    expectRefused("NEWER", SoftkeyStatus::FileNewer);
}

TEST_F(StorageTest, ForeignFilesAreRefused)
{
    writeFile(keyPath("TEXT"), bytesOf("no database at all"));
    expectRefused("TEXT", SoftkeyStatus::FileForeign);
    writeFile(keyPath("EMPTY"), {});
    expectRefused("EMPTY", SoftkeyStatus::FileForeign);
    writeFile(keyPath("NOISE"), Data(100'000, 0xa7));
    expectRefused("NOISE", SoftkeyStatus::FileForeign);
    sqlite("CREATE TABLE t (x); INSERT INTO t VALUES (1);", "OTHER");
    expectRefused("OTHER", SoftkeyStatus::FileForeign);
    sqlite("PRAGMA journal_mode = WAL; CREATE TABLE t (x); PRAGMA application_id = 1447773529;"
           "PRAGMA user_version = 2;",
           "WAL");
    expectRefused("WAL", SoftkeyStatus::FileDamaged);
    std::filesystem::create_directory(keyPath("FOLDER"));
    EXPECT_EQ(velkor_initDevice("FOLDER", true, instance), code(SoftkeyStatus::FileForeign));
}

TEST_F(StorageTest, ACopyUnderAnotherNameIsNoSecondDevice)
{
    std::filesystem::copy_file(keyPath(), keyPath("COPY"));
    expectRefused("COPY", SoftkeyStatus::FileForeign);
}

TEST_F(StorageTest, DamagedFilesAreRefused)
{
    createKey(cheapSettings("D1"));
    for (const char* damage : {"UPDATE pin SET scrypt_log_n = 60", "DELETE FROM device",
                               "DELETE FROM pin WHERE role = 2", "DROP TABLE key_pair", "PRAGMA user_version = 0",
                               "CREATE TRIGGER t AFTER UPDATE ON pin BEGIN UPDATE pin SET tries_left = 5; END"}) {
        const Data good = readFile(keyPath("D1"));
        sqlite(damage, "D1");
        expectRefused("D1", SoftkeyStatus::FileDamaged);
        std::filesystem::remove(keyPath("D1"));
        writeFile(keyPath("D1"), good);
    }
}

TEST_F(StorageTest, AFileThatClaimsManyKeyPairsReservesNoMoreThanAKeyMayHave)
{
    constexpr std::size_t CLAIMED = 400'000; // More than 400 MiB of records.
    ASSERT_GT(CLAIMED * sizeof(VelkorKeyPair), std::size_t{400} << 20);
    Database file(keyPath(), Database::Mode::Existing);
    file.execute("DROP TABLE key_pair");
    file.execute(
        ("CREATE VIEW key_pair AS WITH RECURSIVE row(id) AS (SELECT 1 UNION ALL SELECT id + 1 FROM row LIMIT " +
         std::to_string(CLAIMED) +
         ") SELECT id, x'' AS identifier, 4 AS kind, x'' AS object_id, x'' AS label, x'' AS public_key, "
         "3 AS usage_flags, 0 AS oaep_only FROM row")
            .c_str());
    ASSERT_EQ(file.number("SELECT count(*) FROM key_pair"), std::int64_t{CLAIMED});
    const auto peak = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss; // KiB.
    };
    const long before = peak();
    try {
        readContents(file);
        FAIL() << "they have no identifiers";
    } catch (const Refusal& refusal) {
        EXPECT_EQ(refusal.status(), SoftkeyStatus::FileDamaged);
    }
    EXPECT_LT(peak() - before, 100 << 10);
}

/// Every operation that reads or changes goes on with a file in which bytes were changed.
class ChangedBytesTest : public StorageTest
{
protected:
    ChangedBytesTest() : key(generate(KEY_KIND_EC_P256, "label")), good(readFile(keyPath()))
    {
        // Under its own name, in a folder without the good one.
        velkor_releaseInstance(instance);
        setenv("VELKOR_SOFTKEY_HOME", folder.path().c_str(), 1);
        velkor_createInstance(&instance);
    }

    /// Whether the file was refused as a whole.
    bool isRefused() const { return velkor_initDevice(SERIAL, true, instance) != 0; }

    void use()
    {
        const std::filesystem::path path = folder.path() / keyPath().filename();
        const Data changed = readFile(path);
        const bool refused = isRefused();
        const auto expectAnswer = [&](int status) {
            EXPECT_TRUE(status >= 0 && status <= code(SoftkeyStatus::InternalError)) << status;
            EXPECT_NE(status, code(SoftkeyStatus::InternalError));
            EXPECT_TRUE(!refused || status != 0);
        };
        int tries = 0;
        expectAnswer(velkor_validatePassword(SERIAL, PIN, USER_TYPE_USER, &tries, instance));
        expectAnswer(trySign(key, Data(32, 1)));
        expectAnswer(velkor_updateKeyPairDetails(SERIAL, key.keyIdentifier, PIN, "new", nullptr, 0, instance));
        EXPECT_TRUE(!refused || devices(true).empty());
        if (refused) {
            EXPECT_EQ(readFile(path), changed) << "a refused file was written";
        }
    }

    const VelkorKeyPair key;
    const Data good;
    const TemporaryFolder folder;
};

TEST_F(ChangedBytesTest, NeverCrashAndARefusedFileIsNeverWritten)
{
    int refusals = 0;
    for (std::size_t i = 0; i < good.size() && !HasFailure(); i += 61) {
        SCOPED_TRACE(i);
        Data changed = good;
        for (std::size_t j = i; j < std::min(i + 3, changed.size()); ++j)
            changed[j] ^= 0xff;
        folder.file(keyPath().filename().string(), changed);
        refusals += isRefused() ? 1 : 0;
        use();
        std::filesystem::remove(folder.path() / keyPath().filename());
        devices(true); // Forget the file that was there.
    }
    EXPECT_GT(refusals, 10);
    folder.file(keyPath().filename().string(), good);
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
}

TEST_F(ChangedBytesTest, ATruncatedFileIsRefused)
{
    for (const std::size_t size : {1U, 99U, 100U, 4095U, 4096U, 8192U}) {
        SCOPED_TRACE(size);
        folder.file(keyPath().filename().string(), Bytes(good).first(size));
        EXPECT_EQ(velkor_initDevice(SERIAL, true, instance),
                  code(size < 100 ? SoftkeyStatus::FileForeign : SoftkeyStatus::FileDamaged));
        use();
        std::filesystem::remove(folder.path() / keyPath().filename());
        devices(true);
    }
}

TEST_F(StorageTest, AFileTruncatedWhileInUseIsRefused)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
    std::filesystem::resize_file(keyPath(), 0);
    EXPECT_EQ(trySign(key, Data(32, 1)), code(SoftkeyStatus::FileDamaged));
    EXPECT_TRUE(devices().empty());
}

constexpr uid_t NOBODY = 65534;

/// Nothing is out of reach for root, so such a test goes on as somebody else.
class AsNobody
{
public:
    AsNobody() : self_(geteuid()) { EXPECT_TRUE(self_ != 0 || seteuid(NOBODY) == 0); }
    ~AsNobody() { EXPECT_TRUE(self_ != 0 || seteuid(self_) == 0); }
    AsNobody(const AsNobody&) = delete;
    AsNobody& operator=(const AsNobody&) = delete;

private:
    uid_t self_;
};

TEST_F(StorageTest, AFileThatMayNotBeReadIsUnreachable)
{
    createKey(cheapSettings("SHUT"));
    chmod(keyPath("SHUT").c_str(), 0);
    chmod(home.path().c_str(), 0755);
    const AsNobody nobody;
    EXPECT_EQ(velkor_initDevice("SHUT", true, instance), STATUS_DEVICE_UNREACHABLE);
}

TEST_F(StorageTest, AReadOnlyFileIsNotChanged)
{
    createKey(cheapSettings("FIXED"));
    chmod(keyPath("FIXED").c_str(), 0444);
    chmod(home.path().c_str(), 0555);
    const Data before = readFile(keyPath("FIXED"));
    {
        const AsNobody nobody;
        EXPECT_EQ(velkor_getTokenInfo("FIXED", instance).serialNumber, "FIXED") << "it can be read";
        VelkorKeyPair request;
        request.keyKind = KEY_KIND_EC_P256;
        EXPECT_EQ(velkor_generateKeyPair("FIXED", PIN, &request, instance), code(SoftkeyStatus::StorageFailed));
        int tries = 0;
        EXPECT_EQ(velkor_validatePassword("FIXED", PIN, USER_TYPE_USER, &tries, instance), STATUS_CHECK_NOT_POSSIBLE);
        EXPECT_EQ(tries, -1);
    }
    chmod(home.path().c_str(), 0755);
    EXPECT_EQ(readFile(keyPath("FIXED")), before);
}

TEST_F(StorageTest, WithoutRoomForAJournalNothingIsChanged)
{
    createKey(cheapSettings("FIXED"));
    ASSERT_EQ(chown(keyPath("FIXED").c_str(), NOBODY, NOBODY), 0);
    chmod(home.path().c_str(), 0555); // A journal cannot be made.
    const Data before = readFile(keyPath("FIXED"));
    {
        const AsNobody nobody;
        VelkorKeyPair request;
        request.keyKind = KEY_KIND_EC_P256;
        EXPECT_EQ(velkor_generateKeyPair("FIXED", PIN, &request, instance), code(SoftkeyStatus::StorageFailed));
    }
    chmod(home.path().c_str(), 0755);
    EXPECT_EQ(readFile(keyPath("FIXED")), before);
}

TEST_F(StorageTest, KeysStayListedWhileTheFolderCannotBeListed)
{
    EXPECT_EQ(devices(), std::vector<std::string>{SERIAL});
    chmod(home.path().c_str(), 0111);
    {
        const AsNobody nobody;
        EXPECT_EQ(devices(true), std::vector<std::string>{SERIAL});
    }
    chmod(home.path().c_str(), 0755);
    EXPECT_EQ(devices(true), std::vector<std::string>{SERIAL});
}

/// Waits end soon while one lives. Of the copy of the code that is in this program, not of the library.
class ShortPatience
{
public:
    explicit ShortPatience(int milliseconds = 50) : usual_(Patience::limit.exchange(milliseconds)) {}
    ~ShortPatience() { Patience::limit = usual_; }
    ShortPatience(const ShortPatience&) = delete;
    ShortPatience& operator=(const ShortPatience&) = delete;

private:
    int usual_;
};

TEST_F(StorageTest, AKeyThatSomebodyElseChangesForTooLongIsBusy)
{
    const ShortPatience patience;
    const FileLock held(lockOfKey(keyPath()), Patience());
    const std::unique_ptr<SoftKey> key = otherProcess();
    EXPECT_FALSE(key->contents()->device.serialNumber.empty()) << "it can be read";
    try {
        key->login(PinRole::User, PIN);
        ADD_FAILURE() << "the PIN was checked";
    } catch (const Refusal& refusal) {
        EXPECT_EQ(refusal.status(), SoftkeyStatus::StorageBusy);
    }
    EXPECT_EQ(key->contents()->userPin.triesLeft, 5);
}

/// Another process that keeps a file locked.
class Locker
{
public:
    Locker(const std::filesystem::path& file, const std::filesystem::path& scratch)
        : shell_(popen(("sqlite3 " + file.string()).c_str(), "w"))
    {
        const std::filesystem::path locked = scratch / "locked";
        std::fprintf(shell_, "BEGIN EXCLUSIVE;\n.shell touch %s\n", locked.c_str());
        std::fflush(shell_);
        EXPECT_TRUE(test_system::eventually([&] { return std::filesystem::exists(locked); }));
    }

    ~Locker() { pclose(shell_); }
    Locker(const Locker&) = delete;
    Locker& operator=(const Locker&) = delete;

private:
    std::FILE* shell_;
};

TEST_F(StorageTest, AFileKeptLockedIsBusy)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
    {
        const Locker other(keyPath(), scratch.path());
        const Data before = readFile(keyPath());
        EXPECT_EQ(trySign(key, Data(32, 1)), 0) << "what is unlocked is used without the file";
        std::chrono::milliseconds waited{0};
        test_system::takeOverSleeps([&](std::chrono::milliseconds time) {
            waited += time;
            return true;
        });
        EXPECT_EQ(velkor_deleteKeyPair(SERIAL, key.keyIdentifier, PIN, false, instance),
                  code(SoftkeyStatus::StorageBusy));
        int tries = 0;
        EXPECT_EQ(velkor_validatePassword(SERIAL, WRONG_PIN, USER_TYPE_USER, &tries, instance),
                  STATUS_CHECK_NOT_POSSIBLE);
        test_system::takeOverSleeps({});
        EXPECT_GE(waited, std::chrono::seconds(20)) << "two refusals, each after ten seconds";
        EXPECT_EQ(readFile(keyPath()), before);
    }
    EXPECT_EQ(velkor_deleteKeyPair(SERIAL, key.keyIdentifier, PIN, false, instance), 0);
}

/// A change that has been written to the file in good part, and is not completed.
class HalfWritten
{
public:
    explicit HalfWritten(const std::filesystem::path& path) : writer_(path, Database::Mode::Existing)
    {
        // So small a cache that pages are written before the end of the change.
        writer_.execute("PRAGMA cache_size = 1; PRAGMA cache_spill = 1; BEGIN; UPDATE device SET label = 'half'");
        for (std::int64_t number = 2; number <= 200; ++number) {
            Data der(500);
            randomBytes(der);
            const Identifier identifier = identifierOf(der);
            Statement(writer_, "INSERT INTO certificate VALUES (?, ?, x'', x'', ?)")
                .bind(number)
                .bind(Bytes(identifier))
                .bind(Bytes(der))
                .run();
        }
    }
    void complete() { writer_.execute("COMMIT"); }
    void giveUp() { writer_.execute("ROLLBACK"); }

private:
    Database writer_;
};

TEST_F(StorageTest, AReaderSeesTheLastCompletedChangeWhileAnotherIsUnderWay)
{
    generate(KEY_KIND_EC_P256, "label");
    const Data before = readFile(keyPath());
    HalfWritten change(keyPath());
    ASSERT_NE(readFile(keyPath()), before) << "nothing was written yet";
    int waits = 0;
    test_system::takeOverSleeps([&](std::chrono::milliseconds) {
        ++waits;
        return true;
    });
    const std::unique_ptr<SoftKey> fresh = otherProcess();
    const auto seen = fresh->contents();
    test_system::takeOverSleeps({});
    EXPECT_EQ(waits, 0) << "it waited for the writer";
    EXPECT_EQ(seen->device.label, "Velkor Soft Key");
    ASSERT_EQ(seen->keyPairs.size(), 1U);
    EXPECT_STREQ(seen->keyPairs[0].label, "label");
    EXPECT_TRUE(seen->certificates.empty());
    EXPECT_EQ(keyPairs().size(), 1U);
    EXPECT_TRUE(certificates().empty());
    change.complete();
    EXPECT_EQ(fresh->contents()->device.label, "half");
    EXPECT_EQ(fresh->contents()->certificates.size(), 199U);
    EXPECT_EQ(certificates().size(), 199U);
}

TEST_F(StorageTest, AReaderThroughALinkFindsTheJournalBesideTheFile)
{
    generate(KEY_KIND_EC_P256, "label");
    const std::filesystem::path target = scratch.path() / "KEY1.velkorkey";
    std::filesystem::rename(keyPath(), target);
    std::filesystem::create_symlink(target, keyPath());
    HalfWritten change(target);
    const auto seen = otherProcess()->contents();
    EXPECT_EQ(seen->device.label, "Velkor Soft Key");
    EXPECT_TRUE(seen->certificates.empty());
    change.giveUp();
}

TEST_F(StorageTest, AReaderNeverSeesAChangeThatIsGivenUp)
{
    const std::unique_ptr<SoftKey> open = otherProcess();
    const auto before = open->contents();
    HalfWritten change(keyPath());
    EXPECT_EQ(open->contents(), before);
    change.giveUp();
    EXPECT_EQ(open->contents(), before);
    EXPECT_EQ(otherProcess()->contents()->device.label, "Velkor Soft Key");
}

TEST_F(StorageTest, WhatACrashLeftBehindIsReadAsBeforeAndPutRightByTheNextChange)
{
    generate(KEY_KIND_EC_P256, "label");
    const TemporaryFolder crashed;
    const std::filesystem::path file = crashed.path() / keyPath().filename();
    {
        HalfWritten change(keyPath());
        std::filesystem::copy_file(keyPath(), file);
        std::filesystem::copy_file(keyPath().string() + "-journal", file.string() + "-journal");
        change.giveUp();
    }
    const Data left = readFile(file);
    SoftKey key(file);
    EXPECT_EQ(key.contents()->device.label, "Velkor Soft Key");
    EXPECT_EQ(key.contents()->keyPairs.size(), 1U);
    EXPECT_EQ(readFile(file), left) << "reading writes nothing";
    key.login(PinRole::User, PIN);
    EXPECT_TRUE(readFile(file.string() + "-journal").empty());
    EXPECT_EQ(key.contents()->keyPairs.size(), 1U);
    EXPECT_TRUE(key.contents()->certificates.empty());
}

TEST_F(StorageTest, DamagedJournalsNeverCrashAReader)
{
    Data journal;
    {
        HalfWritten change(keyPath());
        journal = readFile(keyPath().string() + "-journal");
        change.giveUp();
    }
    const Data file = readFile(keyPath());
    std::mt19937 random(20240303);
    for (int i = 0; i < 2000; ++i) {
        Data damaged = journal;
        const std::size_t where = i % 2 == 0 ? random() % 28 : random() % damaged.size();
        damaged[where] = static_cast<unsigned char>(random());
        damaged.resize(i % 3 == 0 ? random() % damaged.size() : damaged.size());
        ByteVector image = file;
        try {
            putBack(image, damaged);
        } catch (const Refusal& refusal) {
            EXPECT_EQ(refusal.status(), SoftkeyStatus::FileDamaged);
        }
        EXPECT_LE(image.size(), file.size() + journal.size());
    }
}

TEST_F(StorageTest, ReadersAreRightAndInTimeWhileOthersWrite)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256, "label 0", {0});
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int writer = 0; writer < 2; ++writer)
        threads.emplace_back([&] {
            const std::unique_ptr<SoftKey> file = otherProcess();
            for (int round = 0; !done; ++round) {
                const auto number = static_cast<unsigned char>(round % 100);
                const std::string label = "label " + std::to_string(number);
                file->change(PIN, [&](Database& database) {
                    updateKeyPair(database, std::to_array(key.keyIdentifier), {Bytes(&number, 1), label});
                });
            }
        });
    int torn = 0;
    int changes = 0;
    std::string last;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int read = 0; read < 400 || (changes < 2 && std::chrono::steady_clock::now() < end); ++read) {
        const std::unique_ptr<SoftKey> fresh = read % 4 == 0 ? otherProcess() : nullptr;
        const VelkorKeyPair seen = fresh ? fresh->contents()->keyPairs.at(0) : keyPairs().at(0);
        torn += seen.label != "label " + std::to_string(seen.objectId[0]) ? 1 : 0;
        changes += seen.label != last ? 1 : 0;
        last = seen.label;
    }
    done = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(torn, 0);
    EXPECT_GT(changes, 1) << "nothing was written meanwhile";
}

/// Never lets a file stand still: it gets another time again and again. With a turn at the key, or without one.
class RestlessFile
{
public:
    RestlessFile(const std::filesystem::path& path, bool takesTurns)
        : thread_([this, path, takesTurns] {
              std::optional<FileLock> turn;
              while (!done_) {
                  if (takesTurns) {
                      const FileLock next(queueOfKey(path), Patience());
                      turn.reset();
                      turn.emplace(lockOfKey(path), Patience());
                  }
                  for (int i = 0; i < 300 && !done_; ++i)
                      std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now());
              }
          })
    {
    }
    ~RestlessFile()
    {
        done_ = true;
        thread_.join();
    }
    RestlessFile(const RestlessFile&) = delete;
    RestlessFile& operator=(const RestlessFile&) = delete;

private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

void appendNumber(Data& bytes, std::size_t number)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<unsigned char>(number >> shift));
}

/// The journal of a change that replaces every page of a file.
Data journalOf(const Data& file)
{
    const std::size_t pageSize = std::size_t{file[16]} << 8 | file[17];
    const std::size_t pages = file.size() / pageSize;
    Data journal{0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};
    for (const std::size_t number : {pages, std::size_t{0}, pages, std::size_t{512}, pageSize})
        appendNumber(journal, number);
    journal.resize(512);
    for (std::size_t page = 0; page < pages; ++page) {
        const auto begin = file.begin() + static_cast<std::ptrdiff_t>(page * pageSize);
        appendNumber(journal, page + 1);
        journal.insert(journal.end(), begin, begin + static_cast<std::ptrdiff_t>(pageSize));
        std::size_t sum = 0;
        for (std::size_t i = pageSize - 200; i > 0 && i < pageSize; i -= 200)
            sum += file[page * pageSize + i];
        appendNumber(journal, sum);
    }
    return journal;
}

TEST_F(StorageTest, AReaderWhoKnowsWhatAChangeBeganWithNeedsNoFileThatStandsStill)
{
    const std::unique_ptr<SoftKey> open = otherProcess();
    const auto before = open->contents();
    const Data file = readFile(keyPath());
    otherProcess()->file().setPlugged(false);
    const std::filesystem::path journal = keyPath().string() + "-journal";
    writeFile(journal, journalOf(file)); // All is written but the end, which makes the change valid.
    EXPECT_TRUE(otherProcess()->contents()->device.plugged) << "it is no journal";
    const ShortPatience patience;
    {
        const RestlessFile restless(keyPath(), false);
        for (int i = 0; i < 200; ++i)
            ASSERT_EQ(open->contents(), before);
    }
    writeFile(journal, {});
    EXPECT_FALSE(open->contents()->device.plugged);
}

TEST_F(StorageTest, AReaderForWhomAFileNeverStandsStillTakesTheNextTurn)
{
    const ShortPatience patience(1000); // For one turn of the others, on a busy machine.
    const RestlessFile restless(keyPath(), true);
    for (int i = 0; i < 20; ++i)
        EXPECT_NO_THROW(otherProcess()->contents()) << i;
}

TEST_F(StorageTest, ReadersOfALargeKeyAreRightAndNotRefusedWhileOthersWrite)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256, "0");
    Database file(keyPath(), Database::Mode::Existing);
    file.execute("BEGIN");
    for (std::int64_t number = 2; number <= 60; ++number) {
        Data der(50'000);
        randomBytes(der);
        Statement(file, "INSERT INTO certificate VALUES (?, ?, x'', x'', ?)")
            .bind(number)
            .bind(Bytes(identifierOf(der)))
            .bind(Bytes(der))
            .run();
    }
    file.execute("COMMIT");
    std::atomic<bool> done{false};
    std::atomic<int> reported{0};
    std::thread writing([&] {
        const std::unique_ptr<SoftKey> writer = otherProcess();
        while (!done) {
            const std::string label = std::to_string(reported + 1);
            writer->file().change([&](Database& database) {
                updateKeyPair(database, std::to_array(key.keyIdentifier), {{}, label});
            });
            ++reported;
        }
    });
    const std::unique_ptr<SoftKey> reader = otherProcess();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int read = 0; read < (SANITIZED ? 20 : 100) || (reported < 5 && std::chrono::steady_clock::now() < end);
         ++read) {
        const int before = reported;
        EXPECT_GE(std::stoi(reader->contents()->keyPairs.at(0).label), before);
    }
    done = true;
    writing.join();
    EXPECT_GT(reported, 1) << "nothing was written meanwhile";
}

TEST_F(StorageTest, AJournalWithoutItsFileIsNotPlayedIntoANewKey)
{
    generate(KEY_KIND_EC_P256);
    const std::filesystem::path journal = keyPath().string() + "-journal";
    {
        Database writer(keyPath().string(), Database::Mode::Existing);
        // So small a cache that pages are written before the end of the change.
        writer.execute("PRAGMA cache_size = 1; PRAGMA cache_spill = 1; BEGIN; UPDATE device SET label = 'half';"
                       "WITH RECURSIVE n(i) AS (VALUES (2) UNION ALL SELECT i + 1 FROM n WHERE i < 200) "
                       "INSERT INTO key_pair SELECT n.i, randomblob(16), kind, object_id, label, public_key, "
                       "sealed_private_key, usage_flags, oaep_only FROM n, key_pair WHERE id = 1");
        std::filesystem::copy_file(journal, scratch.path() / "journal",
                                   std::filesystem::copy_options::overwrite_existing);
        writer.execute("ROLLBACK");
    }
    KeySettings settings = cheapSettings(SERIAL);
    settings.label = "Second";
    const auto isSound = [&] {
        try {
            const auto contents = SoftKey(keyPath()).contents();
            return contents->device.label == "Second" && contents->keyPairs.empty();
        } catch (const Refusal&) {
            return false;
        }
    };
    std::filesystem::remove(keyPath());
    std::filesystem::copy_file(scratch.path() / "journal", journal, std::filesystem::copy_options::overwrite_existing);
    createKey(settings);
    EXPECT_TRUE(isSound());
    std::filesystem::copy_file(scratch.path() / "journal", journal, std::filesystem::copy_options::overwrite_existing);
    EXPECT_FALSE(isSound()) << "the journal was not one that is played";
}

TEST_F(StorageTest, DraftsOfKilledProcessesAreSwept)
{
    const std::filesystem::path draft = home.path() / ".GONE.SK0123456789.draft";
    writeFile(draft, Data(100, 1));
    createKey(cheapSettings("NEW"));
    EXPECT_FALSE(std::filesystem::exists(draft));
    writeFile(draft, Data(100, 1));
    removeKeyFile(keyPath("NEW"));
    EXPECT_FALSE(std::filesystem::exists(draft));
    EXPECT_FALSE(std::filesystem::exists(keyPath("NEW")));
    EXPECT_TRUE(std::filesystem::exists(keyPath()));
}

TEST_F(StorageTest, AChangeOfAFileThatWasTakenAwayIsNotReportedDone)
{
    const std::unique_ptr<SoftKey> key = otherProcess();
    key->contents();
    std::filesystem::rename(keyPath(), scratch.path() / "elsewhere");
    EXPECT_THROW(key->file().setPlugged(false), Refusal);
}

TEST_F(StorageTest, PrivateKeysAndPinsAreNotInTheFile)
{
    const RsaVectorKey components = signatureVectorKey();
    store(keyOf(components).get());
    otherProcess()->changePin(PinRole::User, PIN, "a-very-special-pin");
    EXPECT_TRUE(fileContains(components.modulus)) << "the public half is stored as it is";
    EXPECT_FALSE(fileContains(components.prime1));
    EXPECT_FALSE(fileContains(components.privateExponent));
    EXPECT_FALSE(fileContains(bytesOf(PIN)));
    EXPECT_FALSE(fileContains(bytesOf("a-very-special-pin")));
    EXPECT_FALSE(fileContains(bytesOf(SO_PIN)));
}

TEST_F(StorageTest, ADeletedKeyLeavesNothingBehind)
{
    const VelkorKeyPair key = store(keyOf(signatureVectorKey()).get());
    const std::string sealedHex = sqlite("SELECT hex(sealed_private_key) FROM key_pair");
    const Data sealed = fromHex(sealedHex.substr(0, 128));
    ASSERT_TRUE(fileContains(sealed));
    EXPECT_EQ(velkor_deleteKeyPair(SERIAL, key.keyIdentifier, PIN, false, instance), 0);
    EXPECT_FALSE(fileContains(sealed));
    EXPECT_FALSE(fileContains(signatureVectorKey().modulus));
}

TEST_F(StorageTest, ASealedKeyBelongsToItsRecordAlone)
{
    const VelkorKeyPair one = generate(KEY_KIND_EC_P256);
    const VelkorKeyPair other = generate(KEY_KIND_EC_P256);
    sqlite("UPDATE key_pair SET sealed_private_key = (SELECT sealed_private_key FROM key_pair WHERE id = 1) "
           "WHERE id = 2");
    velkor_releaseInstance(instance); // Forget what was unlocked before.
    velkor_createInstance(&instance);
    EXPECT_EQ(trySign(one, Data(32, 1)), 0);
    EXPECT_EQ(trySign(other, Data(32, 1)), code(SoftkeyStatus::FileDamaged));
    sqlite("UPDATE key_pair SET kind = 6 WHERE id = 1");
    velkor_releaseInstance(instance);
    velkor_createInstance(&instance);
    EXPECT_EQ(trySign(one, Data(32, 1)), code(SoftkeyStatus::FileDamaged));
}

TEST_F(StorageTest, ASealedKeyBelongsToItsFileAlone)
{
    const SecretBuffer masterKey(SEALING_KEY_SIZE); // The same for both files, which two keys never have.
    NewKeyPair keyPair =
        prepareKeyPair(keyOf(signatureVectorKey()).get(), {}, {USAGE_SIGN_VERIFY}, masterKey, "ELSEWHERE");
    const std::unique_ptr<SoftKey> key = otherProcess();
    key->change(PIN, [&](Database& database) { storeKeyPair(database, keyPair); });
    key->file().read([&](Database& database) {
        EXPECT_NE(loadPrivateKey(database, keyPair.record, masterKey, "ELSEWHERE"), nullptr);
        try {
            loadPrivateKey(database, keyPair.record, masterKey, SERIAL);
            ADD_FAILURE() << "the key of another file was opened";
        } catch (const Refusal& refusal) {
            EXPECT_EQ(refusal.status(), SoftkeyStatus::FileDamaged);
        }
    });
}

TEST_F(StorageTest, ConnectionsAreFullySynchronised)
{
    otherProcess()->file().change([](Database& database) {
        EXPECT_EQ(database.number("PRAGMA synchronous"), 2) << "a committed change may be lost";
        EXPECT_EQ(database.number("PRAGMA secure_delete"), 1);
        EXPECT_EQ(database.number("PRAGMA mmap_size"), 0);
        Statement mode(database, "PRAGMA journal_mode");
        ASSERT_TRUE(mode.step());
        EXPECT_EQ(mode.text(0), "truncate");
    });
}

TEST_F(StorageTest, ANewKeyHasTheDocumentedScryptCost)
{
    KeySettings settings;
    settings.serialNumber = "USUAL";
    createKey(settings);
    const auto contents = otherProcess("USUAL")->contents();
    for (const PinRole role : {PinRole::User, PinRole::SecurityOfficer}) {
        EXPECT_EQ(contents->pin(role).cost.logN, 17U);
        EXPECT_EQ(contents->pin(role).cost.blockSize, 8U);
        EXPECT_EQ(contents->pin(role).cost.lanes, 1U);
    }
    EXPECT_NE(contents->userPin.salt, contents->soPin.salt);
}

TEST_F(StorageTest, AWrappedMasterKeyBelongsToItsPinAlone)
{
    sqlite("UPDATE pin SET salt = (SELECT salt FROM pin WHERE role = 2), "
           "wrapped_master_key = (SELECT wrapped_master_key FROM pin WHERE role = 2) WHERE role = 1");
    int tries = 0;
    EXPECT_EQ(velkor_validatePassword(SERIAL, SO_PIN, USER_TYPE_USER, &tries, instance), STATUS_CHECK_NOT_POSSIBLE)
        << "the checksum is that of the other's record";
    sqlite("UPDATE pin SET checksum = X''");
    EXPECT_EQ(velkor_validatePassword(SERIAL, SO_PIN, USER_TYPE_USER, &tries, instance),
              code(SoftkeyStatus::PinIncorrect));
}

TEST_F(StorageTest, ThreadsUseAndChangeOneKeyAtOnce)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    const Data hash(32, 1);
    std::atomic<int> failures{0};
    const auto repeat = [&](int times, auto work) {
        return std::thread([&failures, times, work] {
            for (int i = 0; i < times; ++i) {
                if (!work())
                    ++failures;
            }
        });
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i)
        threads.push_back(repeat(100, [&] { return trySign(key, hash) == 0; }));
    threads.push_back(repeat(100, [&] { return !keyPairs().empty() && devices().size() == 1; }));
    threads.push_back(repeat(20, [&] {
        return velkor_updateKeyPairDetails(SERIAL, key.keyIdentifier, PIN, "label", nullptr, 0, instance) == 0;
    }));
    threads.push_back(repeat(10, [&] {
        VelkorKeyPair request;
        request.keyKind = KEY_KIND_EC_P256;
        return velkor_generateKeyPair(SERIAL, PIN, &request, instance) == 0 &&
               velkor_deleteKeyPair(SERIAL, request.keyIdentifier, PIN, false, instance) == 0;
    }));
    threads.push_back(repeat(10, [&] {
        int tries = 0;
        return velkor_validatePassword(SERIAL, PIN, USER_TYPE_USER, &tries, instance) == 0;
    }));
    threads.push_back(repeat(20, [] {
        void* another = nullptr;
        velkor_createInstance(&another);
        velkor_releaseInstance(another);
        return another != nullptr;
    }));
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(keyPairs().size(), 1U);
    EXPECT_EQ(triesLeft(), 5);
}

TEST_F(StorageTest, TheFirstUsesByManyThreadsSpendNoTry)
{
    KeySettings settings = cheapSettings("FEW");
    settings.userPin = {false, 1, 1};
    createKey(settings);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i)
        threads.emplace_back([&] {
            int tries = 0;
            if (velkor_validatePassword("FEW", PIN, USER_TYPE_USER, &tries, instance) != 0)
                ++failures;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(velkor_getTokenInfo("FEW", instance).pinTriesLeft, 1);
}

} // namespace
} // namespace softkey::test
