#include "util/secret.h"

#include <string_view>

#include <gtest/gtest.h>

#include "watched_memory.h"

using namespace velkor;

namespace
{

constexpr unsigned char PIN[] = {'1', '2', '3', '4', '5', '6'};
constexpr std::string_view PIN_TEXT = "123456";

TEST(WatchedMemory, SeesWhatIsNotWiped)
{
    EXPECT_EQ(releasedBlocksWith(PIN_TEXT, [] { std::vector<unsigned char>(PIN, PIN + sizeof PIN).clear(); }), 1);
}

TEST(SecretText, HoldsItsBytesAndATerminator)
{
    const SecretText pin(PIN, sizeof PIN);
    EXPECT_STREQ(pin.c_str(), "123456");
    EXPECT_FALSE(pin.empty());
    EXPECT_TRUE(SecretText().empty());
    EXPECT_STREQ(SecretText().c_str(), "");
}

TEST(SecretText, ComparesByLengthAndBytes)
{
    const unsigned char withZero[] = {'1', 0, '3'};
    EXPECT_EQ(SecretText(PIN, 4), SecretText(PIN, 4));
    EXPECT_NE(SecretText(PIN, 4), SecretText(PIN, 5));
    EXPECT_NE(SecretText(withZero, 1), SecretText(withZero, 3));
    EXPECT_FALSE(SecretText(withZero + 1, 1).empty());
}

TEST(SecretText, IsWipedWhenItEnds)
{
    EXPECT_EQ(releasedBlocksWith(PIN_TEXT, [] { const SecretText pin(PIN, sizeof PIN); }), 0);
}

TEST(SecretText, IsWipedWhenItIsReplaced)
{
    SecretText pin(PIN, sizeof PIN);
    const SecretText other(PIN, 4);
    EXPECT_EQ(releasedBlocksWith(PIN_TEXT, [&] { pin = other; }), 0);
    EXPECT_STREQ(pin.c_str(), "1234");
    EXPECT_EQ(releasedBlocksWith(PIN_TEXT.substr(0, 4), [&] { pin = {}; }), 0);
    EXPECT_TRUE(pin.empty());
}

TEST(SecretBytes, AreWipedWhenTheyGrow)
{
    SecretBytes bytes(PIN, PIN + sizeof PIN);
    EXPECT_EQ(releasedBlocksWith(PIN_TEXT, [&] { bytes.resize(1000, 7); }), 0);
}

TEST(SecretBytes, KeepNothingOfWhatIsCutOff)
{
    SecretBytes bytes(PIN, PIN + sizeof PIN);
    EXPECT_EQ(releasedBlocksWith(PIN_TEXT, [&] { shorten(bytes, 4); }), 0);
    EXPECT_EQ(bytes, SecretBytes(PIN, PIN + 4));
    EXPECT_EQ(bytes.capacity(), 4U);
    shorten(bytes, 5);
    EXPECT_EQ(bytes, SecretBytes(PIN, PIN + 4));
}

} // namespace
