// The tool's doctor: each thing that keeps a host from a token is found, with a way to mend it.
#include "tool_fixture.h"

#include "store/schema.h"

#include <map>
#include <unistd.h>

namespace softkey::test
{
namespace
{

constexpr const char* GOOD = "GOOD1";

class DoctorTest : public ToolTest
{
protected:
    void SetUp() override
    {
        ToolTest::SetUp();
        configuration_ = scratch.file("velkor.conf", bytesOf("logLevel = 2\n"));
        test_system::setEnvironment("VELKOR_CONFIG", configuration_);
        test_system::setEnvironment("XDG_CONFIG_HOME", scratch.path().string());
        std::filesystem::create_directories(scratch.path() / "pkcs11/modules");
        registerModule(SOFTKEY_STRICT);
        result("remove KEY1 --yes");
        result("create --serial " + std::string(GOOD) + WITH_PINS);
    }
    ~DoctorTest() override
    {
        test_system::removeEnvironment("VELKOR_CONFIG");
        test_system::removeEnvironment("XDG_CONFIG_HOME");
    }

    void registerModule(const std::string& module) const
    {
        scratch.file("pkcs11/modules/velkor.module", bytesOf("# Velkor\nmodule: " + module + "\n"));
    }

    /// The findings of a look that does not find all well, whatever stands before the tool on the command line.
    static json findings(const std::string& arguments = "", const std::string& before = "")
    {
        const Outcome outcome = run(before + " " + softkeyTool() + " --json doctor " + arguments);
        EXPECT_EQ(outcome.exitCode, 1) << outcome.out << outcome.error;
        const json document = json::parse(outcome.out);
        EXPECT_EQ(document["well"], false);
        return document["findings"];
    }

    /// The way to mend the one problem with that part; empty when it is not there.
    static std::string remedy(const json& findings, const std::string& part, const std::string& text)
    {
        std::string fix;
        for (const json& finding : findings) {
            const bool isIt =
                finding["part"] == part && finding["text"].get<std::string>().find(text) != std::string::npos;
            if (finding["state"] == "problem") {
                EXPECT_TRUE(isIt) << finding;
            }
            if (isIt)
                fix = finding.value("fix", "");
            expectDocumented(fieldsOf(finding));
        }
        EXPECT_NE(fix, "") << part << ": " << text << " is not in " << findings;
        return fix;
    }

    /// Does what the doctor says.
    static void follow(const std::string& fix, const std::string& pins = WITH_CHOSEN_PIN)
    {
        const std::string name = "velkor-softkey ";
        ASSERT_TRUE(fix.starts_with(name)) << fix;
        const Outcome outcome = tool(fix.substr(name.size()) + pins);
        EXPECT_EQ(outcome.exitCode, 0) << fix << ": " << outcome.error;
    }

    static void expectWell()
    {
        const Outcome outcome = tool("doctor");
        EXPECT_EQ(outcome.exitCode, 0) << outcome.out;
        EXPECT_EQ(outcome.error, "");
        EXPECT_TRUE(outcome.out.ends_with("All is well.\n")) << outcome.out;
        EXPECT_EQ(outcome.out.find("to mend it"), std::string::npos) << outcome.out;
    }

    std::string configuration_;
};

const std::string GOOD_KEY = "key " + std::string(GOOD);

TEST_F(DoctorTest, WhenAllIsWellItSaysWhatItHasLookedAt)
{
    expectWell();
    const json document = result("doctor");
    EXPECT_EQ(document["well"], true);
    std::map<std::string, std::string> texts;
    expectFields(document, {"well", "findings"});
    for (const json& finding : document["findings"]) {
        expectFields(finding, {"state", "part", "text"});
        EXPECT_NE(finding["state"], "problem");
        if (finding["state"] != "good")
            continue;
        std::string& text = texts[finding["part"].get<std::string>()];
        text += (text.empty() ? "" : "; ") + finding["text"].get<std::string>();
    }
    EXPECT_EQ(texts["keys folder"], home.path().string());
    EXPECT_EQ(texts["module"], std::string(SOFTKEY_MODULE) + " loads and works");
    EXPECT_EQ(std::filesystem::canonical(texts["device library"]), std::filesystem::canonical(SOFTKEY_LIBRARY));
    EXPECT_EQ(texts[GOOD_KEY], "whole and plugged in, labelled \"Velkor Soft Key GOOD1\"");
    EXPECT_EQ(texts["tokens"], "the module shows 1; the strict front shows 1");
    EXPECT_EQ(texts["strict front"], std::string(SOFTKEY_STRICT) + " loads and works");
    EXPECT_EQ(texts["configuration"], configuration_);
    EXPECT_TRUE(texts["log"].starts_with("errors are logged in ")) << texts["log"];
    EXPECT_TRUE(texts["p11-kit"].starts_with(SOFTKEY_STRICT)) << texts["p11-kit"];
}

TEST_F(DoctorTest, AKeyThatHostsDoNotSeeOrCannotUseIsMendedAsItSays)
{
    EXPECT_EQ(tool("unplug GOOD1").exitCode, 0);
    follow(remedy(findings(), GOOD_KEY, "unplugged, so that no host sees it"), "");
    for (int i = 0; i < 5; ++i)
        tool("generate GOOD1 P-256 --pin-env WRONG");
    follow(remedy(findings(), GOOD_KEY, "the user PIN is locked"), " --so-pin-env OFFICER_PIN --new-pin-env USER_PIN");
    follow(remedy(findings(), GOOD_KEY, "the user PIN is initial"), WITH_PIN + " --new-pin-env CHOSEN_PIN");
    tool("generate GOOD1 P-256 --pin-env WRONG");
    expectWell(); // A try less is worth a note.
    EXPECT_NE(tool("doctor").out.find("the user PIN has 4 of 5 tries left"), std::string::npos);
    for (int i = 0; i < 5; ++i)
        tool("unlock GOOD1 --so-pin-env WRONG --new-pin-env USER_PIN");
    EXPECT_NE(remedy(findings(), GOOD_KEY, "the SO PIN is locked"), "");
}

TEST_F(DoctorTest, FilesThatAreNoUsableKeysAreFound)
{
    writeFile(keyPath("JUNK"), bytesOf("junk"));
    EXPECT_NE(remedy(findings(), "key JUNK", "not a key file").find("move "), std::string::npos);
    std::filesystem::remove(keyPath("JUNK"));

    EXPECT_EQ(tool("backup GOOD1 " + path("copy")).exitCode, 0);
    Data damaged = readFile(keyPath(GOOD));
    std::fill(damaged.begin() + 4096, damaged.end(), static_cast<unsigned char>(0x5a));
    writeFile(keyPath(GOOD), damaged);
    const std::string fix = remedy(findings(), GOOD_KEY, "the key file is damaged");
    EXPECT_TRUE(fix.starts_with("velkor-softkey restore BACKUP --yes")) << fix;
    EXPECT_TRUE(fix.ends_with("velkor-softkey remove " + std::string(GOOD))) << fix;
    EXPECT_EQ(tool("restore " + path("copy") + " --yes").exitCode, 0);
    expectWell();

    std::filesystem::permissions(keyPath(GOOD), std::filesystem::perms::others_write,
                                 std::filesystem::perm_options::add);
    EXPECT_NE(remedy(findings(), GOOD_KEY, "others may write").find("chmod go-w"), std::string::npos);
}

TEST_F(DoctorTest, AKeyOfANewerLayoutIsFound)
{
    const Data before = readFile(keyPath(GOOD));
    const std::string newer = "PRAGMA user_version = " + std::to_string(SCHEMA_VERSION + 1);
    EXPECT_EQ(run("sqlite3 " + keyPath(GOOD).string(), newer).exitCode, 0);
    EXPECT_EQ(remedy(findings(), GOOD_KEY, "the key file was written by a newer version"),
              "install the version of the software key that wrote it");
    writeFile(keyPath(GOOD), before);
    expectWell();
}

TEST_F(DoctorTest, AKeyThatIsBoundToAnotherMachineIsFound)
{
    const std::string secret = path("state/secret");
    const std::string there = "VELKOR_SOFTKEY_MACHINE_SECRET=" + secret;
    EXPECT_EQ(run(there + " " + softkeyTool() + " create --serial BOUND1 --bind-to-machine" + WITH_PINS).exitCode, 0);
    EXPECT_EQ(run(there + " " + softkeyTool() + " doctor").exitCode, 0);
    std::filesystem::rename(secret, path("kept"));
    const std::string text = "the key is bound to another machine or user";
    const std::string fix = "put the secret of its machine to " + secret;
    EXPECT_EQ(remedy(findings("", there), "key BOUND1", text), fix);
    EXPECT_EQ(run(there + " " + softkeyTool() + " create --serial OTHER1 --bind-to-machine" + WITH_PINS).exitCode, 0);
    EXPECT_EQ(remedy(findings("", there), "key BOUND1", text), fix) << "the secret is another's";
    std::filesystem::remove(keyPath("OTHER1"));
    std::filesystem::rename(path("kept"), secret);
    EXPECT_EQ(run(there + " " + softkeyTool() + " doctor").exitCode, 0);
}

TEST_F(DoctorTest, AFolderThatIsNotThereIsEmptyOrOpenToOthersIsFound)
{
    EXPECT_EQ(remedy(findings("--home " + path("none")), "keys folder", "there is no " + path("none")),
              "velkor-softkey create");
    EXPECT_FALSE(std::filesystem::exists(path("none"))) << "a look makes no folder";
    std::filesystem::create_directory(path("empty"));
    std::filesystem::permissions(path("empty"), std::filesystem::perms::owner_all);
    EXPECT_EQ(remedy(findings("--home " + path("empty")), "keys", "there is none"), "velkor-softkey create");
    std::filesystem::permissions(path("empty"), std::filesystem::perms::all);
    EXPECT_NE(findings("--home " + path("empty")).dump().find("others may write to it"), std::string::npos);
}

TEST_F(DoctorTest, AnOddFolderIsQuotedInCommands)
{
    const std::string odd = path("it's odd");
    std::filesystem::create_directory(odd);
    std::filesystem::permissions(odd, std::filesystem::perms::all);
    const std::string found = findings("--home \"" + odd + "\"").dump(); // In JSON each backslash stands twice.
    EXPECT_NE(found.find("chmod go-w '" + path("it'\\\\''s odd'")), std::string::npos) << found;
}

/// Without the right to read and write everywhere that the administrator has.
std::string asOrdinaryUser()
{
    return geteuid() == 0 ? "setpriv --bounding-set=-dac_override,-dac_read_search --inh-caps=-all" : "";
}

TEST_F(DoctorTest, AFolderOrAFileThatIsReadOnlyIsFound)
{
    using std::filesystem::perms;
    std::filesystem::permissions(keyPath(GOOD), perms::owner_read);
    EXPECT_TRUE(remedy(findings("", asOrdinaryUser()), GOOD_KEY, "its file is read-only").starts_with("chmod u+w "));
    std::filesystem::permissions(keyPath(GOOD), perms::owner_read | perms::owner_write);
    std::filesystem::permissions(home.path(), perms::owner_read | perms::owner_exec);
    EXPECT_TRUE(remedy(findings("", asOrdinaryUser()), "keys folder", "read-only").starts_with("chmod u+w "));
    std::filesystem::permissions(home.path(), perms::owner_all);
}

TEST_F(DoctorTest, ACertificateWithoutItsKeyOrWithAnotherIdIsFound)
{
    makeKeyAndCertificate();
    EXPECT_EQ(tool("import-certificate GOOD1 " + path("c.pem") + WITH_CHOSEN_PIN).exitCode, 0);
    EXPECT_NE(remedy(findings(), GOOD_KEY, "certificate 1 (CN=Tool) is without its key")
                  .find("velkor-softkey delete GOOD1 --certificate 1"),
              std::string::npos);
    EXPECT_EQ(tool("import-key GOOD1 " + path("k.pem") + " --id 01" + WITH_CHOSEN_PIN).exitCode, 0);
    const std::string fix = remedy(findings(), GOOD_KEY, "has another ID than its key pair 1");
    EXPECT_EQ(fix, "velkor-softkey relabel GOOD1 --certificate 1 --id 01");
    follow(fix);
    expectWell();
}

TEST_F(DoctorTest, ACertificateThatCannotBeReadIsFound)
{
    VelkorCertificate certificate;
    certificate.der = bytesOf("junk");
    otherProcess(GOOD)->addCertificate(CHOSEN_PIN, certificate);
    const std::string fix = remedy(findings(), GOOD_KEY, "certificate 1 cannot be read");
    EXPECT_EQ(fix, "velkor-softkey delete GOOD1 --certificate 1");
    follow(fix);
    expectWell();
}

TEST_F(DoctorTest, ACertificateOfAnIssuerIsExpectedToHaveNoKey)
{
    REQUIRE_OPENSSL_PROGRAM();
    shown("req -x509 -newkey rsa:2048 -nodes -keyout " + path("ca.key") + " -subj /CN=Issuer -out " + path("ca.pem") +
          " -addext basicConstraints=critical,CA:TRUE");
    EXPECT_EQ(tool("import-certificate GOOD1 " + path("ca.pem") + WITH_CHOSEN_PIN).exitCode, 0);
    expectWell();
    EXPECT_NE(tool("doctor").out.find("note     key GOOD1: certificate 1 (CN=Issuer) is an issuer's"),
              std::string::npos);
}

/// The module as it is installed: it knows nothing of the folder that the device library was built in.
std::string moduleWithoutFolders()
{
    const std::string folder = std::filesystem::path(SOFTKEY_LIBRARY).parent_path().string();
    std::string module = textOf(readFile(SOFTKEY_MODULE));
    for (std::size_t at = module.find(folder); at != std::string::npos; at = module.find(folder))
        module.replace(at, folder.size(), folder.size(), '/');
    return module;
}

TEST_F(DoctorTest, AModuleThatIsNotThereOrDoesNotLoadIsFound)
{
    std::filesystem::create_directory(path("lonely"));
    const std::string lonely = path("lonely/velkor-pkcs11.so");
    EXPECT_NE(remedy(findings("--module " + lonely), "module", "it is not there: " + lonely).find("--module"),
              std::string::npos);
    writeFile(lonely, bytesOf(moduleWithoutFolders()));
    EXPECT_EQ(remedy(findings("--module " + lonely), "device library", "libVelkorDSCLibrary.so"),
              "put the device library into " + path("lonely"));
    writeFile(lonely, bytesOf("junk"));
    EXPECT_TRUE(remedy(findings("--module " + lonely), "module", lonely).starts_with("install it again"));
    EXPECT_EQ(tool("doctor --module " + std::string(SOFTKEY_MODULE)).exitCode, 0);
}

/// A folder with the module and its device library, and no strict front.
std::string folderOfModule(const std::string& folder)
{
    std::filesystem::create_directory(folder);
    writeFile(folder + "/velkor-pkcs11.so", bytesOf(moduleWithoutFolders()));
    std::filesystem::create_symlink(SOFTKEY_LIBRARY, folder + "/libVelkorDSCLibrary.so");
    return folder;
}

TEST_F(DoctorTest, ADeviceLibraryThatIsNotTheModulesOwnIsFound)
{
    const std::string folder = folderOfModule(path("whole"));
    std::filesystem::copy_file(SOFTKEY_STRICT, folder + "/velkor-pkcs11-strict.so");
    const std::string module = "--module " + folder + "/velkor-pkcs11.so";
    const std::string own = folder + "/libVelkorDSCLibrary.so";
    std::filesystem::create_directory(path("elsewhere"));
    const std::string other = path("elsewhere/libVelkorDSCLibrary.so");
    const std::string loaderPath = "LD_LIBRARY_PATH=" + path("elsewhere");
    const std::string outOfPath = "take its folder out of LD_LIBRARY_PATH";
    EXPECT_EQ(run(loaderPath + " " + softkeyTool() + " doctor " + module).exitCode, 0) << "nothing is there";

    std::filesystem::copy_file(SOFTKEY_LIBRARY, other);
    std::string fix =
        remedy(findings(module, loaderPath), "device library", "the module loads " + other + ", not " + own);
    EXPECT_TRUE(fix.starts_with(outOfPath)) << fix;
    writeFile(other, bytesOf("junk"));
    fix = remedy(findings(module, loaderPath), "device library", "/velkor-pkcs11.so: " + other + ": ");
    EXPECT_TRUE(fix.starts_with(outOfPath)) << fix;
    EXPECT_EQ(tool("doctor " + module).exitCode, 0);

    std::filesystem::remove(own);
    writeFile(own, bytesOf("junk"));
    fix = remedy(findings(module), "device library", "/velkor-pkcs11.so: " + own + ": ");
    EXPECT_TRUE(fix.starts_with("install it again")) << fix;
}

TEST_F(DoctorTest, AStrictFrontThatIsNotThereOrDoesNotLoadIsFound)
{
    const std::string folder = folderOfModule(path("partial"));
    const std::string module = " --module " + folder + "/velkor-pkcs11.so";
    const std::string strict = folder + "/velkor-pkcs11-strict.so";
    const std::string fix = remedy(findings(module), "strict front", "it is not there: " + strict);
    EXPECT_TRUE(fix.starts_with("install it again")) << fix;
    writeFile(strict, bytesOf("junk"));
    remedy(findings(module), "strict front", strict);
    std::filesystem::remove(strict);
    std::filesystem::copy_file(SOFTKEY_STRICT, strict);
    const Outcome outcome = tool("doctor" + module);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.out;
    EXPECT_NE(outcome.out.find("good     strict front: " + strict + " loads and works"), std::string::npos);
    EXPECT_EQ(tool("doctor --module " + std::string(SOFTKEY_STRICT)).exitCode, 0);
}

TEST_F(DoctorTest, AConfigurationThatCannotBeReadOrUnderstoodIsFound)
{
    using std::filesystem::perms;
    std::filesystem::permissions(configuration_, perms::none);
    EXPECT_NE(remedy(findings("", asOrdinaryUser()), "configuration", configuration_ + " cannot be read")
                  .find("chmod a+r " + configuration_),
              std::string::npos);
    std::filesystem::permissions(configuration_, perms::owner_read | perms::owner_write);
    EXPECT_NE(remedy(findings("", "VELKOR_CONFIG=" + scratch.path().string()), "configuration", "cannot be read"), "");
    scratch.file("velkor.conf", bytesOf("logLevel = all\n"));
    EXPECT_NE(remedy(findings(), "configuration", "is not understood").find("logLevel = 0"), std::string::npos);
    scratch.file("velkor.conf", bytesOf("# logLevel = all\n"));
    expectWell();
    std::filesystem::remove(configuration_);
    EXPECT_NE(tool("doctor").out.find("note     configuration: there is no " + configuration_), std::string::npos);
    expectWell();
}

TEST_F(DoctorTest, WhereTheLogWouldBeIsToldWhileNothingIsLogged)
{
    using std::filesystem::perms;
    for (const std::string level : {"0", "1"}) {
        scratch.file("velkor.conf", bytesOf("logLevel = " + level + "\n"));
        const std::string folder = path("log" + level);
        std::filesystem::create_directory(folder);
        const Outcome outcome = run("TMPDIR=" + folder + " " + softkeyTool() + " doctor");
        EXPECT_EQ(outcome.exitCode, 0) << outcome.out;
        const std::string where = "log: nothing is logged; with logLevel = 2 errors would be in " + folder;
        EXPECT_NE(outcome.out.find("note     " + where + "/Brenmoor/PROGRAM/"), std::string::npos) << outcome.out;
        for (const auto& made : std::filesystem::recursive_directory_iterator(folder))
            EXPECT_TRUE(made.is_directory()) << "a look makes no log";

        const std::string effect = ": nothing could be logged";
        EXPECT_NE(remedy(findings("", "TMPDIR=" + path("none")), "log", "there is no folder for it" + effect), "");
        const std::string closed = path("closed" + level);
        std::filesystem::create_directory(closed);
        std::filesystem::permissions(closed, perms::owner_read | perms::owner_exec);
        const json found = findings("", "TMPDIR=" + closed + " " + asOrdinaryUser());
        EXPECT_NE(remedy(found, "log", "cannot be written" + effect).find("TMPDIR"), std::string::npos);
        const std::string occupied = path("occupied" + level);
        std::filesystem::create_directory(occupied);
        writeFile(occupied + "/Brenmoor", {});
        EXPECT_NE(remedy(findings("", "TMPDIR=" + occupied), "log", "cannot be written" + effect), "");
    }
}

TEST_F(DoctorTest, ALogThatCannotBeWrittenIsFound)
{
    EXPECT_NE(remedy(findings("", "TMPDIR=" + path("none")), "log", "there is no folder for it"), "");
    const std::string occupied = path("occupied");
    std::filesystem::create_directory(occupied);
    writeFile(occupied + "/Brenmoor", {});
    EXPECT_NE(remedy(findings("", "TMPDIR=" + occupied), "log", "cannot be written").find("chown"), std::string::npos);
    scratch.file("velkor.conf", bytesOf("logLevel = 3\n")); // The module complains on standard output, with each call.
    EXPECT_NE(remedy(findings("", "TMPDIR=" + path("none")), "log", "there is no folder for it"), "");
    scratch.file("velkor.conf", bytesOf("logLevel = 0\n"));
    EXPECT_NE(tool("doctor").out.find("note     log: nothing is logged"), std::string::npos);
    scratch.file("velkor.conf", bytesOf("logLevel = 3\n"));
    EXPECT_NE(tool("doctor").out.find("log: every call is logged in "), std::string::npos);
}

TEST_F(DoctorTest, ARegistrationThatIsMissingOrWrongIsFound)
{
    registerModule("/no/such/velkor-pkcs11-strict.so");
    EXPECT_NE(remedy(findings(), "p11-kit", "which is not there").find("velkor-pkcs11"), std::string::npos);
    registerModule("velkor-pkcs11-packed.so");
    EXPECT_NE(remedy(findings(), "p11-kit", "packed layout"), "");
    registerModule(SOFTKEY_MODULE);
    EXPECT_NE(remedy(findings(), "p11-kit", "names the plain module").find(SOFTKEY_STRICT), std::string::npos);
    registerModule("velkor-pkcs11-strict.so");
    EXPECT_NE(remedy(findings(), "p11-kit", "without its folder").find(SOFTKEY_STRICT), std::string::npos);
    registerModule("another.so");
    const std::string fix = remedy(findings(), "p11-kit", "the strict front is not registered");
    EXPECT_NE(fix.find(SOFTKEY_STRICT), std::string::npos) << fix;
    EXPECT_NE(fix.find(path("pkcs11/modules/velkor.module")), std::string::npos) << fix;
}

} // namespace
} // namespace softkey::test
