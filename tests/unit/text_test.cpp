#include "util/text.h"

#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

using namespace velkor;

namespace
{

TEST(Decimal, IsSigned)
{
    EXPECT_EQ(decimal(0u), "0");
    EXPECT_EQ(decimal(-5), "-5");
    EXPECT_EQ(decimal(std::uint32_t{0x7FFFFFFF}), "2147483647");
    EXPECT_EQ(decimal(std::uint32_t{0x80000000}), "-2147483648");
    EXPECT_EQ(decimal(std::numeric_limits<std::uint32_t>::max()), "-1");
    EXPECT_EQ(decimal(std::numeric_limits<std::uint64_t>::max()), "-1");
    EXPECT_EQ(decimal(std::uint64_t{0xFFFFFFFF}), "4294967295");
}

TEST(Message, JoinsTextsAndNumbers)
{
    EXPECT_EQ(message(), "");
    EXPECT_EQ(message("count ", 3u, " of ", std::string("many")), "count 3 of many");
}

} // namespace
