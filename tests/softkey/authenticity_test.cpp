// What somebody with the file, but without a PIN, can change in it without being noticed: nothing that matters.
#include "tool_fixture.h"

#include "crypto/keys.h"
#include "store/schema.h"
#include "store/sqlite.h"

#include <atomic>
#include <map>
#include <thread>

namespace softkey::test
{
namespace
{

class AuthenticityTest : public ToolTest
{
protected:
    /// Changes the file past the key, as any program can.
    void edit(const std::string& sql, const std::string& serialNumber = SERIAL) const
    {
        Database(keyPath(serialNumber), Database::Mode::Existing).execute(sql.c_str());
    }

    /// The status of the first use of a key by a process that has not seen its PIN.
    SoftkeyStatus openedAnew(const std::string& serialNumber = SERIAL) const
    {
        try {
            otherProcess(serialNumber)->requireUser(PIN);
            return SoftkeyStatus::Ok;
        } catch (const Refusal& refusal) {
            return refusal.status();
        }
    }
};

TEST_F(AuthenticityTest, EveryEditOfTheContentsIsFoundByTheNextPin)
{
    generate(KEY_KIND_RSA_2048, "pair", {1, 2}, USAGE_SIGN_VERIFY);
    const Data der = certificateNamed("one");
    VelkorCertificate certificate;
    certificate.der = der;
    otherProcess()->addCertificate(PIN, certificate);
    ASSERT_EQ(openedAnew(), SoftkeyStatus::Ok);
    const Data good = readFile(keyPath());
    for (const char* change : {
             "UPDATE device SET label = 'Another'",
             "UPDATE device SET model = 'VK2 Soft'",
             "UPDATE device SET firmware_version = '1.0.0'",
             "UPDATE device SET authenticator = X''",
             "UPDATE device SET authenticator = zeroblob(32)",
             "UPDATE key_pair SET usage_flags = 3",
             "UPDATE key_pair SET oaep_only = 1",
             "UPDATE key_pair SET label = X'41'",
             "UPDATE key_pair SET object_id = X'41'",
             "UPDATE key_pair SET id = 2",
             "DELETE FROM key_pair",
             "UPDATE certificate SET label = X'41'",
             "UPDATE certificate SET object_id = X'41'",
             "DELETE FROM certificate",
         }) {
        edit(change);
        EXPECT_EQ(openedAnew(), SoftkeyStatus::FileDamaged) << change;
        EXPECT_EQ(triesLeft(), 5) << change;
        writeFile(keyPath(), good);
        EXPECT_EQ(openedAnew(), SoftkeyStatus::Ok) << change;
    }
}

TEST_F(AuthenticityTest, EveryEditOfAPinsStateIsFoundByEitherPin)
{
    const Data good = readFile(keyPath());
    for (const char* change : {"changed = 1 - changed WHERE role = 1", "changed = 1 - changed WHERE role = 2",
                               "tries_max = 200 WHERE role = 1", "tries_max = 200 WHERE role = 2",
                               "tries_max = 5, tries_left = 5, changed = 1"}) {
        edit(std::string("UPDATE pin SET ") + change);
        EXPECT_EQ(openedAnew(), SoftkeyStatus::FileDamaged) << change;
        EXPECT_EQ(tool("unlock KEY1 --so-pin-env OFFICER_PIN --new-pin-env USER_PIN").exitCode, 7) << change;
        EXPECT_EQ(tool("set-pin KEY1 --pin-env USER_PIN --new-pin-env CHOSEN_PIN").exitCode, 7) << change;
        writeFile(keyPath(), good);
        EXPECT_EQ(openedAnew(), SoftkeyStatus::Ok) << change;
    }
}

TEST_F(AuthenticityTest, AProcessThatHasTheKeyOpenFindsAnEditAtItsNextCall)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256, "", {}, USAGE_SIGN_VERIFY);
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
    edit("UPDATE key_pair SET usage_flags = 3");
    EXPECT_EQ(trySign(key, Data(32, 1)), code(SoftkeyStatus::FileDamaged));
    EXPECT_EQ(velkor_deleteKeyPair(SERIAL, key.keyIdentifier, PIN, false, instance), code(SoftkeyStatus::FileDamaged));
    int tries = 0;
    EXPECT_EQ(velkor_validatePassword(SERIAL, PIN, USER_TYPE_USER, &tries, instance), STATUS_CHECK_NOT_POSSIBLE);
    edit("UPDATE key_pair SET usage_flags = 1");
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
}

TEST_F(AuthenticityTest, WhatChangesWithoutAPinBreaksNothing)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    otherProcess()->file().setPlugged(false);
    otherProcess()->file().setPlugged(true);
    EXPECT_EQ(trySign(key, Data(32, 1), false, WRONG_PIN), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
    result("set-pin KEY1 --pin-env USER_PIN --new-pin-env OFFICER_PIN");
    result("set-pin KEY1 --pin-env OFFICER_PIN --new-pin-env USER_PIN");
    result("unlock KEY1 --so-pin-env OFFICER_PIN --new-pin-env USER_PIN");
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
}

TEST_F(AuthenticityTest, ADamagedPinRecordIsNoWrongPin)
{
    const Data good = readFile(keyPath());
    for (const char* damage : {"UPDATE pin SET salt = randomblob(16) WHERE role = 1",
                               "UPDATE pin SET wrapped_master_key = randomblob(60) WHERE role = 1",
                               "UPDATE pin SET scrypt_log_n = 5 WHERE role = 1"}) {
        edit(damage);
        EXPECT_EQ(openedAnew(), SoftkeyStatus::FileDamaged) << damage;
        EXPECT_EQ(Database(keyPath(), Database::Mode::Existing).number("SELECT tries_left FROM pin WHERE role = 1"), 5);
        writeFile(keyPath(), good);
    }
}

TEST_F(AuthenticityTest, IdentifiersAreThoseOfTheirPublicKeysAndCertificates)
{
    generate(KEY_KIND_EC_P256);
    VelkorCertificate certificate;
    certificate.der = certificateNamed("one");
    otherProcess()->addCertificate(PIN, certificate);
    const Data good = readFile(keyPath());
    for (const char* table : {"key_pair", "certificate"}) {
        edit(std::string("UPDATE ") + table + " SET identifier = randomblob(16)");
        EXPECT_THROW(otherProcess()->contents(), Refusal) << table;
        writeFile(keyPath(), good);
    }
}

TEST_F(AuthenticityTest, AnOlderFileIsAuthenticatedWhenAPinOpensIt)
{
    Database(keyPath("OLD1"), Database::Mode::Create).execute(LAYOUT_1);
    EXPECT_EQ(otherProcess("OLD1")->contents()->authenticator.size(), 0U);
    EXPECT_EQ(openedAnew("OLD1"), SoftkeyStatus::Ok);
    EXPECT_EQ(otherProcess("OLD1")->contents()->authenticator.size(), 32U);
    edit("UPDATE key_pair SET usage_flags = 1", "OLD1");
    EXPECT_EQ(openedAnew("OLD1"), SoftkeyStatus::FileDamaged);
    edit("UPDATE device SET authenticator = X''", "OLD1");
    EXPECT_EQ(openedAnew("OLD1"), SoftkeyStatus::FileDamaged) << "it is no older file any more";
    edit("UPDATE key_pair SET usage_flags = 3", "OLD1");
    EXPECT_EQ(openedAnew("OLD1"), SoftkeyStatus::FileDamaged);
}

/// Its code was made when the states of PINs were not under it.
class FormerCodeTest : public AuthenticityTest
{
protected:
    FormerCodeTest()
    {
        Database database(keyPath("OLD3"), Database::Mode::Create);
        createSchema(database);
        database.execute(R"sql(
INSERT INTO device VALUES(1,'OLD3','Velkor Soft Key','VK1 Soft','2.1.0',1,0,
    X'485d1b66899cc36331c4f0c1cf9100b70822ed8f933f340ee77e99e576934d88');
INSERT INTO pin VALUES(1,0,5,5,4,8,1,X'4391ba6714027db7d2d5ca132ea7c468',
    X'7175207776070070e915fe37b999a920a9b7d2dd51d6cdc5448a5a6f51f4e8f020ab7e37e3162d639da37fe817033865845717099812ce330f891d7b',
    X'3bc27441a60d139a04c15d6e91557d65307c53c704d2bff7b624819ae98f7e34',X'');
INSERT INTO pin VALUES(2,1,5,5,4,8,1,X'36c9c54764d22cea170db7f37d9756cb',
    X'fdb91d98ed5c4720f499d201a27e6757c9b036201eef810294c3e090fae85d227dc1dfa8d2bcea3edaaf3f2555ec905d70a99227842fdec7e97eb637',
    X'ed32716f3abc9e821ec4d01a293a826f6c91fd347730a3d84c08b3c67e8c8f11',X'');
INSERT INTO key_pair VALUES(1,X'83c592d9cb02787b17145bd9e20ea7a5',5,X'',X'',
    X'04e539dd238186770f693de6ecf7531cf96fec8781c1a058dde7af3ebc0dfd55fadd70c2d1b6f6078152dc49040e966411a331636f31bd255ff711deff5b33cd6e',
    X'44f4002ebc3f716058052ac51cb841d3bde5472c42fcf47572e6726eb8a72c23cc9b859b5605afa282ff3a9d1073ab44a1c242593c0487e88f144dec3fb99c9c5c302f26df800342e0e14530728a6272a3f940dfdb80e7af944c97b865b105a269999c4a481b5c45b85a985beb15afded75c1b2cc17f0ca4b3379fd971e80db0da62c6a03e9d729e86b4d901ca10bd3721cee50f8b9dea0872bcfb3d5fc43d4391f8aeca17fd',3,0);
)sql");
        std::filesystem::permissions(keyPath("OLD3"), std::filesystem::perms(0600));
    }
    ByteVector codeOfFile() const { return otherProcess("OLD3")->contents()->authenticator; }
};

TEST_F(FormerCodeTest, IsTakenByTheFirstPinAndPutsThePinsUnderIt)
{
    const ByteVector former = codeOfFile();
    EXPECT_EQ(openedAnew("OLD3"), SoftkeyStatus::Ok);
    EXPECT_NE(codeOfFile(), former);
    EXPECT_EQ(result("verify OLD3" + WITH_PIN)["whole"], true);
    edit("UPDATE pin SET changed = 1", "OLD3");
    EXPECT_EQ(openedAnew("OLD3"), SoftkeyStatus::FileDamaged);
}

TEST_F(FormerCodeTest, IsRenewedByTheOtherPinToo)
{
    const ByteVector former = codeOfFile();
    result("unlock OLD3 --so-pin-env OFFICER_PIN --new-pin-env USER_PIN");
    EXPECT_NE(codeOfFile(), former);
    EXPECT_EQ(openedAnew("OLD3"), SoftkeyStatus::Ok);
    edit("UPDATE pin SET tries_max = 6", "OLD3");
    EXPECT_EQ(openedAnew("OLD3"), SoftkeyStatus::FileDamaged);
}

TEST_F(FormerCodeTest, StillGuardsWhatIsUnderIt)
{
    edit("UPDATE device SET label = 'Another'", "OLD3");
    EXPECT_EQ(openedAnew("OLD3"), SoftkeyStatus::FileDamaged);
    EXPECT_EQ(openedAnew("OLD3"), SoftkeyStatus::FileDamaged) << "refused contents do not get a new code";
}

// ---- verify ----

TEST_F(AuthenticityTest, VerifySaysThatAWholeKeyIsWhole)
{
    generate(KEY_KIND_EC_P256);
    const json found = result("verify KEY1" + WITH_PIN);
    EXPECT_EQ(found["whole"], true);
    ASSERT_EQ(found["parts"].size(), 3U) << found;
    for (const json& part : found["parts"])
        EXPECT_EQ(part["whole"], true) << part;
}

TEST_F(AuthenticityTest, VerifyCallsNoKeyWholeThatItHasNotLookedInto)
{
    generate(KEY_KIND_EC_P256);
    const json found = result("verify KEY1");
    EXPECT_EQ(found["whole"], nullptr);
    ASSERT_EQ(found["parts"].size(), 2U) << found;
    EXPECT_EQ(found["parts"][0], (json{{"part", "file"}, {"whole", true}}));
    EXPECT_EQ(found["parts"][1], (json{{"part", "contents and private keys"}, {"whole", nullptr}}));
    EXPECT_NE(tool("verify KEY1").out.find("not looked at without the PIN"), std::string::npos);
}

TEST_F(AuthenticityTest, VerifyNamesEveryDamagedRecord)
{
    for (int i = 0; i < 3; ++i)
        generate(KEY_KIND_EC_P256);
    VelkorCertificate certificate;
    certificate.der = certificateNamed("one");
    otherProcess()->addCertificate(PIN, certificate);
    edit("UPDATE key_pair SET identifier = randomblob(16) WHERE id <> 2");
    edit("UPDATE certificate SET der = X'30'");
    edit("UPDATE pin SET salt = X'' WHERE role = 2");
    for (const std::string& pin : {std::string(), WITH_PIN}) {
        const Outcome outcome = tool("--json verify KEY1" + pin);
        EXPECT_EQ(outcome.exitCode, 7);
        const json found = json::parse(outcome.out);
        EXPECT_EQ(found["whole"], false);
        std::map<std::string, json> whole;
        for (const json& part : found["parts"])
            whole[part["part"]] = part["whole"];
        EXPECT_EQ(whole, (std::map<std::string, json>{{"file", false},
                                                      {"record of the device", true},
                                                      {"record of the user PIN", true},
                                                      {"record of the SO PIN", false},
                                                      {"record of key pair 1", false},
                                                      {"record of key pair 2", true},
                                                      {"record of key pair 3", false},
                                                      {"record of certificate 1", false},
                                                      {"contents and private keys", nullptr}}));
    }
}

TEST_F(AuthenticityTest, VerifyFindsADamagedPrivateKeyBeforeItsUse)
{
    generate(KEY_KIND_EC_P256);
    generate(KEY_KIND_EC_P384);
    edit("UPDATE key_pair SET sealed_private_key = randomblob(200) WHERE id = 2");
    const Outcome outcome = tool("--json verify KEY1" + WITH_PIN);
    EXPECT_EQ(outcome.exitCode, 7);
    const json found = json::parse(outcome.out);
    EXPECT_EQ(found["whole"], false);
    EXPECT_EQ(found["parts"][2], (json{{"part", "key pair 1"}, {"whole", true}}));
    EXPECT_EQ(found["parts"][3], (json{{"part", "key pair 2"}, {"whole", false}}));
}

TEST_F(AuthenticityTest, VerifyFindsEditedContentsAndGoesOn)
{
    generate(KEY_KIND_EC_P256);
    edit("UPDATE device SET label = 'Another'");
    const Outcome outcome = tool("verify KEY1" + WITH_PIN);
    EXPECT_EQ(outcome.exitCode, 7);
    EXPECT_NE(outcome.out.find("contents"), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find("key pair 1"), std::string::npos) << outcome.out;
    EXPECT_EQ(tool("verify KEY1").exitCode, 0) << "nothing that can be seen without a PIN";
    EXPECT_EQ(tool("verify KEY1 --pin-env WRONG").exitCode, 3);
    edit("UPDATE pin SET salt = randomblob(16)");
    EXPECT_EQ(tool("verify KEY1").exitCode, 7);
}

// ---- A new master key ----

TEST_F(AuthenticityTest, AfterRekeyingAnOldCopyOpensNothingThatComesLater)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    const VelkorKeyPair rsa = store(keyOf(signatureVectorKey()).get());
    const SecretBuffer oldMasterKey = checkPin(otherProcess()->file(), PinRole::User, PIN).masterKey;
    result("set-pin KEY1 --rekey --pin-env USER_PIN --new-pin-env USER_PIN --so-pin-env OFFICER_PIN");
    const std::unique_ptr<SoftKey> other = otherProcess();
    EXPECT_THROW(other->file().read([&](Database& database) {
        loadPrivateKey(database, *other->contents()->findKeyPair(std::to_array(key.keyIdentifier)), oldMasterKey,
                       SERIAL);
    }),
                 Refusal);
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
    EXPECT_EQ(trySign(rsa, Data(32, 1)), 0);
    EXPECT_EQ(result("verify KEY1" + WITH_PIN)["whole"], true);
    result("unlock KEY1 --so-pin-env OFFICER_PIN --new-pin-env USER_PIN");
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
}

TEST_F(AuthenticityTest, UsesAndChangesBesideRekeyingAreNeverRefused)
{
    std::vector<VelkorKeyPair> keys;
    for (int i = 0; i < 6; ++i)
        keys.push_back(generate(KEY_KIND_EC_P256));
    constexpr int REKEYINGS = SANITIZED ? 40 : 150;
    std::atomic<int> done{0};
    std::thread administrator([&] {
        for (; done < REKEYINGS; ++done)
            otherProcess()->rekey(PIN, PIN, SO_PIN);
    });
    while (done < REKEYINGS && !HasFailure()) {
        for (const VelkorKeyPair& key : keys)
            EXPECT_EQ(trySign(key, Data(32, 1)), 0) << done;
        const VelkorKeyPair fresh = generate(KEY_KIND_EC_P256);
        EXPECT_EQ(trySign(fresh, Data(32, 1)), 0) << done;
        EXPECT_EQ(velkor_deleteKeyPair(SERIAL, fresh.keyIdentifier, PIN, false, instance), 0) << done;
        EXPECT_EQ(result("verify KEY1" + WITH_PIN)["whole"], true) << done;
    }
    done = REKEYINGS;
    administrator.join();
    EXPECT_EQ(triesLeft(), 5);
}

TEST_F(AuthenticityTest, RekeyingRefusesOnePinForBoth)
{
    expectFailure("set-pin KEY1 --rekey --pin-env USER_PIN --new-pin-env OFFICER_PIN --so-pin-env OFFICER_PIN", 2);
}

TEST_F(AuthenticityTest, RekeyingNeedsBothPins)
{
    generate(KEY_KIND_EC_P256);
    expectFailure("set-pin KEY1 --rekey --pin-env USER_PIN --new-pin-env CHOSEN_PIN --so-pin-env WRONG", 3);
    expectFailure("set-pin KEY1 --rekey --so --pin-env OFFICER_PIN --new-pin-env WRONG --so-pin-env OFFICER_PIN", 2);
    EXPECT_EQ(result("verify KEY1" + WITH_PIN)["whole"], true);
}

} // namespace
} // namespace softkey::test
