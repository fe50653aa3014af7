#include "util/utils.h"

#include <gtest/gtest.h>

using namespace velkor;

namespace
{

using ByteVector = std::vector<unsigned char>;

TEST(Hexadecimal, OfNothingIsEmpty)
{
    EXPECT_EQ(Utils::toHexadecimal({}), "");
}

TEST(Hexadecimal, HasTwoUpperCaseDigitsAByteAndNoSeparators)
{
    EXPECT_EQ(Utils::toHexadecimal(ByteVector{0x00}), "00");
    EXPECT_EQ(Utils::toHexadecimal(ByteVector{0x0A, 0xA0, 0x09, 0x90, 0xFF, 0x7F, 0x80}), "0AA00990FF7F80");
    EXPECT_EQ(Utils::toHexadecimal(ByteVector{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}), "0123456789ABCDEF");
}

TEST(Hexadecimal, TakesZeroBytesAndLongInputs)
{
    EXPECT_EQ(Utils::toHexadecimal(ByteVector(1000, 0x00)), std::string(2000, '0'));
}

} // namespace
