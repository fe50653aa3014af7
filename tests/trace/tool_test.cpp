// The program itself: its options, its exit codes, its page in a browser, and what it follows.
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "trace_files.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velkor::trace
{
namespace
{

using nlohmann::json;
using test::logLine;

struct ToolRun {
    int code;
    std::string output;
};

std::string readWhole(const std::filesystem::path& path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

ToolRun runCommand(const std::string& command)
{
    ToolRun run{-1, ""};
    std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    std::array<char, 4096> part{};
    for (std::size_t count = 0; (count = std::fread(part.data(), 1, part.size(), pipe)) != 0;)
        run.output.append(part.data(), count);
    run.code = WEXITSTATUS(pclose(pipe));
    return run;
}

ToolRun runTool(const std::string& arguments)
{
    return runCommand(std::string(TRACE_TOOL) + " " + arguments);
}

class TraceToolTest : public testing::Test
{
protected:
    std::string path() const { return "'" + log_.string() + "'"; }

    std::filesystem::path folder_ = test::freshFolder();
    std::filesystem::path log_ = test::writtenFile(
        folder_ / "signer" / "2026-11-15.LOG",
        logLine("10:00:00:000", "DEBUG", "C_Initialize") + logLine("10:00:01:000", "DEBUG", "C_Login") +
            logLine("10:00:01:500", "ERROR", "Token password validation failed : 312") +
            logLine("10:00:01:500", "ERROR", "Token password validation failed, retry count : 2") +
            logLine("10:00:02:000", "DEBUG", "C_Sign") +
            logLine("10:00:02:001", "DEBUG", "Sign input hash : 00112233445566778899") +
            logLine("10:00:03:000", "DEBUG", "C_CreateObject") +
            logLine("10:00:03:001", "DEBUG", "Label not provided, using: <script>alert(1)</script>"));
};

TEST_F(TraceToolTest, ShowsATable)
{
    const ToolRun run = runTool(path());
    EXPECT_EQ(run.code, 0);
    EXPECT_NE(run.output.find("10:00:01.000"), std::string::npos);
    EXPECT_NE(run.output.find("refused CKR_PIN_INCORRECT"), std::string::npos);
    EXPECT_EQ(run.output.find('\033'), std::string::npos) << "colours are for terminals";
}

TEST_F(TraceToolTest, ShowsWhatWasAskedFor)
{
    const ToolRun run = runTool("--json --errors --since 10:00:01 --call Login --slow 400ms " + path());
    const json call = json::parse(run.output);
    EXPECT_EQ(call["call"], "C_Login");
    EXPECT_EQ(call["code"], "CKR_PIN_INCORRECT");
    EXPECT_EQ(call["milliseconds"], 500);
    EXPECT_EQ(call["program"], "signer");
    EXPECT_EQ(runTool("--json --since 10:00:04 " + path()).output, "");
}

TEST_F(TraceToolTest, FitsIntoTheWidthOfATerminal)
{
    if (runCommand("script --version").code != 0)
        GTEST_SKIP() << "there is no program script to run it in a terminal";
    const ToolRun run = runCommand("PAGER=cat COLUMNS=80 TERM=xterm script -qec \"" + std::string(TRACE_TOOL) + " " +
                                   path() + "\" /dev/null");
    EXPECT_NE(run.output.find("\033[31m"), std::string::npos) << run.output;
    std::istringstream lines(run.output);
    for (std::string line; std::getline(lines, line);) {
        for (std::size_t escape = line.find('\033'); escape != std::string::npos; escape = line.find('\033'))
            line.erase(escape, line.find('m', escape) - escape + 1);
        EXPECT_LE(line.find_last_not_of('\r') + 1, 80U) << line;
    }
}

TEST_F(TraceToolTest, WhatALogHoldsIsNoCommandToTheTerminal)
{
    const auto log = test::writtenFile(folder_ / "escape.LOG",
                                       test::logOf({"D C_CreateObject", "D Label not provided, using: \x1B[2Jx"}));
    for (const std::string how : {"", "summary "})
        EXPECT_EQ(runTool(how + "'" + log.string() + "'").output.find('\x1B'), std::string::npos) << how;
    EXPECT_EQ(runTool("explain 'Label not provided, using: \x1B[2Jx'").output.find('\x1B'), std::string::npos);
}

TEST_F(TraceToolTest, APageDoesNotReplaceALog)
{
    const std::string before = readWhole(log_);
    EXPECT_EQ(runTool("--html " + path() + " " + path()).code, 2);
    EXPECT_EQ(readWhole(log_), before);
}

TEST_F(TraceToolTest, TellsOfWrongUse)
{
    EXPECT_EQ(runTool("--since noon " + path()).code, 2);
    EXPECT_EQ(runTool("--slow soon " + path()).code, 2);
    EXPECT_EQ(runTool("--no-such-option").code, 2);
    EXPECT_EQ(runTool("explain nothing of the kind").code, 3);
    EXPECT_EQ(runTool("'" + (folder_ / "missing.LOG").string() + "'").code, 3);
    EXPECT_EQ(runTool("--help").code, 0);
    EXPECT_EQ(runTool("--version").output.substr(0, 13), "velkor-trace ");
}

TEST_F(TraceToolTest, SaysWhereItFoundNoLogs)
{
    const ToolRun run =
        runCommand("TMPDIR='" + std::filesystem::absolute(folder_ / "nowhere").string() + "' " + TRACE_TOOL);
    EXPECT_EQ(run.code, 3);
    EXPECT_NE(run.output.find("nowhere/Brenmoor: "), std::string::npos) << run.output;
}

TEST_F(TraceToolTest, ReadsTheOthersWhereOneLogIsMissing)
{
    const ToolRun run = runTool("'" + (folder_ / "missing.LOG").string() + "' " + path());
    EXPECT_EQ(run.code, 0);
    EXPECT_NE(run.output.find("cannot be read"), std::string::npos);
    EXPECT_NE(run.output.find("C_Login"), std::string::npos);
}

TEST_F(TraceToolTest, HidesWhatItIsToldToHide)
{
    EXPECT_NE(runTool("--json " + path()).output.find("00112233445566778899"), std::string::npos);
    EXPECT_EQ(runTool("--json --redact " + path()).output.find("00112233445566778899"), std::string::npos);
}

TEST_F(TraceToolTest, APipeInThePlaceOfALogIsNotWaitedFor)
{
    std::filesystem::create_directories(folder_ / "program");
    ASSERT_EQ(mkfifo((folder_ / "program" / todaysName()).c_str(), 0600), 0);
    EXPECT_TRUE(todaysLogs(folder_).empty());
}

TEST_F(TraceToolTest, ALinkInPlaceOfALogIsTold)
{
    std::filesystem::create_symlink("elsewhere", folder_ / "link.LOG");
    EXPECT_EQ(whyUnwritable(folder_ / "link.LOG"), "a link stands in its place");
}

// ---- Without rights ----

/// The program as a user without the rights that are taken from files here.
class TraceRightsTest : public TraceToolTest
{
protected:
    void SetUp() override
    {
        if (runCommand(tool() + " --version").code != 0)
            GTEST_SKIP() << "another user cannot run the program here";
        std::filesystem::create_directories(closed_);
    }

    void TearDown() override
    {
        std::error_code missing;
        std::filesystem::permissions(closed_, std::filesystem::perms::owner_all, missing);
    }

    /// Root may read everything: another user asks then.
    static std::string tool()
    {
        const std::string other =
            "setpriv --reuid=" + std::to_string(OTHER) + " --regid=" + std::to_string(OTHER) + " --clear-groups ";
        return (geteuid() == 0 ? other : "") + TRACE_TOOL;
    }

    /// What the program says once nobody else may look into the folder.
    ToolRun runOutside(const std::string& arguments) const
    {
        std::filesystem::permissions(closed_,
                                     geteuid() == 0 ? std::filesystem::perms::owner_all : std::filesystem::perms::none);
        return runCommand(tool() + " " + arguments);
    }

    static constexpr uid_t OTHER = 65534;
    std::filesystem::path logs_ = folder_ / "logs";
    std::filesystem::path closed_ = logs_ / "signer";
};

TEST_F(TraceRightsTest, AFolderThatCannotBeListedIsTold)
{
    const std::string word = closed_.string() + ": it cannot be read: Permission denied\n";
    const ToolRun alone = runOutside("'" + closed_.string() + "'");
    EXPECT_EQ(alone.code, 3);
    EXPECT_NE(alone.output.find(word), std::string::npos) << alone.output;
    EXPECT_NE(alone.output.find("there are no logs of today in " + closed_.string() + ": Permission denied"),
              std::string::npos)
        << alone.output;
    const ToolRun beside = runOutside("'" + closed_.string() + "' " + path());
    EXPECT_EQ(beside.code, 0);
    EXPECT_NE(beside.output.find(word), std::string::npos) << beside.output;
    EXPECT_NE(beside.output.find("C_CreateObject"), std::string::npos) << "the other log is read";
}

TEST_F(TraceRightsTest, ALogInAFolderThatCannotBeEnteredIsTold)
{
    test::writtenFile(closed_ / todaysName(), logLine("10:00:00:000", "DEBUG", "C_Login"));
    for (const std::string how : {"", "summary ", "--json "}) {
        const ToolRun run = runOutside(how + "'" + logs_.string() + "'");
        EXPECT_EQ(run.code, 3);
        EXPECT_NE(run.output.find(todaysName() + ": it cannot be read: Permission denied"), std::string::npos)
            << run.output;
    }
}

TEST_F(TraceRightsTest, AFileOfAnotherUserInPlaceOfALogIsTold)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    const auto folder = log_.parent_path();
    EXPECT_EQ(whyUnwritable(log_), "");
    ASSERT_EQ(chown(folder.c_str(), OTHER, OTHER), 0);
    EXPECT_EQ(whyUnwritable(log_), "it belongs to another user than its folder");
    const ToolRun run = runCommand(tool() + " summary " + path());
    EXPECT_EQ(run.code, 0);
    EXPECT_NE(run.output.find("1. The log cannot be written\n"), std::string::npos) << run.output;
    ASSERT_EQ(chown(log_.c_str(), OTHER, OTHER), 0);
    EXPECT_EQ(whyUnwritable(log_), "");
}

TEST_F(TraceRightsTest, ACopyAmongThoseOfOthersStandsInNobodysWay)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    ASSERT_EQ(chown(log_.c_str(), OTHER, OTHER), 0);
    std::filesystem::permissions(log_.parent_path(), std::filesystem::perms::all);
    EXPECT_EQ(whyUnwritable(log_), "") << "a folder for everybody";
    const auto kept = folder_ / "signer" / "kept.txt";
    std::filesystem::copy_file(log_, kept);
    std::filesystem::permissions(log_.parent_path(), std::filesystem::perms::owner_all);
    ASSERT_EQ(chown(kept.c_str(), OTHER, OTHER), 0);
    EXPECT_EQ(whyUnwritable(kept), "") << "no name that the module gives";
    EXPECT_NE(whyUnwritable(log_), "");
}

// ---- Damaged logs ----

std::vector<std::string> recordedLogs()
{
    std::vector<std::string> logs;
    for (const auto& file :
         std::filesystem::recursive_directory_iterator(std::filesystem::path(SOURCES) / "tests/trace/recorded")) {
        if (file.is_regular_file())
            logs.push_back(readWhole(file.path()));
    }
    std::ranges::sort(logs); // As they are found, every machine would damage them in its own way.
    return logs;
}

/// As many logs as one run of the program is to read, made from the recorded ones; their paths.
std::string damagedLogs(const std::filesystem::path& folder, std::mt19937& random)
{
    static const std::vector<std::string> RECORDED = recordedLogs();
    constexpr int LOGS_OF_RUN = 100;
    constexpr std::size_t PART = 4000;
    std::string paths;
    for (int each = 0; each < LOGS_OF_RUN; ++each) {
        const std::string& log = RECORDED[random() % RECORDED.size()];
        const std::string part = log.substr(log.size() > PART ? random() % (log.size() - PART) : 0, PART);
        const auto path = folder / ("signer" + std::to_string(each)) / "2026-11-22.LOG";
        paths += " '" + test::writtenFile(path, test::damaged(part, random)).string() + "'";
    }
    return paths;
}

TEST_F(TraceToolTest, DamagedLogsOfRealHostsAreShownInEveryWay)
{
    const std::string page = "--html '" + (folder_ / "page.html").string() + "'";
    const std::vector<std::string> ways = {"", "--json", "summary", "summary --json", "--errors --redact", page};
    std::mt19937 random(20'261'122); // NOLINT(cert-msc51-cpp): every run is to meet the same logs.
    for (int run = 0; run < DAMAGED_LOGS / 100; ++run) {
        const std::string logs = damagedLogs(folder_ / "damaged", random);
        for (const std::string& way : ways) {
            const auto shown = folder_ / "shown";
            ASSERT_EQ(runTool(way + logs + " >'" + shown.string() + "'").code, 0)
                << run << " " << way << ": " << readWhole(shown);
        }
    }
}

TEST_F(TraceToolTest, QuestionsOfAllKindsAreAnswered)
{
    std::mt19937 random(20'261'123); // NOLINT(cert-msc51-cpp)
    const std::vector<std::string> logs = recordedLogs();
    for (int question = 0; question < DAMAGED_LOGS / 30; ++question) {
        std::string line = logs[random() % logs.size()];
        line = line.substr(random() % line.size(), random() % 100);
        std::erase_if(line, [](char each) { return each == '\'' || each == '\0'; });
        const ToolRun run = runTool("explain -- '" + line + "'");
        EXPECT_TRUE(run.code == 0 || run.code == 3) << line << ": " << run.output;
    }
}

// ---- More logs, and more days ----

TEST_F(TraceToolTest, TellsWhereAnotherDayBegins)
{
    const auto next =
        test::writtenFile(folder_ / "signer" / "2026-11-16.LOG", "16/11::00:00:01:000-> ->DEBUG ::=>C_Logout\n");
    const ToolRun run = runTool(path() + " '" + next.string() + "'");
    EXPECT_EQ(run.output.find("2026-11-15\n"), std::string::npos);
    EXPECT_NE(run.output.find("\n2026-11-16\n00:00:01.000"), std::string::npos) << run.output;
    EXPECT_EQ(json::parse(runTool("--json '" + next.string() + "'").output)["date"], "2026-11-16");
}

TEST_F(TraceToolTest, ReadsAPipeThatItIsGiven)
{
    EXPECT_NE(runCommand("cat " + path() + " | " + TRACE_TOOL + " /dev/stdin").output.find("C_CreateObject"),
              std::string::npos);
}

TEST_F(TraceToolTest, HasFewFilesOpenAtOnce)
{
    for (int each = 1; each <= 200; ++each) {
        const std::string clock = std::to_string(10'000 + each).substr(1);
        test::writtenFile(folder_ / "many" / (clock + ".LOG"),
                          logLine("11:" + clock.substr(0, 2) + ":" + clock.substr(2) + ":000", "DEBUG", "C_GetInfo"));
    }
    const ToolRun run = runCommand("ulimit -n 20; '" + std::string(TRACE_TOOL) + "' '" + (folder_ / "many").string() +
                                   "'/*.LOG | grep -c C_GetInfo");
    EXPECT_EQ(run.output, "200\n");
}

// ---- What comes later ----

/// A program whose standard output is read line by line.
class RunningTool
{
public:
    RunningTool(const std::string& environment, const std::string& arguments)
        : pipe_(
              popen(("echo $$; exec env " + environment + " timeout 60 " + TRACE_TOOL + " " + arguments).c_str(), "r")),
          process_(std::stoi(nextLine()))
    {
    }
    ~RunningTool()
    {
        kill(process_, SIGTERM);
        pclose(pipe_);
    }
    RunningTool(const RunningTool&) = delete;
    RunningTool& operator=(const RunningTool&) = delete;

    /// The function of the next call, which is waited for; empty at the end.
    std::string nextCall() { return next("call"); }
    std::string next(const std::string& field)
    {
        const std::string line = nextLine();
        return line.empty() ? "" : json::parse(line)[field].get<std::string>();
    }

private:
    std::string nextLine()
    {
        std::array<char, 8192> line{};
        return std::fgets(line.data(), line.size(), pipe_) != nullptr ? line.data() : "";
    }

    std::FILE* pipe_;
    pid_t process_;
};

void appendTo(const std::filesystem::path& log, const std::string& lines)
{
    std::filesystem::create_directories(log.parent_path());
    std::ofstream(log, std::ios::app | std::ios::binary) << lines;
}

TEST_F(TraceToolTest, FollowsALogThatGrows)
{
    RunningTool tool("", "--follow --json --since 10:30 " + path());
    appendTo(log_, logLine("11:00:00:000", "DEBUG", "C_GetInfo") +
                       logLine("11:00:00:001", "ERROR", "C_GetInfo: pInfo is NULL"));
    EXPECT_EQ(tool.next("code"), "CKR_ARGUMENTS_BAD");
    std::filesystem::resize_file(log_, 0); // It shrinks, and goes on.
    appendTo(log_, logLine("11:00:02:000", "DEBUG", "C_Logout") + logLine("11:00:03:000", "DEBUG", "C_Logout"));
    EXPECT_EQ(tool.nextCall(), "C_Logout");
}

TEST_F(TraceToolTest, FollowsLogsThatAppear)
{
    const auto logs = folder_ / "logs";
    std::filesystem::create_directories(logs);
    RunningTool tool("", "--follow --json '" + logs.string() + "'");
    const std::string refused =
        logLine("11:00:00:000", "DEBUG", "C_GetInfo") + logLine("11:00:00:001", "ERROR", "C_GetInfo: pInfo is NULL");
    appendTo(logs / "one" / todaysName(), refused + logLine("11:00:00:002", "DEBUG", "C_Login"));
    EXPECT_EQ(tool.nextCall(), "C_GetInfo");
    appendTo(logs / "two" / todaysName(),
             logLine("11:00:01:000", "DEBUG", "C_Sign") + logLine("11:00:02:000", "DEBUG", "C_Logout"));
    EXPECT_EQ(tool.nextCall(), "C_Sign");
}

/// A time zone where midnight comes in `seconds`, and the names of the logs before and behind it.
struct Midnight {
    std::string zone;
    std::string before;
    std::string behind;
};

std::string nameOfLog(std::time_t time)
{
    std::array<char, 32> name{};
    std::tm parts{};
    std::strftime(name.data(), name.size(), "%Y-%m-%d.LOG", gmtime_r(&time, &parts));
    return name.data();
}

Midnight midnightIn(int seconds)
{
    constexpr int DAY = 24 * 60 * 60;
    const std::time_t now = std::time(nullptr);
    const auto behindUtc = static_cast<int>((now + seconds) % DAY);
    std::array<char, 32> zone{};
    std::snprintf(zone.data(), zone.size(), "TZ=XXX%d:%02d:%02d", behindUtc / 3600, behindUtc / 60 % 60,
                  behindUtc % 60);
    const std::time_t midnight = now + seconds - behindUtc;
    return {zone.data(), nameOfLog(midnight - 1), nameOfLog(midnight)};
}

TEST_F(TraceToolTest, FollowsAcrossMidnight)
{
    const auto [zone, before, behind] = midnightIn(10); // By the clock of the program, which is another process.
    const auto logs = folder_ / "logs" / "signer";
    appendTo(logs / before, logLine("23:59:50:000", "DEBUG", "C_Login") + logLine("23:59:51:000", "DEBUG", "C_Sign"));
    RunningTool tool(zone, "--follow --json '" + logs.parent_path().string() + "'");
    ASSERT_EQ(tool.nextCall(), "C_Login");
    appendTo(logs / behind, logLine("00:00:00:000", "DEBUG", "C_Logout") + logLine("00:00:01:000", "DEBUG", "C_Sign"));
    appendTo(logs / before, logLine("23:59:59:999", "DEBUG", "C_GetInfo")); // Written late.
    EXPECT_EQ(tool.nextCall(), "C_Sign") << "the end of the old day";
    EXPECT_EQ(tool.nextCall(), "C_Logout") << "the beginning of the new one";
}

// ---- Pager ----

class TracePagerTest : public TraceToolTest
{
protected:
    void SetUp() override
    {
        if (runCommand("script --version").code != 0)
            GTEST_SKIP() << "there is no program script to run it in a terminal";
    }

    ToolRun runInTerminal(const std::string& pager, const std::string& options) const
    {
        return runCommand("PAGER='" + pager + "' COLUMNS=80 TERM=xterm script -qec \"" + std::string(TRACE_TOOL) + " " +
                          options + " " + path() + "\" /dev/null");
    }
};

TEST_F(TracePagerTest, TheUsersPagerGetsTheTable)
{
    const ToolRun run = runInTerminal("sed s/^/paged:/", "");
    EXPECT_EQ(run.output.substr(0, 6), "paged:");
    EXPECT_NE(run.output.find("paged:10:00:01"), std::string::npos) << run.output;
    EXPECT_NE(runInTerminal("sed s/^/paged:/", "summary").output.find("paged:"), std::string::npos);
}

TEST_F(TracePagerTest, NoneIsUsedWhereItIsNotWanted)
{
    EXPECT_EQ(runInTerminal("sed s/^/paged:/", "--no-pager").output.find("paged:"), std::string::npos);
    EXPECT_EQ(runInTerminal("sed s/^/paged:/", "--json").output.find("paged:"), std::string::npos);
}

TEST_F(TracePagerTest, OneThatIsMissingIsGoneWithout)
{
    EXPECT_NE(runInTerminal("no-such-pager --quiet", "").output.find("C_CreateObject"), std::string::npos);
}

// ---- What shells and people are told of the options ----

std::vector<std::string> longOptions()
{
    const std::string help = runTool("--help").output;
    static const std::regex OPTION(R"(--[a-z-]+)");
    std::set<std::string> options;
    for (std::sregex_iterator each(help.begin(), help.end(), OPTION), end; each != end; ++each)
        options.insert(each->str());
    return {options.begin(), options.end()};
}

TEST(TraceOptionsTest, AllAreInTheManualPage)
{
    ASSERT_GT(longOptions().size(), 10U);
    const std::string page = readWhole(std::filesystem::path(SOURCES) / "trace/velkor-trace.1");
    for (const std::string& option : longOptions())
        EXPECT_NE(page.find(std::regex_replace(option, std::regex("-"), "\\-")), std::string::npos) << option;
}

/// What bash proposes for the last of the words.
std::string completionOf(const std::string& words)
{
    const std::string file = (std::filesystem::path(SOURCES) / "trace/velkor-trace.bash").string();
    return runCommand("bash -c 'source \"$0\"; COMP_WORDS=(velkor-trace \"${@:1}\"); COMP_CWORD=$#; _velkor_trace; "
                      "echo \"${COMPREPLY[@]}\"' '" +
                      file + "' " + words)
        .output;
}

TEST(TraceOptionsTest, AllAreCompleted)
{
    for (const std::string& option : longOptions())
        EXPECT_EQ(completionOf("'" + option + "'").substr(0, option.size()), option);
    EXPECT_EQ(completionOf("--fo"), "--follow\n");
    EXPECT_EQ(completionOf("summ"), "summary\n");
    EXPECT_EQ(completionOf("summary --err"), "--errors\n");
    EXPECT_EQ(completionOf("--since 1"), "\n");
}

/// Neither of the two shells need be on the machine.
TEST(TraceOptionsTest, AllAreInTheCompletionsOfOtherShells)
{
    const std::string zsh = readWhole(std::filesystem::path(SOURCES) / "trace/velkor-trace.zsh");
    const std::string fish = readWhole(std::filesystem::path(SOURCES) / "trace/velkor-trace.fish");
    for (const std::string& option : longOptions()) {
        const bool hasNoShortForm = zsh.find(option + "[") != std::string::npos;
        EXPECT_TRUE(hasNoShortForm || zsh.find(option + "}") != std::string::npos) << option;
        EXPECT_NE(fish.find("--long-option " + option.substr(2) + " "), std::string::npos) << option;
    }
}

// ---- The page ----

class TracePageTest : public TraceToolTest
{
protected:
    void SetUp() override { ASSERT_EQ(runTool("--html '" + page_.string() + "' " + path()).code, 0); }

    /// What a browser makes of the page, as its document in the end.
    ToolRun browse(const std::string& options, const std::string& search = "") const
    {
        return runCommand("timeout 60 '" + std::string(BROWSER) +
                          "' --headless --no-sandbox --disable-gpu --user-data-dir='" + (folder_ / "browser").string() +
                          "' --hide-scrollbars " + options + " 'file://" + std::filesystem::absolute(page_).string() +
                          search + "'");
    }

    std::filesystem::path page_ = folder_ / "page.html";
};

TEST_F(TracePageTest, StandsAloneAndIsRedacted)
{
    const std::string page = readWhole(page_);
    EXPECT_EQ(page.find("http://"), std::string::npos);
    EXPECT_EQ(page.find("https://"), std::string::npos);
    EXPECT_EQ(page.find("00112233445566778899"), std::string::npos);
    EXPECT_NE(page.find("default-src 'none'"), std::string::npos);
    EXPECT_EQ(page.find("<script>alert"), std::string::npos);
}

TEST_F(TracePageTest, ShowsLabelsAsTextWhereTheyAreWanted)
{
    ASSERT_EQ(runTool("--no-redact --html '" + page_.string() + "' " + path()).code, 0);
    const std::string page = readWhole(page_);
    EXPECT_NE(page.find("00112233445566778899"), std::string::npos);
    EXPECT_EQ(page.find("<script>alert"), std::string::npos);
}

TEST_F(TracePageTest, SaysWhichLogCannotBeWritten)
{
    EXPECT_EQ(readWhole(page_).find("cannot be written"), std::string::npos);
    std::filesystem::permissions(log_, std::filesystem::perms::owner_read);
    SetUp();
    const std::string page = readWhole(page_);
    EXPECT_NE(page.find("cannot be written"), std::string::npos);
    EXPECT_EQ(page.find(folder_.string()), std::string::npos);
}

TEST_F(TracePageTest, IsSearchedInABrowser)
{
    if (std::string(BROWSER).empty())
        GTEST_SKIP() << "there is no chromium here to look at the page with";
    const std::string all = browse("--dump-dom").output;
    EXPECT_NE(all.find("<b>Wrong PIN</b>"), std::string::npos)
        << all.substr(all.size() - std::min<std::size_t>(all.size(), 3000));
    EXPECT_NE(all.find("4 of 4 calls"), std::string::npos);
    const std::string one = browse("--dump-dom", "#search=pin_incorrect").output;
    EXPECT_NE(one.find("1 of 4 calls"), std::string::npos);
    const auto hiddenBars = [](const std::string& page) {
        const std::regex bar("<i class=[^>]* hidden=");
        return std::distance(std::sregex_iterator(page.begin(), page.end(), bar), std::sregex_iterator());
    };
    EXPECT_EQ(hiddenBars(all), 0);
    EXPECT_EQ(hiddenBars(one), 3);
}

TEST_F(TracePageTest, IsDrawnOnAPhone)
{
    if (std::string(BROWSER).empty())
        GTEST_SKIP() << "there is no chromium here to look at the page with";
    const auto picture = folder_ / "phone.png";
    browse("--window-size=412,915 --screenshot='" + picture.string() + "'");
    EXPECT_GT(std::filesystem::file_size(picture), 20'000U) << "an empty page is smaller";
}

} // namespace
} // namespace velkor::trace
