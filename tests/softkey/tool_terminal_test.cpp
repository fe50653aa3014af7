// The command-line tool as it is on POSIX alone: on a terminal, with an output that is full, with files that are
// removed while they are in use.
#include "tool_fixture.h"

#include <array>
#include <csignal>
#include <functional>
#include <optional>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace softkey::test
{
namespace
{

TEST_F(ToolTest, RemovingNeedsConsent)
{
    expectFailure("remove KEY1", 2);
    EXPECT_EQ(devices().size(), 1U);
    generate(KEY_KIND_EC_P256);
    EXPECT_EQ(tool("remove KEY1 --yes").exitCode, 0);
    EXPECT_EQ(devices().size(), 0U);
    for (const auto& left : std::filesystem::directory_iterator(home.path()))
        EXPECT_EQ(left.path().filename(), ".lock") << "the folder's, in which there is nothing";
    expectFailure("remove KEY1 --yes", 5);
}

TEST_F(ToolTest, WithoutATerminalOrASourceThereIsNoPin)
{
    const Outcome outcome = run("setsid " + softkeyTool() + " generate KEY1 P-256");
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_EQ(outcome.error, "velkor-softkey: no terminal to ask for the user PIN on: use --pin-env or --pin-fd\n");
    EXPECT_NE(run("setsid " + softkeyTool() + " unlock KEY1 --so-pin-env OFFICER_PIN").error.find("--new-pin-fd"),
              std::string::npos)
        << "the option of the PIN that is missing";
}

/// Runs the tool on a terminal of its own and answers its prompts; returns all that the terminal showed, which `watch`
/// is given as it grows.
std::string onTerminal(const std::vector<std::string>& arguments, const std::vector<std::string>& answers,
                       int& exitCode, const std::function<void(const std::string&)>& watch = {})
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
        if (watch)
            watch(shown);
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
    EXPECT_EQ(velkor_validatePassword("ASKED", "secret-1", USER_TYPE_USER, &tries, instance), 0);
    EXPECT_EQ(velkor_validatePassword("ASKED", "secret-2", USER_TYPE_SECURITY_OFFICER, &tries, instance), 0);
    const std::string differed = onTerminal({"create", "--serial", "DIFF"}, {"secret-1", "secret-x"}, exitCode);
    EXPECT_EQ(exitCode, 3);
    EXPECT_NE(differed.find("velkor-softkey: the two entries of the user PIN differ; nothing was changed\r\n"),
              std::string::npos)
        << differed;
    EXPECT_FALSE(std::filesystem::exists(keyPath("DIFF")));
    onTerminal({"create", "--serial", "BRIEF"}, {"abc"}, exitCode);
    EXPECT_EQ(exitCode, 2) << "asked once, since it cannot become a PIN";
}

TEST_F(ToolTest, APassPhraseIsAskedTwiceWhenItIsSetAndOnceWhenItIsRead)
{
    makeKeyAndCertificate();
    EXPECT_EQ(tool("import-certificate KEY1 " + path("c.pem") + WITH_PIN).exitCode, 0);
    const std::string file = path("a.p12");
    const std::vector<std::string> exporting{"export-certificate", "KEY1", "1", "--format", "pkcs12", "--out", file};
    int exitCode = -1;
    const std::string differed = onTerminal(exporting, {"phrase-1", "phrase-x"}, exitCode);
    EXPECT_EQ(exitCode, 3);
    EXPECT_NE(differed.find("the two entries of the pass phrase of the PKCS #12 file differ"), std::string::npos)
        << differed;
    EXPECT_FALSE(std::filesystem::exists(file));
    const std::string shown = onTerminal(exporting, {"phrase-1", "phrase-1"}, exitCode);
    EXPECT_EQ(exitCode, 0) << shown;
    EXPECT_NE(shown.find("pass phrase of the PKCS #12 file again: "), std::string::npos) << shown;
    EXPECT_EQ(shown.find("phrase-1"), std::string::npos) << shown;
    EXPECT_EQ(onTerminal({"import", "KEY1", file, "--pin-env", "USER_PIN"}, {"phrase-1"}, exitCode),
              "pass phrase of the file: \r\ncertificate 1\r\n");
    EXPECT_EQ(exitCode, 0);
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

TEST_F(ToolTest, WorkOfMoreThanASecondShowsABarOnATerminalOnly)
{
    int exitCode = -1;
    const std::vector<std::string> generating{"generate", "KEY1", "P-256", "--pin-env", "USER_PIN"};
    EXPECT_EQ(onTerminal(generating, {}, exitCode), "key pair 1  P-256\r\n") << "soon done";
    EXPECT_EQ(exitCode, 0);

    const auto key = otherProcess();
    auto turn = std::make_optional<KeyFile::Turn>(key->file()); // The tool waits for it.
    const std::string shown = onTerminal(generating, {}, exitCode, [&](const std::string& sofar) {
        if (sofar.find("]  1 s") != std::string::npos)
            turn.reset();
    });
    EXPECT_EQ(exitCode, 0);
    EXPECT_FALSE(turn) << shown;
    EXPECT_EQ(shown.find("\rchecking the PIN  [====................]  1 s"), 0U) << shown;
    EXPECT_TRUE(shown.ends_with(" \rkey pair 2  P-256\r\n")) << "the bar is gone: " << shown;
    EXPECT_EQ(tool("generate KEY1 RSA-2048" + WITH_PIN).error, "") << "no terminal";
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

TEST_F(ToolTest, AnOutputThatCannotBeWrittenIsAFailure)
{
    makeKeyAndCertificate();
    EXPECT_EQ(tool("import-certificate KEY1 " + path("c.pem") + WITH_PIN).exitCode, 0);
    expectFailure("export-certificate KEY1 1 --out /dev/full", 9);
    expectFailure("export-certificate KEY1 1 --out " + path("no/such/folder"), 9);
    for (const std::string arguments : {"export-certificate KEY1 1", "list"})
        expectFailure(arguments + " >/dev/full", 9);
    const Outcome told = tool("info KEY1 --json >/dev/full");
    EXPECT_EQ(told.exitCode, 9);
    EXPECT_EQ(json::parse(told.error)["exitCode"], 9) << told.error;
}

} // namespace
} // namespace softkey::test
