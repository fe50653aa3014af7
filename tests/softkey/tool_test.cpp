// The command-line tool, run as its users run it.
#include "world.h"

#include <nlohmann/json.hpp>

#include <array>
#include <csignal>
#include <pty.h>
#include <set>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace softkey::test
{
namespace
{

using nlohmann::json;

class ToolTest : public SoftkeyTest
{
protected:
    ToolTest()
    {
        setenv("USER_PIN", PIN, 1);
        setenv("OFFICER_PIN", SO_PIN, 1);
        setenv("WRONG", WRONG_PIN, 1);
    }

    static Outcome tool(const std::string& arguments, const std::string& input = {})
    {
        return run(std::string(SOFTKEY_TOOL) + " " + arguments, input);
    }
    /// The result of a command that must succeed.
    static json result(const std::string& arguments)
    {
        const Outcome outcome = tool("--json " + arguments);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
        EXPECT_EQ(outcome.error, "");
        return json::parse(outcome.out);
    }
    /// A command that must fail with that code and one line of reason.
    static void expectFailure(const std::string& arguments, int exitCode, const std::string& input = {})
    {
        const Outcome outcome = tool(arguments, input);
        EXPECT_EQ(outcome.exitCode, exitCode) << arguments;
        EXPECT_EQ(outcome.out, "");
        EXPECT_TRUE(outcome.error.starts_with("velkor-softkey: ")) << outcome.error;
        EXPECT_EQ(std::count(outcome.error.begin(), outcome.error.end(), '\n'), 1) << outcome.error;
        EXPECT_EQ(outcome.error.find(PIN), std::string::npos);
    }

    std::string path(const std::string& name) const { return (scratch.path() / name).string(); }

    void makeKeyAndCertificate() const
    {
        ASSERT_EQ(run("openssl req -x509 -newkey rsa:2048 -nodes -days 9 -subj /CN=Tool -keyout " + path("k.pem") +
                      " -out " + path("c.pem") + " && openssl x509 -in " + path("c.pem") + " -outform DER -out " +
                      path("c.der"))
                      .exitCode,
                  0);
    }
};

const std::string WITH_PIN = " --pin-env USER_PIN";
const std::string WITH_PINS = " --pin-env USER_PIN --so-pin-env OFFICER_PIN --scrypt-cost 4";

TEST_F(ToolTest, EverySubcommandHasHelp)
{
    const Outcome all = tool("--help");
    EXPECT_EQ(all.exitCode, 0);
    const Data page = readFile(SOFTKEY_MANUAL);
    const std::string manual(page.begin(), page.end());
    for (const std::string name : {"create", "list", "info", "plug", "unplug", "remove", "set-pin", "unlock",
                                   "generate", "import-key", "import-certificate", "export-certificate", "delete"}) {
        EXPECT_NE(all.out.find("  " + name + " "), std::string::npos) << name;
        const Outcome help = tool(name + " --help");
        EXPECT_EQ(help.exitCode, 0) << name;
        EXPECT_NE(help.out.find("Usage: velkor-softkey " + name), std::string::npos) << help.out;
        std::string inManual = ".TP\n.B"; // A paragraph of its own, with the options that the command has.
        const bool takesKey = help.out.find("SERIAL REQUIRED") != std::string::npos;
        inManual += takesKey ? "I " : " ";
        inManual += name;
        if (const auto dash = inManual.find('-'); dash != std::string::npos)
            inManual.insert(dash, "\\");
        EXPECT_NE(manual.find(inManual + (takesKey ? " \" SERIAL" : "\n")), std::string::npos)
            << name << " is not in the manual page";
    }
}

TEST_F(ToolTest, ACreatedKeyHasWhatWasChosen)
{
    const json made = result("create --serial T1 --label 'My label' --model 'VK9 X' --firmware 1.2.3 --tries 9 "
                             "--tries-left 2 --so-tries 8 --so-tries-left 7 --pin-changed" +
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

using Fields = std::set<std::string>;

Fields fieldsOf(const json& object)
{
    Fields names;
    for (const auto& [name, value] : object.items())
        names.insert(name);
    return names;
}

/// Every field is in the section of the manual page about JSON.
void expectDocumented(const Fields& names)
{
    const Data page = readFile(SOFTKEY_MANUAL);
    std::string section(page.begin(), page.end());
    section = section.substr(section.find(".SH JSON OUTPUT"));
    section.resize(section.find(".SH EXIT STATUS"));
    for (const std::string& name : names) {
        const bool found = section.find(".I " + name + "\n") != std::string::npos ||
                           section.find(".IR " + name + " ") != std::string::npos;
        EXPECT_TRUE(found) << name << " is not in the manual page";
    }
}

TEST_F(ToolTest, JsonDocumentsHaveTheDocumentedFields)
{
    makeKeyAndCertificate();
    const auto expectFields = [](const json& document, const Fields& names) {
        EXPECT_EQ(fieldsOf(document), names) << document;
        expectDocumented(names);
    };
    const Fields stored{"number", "kind", "identifier"};
    const Fields pin{"changed", "triesMax", "triesLeft"};
    Fields key{"serial", "label", "model", "firmware", "plugged", "userPin", "soPin"};
    expectFields(result("create --serial J1" + WITH_PINS), {"serial", "file"});
    expectFields(result("generate J1 P-256" + WITH_PIN), stored);
    expectFields(result("import-key J1 " + path("k.pem") + WITH_PIN), stored);
    expectFields(result("import-certificate J1 " + path("c.pem") + WITH_PIN), {"number", "identifier"});
    writeFile(keyPath("JUNK"), bytesOf("junk"));
    const json list = result("list");
    ASSERT_EQ(list.size(), 3U);
    expectFields(list[0], key);
    expectFields(list[0]["userPin"], pin);
    expectFields(list[0]["soPin"], pin);
    expectFields(list[1], {"serial", "error"});
    const json info = result("info J1");
    key.insert({"file", "keyPairs", "certificates"});
    expectFields(info, key);
    expectFields(info["keyPairs"][0], {"number", "kind", "label", "id", "usage", "identifier"});
    expectFields(info["certificates"][0], {"number", "label", "id", "size", "identifier"});
    EXPECT_EQ(info["certificates"][0]["size"], readFile(path("c.der")).size());
    expectFields(result("delete J1 --key 1" + WITH_PIN), {"serial"});
    expectFields(result("set-pin J1 --pin-env USER_PIN --new-pin-env USER_PIN"), {"serial"});
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
    const std::string folder = path("another home");
    EXPECT_EQ(tool("--home '" + folder + "' create --serial H1" + WITH_PINS).exitCode, 0);
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(folder) / "H1.velkorkey"));
    EXPECT_EQ(result("list --home '" + folder + "'").size(), 1U);
    const Outcome failed = tool("--home /proc/none create" + WITH_PINS);
    EXPECT_EQ(failed.exitCode, 9);
    EXPECT_NE(failed.error.find("/proc/none"), std::string::npos) << "the path that was tried is named";
}

TEST_F(ToolTest, PluggingIsSeenByARunningLibrary)
{
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
    setenv("NEW", "new-pin", 1);
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
    writeFile(keyPath("JUNK"), bytesOf("junk"));
    const Outcome outcome = tool("list");
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.out, "JUNK  unusable   not a key file\nKEY1  plugged    Velkor Soft Key\n");
    EXPECT_EQ(result("list")[0]["error"], "not a key file");
    expectFailure("info JUNK", 7);
}

TEST_F(ToolTest, AnEmptyListIsEmpty)
{
    const std::string elsewhere = "--home " + path("none") + " ";
    EXPECT_EQ(tool(elsewhere + "list").out, "");
    EXPECT_EQ(result(elsewhere + "list"), json::array());
}

TEST_F(ToolTest, RemovingNeedsConsent)
{
    expectFailure("remove KEY1", 2);
    EXPECT_EQ(devices().size(), 1U);
    generate(KEY_KIND_EC_P256);
    EXPECT_EQ(tool("remove KEY1 --yes").exitCode, 0);
    EXPECT_EQ(devices().size(), 0U);
    EXPECT_TRUE(std::filesystem::is_empty(home.path()));
    expectFailure("remove KEY1 --yes", 5);
}

TEST_F(ToolTest, PinsAreChangedAndUnlocked)
{
    setenv("NEW", "new-pin", 1);
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
    EXPECT_EQ(info["certificates"][0]["label"], "pair") << "taken from its key pair";
    EXPECT_EQ(info["certificates"][0]["id"], "0a0b");

    const Data hash(32, 1);
    EXPECT_EQ(verify(keyPairs()[0], hash, sign(keyPairs()[0], hash)), 0);
    EXPECT_EQ(tool("export-certificate KEY1 1").out, run("openssl x509 -in " + path("c.pem")).out);
    EXPECT_EQ(tool("export-certificate KEY1 1 --der --out " + path("out.der")).exitCode, 0);
    EXPECT_EQ(readFile(path("out.der")), readFile(path("c.der")));

    expectFailure("delete KEY1 --key 3" + WITH_PIN, 5);
    EXPECT_EQ(tool("delete KEY1 --key 1" + WITH_PIN).exitCode, 0);
    EXPECT_EQ(tool("delete KEY1 --certificate 1" + WITH_PIN).exitCode, 0);
    EXPECT_EQ(keyPairs().size(), 1U);
    EXPECT_TRUE(certificates().empty());
    expectFailure("export-certificate KEY1 1", 5);
}

TEST_F(ToolTest, KeyFilesOfEveryForm)
{
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

TEST_F(ToolTest, MistakesOfUseAreTold)
{
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

TEST_F(ToolTest, WithoutATerminalOrASourceThereIsNoPin)
{
    const Outcome outcome = run("setsid " + std::string(SOFTKEY_TOOL) + " generate KEY1 P-256");
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_NE(outcome.error.find("no terminal"), std::string::npos);
}

/// Runs the tool on a terminal of its own and answers its prompts; returns all that the terminal showed.
std::string onTerminal(const std::vector<std::string>& arguments, const std::vector<std::string>& answers,
                       int& exitCode)
{
    int terminal = -1;
    const pid_t process = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (process == 0) {
        std::vector<char*> argv{const_cast<char*>(SOFTKEY_TOOL)};
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        execv(SOFTKEY_TOOL, argv.data());
        _exit(99);
    }
    std::string shown;
    std::size_t prompts = 0;
    std::array<char, 256> buffer{};
    for (ssize_t size = 0; (size = read(terminal, buffer.data(), buffer.size())) > 0;) {
        shown.append(buffer.data(), static_cast<std::size_t>(size));
        if (shown.ends_with(": ") && prompts < answers.size()) {
            const std::string line = answers[prompts++] + "\n";
            EXPECT_EQ(write(terminal, line.data(), line.size()), static_cast<ssize_t>(line.size()));
        }
    }
    int status = 0;
    waitpid(process, &status, 0);
    close(terminal);
    exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return shown;
}

TEST_F(ToolTest, PromptsShowNoPinAndAskTwiceForANewOne)
{
    int exitCode = -1;
    const std::vector<std::string> create{"create", "--serial", "ASKED", "--scrypt-cost", "4"};
    const std::string shown = onTerminal(create, {"secret-1", "secret-1", "secret-2", "secret-2"}, exitCode);
    EXPECT_EQ(exitCode, 0) << shown;
    EXPECT_EQ(shown.find("secret"), std::string::npos) << shown;
    EXPECT_NE(shown.find("user PIN again: "), std::string::npos);
    int tries = 0;
    EXPECT_EQ(velkor_validatePassword("ASKED", "secret-1", 1, &tries, instance), 0);
    EXPECT_EQ(velkor_validatePassword("ASKED", "secret-2", 2, &tries, instance), 0);
    onTerminal({"create", "--serial", "DIFF"}, {"secret-1", "secret-x"}, exitCode);
    EXPECT_EQ(exitCode, 3);
}

TEST_F(ToolTest, AnOutputThatCannotBeWrittenIsAFailure)
{
    makeKeyAndCertificate();
    EXPECT_EQ(tool("import-certificate KEY1 " + path("c.pem") + WITH_PIN).exitCode, 0);
    expectFailure("export-certificate KEY1 1 --out /dev/full", 9);
    expectFailure("export-certificate KEY1 1 --out " + path("no/such/folder"), 9);
    for (const std::string arguments : {"export-certificate KEY1 1", "list", "info KEY1 --json"})
        expectFailure(arguments + " >/dev/full", 9);
}

TEST_F(ToolTest, AnInterruptedPromptLeavesTheTerminalAsItWas)
{
    int terminal = -1;
    const pid_t process = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (process == 0) {
        execl(SOFTKEY_TOOL, SOFTKEY_TOOL, "generate", "KEY1", "P-256", nullptr);
        _exit(99);
    }
    const auto echoes = [&] {
        termios settings{};
        EXPECT_EQ(tcgetattr(terminal, &settings), 0);
        return (settings.c_lflag & ECHO) != 0;
    };
    std::string shown;
    std::array<char, 256> buffer{};
    while (!shown.ends_with(": ")) {
        const ssize_t size = read(terminal, buffer.data(), buffer.size());
        ASSERT_GT(size, 0) << shown;
        shown.append(buffer.data(), static_cast<std::size_t>(size));
    }
    EXPECT_FALSE(echoes());
    EXPECT_EQ(write(terminal, "12\x03", 3), 3);
    int status = 0;
    waitpid(process, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT);
    EXPECT_TRUE(echoes());
    close(terminal);
}

TEST_F(ToolTest, LongWorkShowsProgressOnATerminalOnly)
{
    int exitCode = -1;
    const std::string shown = onTerminal({"generate", "KEY1", "RSA-2048", "--pin-env", "USER_PIN"}, {}, exitCode);
    EXPECT_EQ(exitCode, 0);
    EXPECT_NE(shown.find("generating RSA-2048 ."), std::string::npos) << shown;
    EXPECT_EQ(tool("generate KEY1 RSA-2048" + WITH_PIN).error, "");
}

TEST_F(ToolTest, RemovingAsksOnATerminal)
{
    int exitCode = -1;
    onTerminal({"remove", "KEY1"}, {"no"}, exitCode);
    EXPECT_EQ(exitCode, 2);
    EXPECT_EQ(devices().size(), 1U);
    onTerminal({"remove", "KEY1"}, {"KEY1"}, exitCode);
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(devices().size(), 0U);
}

} // namespace
} // namespace softkey::test
