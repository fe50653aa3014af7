// A key's file: its layouts, damaged and foreign files, what it keeps from a reader, and threads at work in it.
#include "world.h"

#include "crypto/keys.h"
#include "store/schema.h"

#include <atomic>
#include <cstring>
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
        EXPECT_EQ(velkor_validatePassword(serialNumber.c_str(), PIN, 1, &tries, instance), STATUS_CHECK_NOT_POSSIBLE);
        EXPECT_EQ(readFile(keyPath(serialNumber)), before);
    }

    bool fileContains(Bytes secret) const
    {
        const Data file = readFile(keyPath());
        return std::search(file.begin(), file.end(), secret.begin(), secret.end()) != file.end();
    }
};

// A file of layout 1, which knew no usage flags, with one P-256 key pair under the usual PINs.
constexpr const char* LAYOUT_1 = R"sql(
PRAGMA application_id = 1447773529;
PRAGMA user_version = 1;
CREATE TABLE device (only_row INTEGER PRIMARY KEY CHECK (only_row = 1), serial_number TEXT NOT NULL,
    label TEXT NOT NULL, model TEXT NOT NULL, firmware_version TEXT NOT NULL,
    plugged INTEGER NOT NULL CHECK (plugged IN (0, 1))) STRICT;
CREATE TABLE pin (role INTEGER PRIMARY KEY CHECK (role IN (1, 2)), changed INTEGER NOT NULL CHECK (changed IN (0, 1)),
    tries_max INTEGER NOT NULL CHECK (tries_max BETWEEN 1 AND 255),
    tries_left INTEGER NOT NULL CHECK (tries_left BETWEEN 0 AND tries_max), scrypt_log_n INTEGER NOT NULL,
    scrypt_block_size INTEGER NOT NULL, scrypt_lanes INTEGER NOT NULL, salt BLOB NOT NULL,
    wrapped_master_key BLOB NOT NULL) STRICT;
CREATE TABLE key_pair (id INTEGER PRIMARY KEY CHECK (id BETWEEN 1 AND 4095),
    identifier BLOB NOT NULL UNIQUE CHECK (length(identifier) = 16), kind INTEGER NOT NULL CHECK (kind BETWEEN 1 AND 7),
    object_id BLOB NOT NULL CHECK (length(object_id) <= 128), label BLOB NOT NULL CHECK (length(label) <= 128),
    public_key BLOB NOT NULL CHECK (length(public_key) BETWEEN 1 AND 1024), sealed_private_key BLOB NOT NULL) STRICT;
CREATE TABLE certificate (id INTEGER PRIMARY KEY CHECK (id BETWEEN 1 AND 4095),
    identifier BLOB NOT NULL UNIQUE CHECK (length(identifier) = 16),
    object_id BLOB NOT NULL CHECK (length(object_id) <= 128), label BLOB NOT NULL CHECK (length(label) <= 128),
    der BLOB NOT NULL) STRICT;
INSERT INTO device VALUES(1,'OLD1','Old key','VK1 Soft','2.1.0',1);
INSERT INTO pin VALUES(1,0,5,5,4,8,1,X'976eb89533e45fa4fc7d044e9565e591',
    X'09fdecbff3b4c1ee71bfee39daf308344455a1ea40be0f0f316e0fc17fee8f3a9dd5c47ae3297b4f97ce69a6d8049c24523609debfd2faaef6156bdc');
INSERT INTO pin VALUES(2,0,5,5,4,8,1,X'4b1768837d8eb565099219d70bab9d80',
    X'ca46ed64868e5f424ee43756803a3bb617fe4ac58d9d691409dae5c68df68eb268946527cc889e1ce84ecedcca505faf490427595abebf405a0d4a62');
INSERT INTO key_pair VALUES(1,X'1382089c8cd807a8febfb3c6ca36fefb',5,X'0102',X'6f6c642070616972',
    X'043bb070a1b610f594bab899dee88a18503e1d43f269bbf3e373274e0f0dc6efc8055547bcd199f25184e2e02bbd88a0e1d85b43f5442f3259de52fdfac1427568',
    X'ff689c3bea058d9cc4d8359fe609cd1e69c40b1ae6cc57a5f7fd68eea4ccf6f62cbfb3f60180a0457b3d5b9b28c0f27d7743093dc3789232dd4ca42e61a7d305d8ae34200263cad3d8aa7d4741a36b7ecea5f771824ef948701a11cb90eab877bef5346dbeaa731cfd4424ac5184b6fe9fa325703c966ea2652459256af7b63ed3b6b6a554d5004161d469607e7d90a3c24cfd0f75a1176e06ca926a1855873c452f24950ed9');
)sql";

TEST_F(StorageTest, AFileOfLayout1IsBroughtUpToDateAndItsKeySigns)
{
    sqlite(LAYOUT_1, "OLD1");
    const std::vector<VelkorKeyPair> keys = keyPairs("OLD1");
    ASSERT_EQ(keys.size(), 1U);
    EXPECT_STREQ(keys[0].label, "old pair");
    EXPECT_EQ(keys[0].usageFlags, USAGE_SIGN_VERIFY | USAGE_DECRYPT_ENCRYPT);
    EXPECT_EQ(sqlite("PRAGMA user_version", "OLD1"), "2\n");
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
    sqlite("ALTER TABLE device ADD COLUMN newer INTEGER; PRAGMA user_version = 3");
    const Data before = readFile(keyPath());
    EXPECT_EQ(trySign(key, Data(32, 1)), code(SoftkeyStatus::FileNewer));
    EXPECT_EQ(velkor_initDevice(SERIAL, true, instance), code(SoftkeyStatus::FileNewer));
    EXPECT_EQ(velkor_deleteKeyPair(SERIAL, key.keyIdentifier, PIN, false, instance), code(SoftkeyStatus::FileNewer));
    int tries = 0;
    EXPECT_EQ(velkor_validatePassword(SERIAL, WRONG_PIN, 1, &tries, instance), STATUS_CHECK_NOT_POSSIBLE);
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
    sqlite("PRAGMA user_version = 3", "NEWER");
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

TEST_F(StorageTest, BytesChangedAnywhereNeverCrashAndAreNeverWritten)
{
    generate(KEY_KIND_EC_P256);
    const Data good = readFile(keyPath());
    for (std::size_t i = 0; i < good.size(); i += 61) {
        Data changed = good;
        for (std::size_t j = i; j < std::min(i + 3, changed.size()); ++j)
            changed[j] ^= 0xff;
        writeFile(keyPath("KEY2"), changed);
        velkor_initDevice("KEY2", true, instance);
        velkor_getKeyPairList("KEY2", instance);
        ASSERT_EQ(readFile(keyPath("KEY2")), changed);
        std::filesystem::remove(keyPath("KEY2"));
    }
    for (const std::size_t size : {1U, 99U, 100U, 4095U, 4096U, 8192U}) {
        writeFile(keyPath("KEY2"), Bytes(good).first(size));
        EXPECT_NE(velkor_initDevice("KEY2", true, instance), 0);
        std::filesystem::remove(keyPath("KEY2"));
    }
}

TEST_F(StorageTest, AFileTruncatedWhileInUseIsRefused)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
    std::filesystem::resize_file(keyPath(), 0);
    EXPECT_NE(trySign(key, Data(32, 1)), 0);
    EXPECT_TRUE(devices().empty());
}

TEST_F(StorageTest, AFileThatMayNotBeReadIsUnreachable)
{
    createKey(cheapSettings("SHUT"));
    chmod(keyPath("SHUT").c_str(), 0);
    chmod(home.path().c_str(), 0755);
    const uid_t self = geteuid();
    const uid_t nobody = 65534; // Nothing is unreadable for root.
    ASSERT_TRUE(self != 0 || seteuid(nobody) == 0);
    const int status = velkor_initDevice("SHUT", true, instance);
    ASSERT_TRUE(self != 0 || seteuid(self) == 0);
    EXPECT_EQ(status, STATUS_DEVICE_UNREACHABLE);
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

TEST_F(StorageTest, AWrappedMasterKeyBelongsToItsPinAlone)
{
    sqlite("UPDATE pin SET salt = (SELECT salt FROM pin WHERE role = 2), "
           "wrapped_master_key = (SELECT wrapped_master_key FROM pin WHERE role = 2) WHERE role = 1");
    int tries = 0;
    EXPECT_EQ(velkor_validatePassword(SERIAL, SO_PIN, 1, &tries, instance), code(SoftkeyStatus::PinIncorrect));
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
        return velkor_validatePassword(SERIAL, PIN, 1, &tries, instance) == 0;
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
            if (velkor_validatePassword("FEW", PIN, 1, &tries, instance) != 0)
                ++failures;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(velkor_getTokenInfo("FEW", instance).pinTriesLeft, 1);
}

} // namespace
} // namespace softkey::test
