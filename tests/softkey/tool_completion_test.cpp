// What shells propose for the tool, held against what the tool takes.
#include "tool_fixture.h"

#include <map>

namespace softkey::test
{
namespace
{

using Options = std::set<std::string>;

class CompletionTest : public ToolTest
{
protected:
    /// The options of a command, by its help.
    static Options optionsOf(const std::string& command)
    {
        Options options = longOptionsIn(tool(command + " --help").out);
        EXPECT_EQ(options.erase("--help"), 1U) << command;
        return options;
    }

    /// What bash proposes for the last of the words, a line each.
    static std::string proposed(const std::string& words)
    {
        const Outcome outcome = run("bash -c 'source \"$0\"; COMP_WORDS=(velkor-softkey \"$@\"); COMP_CWORD=$#; "
                                    "_velkor_softkey; printf \"%s\\n\" \"${COMPREPLY[@]}\"' " +
                                    file("bash") + " " + words);
        EXPECT_EQ(outcome.exitCode, 0) << words;
        EXPECT_EQ(outcome.error, "") << words;
        return outcome.out;
    }

    /// What a shell finds wrong with its file; nothing where there is no such shell.
    static std::string mistakesIn(const std::string& shell, const std::string& looking)
    {
        return run("! command -v " + shell + " >/dev/null || " + shell + " " + looking + " " + file(shell)).error;
    }

    static std::string file(const std::string& shell) { return SOFTKEY_COMPLETIONS "." + shell; }
    static std::string textOfFile(const std::string& shell) { return textOf(readFile(file(shell))); }
};

TEST_F(CompletionTest, BashKnowsEveryCommandWithItsOptions)
{
    const std::vector<std::string> names = commands();
    std::istringstream lines(proposed("''"));
    Options first;
    for (std::string line; std::getline(lines, line);)
        first.insert(line);
    EXPECT_EQ(first, Options(names.begin(), names.end()));
    for (const std::string& name : names) {
        Options options = optionsOf(name);
        options.insert({"--home", "--json", "--help"});
        EXPECT_EQ(longOptionsIn(proposed(name + " --")), options) << name;
    }
    EXPECT_EQ(proposed("--v"), "--version\n");
}

TEST_F(CompletionTest, BashKnowsKeysKindsAndForms)
{
    const std::string backup = scratch.file("backup", {});
    EXPECT_EQ(proposed("info ''"), "KEY1\n");
    EXPECT_EQ(proposed("--home " + path("none") + " info ''"), "\n");
    EXPECT_FALSE(std::filesystem::exists(path("none"))) << "a proposal makes no folder";
    EXPECT_EQ(proposed("info --home " + home.path().string() + " K"), "KEY1\n");
    EXPECT_EQ(proposed("generate KEY1 P-"), "P-256\nP-384\nP-521\n");
    EXPECT_EQ(proposed("generate KEY1 --label x --oaep-only RSA-4"), "RSA-4096\n");
    EXPECT_EQ(proposed("generate KEY1 --usage ''"), "sign\ndecrypt\nall\n");
    EXPECT_EQ(proposed("public-key KEY1 1 --format o"), "openssh\n");
    EXPECT_EQ(proposed("export-certificate KEY1 1 --format ''"), "pem\nder\npkcs12\n");
    EXPECT_EQ(proposed("generate KEY1 P-256 --pin-env CHOSEN_"), "CHOSEN_PIN\n");
    EXPECT_EQ(proposed("restore " + path("back")), backup + "\n");
    EXPECT_EQ(proposed("import KEY1 " + path("back")), backup + "\n");
    EXPECT_EQ(proposed("create --serial ''"), "\n");
    EXPECT_EQ(proposed("create ''"), "\n");
    EXPECT_EQ(proposed("generate KEY1 P-256 ''"), "\n");
}

/// The file with one command in each line.
std::string unfolded(std::string text)
{
    for (std::size_t fold = 0; (fold = text.find("\\\n")) != std::string::npos;)
        text.erase(fold, 2);
    return text;
}

/// What stands behind a mark, up to the end; nothing without the mark.
std::string between(const std::string& line, const std::string& mark, char end)
{
    const std::size_t start = line.find(mark);
    if (start == std::string::npos)
        return {};
    const std::size_t first = start + mark.size();
    return line.substr(first, line.find(end, first) - first);
}

/// Neither fish nor zsh need be on the machine.
TEST_F(CompletionTest, FishKnowsEveryCommandWithItsOptions)
{
    const std::string whole = unfolded(textOfFile("fish"));
    std::map<std::string, Options> told;
    std::istringstream lines(whole);
    for (std::string line; std::getline(lines, line);) {
        const std::string option = between(line, "--long-option ", ' ');
        std::istringstream names(between(line, "__fish_seen_subcommand_from ", '"'));
        for (std::string name; !option.empty() && names >> name;)
            told[name].insert("--" + option);
    }
    for (const std::string& name : commands()) {
        EXPECT_EQ(told[name], optionsOf(name)) << name;
        EXPECT_NE(whole.find(" --arguments " + name + " "), std::string::npos) << name;
    }
    EXPECT_EQ(mistakesIn("fish", "--no-execute"), "");
}

TEST_F(CompletionTest, ZshKnowsEveryCommandAndOption)
{
    const std::string whole = textOfFile("zsh");
    for (const std::string& name : commands()) {
        EXPECT_NE(whole.find("'" + name + ":"), std::string::npos) << name;
        for (const std::string& option : optionsOf(name))
            EXPECT_NE(whole.find(option + "["), std::string::npos) << option;
    }
    EXPECT_EQ(mistakesIn("zsh", "-n"), "");
}

} // namespace
} // namespace softkey::test
