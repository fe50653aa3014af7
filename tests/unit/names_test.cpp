// Names inside distinguished names, and white space around texts.
#include "util/utils.h"

#include <regex>

#include <gtest/gtest.h>

using namespace velkor;

namespace
{

using namespace std::string_view_literals;

struct Text {
    std::string_view whole;
    std::string_view part;

    friend std::ostream& operator<<(std::ostream& out, const Text& text)
    {
        return out << testing::PrintToString(text.whole);
    }
};

class CommonNameTest : public testing::TestWithParam<Text>
{
};

INSTANTIATE_TEST_SUITE_P(
    Names, CommonNameTest,
    testing::Values(Text{"CN=Root", "Root"}, Text{"CN=Root,O=Example", "Root"}, Text{"O=Example,CN=Root", "Root"},
                    Text{"C=DE, O=Example, CN=A Root", "A Root"}, Text{"CN=First,CN=Second", "First"},
                    // Where it ends, and what does not end it.
                    Text{"CN=Root\nO=Example", "Root"}, Text{"CN=Root\rO=Example", "Root"},
                    Text{"CN=A/B+C=D;E", "A/B+C=D;E"}, Text{"CN=A\\,B", "A\\"}, Text{"CN=\"A,B\"", "\"A"},
                    Text{"CN= Root ,O=Example", " Root "}, Text{"CN=A\0B,O=Example"sv, "A\0B"sv},
                    Text{"CN=Größe", "Größe"},
                    // Where it begins.
                    Text{"OCN=Root", "Root"}, Text{"CN=CN=Root", "CN=Root"}, Text{"CN=,CN=Second", "Second"},
                    Text{"CN=\nCN=Second", "Second"}, Text{"CCN=Root", "Root"},
                    // None at all.
                    Text{"", ""}, Text{"CN", ""}, Text{"CN=", ""}, Text{"CN=,O=Example", ""}, Text{"CN=\r\n", ""},
                    Text{"cn=Root", ""}, Text{"CN =Root", ""}, Text{"O=Example", ""}));

TEST_P(CommonNameTest, IsWhatFollowsTheFirstKeyWithAName)
{
    EXPECT_EQ(Utils::commonName(GetParam().whole), GetParam().part);
}

TEST(CommonName, EndsAtTheEndOfTheView)
{
    EXPECT_EQ(Utils::commonName("CN=Root"sv.substr(0, 5)), "Ro");
}

/// The text that a number stands for, one letter a digit.
std::string spelled(int number, std::string_view letters, int length)
{
    std::string text;
    for (; length > 0; --length, number /= static_cast<int>(letters.size()))
        text += letters[static_cast<std::size_t>(number) % letters.size()];
    return text;
}

TEST(CommonName, IsThatOfTheExpressionForEveryShortText)
{
    const std::regex expression("CN=([^,\n\r]+)");
    for (int number = 0; number < 6 * 6 * 6 * 6 * 6 * 6; ++number) {
        const std::string text = spelled(number, "CN=,\na", 6);
        std::smatch match;
        const std::string expected = std::regex_search(text, match, expression) ? match.str(1) : "";
        ASSERT_EQ(Utils::commonName(text), expected) << testing::PrintToString(text);
    }
}

class TrimmedTest : public testing::TestWithParam<Text>
{
};

INSTANTIATE_TEST_SUITE_P(Texts, TrimmedTest,
                         testing::Values(Text{"label", "label"}, Text{"  label", "label"}, Text{"label  ", "label"},
                                         Text{" \t\n\v\f\rlabel\r\f\v\n\t ", "label"},
                                         Text{" my \t label ", "my \t label"}, Text{"", ""}, Text{" ", ""},
                                         Text{" \t\n\v\f\r", ""}, Text{" x ", "x"},
                                         // No white space.
                                         Text{" \0 "sv, "\0"sv}, Text{"\b.\x7F", "\b.\x7F"},
                                         Text{"\u00A0label\u3000", "\u00A0label\u3000"}));

TEST_P(TrimmedTest, HasNoWhiteSpaceAtItsEnds)
{
    EXPECT_EQ(Utils::trimmed(GetParam().whole), GetParam().part);
}

TEST(Trimmed, StaysWithinTheView)
{
    EXPECT_EQ(Utils::trimmed(" label other"sv.substr(0, 7)), "label");
}

} // namespace
