// The configuration file that stands in for the registry where there is none.
#include <fstream>

#include "log_fixture.h"

namespace
{

class UnreadableLevelTest : public LogLinesTest, public testing::WithParamInterface<const char*>
{
};

INSTANTIATE_TEST_SUITE_P(Values, UnreadableLevelTest,
                         testing::Values("", "three", "3 4", "--1", "-2147483649", "4294967296", "\"3",
                                         "\"a text that is longer than the 31 bytes of room\""));

TEST_P(UnreadableLevelTest, CountsAsAbsent)
{
    EXPECT_EQ(linesAt(GetParam()), std::vector{ERROR_LINE});
}

TEST_F(LogLinesTest, NegativeNumberIsSilent)
{
    EXPECT_EQ(linesAt("-1"), std::vector<std::string>());
}

TEST_F(LogLinesTest, AnotherValueCountsAsAbsent)
{
    std::ofstream(folder_ / "velkor.conf") << "# nothing here\nlogLevels = 3\n";
    writeBothKinds();
    EXPECT_EQ(wholeLog(), std::vector{ERROR_LINE});
}

TEST_F(LogLinesTest, MissingFileCountsAsAbsent)
{
    std::filesystem::remove(folder_ / "velkor.conf");
    writeBothKinds();
    EXPECT_EQ(wholeLog(), std::vector{ERROR_LINE});
}

TEST_F(LogLinesTest, AnEditBetweenTwoLinesIsSeenByTheSecond)
{
    std::vector<std::string> expected;
    for (int round = 0; round < 100; ++round) {
        std::ofstream(folder_ / "velkor.conf") << "logLevel = " << (round % 2 == 0 ? 2 : 3) << "\n"; // Of one size.
        C_GetFunctionList(nullptr);
        if (round % 2 != 0)
            expected.push_back(DEBUG_LINE);
        expected.push_back(ERROR_LINE);
    }
    EXPECT_EQ(wholeLog(), expected);
}

TEST_F(LogLinesTest, AFileThatIsReplacedEmptiedOrRemovedBetweenTwoLinesIsSeenByTheSecond)
{
    const std::filesystem::path file = folder_ / "velkor.conf";
    const std::filesystem::path other = folder_ / "other.conf";
    std::vector<std::string> expected;
    for (int round = 0; round < 100; ++round) {
        std::ofstream(other) << "logLevel = 3\n";
        std::filesystem::rename(other, file);
        C_GetFunctionList(nullptr);
        if (round % 2 == 0)
            std::filesystem::resize_file(file, 0);
        else
            std::filesystem::remove(file);
        C_GetFunctionList(nullptr);
        expected.insert(expected.end(), {DEBUG_LINE, ERROR_LINE, ERROR_LINE});
    }
    EXPECT_EQ(wholeLog(), expected);
}

TEST_F(LogLinesTest, AFileWhoseTimeIsPutIntoThePastOrTheFutureIsReadAsItIs)
{
    using namespace std::chrono_literals;
    std::vector<std::string> expected;
    for (const auto offset : {-1h, 1h}) {
        for (const int level : {3, 2}) {
            std::ofstream(folder_ / "velkor.conf") << "logLevel = " << level << "\n";
            const auto now = std::filesystem::file_time_type::clock::now();
            std::filesystem::last_write_time(folder_ / "velkor.conf", now + offset);
            C_GetFunctionList(nullptr);
            if (level == 3)
                expected.push_back(DEBUG_LINE);
            expected.push_back(ERROR_LINE);
        }
    }
    EXPECT_EQ(wholeLog(), expected);
}

TEST_F(LogLinesTest, CommentBehindTheValueIsNoPartOfIt)
{
    EXPECT_EQ(linesAt("3 # trace"), (std::vector{DEBUG_LINE, ERROR_LINE}));
}

} // namespace
