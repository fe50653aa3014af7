#include "util/utils.h"

#include <gtest/gtest.h>

using namespace velkor;

namespace
{

struct Comparison {
    const char* version;
    int withTwo; ///< Compared with "2.0.0".
};

constexpr Comparison COMPARISONS[] = {
    {"", -1},         {"1.9", -1},       {"1.9.12", -1}, {"2", 0},       {"2.0", 0},      {"2.0.0", 0},
    {"2.0.0.0", 0},   {"2.0.0-beta", 0}, {" 2.0.0", 0},  {"-1", -1},     {"10.0.0", 1},   {"2.0.0.1", 1},
    {"2.0.1", 1},     {"2.1", 1},        {"3", 1},       {"2.0.-1", -1}, {"1.99.99", -1}, {"+2.0.0", 0},
    {"02.00.000", 0}, {"2.x.0", 0},      {"beta", -1},   {".", -1},      {"..3", -1},     {"2.", 0},
    {"2..", 0},       {"\t2", 0},        {"- 2", -1},    {"0x2", -1},    {"2,1", 0},      {"2.0.0.0.0.1", 1},
};

TEST(VersionComparison, IsMadeNumberByNumber)
{
    for (const Comparison& each : COMPARISONS) {
        EXPECT_EQ(Utils::compareFirmwareVersion(each.version, "2.0.0"), each.withTwo) << '"' << each.version << '"';
        EXPECT_EQ(Utils::compareFirmwareVersion("2.0.0", each.version), -each.withTwo) << '"' << each.version << '"';
        EXPECT_EQ(Utils::compareFirmwareVersion(each.version, each.version), 0) << '"' << each.version << '"';
    }
}

TEST(VersionComparison, TakesMissingNumbersAsZero)
{
    EXPECT_EQ(Utils::compareFirmwareVersion("", ""), 0);
    EXPECT_EQ(Utils::compareFirmwareVersion("", "0.0"), 0);
    EXPECT_EQ(Utils::compareFirmwareVersion("", "-1"), 1);
    EXPECT_EQ(Utils::compareFirmwareVersion("1", "1.0.-1"), 1);
}

TEST(VersionComparison, TakesTheFirstDifferenceAsDecisive)
{
    EXPECT_EQ(Utils::compareFirmwareVersion("1.10", "1.9"), 1);
    EXPECT_EQ(Utils::compareFirmwareVersion("1.9.99", "1.10.0"), -1);
    EXPECT_EQ(Utils::compareFirmwareVersion("2.0.0", "1.99.99.99"), 1);
}

TEST(VersionComparison, KeepsNumbersApartThatFit)
{
    EXPECT_EQ(Utils::compareFirmwareVersion("2147483647", "2147483646"), 1);
    EXPECT_EQ(Utils::compareFirmwareVersion("-2147483648", "-2147483647"), -1);
    EXPECT_EQ(Utils::compareFirmwareVersion("99999999999999999999", "2.0.0"), 1);
}

TEST(VersionComparison, NumbersAreThePiecesBetweenTheDots)
{
    using Pieces = std::vector<std::int32_t>;
    EXPECT_EQ(Utils::versionNumbers(""), Pieces());
    EXPECT_EQ(Utils::versionNumbers("7"), Pieces({7}));
    EXPECT_EQ(Utils::versionNumbers("2.0.0-beta"), Pieces({2, 0, 0}));
    EXPECT_EQ(Utils::versionNumbers(" 1.-2.+3.x"), Pieces({1, -2, 3, 0}));
    EXPECT_EQ(Utils::versionNumbers("1..2"), Pieces({1, 0, 2}));
}

} // namespace
