// The command-line tool, run as its users run it.
#include "tool_fixture.h"

#include <cstdlib>

namespace softkey::test
{
namespace
{

/// As the manual page writes it.
std::string inManual(const std::string& text)
{
    std::string written;
    for (const char character : text)
        written += character == '-' ? "\\-" : std::string(1, character);
    return written;
}

TEST_F(ToolTest, EveryCommandHasHelpAndIsInTheManual)
{
    const std::string manual = textOf(readFile(softkeyManual()));
    const auto holds = [&](const std::string& part) { return manual.find(part) != std::string::npos; };
    const std::vector<std::string> names = commands();
    EXPECT_EQ(names.size(), 22U);
    for (const std::string& name : names) {
        const Outcome help = tool(name + " --help");
        EXPECT_EQ(help.exitCode, 0) << name;
        EXPECT_EQ(help.error, "");
        EXPECT_NE(help.out.find("Usage: velkor-softkey " + name), std::string::npos) << help.out;
        const bool takesKey = help.out.find("SERIAL REQUIRED") != std::string::npos;
        const std::string written = inManual(name); // Begins a paragraph of its own, with what the command takes.
        const bool isThere = takesKey ? holds(".TP\n.BI " + written + " \" SERIAL")
                                      : holds(".TP\n.B " + written + "\n") || holds(".TP\n.BI " + written + " \"");
        EXPECT_TRUE(isThere) << name << " is not in the manual page";
        for (const std::string& option : longOptionsIn(help.out))
            EXPECT_TRUE(holds(inManual(option))) << option << " of " << name << " is not in the manual page";
    }
}

TEST_F(ToolTest, ACreatedKeyHasWhatWasChosen)
{
    const json made = result("create --serial T1 --label \"My label\" --model \"VK9 X\" --firmware 1.2.3 --tries 9 "
                             "--tries-left 2 --so-tries 8 --so-tries-left 7 --initial-so-pin" +
                             WITH_PINS);
    EXPECT_EQ(made["serial"], "T1");
    EXPECT_EQ(made["file"], keyPath("T1").string());
    const TokenInfo info = velkor_getTokenInfo("T1", instance);
    EXPECT_EQ(info.label, "My label");
    EXPECT_EQ(info.model, "VK9 X");
    EXPECT_EQ(info.firmwareVersion, "1.2.3");
    EXPECT_EQ(info.pinTriesMax, 9);
    EXPECT_EQ(info.pinTriesLeft, 2);
    EXPECT_EQ(info.soPinTriesMax, 8);
    EXPECT_EQ(info.soPinTriesLeft, 7);
    EXPECT_EQ(info.pinChanged, 1);
    EXPECT_EQ(info.soPinChanged, 0);
    expectFailure("create --serial T1" + WITH_PINS, 6);
}

TEST_F(ToolTest, ShortPinsAreWarnedOf)
{
    const Outcome outcome = tool("create --serial SHORT --scrypt-cost 4 --pin-env USER_PIN --so-pin-env OFFICER_PIN");
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.error,
              "velkor-softkey: warning: the user PIN is shorter than 8 characters: whoever gets the key's "
              "file can try them all\n");
}

TEST_F(ToolTest, TwoPinsThatAreTheSameAreRefused)
{
    expectFailure("create --serial SAME --scrypt-cost 4 --pin-env CHOSEN_PIN --so-pin-env CHOSEN_PIN", 2);
    EXPECT_FALSE(std::filesystem::exists(keyPath("SAME")));
}

TEST_F(ToolTest, AChangeOfPinMayChangeWhatItsCheckCosts)
{
    EXPECT_EQ(tool("set-pin KEY1 --scrypt-cost 6 --pin-env USER_PIN --new-pin-env CHOSEN_PIN").exitCode, 0);
    const auto contents = otherProcess()->contents();
    EXPECT_EQ(contents->userPin.cost.logN, 6U);
    EXPECT_EQ(contents->soPin.cost.logN, cheapSettings(SERIAL).cost.logN);
    EXPECT_EQ(tool("generate KEY1 P-256" + WITH_CHOSEN_PIN).exitCode, 0);
    EXPECT_EQ(tool("set-pin KEY1 --pin-env CHOSEN_PIN --new-pin-env USER_PIN").exitCode, 0);
    EXPECT_EQ(otherProcess()->contents()->userPin.cost.logN, 6U) << "as it was";
    expectFailure("set-pin KEY1 --scrypt-cost 99 --pin-env USER_PIN --new-pin-env USER_PIN", 2);
    expectFailure("set-pin KEY1 --scrypt-cost 6 --rekey --pin-env USER_PIN --new-pin-env USER_PIN", 2);
}

TEST_F(ToolTest, APinThatWasChosenCountsAsChangedUnlessItIsMadeInitial)
{
    result("create --serial CHOSEN" + WITH_PINS);
    EXPECT_EQ(velkor_getTokenInfo("CHOSEN", instance).pinChanged, 1);
    EXPECT_EQ(velkor_getTokenInfo("CHOSEN", instance).soPinChanged, 1);
    result("create --serial INITIAL --initial-pin" + WITH_PINS);
    EXPECT_EQ(velkor_getTokenInfo("INITIAL", instance).pinChanged, 0);
    EXPECT_EQ(velkor_getTokenInfo("INITIAL", instance).soPinChanged, 1);
    result("create --serial OLDER --pin-changed" + WITH_PINS);
    EXPECT_EQ(velkor_getTokenInfo("OLDER", instance).pinChanged, 1) << "what scripts used to say";
    expectFailure("create --pin-changed --initial-pin" + WITH_PINS, 2);
}

TEST_F(ToolTest, JsonDocumentsHaveTheDocumentedFields)
{
    makeKeyAndCertificate();
    const Fields stored{"number", "kind", "identifier"};
    const Fields pin{"changed", "triesMax", "triesLeft"};
    Fields key{"serial", "label", "model", "firmware", "plugged", "userPin", "soPin", "boundToMachine"};
    expectFields(result("create --serial J1" + WITH_PINS), {"serial", "label", "file"});
    expectFields(result("generate J1 P-256" + WITH_CHOSEN_PIN), stored);
    expectFields(result("import-key J1 " + path("k.pem") + WITH_CHOSEN_PIN), stored);
    expectFields(result("import-certificate J1 " + path("c.pem") + WITH_CHOSEN_PIN), {"number", "identifier"});
    writeFile(keyPath("JUNK"), bytesOf("junk"));
    const json list = result("list");
    ASSERT_EQ(list.size(), 3U);
    expectFields(list[0], key);
    expectFields(list[0]["userPin"], pin);
    expectFields(list[0]["soPin"], pin);
    expectFields(list[1], {"serial", "error"});
    const Fields certificate{"number", "label", "id", "size", "identifier"};
    Fields keyPair{"number", "kind", "label", "id", "usage", "oaepOnly", "identifier"};
    const json info = result("info J1");
    key.insert({"file", "keyPairs", "certificates"});
    expectFields(info, key);
    expectFields(info["keyPairs"][0], keyPair);
    expectFields(info["certificates"][0], certificate);
    EXPECT_EQ(info["certificates"][0]["size"], readFile(path("c.der")).size());
    const json tree = result("list --tree")[0];
    key.erase("file");
    expectFields(tree, key);
    keyPair.insert("certificates");
    expectFields(tree["keyPairs"][1], keyPair);
    expectFields(tree["keyPairs"][1]["certificates"][0], certificate);
    const json imported = result("import J1 " + path("k.pem") + WITH_CHOSEN_PIN);
    expectFields(imported, {"keyPair", "certificates"});
    expectFields(imported["keyPair"], stored);
    const json alone = result("import J1 " + path("c.pem") + WITH_CHOSEN_PIN);
    expectFields(alone, {"certificates"});
    expectFields(alone["certificates"][0], {"number", "identifier"});
    expectFields(result("self-sign J1 1 --subject CN=x" + WITH_CHOSEN_PIN), {"number", "identifier"});
    expectFields(result("relabel J1 --key 1 --label x" + WITH_CHOSEN_PIN), {"serial"});
    expectFields(result("delete J1 --key 1" + WITH_CHOSEN_PIN), {"serial"});
    expectFields(result("set-pin J1 --pin-env CHOSEN_PIN --new-pin-env USER_PIN"), {"serial"});
    expectFields(result("unlock J1 --so-pin-env OFFICER_PIN --new-pin-env USER_PIN"), {"serial"});
    expectFields(result("unplug J1"), {"serial", "plugged"});
    expectFields(result("plug J1"), {"serial", "plugged"});
    expectFields(result("remove J1 --yes"), {"serial"});
}

TEST_F(ToolTest, SerialNumbersAreMadeUpWhenNoneIsGiven)
{
    const std::string one = result("create" + WITH_PINS)["serial"];
    const std::string other = result("create" + WITH_PINS)["serial"];
    EXPECT_NE(one, other);
    EXPECT_EQ(devices().size(), 3U);
}

TEST_F(ToolTest, TheFolderMayBeNamed)
{
    REQUIRE_PATHS_IN_EXCEPTIONS();
    const std::string folder = path("another home");
    EXPECT_EQ(tool("--home \"" + folder + "\" create --serial H1" + WITH_PINS).exitCode, 0);
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(folder) / "H1.velkorkey"));
    EXPECT_EQ(result("list --home \"" + folder + "\"").size(), 1U);
    const std::string belowAFile = scratch.file("file", {}) + "/none";
    const Outcome failed = tool("--home " + belowAFile + " create" + WITH_PINS);
    EXPECT_EQ(failed.exitCode, 9);
    EXPECT_NE(failed.error.find(belowAFile), std::string::npos) << "the path that was tried is named";
}

TEST_F(ToolTest, PluggingIsSeenByARunningLibrary)
{
    REQUIRE_PATHS_IN_EXCEPTIONS();
    EXPECT_EQ(devices().size(), 1U);
    EXPECT_EQ(tool("unplug KEY1").out, "KEY1 unplugged\n");
    EXPECT_EQ(devices().size(), 0U);
    EXPECT_EQ(result("list")[0]["plugged"], false);
    expectFailure("generate KEY1 P-256" + WITH_PIN, 5);
    EXPECT_EQ(tool("plug KEY1").out, "KEY1 plugged\n");
    EXPECT_EQ(devices().size(), 1U);
    expectFailure("plug NONE", 5);
}

TEST_F(ToolTest, ARunningLibrarySeesWhatTheToolChanges)
{
    makeKeyAndCertificate();
    test_system::setEnvironment("NEW", "new-pin");
    const Data hash(32, 1);
    const std::string importing = "import-key KEY1 " + path("k.pem") + WITH_PIN;
    EXPECT_EQ(tool(importing + " --label before").exitCode, 0);
    const VelkorKeyPair key = keyPairs().at(0);
    EXPECT_EQ(trySign(key, hash), 0);

    EXPECT_EQ(tool(importing + " --label after --id 0a").exitCode, 0);
    EXPECT_STREQ(keyPairs().at(0).label, "after");
    EXPECT_EQ(keyPairs().at(0).objectId[0], 0x0a);

    EXPECT_EQ(tool("set-pin KEY1 --pin-env USER_PIN --new-pin-env NEW").exitCode, 0);
    EXPECT_EQ(trySign(key, hash), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(trySign(key, hash, false, "new-pin"), 0);

    for (int i = 0; i < 5; ++i)
        tool("generate KEY1 P-256 --pin-env WRONG");
    EXPECT_EQ(trySign(key, hash, false, "new-pin"), code(SoftkeyStatus::PinLocked));

    EXPECT_EQ(tool("unlock KEY1 --so-pin-env OFFICER_PIN --new-pin-env USER_PIN").exitCode, 0);
    EXPECT_EQ(trySign(key, hash), 0);
    EXPECT_EQ(tool("delete KEY1 --key 1" + WITH_PIN).exitCode, 0);
    EXPECT_EQ(trySign(key, hash), code(SoftkeyStatus::NoSuchObject));
}

TEST_F(ToolTest, ListShowsFilesThatCannotBeUsed)
{
    REQUIRE_PATHS_IN_EXCEPTIONS();
    writeFile(keyPath("JUNK"), bytesOf("junk"));
    const Outcome outcome = tool("list");
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out, "JUNK  unusable   not a key file\nKEY1  plugged    Velkor Soft Key\n");
    EXPECT_EQ(result("list")[0]["error"], "not a key file");
    expectFailure("info JUNK", 7);
}

TEST_F(ToolTest, AnEmptyListIsEmptyAndSaysWhatComesNext)
{
    const std::string elsewhere = "--home " + path("none") + " ";
    for (const std::string command : {"list", "list --tree"}) {
        const Outcome outcome = tool(elsewhere + command);
        EXPECT_EQ(outcome.exitCode, 0);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.error,
                  "velkor-softkey: there is no key in " + path("none") + "; velkor-softkey create makes one\n");
        EXPECT_EQ(result(elsewhere + command), json::array());
    }
}

TEST_F(ToolTest, TheVersionIsThatOfTheProject)
{
    const Outcome outcome = tool("--version");
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out, "velkor-softkey " PROJECT_VERSION_TEXT "\n");
    EXPECT_EQ(outcome.error, "");
}

TEST_F(ToolTest, PinsAreChangedAndUnlocked)
{
    test_system::setEnvironment("NEW", "new-pin");
    EXPECT_EQ(tool("set-pin KEY1 --pin-env USER_PIN --new-pin-env NEW").exitCode, 0);
    expectFailure("set-pin KEY1 --pin-env USER_PIN --new-pin-env NEW", 3);
    EXPECT_EQ(result("info KEY1")["userPin"]["triesLeft"], 4);
    EXPECT_EQ(tool("set-pin KEY1 --so --pin-env OFFICER_PIN --new-pin-env NEW").exitCode, 0);
    for (int i = 0; i < 3; ++i)
        expectFailure("generate KEY1 P-256 --pin-env WRONG", 3);
    expectFailure("generate KEY1 P-256 --pin-env WRONG", 4);
    expectFailure("generate KEY1 P-256 --pin-env NEW", 4);
    EXPECT_EQ(tool("unlock KEY1 --so-pin-env NEW --new-pin-env USER_PIN").exitCode, 0);
    EXPECT_EQ(tool("generate KEY1 P-256" + WITH_PIN).exitCode, 0);
}

TEST_F(ToolTest, PinsComeFromADescriptorLineByLine)
{
    EXPECT_EQ(tool("set-pin KEY1 --pin-fd 0 --new-pin-fd 0", std::string(PIN) + "\nsecond-pin\n").exitCode, 0);
    EXPECT_EQ(tool("generate KEY1 P-256 --pin-fd 0", "second-pin").exitCode, 0);
    expectFailure("generate KEY1 P-256 --pin-fd 99", 3);
    expectFailure("generate KEY1 P-256 --pin-fd 0", 3, "\n");
    expectFailure("generate KEY1 P-256 --pin-fd 0", 2, std::string("second-pin\0\n", 12));
    expectFailure("generate KEY1 P-256 --pin-fd 0", 2, std::string("\0second-pin\n", 12));
    expectFailure("generate KEY1 P-256 --pin-env NOT_SET", 3);
    expectFailure("set-pin KEY1 --pin-fd 0 --new-pin-fd 0", 2, "second-pin\nabc\n");
    EXPECT_EQ(result("info KEY1")["userPin"]["triesLeft"], 5);
}

TEST_F(ToolTest, AWrongPinSaysHowManyTriesAreLeft)
{
    EXPECT_NE(tool("generate KEY1 P-256 --pin-env WRONG").error.find("4 tries left"), std::string::npos);
}

TEST_F(ToolTest, KeysAndCertificatesGoOnAKeyAndComeOff)
{
    makeKeyAndCertificate();
    const json key = result("import-key KEY1 " + path("k.pem") + " --label pair --id 0A0b" + WITH_PIN);
    EXPECT_EQ(key["number"], 1);
    EXPECT_EQ(key["kind"], "RSA-2048");
    EXPECT_EQ(result("import-certificate KEY1 " + path("c.pem") + WITH_PIN)["number"], 1);
    EXPECT_EQ(result("import-certificate KEY1 " + path("c.der") + WITH_PIN)["number"], 1);
    EXPECT_EQ(result("generate KEY1 P-384 --usage sign --label ec" + WITH_PIN)["number"], 2);

    const json info = result("info KEY1");
    EXPECT_EQ(info["keyPairs"][0]["label"], "pair");
    EXPECT_EQ(info["keyPairs"][0]["id"], "0a0b");
    EXPECT_EQ(info["keyPairs"][1]["usage"], 1);
    EXPECT_EQ(info["keyPairs"][1]["oaepOnly"], false);
    EXPECT_EQ(info["certificates"][0]["label"], "pair") << "taken from its key pair";
    EXPECT_EQ(info["certificates"][0]["id"], "0a0b");

    const Data hash(32, 1);
    EXPECT_EQ(verify(keyPairs()[0], hash, sign(keyPairs()[0], hash)), 0);
    EXPECT_EQ(bytesOf(tool("export-certificate KEY1 1").out), readFile(path("c.pem")));
    EXPECT_EQ(tool("export-certificate KEY1 1 --der --out " + path("out.der")).exitCode, 0);
    EXPECT_EQ(readFile(path("out.der")), readFile(path("c.der")));

    expectFailure("delete KEY1 --key 3" + WITH_PIN, 5);
    EXPECT_EQ(tool("delete KEY1 --key 1" + WITH_PIN).exitCode, 0);
    EXPECT_EQ(tool("delete KEY1 --certificate 1" + WITH_PIN).exitCode, 0);
    EXPECT_EQ(keyPairs().size(), 1U);
    EXPECT_TRUE(certificates().empty());
    expectFailure("export-certificate KEY1 1", 5);
}

class OaepOnlyTest : public ToolTest
{
protected:
    /// The status of the decryption of a block under that padding.
    int decrypted(const VelkorKeyPair& key, PaddingMode padding) const
    {
        const Data plaintext = bytesOf("secret"), publicKey = publicKeyInfo(key);
        Data ciphertext(256);
        int size = length(ciphertext);
        EXPECT_EQ(velkor_encrypt(EncryptionType::Rsa2048, padding, plaintext.data(), length(plaintext),
                                 ciphertext.data(), &size, publicKey.data(), length(publicKey), instance),
                  0);
        unsigned char* out = nullptr;
        int outSize = 0;
        const int status = velkor_decrypt(SERIAL, key.keyIdentifier, PIN, ciphertext.data(), size, &out, &outSize,
                                          key.deviceFlag, instance);
        EXPECT_TRUE(status != 0 || Data(out, out + outSize) == plaintext);
        std::free(out);
        return status;
    }
    bool isOaepOnly() const { return result("info KEY1")["keyPairs"][0]["oaepOnly"]; }
};

TEST_F(OaepOnlyTest, AGeneratedKeyPairRefusesTheOtherPadding)
{
    result("generate KEY1 RSA-2048 --oaep-only" + WITH_PIN);
    EXPECT_TRUE(isOaepOnly());
    EXPECT_EQ(decrypted(keyPairs()[0], PaddingMode::Oaep), 0);
    EXPECT_EQ(decrypted(keyPairs()[0], PaddingMode::Pkcs1), code(SoftkeyStatus::DecryptionFailed));
    expectFailure("generate KEY1 P-256 --oaep-only" + WITH_PIN, 2);
}

TEST_F(OaepOnlyTest, AKeyPairThatIsThereWithBothPaddingsIsNotTakenForOne)
{
    makeKeyAndCertificate();
    result("import-key KEY1 " + path("k.pem") + " --label before" + WITH_PIN);
    const std::string again = "import-key KEY1 " + path("k.pem") + " --label after" + WITH_PIN;
    const Outcome refused = tool(again + " --oaep-only");
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_NE(refused.error.find("delete it first"), std::string::npos) << refused.error;
    EXPECT_STREQ(keyPairs()[0].label, "before");
    EXPECT_EQ(decrypted(keyPairs()[0], PaddingMode::Pkcs1), 0);
    result("delete KEY1 --key 1" + WITH_PIN);
    result(again + " --oaep-only");
    EXPECT_TRUE(isOaepOnly());
    result(again);
    EXPECT_TRUE(isOaepOnly()) << "what is there stays stricter";
    result(again + " --oaep-only");
}

TEST_F(ToolTest, KeyFilesOfEveryForm)
{
    REQUIRE_OPENSSL_PROGRAM();
    const std::string base = path("form");
    const auto accepted = [&](const std::string& making) {
        ASSERT_EQ(run(making).exitCode, 0);
        EXPECT_EQ(tool("import-key KEY1 " + base + WITH_PIN).exitCode, 0) << making;
    };
    accepted("openssl genrsa -traditional -out " + base + " 2048");
    accepted("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 -outform DER -out " + base);
    accepted("openssl ecparam -name secp521r1 -genkey -noout -out " + base);
    accepted("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -outform DER -out " + base);
    EXPECT_EQ(keyPairs().size(), 4U);
    for (const VelkorKeyPair& key : keyPairs())
        EXPECT_EQ(trySign(key, Data(32, 1)), 0);
}

TEST_F(ToolTest, FilesThatHoldNothingUsefulAreRefused)
{
    REQUIRE_OPENSSL_PROGRAM();
    makeKeyAndCertificate();
    const auto made = [&](const std::string& command) {
        EXPECT_EQ(run(command + " >" + path("bad")).exitCode, 0);
        return path("bad");
    };
    expectFailure("import-key KEY1 " + path("c.pem") + WITH_PIN, 8);
    expectFailure("import-certificate KEY1 " + path("k.pem") + WITH_PIN, 8);
    expectFailure("import-key KEY1 " + made("openssl genrsa 1536") + WITH_PIN, 8);
    expectFailure("import-key KEY1 " + made("openssl genrsa -3 2048") + WITH_PIN, 8);
    expectFailure("import-key KEY1 " + made("openssl genpkey -algorithm ed25519") + WITH_PIN, 8);
    expectFailure("import-key KEY1 " + made("openssl ecparam -name secp256k1 -genkey -noout") + WITH_PIN, 8);
    expectFailure("import-key KEY1 " + made("openssl genrsa -aes128 -passout pass:secret 2048") + WITH_PIN, 8);
    expectFailure("import-key KEY1 " + made("openssl genrsa -traditional -aes128 -passout pass:secret 2048") + WITH_PIN,
                  8);
    expectFailure("import-key KEY1 /no/such/file" + WITH_PIN, 2);
    EXPECT_TRUE(keyPairs().empty());
}

TEST_F(ToolTest, ADefaultLabelNamesTheSerialNumber)
{
    EXPECT_EQ(result("create --serial NAMED" + WITH_PINS)["label"], "Velkor Soft Key NAMED");
    EXPECT_EQ(velkor_getTokenInfo("NAMED", instance).label, "Velkor Soft Key NAMED");
    EXPECT_EQ(result("create --serial PLAIN --label \"\"" + WITH_PINS)["label"], "");
    EXPECT_EQ(velkor_getTokenInfo("PLAIN", instance).label, "");
}

TEST_F(ToolTest, KindsHaveOtherNamesAndCaseDoesNotCount)
{
    const auto kindOf = [](const std::string& name) {
        return result("generate KEY1 " + name + WITH_PIN)["kind"].get<std::string>();
    };
    for (const std::string name : {"p-256", "P256", "secp256r1", "prime256v1", "EC:prime256v1", "nistp256"})
        EXPECT_EQ(kindOf(name), "P-256") << name;
    EXPECT_EQ(kindOf("secp384r1"), "P-384");
    EXPECT_EQ(kindOf("p521"), "P-521");
    EXPECT_EQ(kindOf("rsa-1024"), "RSA-1024");
    EXPECT_EQ(kindOf("RSA:1024"), "RSA-1024");
    const std::size_t before = keyPairs().size();
    for (const std::string name : {"RSA", "P-25", "ec", "secp256k1", "rsa-20480", "2048"})
        expectFailure("generate KEY1 " + name + WITH_PIN, 2, {}, name + " is none of RSA-1024, RSA-2048, ");
    EXPECT_EQ(keyPairs().size(), before);
}

/// A PIN that is read makes itself known: its variable is not set, which is another exit code.
TEST_F(ToolTest, InputIsCheckedBeforeAPinIsAsked)
{
    REQUIRE_PATHS_IN_EXCEPTIONS();
    makeKeyAndCertificate();
    generate(KEY_KIND_EC_P256);
    const std::string unread = " --pin-env NOT_SET";
    const std::string pins = unread + " --so-pin-env NOT_SET";
    const std::string badId = "an object ID is up to 128 bytes in hexadecimal";
    expectFailure("generate KEY1 RSA-4096 --id xyz" + unread, 2, {}, badId);
    expectFailure("generate KEY1 RSA-4096 --id 0" + unread, 2, {}, badId);
    expectFailure("generate KEY1 RSA-4096 --label " + std::string(129, 'x') + unread, 2, {}, "a label has up to 128");
    expectFailure("generate KEY1 P-256 --oaep-only" + unread, 2, {}, "--oaep-only is for RSA keys");
    expectFailure("generate NONE P-256" + unread, 5, {}, "velkor-softkey list shows what there is");
    expectFailure("import-key KEY1 " + path("k.pem") + " --id xyz" + unread, 2, {}, badId);
    expectFailure("import-certificate KEY1 " + path("c.pem") + " --id xyz" + unread, 2, {}, badId);
    expectFailure("import-certificate KEY1 " + path("k.pem") + unread, 8);
    expectFailure("delete KEY1 --key 7" + unread, 5);
    expectFailure("create --serial seventeen-letters" + pins, 2, {}, "a serial number has 1 to 16 letters");
    expectFailure("create --model sixteen-letters." + pins, 2, {}, "a model has up to 15 bytes");
    expectFailure("create --tries 0" + pins, 2, {}, "the user PIN has 1 to 255 tries");
    expectFailure("create --serial KEY1" + pins, 6);
    EXPECT_EQ(devices().size(), 1U);
    EXPECT_EQ(keyPairs().size(), 1U);
    EXPECT_EQ(triesLeft(), 5);
}

TEST_F(ToolTest, APinFileMayHaveLinesAsWindowsEndsThem)
{
    EXPECT_EQ(tool("generate KEY1 P-256 --pin-fd 0", std::string(PIN) + "\r\n").exitCode, 0);
    EXPECT_EQ(tool("set-pin KEY1 --pin-fd 0 --new-pin-fd 0", std::string(PIN) + "\r\nsecond-pin\r\n").exitCode, 0);
    EXPECT_EQ(tool("generate KEY1 P-256 --pin-fd 0", "second-pin\r").exitCode, 0);
    expectFailure("generate KEY1 P-256 --pin-fd 0", 3, "\r\n", "a PIN is required");
    EXPECT_EQ(triesLeft(), 5);
}

TEST_F(ToolTest, MessagesSayWhatToDoNext)
{
    REQUIRE_PATHS_IN_EXCEPTIONS();
    expectFailure("generate KEY1 P-256 --pin-env NOT_SET", 3, {}, "environment variable NOT_SET is not set");
    const Outcome mistaken = tool("generate KEY1 P-256 --pin-env " + std::string(PIN));
    EXPECT_EQ(mistaken.exitCode, 3);
    EXPECT_EQ(mistaken.error, "velkor-softkey: --pin-env takes the name of an environment variable\n") << "not the PIN";
    expectFailure("generate KEY1 P-256 --pin-fd 99", 3, {}, "cannot read the user PIN from file descriptor 99");
    for (int i = 0; i < 5; ++i)
        tool("generate KEY1 P-256 --pin-env WRONG");
    expectFailure("generate KEY1 P-256" + WITH_PIN, 4, {}, "velkor-softkey unlock sets a new one");
    EXPECT_EQ(tool("unplug KEY1").exitCode, 0);
    expectFailure("generate KEY1 P-256" + WITH_PIN, 5, {}, "(velkor-softkey plug KEY1)");
}

/// The one line that a command which fails says with --json.
json failureOf(const std::string& arguments)
{
    const Outcome outcome = run(softkeyTool() + " " + arguments);
    EXPECT_EQ(outcome.out, "");
    const json failure = json::parse(outcome.error, nullptr, false);
    EXPECT_TRUE(failure.is_object()) << outcome.error;
    EXPECT_EQ(failure.value("exitCode", -1), outcome.exitCode) << outcome.error;
    return failure;
}

TEST_F(ToolTest, FailuresAndWarningsAreJsonWhenResultsAre)
{
    REQUIRE_PATHS_IN_EXCEPTIONS();
    const json refused = failureOf("--json generate KEY1 P-256 --pin-env WRONG");
    EXPECT_EQ(refused["status"], 312);
    EXPECT_EQ(refused["name"], "PinIncorrect");
    EXPECT_EQ(refused["triesLeft"], 4);
    EXPECT_EQ(refused["error"], "the PIN is not right (4 tries left)");
    EXPECT_EQ(refused["exitCode"], 3);
    EXPECT_EQ(failureOf("info NONE --json")["name"], "DeviceRemoved");
    EXPECT_EQ(failureOf("generate KEY1 P-256 --pin-env NOT_SET --json")["exitCode"], 3);
    for (const std::string misuse : {"--json", "nonsense --json", "generate KEY1 --json", "create --tries x --json"})
        EXPECT_EQ(failureOf(misuse)["exitCode"], 2) << misuse;
    const Outcome warned =
        tool("--json create --serial SHORT --scrypt-cost 4 --pin-env USER_PIN --so-pin-env OFFICER_PIN");
    EXPECT_EQ(warned.exitCode, 0);
    EXPECT_TRUE(json::parse(warned.error)["warning"].get<std::string>().starts_with("the user PIN is shorter than 8"));
    expectFields(refused, {"error", "exitCode", "status", "name", "triesLeft"});
    expectFields(json::parse(warned.error), {"warning"});
}

TEST_F(ToolTest, MistakesOfUseAreTold)
{
    REQUIRE_PATHS_IN_EXCEPTIONS();
    expectFailure("", 2);
    expectFailure("nonsense", 2);
    expectFailure("generate KEY1", 2);
    expectFailure("generate KEY1 RSA-512" + WITH_PIN, 2);
    expectFailure("generate KEY1 P-256 --pin " + std::string("x"), 2);
    expectFailure("generate KEY1 P-256 --usage all --id xyz" + WITH_PIN, 2);
    expectFailure("generate KEY1 P-256 --label " + std::string(129, 'x') + WITH_PIN, 2);
    expectFailure("delete KEY1" + WITH_PIN, 2);
    expectFailure("delete KEY1 --key 1 --certificate 1" + WITH_PIN, 2);
    expectFailure("create --serial ../x" + WITH_PINS, 2);
    expectFailure("create --scrypt-cost 99" + WITH_PIN, 2);
    expectFailure("create --tries-left -5" + WITH_PINS, 2);
    expectFailure("create --so-tries-left -1" + WITH_PINS, 2);
    EXPECT_EQ(devices().size(), 1U);
    EXPECT_TRUE(keyPairs().empty());
}

} // namespace
} // namespace softkey::test
