#include "util/utils.h"

#include <limits>

#include <gmock/gmock.h>

using namespace velkor;

namespace
{

using Numbers = std::vector<std::int32_t>;

constexpr std::int32_t LOWEST = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t HIGHEST = std::numeric_limits<std::int32_t>::max();

struct Version {
    const char* text;
    Numbers numbers;

    friend std::ostream& operator<<(std::ostream& out, const Version& version) { return out << version.text; }
};

class VersionNumbersTest : public testing::TestWithParam<Version>
{
};

INSTANTIATE_TEST_SUITE_P(
    Texts, VersionNumbersTest,
    testing::Values(Version{"2.0.0", {2, 0, 0}}, Version{"10.020.3.4", {10, 20, 3, 4}}, Version{"7", {7}},
                    // Signs and blanks.
                    Version{"+3.-1", {3, -1}}, Version{" 4.\t 5", {4, 5}}, Version{"1 .2 ", {1, 2}},
                    Version{"- 1.--2.+-3", {0, 0, 0}},
                    // Pieces that are not there, or hold no number.
                    Version{"", {}}, Version{"1..3", {1, 0, 3}}, Version{".5", {0, 5}}, Version{".", {0}},
                    Version{"x.y", {0, 0}}, Version{"3a.b4.5,6", {3, 0, 5}}, Version{"0x10.1e3", {0, 1}},
                    // Numbers that need more than 8 bits, 32 bits, and any integer.
                    Version{"255.256.65536", {255, 256, 65536}}, Version{"2147483647.-2147483648", {HIGHEST, LOWEST}},
                    Version{"2147483648.-2147483649", {HIGHEST, LOWEST}},
                    Version{"4294967296.4294967297", {HIGHEST, HIGHEST}},
                    Version{"9223372036854775807.-9223372036854775808", {HIGHEST, LOWEST}},
                    Version{"99999999999999999999999.-99999999999999999999999.1", {HIGHEST, LOWEST, 1}}));

TEST_P(VersionNumbersTest, AreReadPieceByPiece)
{
    EXPECT_EQ(Utils::versionNumbers(GetParam().text), GetParam().numbers);
}

TEST(VersionNumbers, EndAtTheEndOfTheView)
{
    EXPECT_EQ(Utils::versionNumbers(std::string_view("12.345.6", 5)), (Numbers{12, 34}));
}

TEST(VersionNumbers, StopAtAnEmbeddedZeroWithinAPiece)
{
    EXPECT_EQ(Utils::versionNumbers(std::string_view("1\0002.3", 5)), (Numbers{1, 3}));
}

} // namespace
