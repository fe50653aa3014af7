// The log as the host's user finds it: which lines are written, where, and in what form.
#include <array>
#include <ctime>
#include <regex>
#include <thread>

#include "log_fixture.h"

namespace
{

struct Level {
    const char* value;
    bool debug;
    bool error;

    friend std::ostream& operator<<(std::ostream& out, const Level& level) { return out << level.value; }
};

class LogLevelTest : public LogLinesTest, public testing::WithParamInterface<Level>
{
};

INSTANTIATE_TEST_SUITE_P(Values, LogLevelTest,
                         testing::Values(Level{"0", false, false}, Level{"1", false, false}, Level{"2", false, true},
                                         Level{"3", true, true}, Level{"4", false, true}, Level{"127", false, true},
                                         Level{"128", false, false}, Level{"255", false, false},
                                         Level{"256", false, false}, Level{"259", true, true},
                                         Level{"4294967295", false, false}, Level{"\"3\"", false, true},
                                         Level{"\"\"", false, false}, Level{"\"\3\"", true, true}));

TEST_P(LogLevelTest, DecidesByTheFirstByteOfTheValue)
{
    std::vector<std::string> expected;
    if (GetParam().debug)
        expected.push_back(DEBUG_LINE);
    if (GetParam().error)
        expected.push_back(ERROR_LINE);
    EXPECT_EQ(linesAt(GetParam().value), expected);
}

TEST_F(LogLinesTest, AbsentValueWritesErrorsOnly)
{
    logLevel_->remove();
    writeBothKinds();
    EXPECT_EQ(wholeLog(), std::vector{ERROR_LINE});
}

TEST_F(LogLinesTest, LevelIsReadAfreshForEveryLine)
{
    EXPECT_EQ(linesAt("0"), std::vector<std::string>());
    EXPECT_EQ(linesAt("2"), std::vector{ERROR_LINE});
    EXPECT_EQ(linesAt("3"), (std::vector{ERROR_LINE, DEBUG_LINE, ERROR_LINE}));
}

TEST_F(LogLinesTest, FileHasTheProgramsFolderAndTodaysName)
{
    std::array<char, 80> before{};
    std::array<char, 80> after{};
    const auto today = [](std::array<char, 80>& text) {
        const std::time_t now = std::time(nullptr);
        std::strftime(text.data(), text.size(), "%Y-%m-%d.LOG", std::localtime(&now));
    };
    today(before);
    writeBothKinds();
    today(after);
    ASSERT_EQ(logFiles().size(), 1u);
    EXPECT_THAT(logFiles().front().filename().string(), testing::AnyOf(before.data(), after.data()));
}

TEST_F(LogLinesTest, LineHasTimeArrowsTagAndText)
{
    writeBothKinds();
    std::ifstream file(logFiles().front(), std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const std::string time = R"(\d\d/\d\d::\d\d:\d\d:\d\d:\d\d\d-> ->)";
    EXPECT_TRUE(std::regex_match(text, std::regex(time + "DEBUG ::=>C_GetFunctionList\n" + time +
                                                  "ERROR ::=>C_GetFunctionList: ppFunctionList is NULL\n")))
        << text;
}

TEST_F(LogLinesTest, LineHasDayBeforeMonthInLocalTime)
{
    const std::time_t before = std::time(nullptr);
    writeBothKinds();
    std::array<char, 16> expected{};
    std::strftime(expected.data(), expected.size(), "%d/%m::%H", std::localtime(&before));
    std::ifstream file(logFiles().front());
    std::string line;
    std::getline(file, line);
    EXPECT_EQ(line.substr(0, 9), expected.data());
}

TEST_F(LogLinesTest, FreshMachineLosesTheFirstTwoLines)
{
    if (test_system::loggedProgramName().empty())
        GTEST_SKIP() << "the system does not tell the program's name, which the second folder bears";
    std::filesystem::remove_all(folder_ / "Brenmoor");
    setLogLevel("2");
    testing::internal::CaptureStdout();
    writeBothKinds();
    EXPECT_TRUE(std::filesystem::is_directory(folder_ / "Brenmoor"));
    EXPECT_FALSE(std::filesystem::exists(logFolder_));
    writeBothKinds();
    EXPECT_TRUE(std::filesystem::is_directory(logFolder_));
    EXPECT_TRUE(wholeLog().empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nUnable to write log\nUnable to write log");
    writeBothKinds();
    EXPECT_EQ(wholeLog(), std::vector{ERROR_LINE});
}

TEST_F(LogLinesTest, UnwritableFileIsToldOnStandardOutputOnly)
{
    writeBothKinds();
    const std::filesystem::path file = logFiles().front();
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    testing::internal::CaptureStdout();
    EXPECT_EQ(C_GetFunctionList(nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nUnable to write log\nUnable to write log");
}

TEST_F(LogLinesTest, DayIsTheLocalOne)
{
    // Two time zones that are 26 hours apart never have the same date.
    for (const char* zone : {"EAST-14", "WEST+12"}) {
        test_system::setTimeZone(zone);
        writeBothKinds();
    }
    test_system::setTimeZone(nullptr);
    EXPECT_EQ(logFiles().size(), 2u);
    EXPECT_EQ(wholeLog(), (std::vector{DEBUG_LINE, ERROR_LINE, DEBUG_LINE, ERROR_LINE}));
}

TEST_F(LogLinesTest, LinesOfSeveralThreadsStayWhole)
{
    if (!test_system::appendingIsOneStep())
        GTEST_SKIP() << "the system's C runtime seeks the end of a file, then writes there";
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([] {
            for (int line = 0; line < 100; ++line)
                writeBothKinds();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const std::vector<std::string> lines = wholeLog();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), DEBUG_LINE), 400);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), ERROR_LINE), 400);
    EXPECT_EQ(lines.size(), 800u);
}

} // namespace
