// The program itself: its options, its exit codes, its page in a browser, and what it follows.
#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "trace_files.h"

#include <sys/wait.h>

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

TEST_F(TraceToolTest, FollowsALogThatGrows)
{
    std::FILE* pipe =
        popen(("timeout 5 " + std::string(TRACE_TOOL) + " --follow --json --since 10:30 " + path()).c_str(), "r");
    std::ofstream(log_, std::ios::app | std::ios::binary)
        << logLine("11:00:00:000", "DEBUG", "C_GetInfo")
        << logLine("11:00:00:001", "ERROR", "C_GetInfo: pInfo is NULL");
    std::array<char, 8192> line{};
    ASSERT_NE(std::fgets(line.data(), line.size(), pipe), nullptr);
    EXPECT_EQ(json::parse(line.data())["code"], "CKR_ARGUMENTS_BAD");
    std::filesystem::resize_file(log_, 0); // It shrinks, and goes on.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    std::ofstream(log_, std::ios::app | std::ios::binary)
        << logLine("11:00:02:000", "DEBUG", "C_Logout") << logLine("11:00:03:000", "DEBUG", "C_Logout");
    ASSERT_NE(std::fgets(line.data(), line.size(), pipe), nullptr);
    EXPECT_EQ(json::parse(line.data())["call"], "C_Logout");
    pclose(pipe);
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

TEST_F(TracePageTest, IsSearchedInABrowser)
{
    if (std::string(BROWSER).empty())
        GTEST_SKIP() << "there is no chromium here to look at the page with";
    const std::string all = browse("--dump-dom").output;
    EXPECT_NE(all.find("<b>Wrong PIN</b>"), std::string::npos)
        << all.substr(all.size() - std::min<std::size_t>(all.size(), 3000));
    EXPECT_NE(all.find("4 of 4 calls"), std::string::npos);
    EXPECT_NE(browse("--dump-dom", "#search=pin_incorrect").output.find("1 of 4 calls"), std::string::npos);
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
