#include "platform/table_memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <vector>

namespace
{

constexpr std::size_t HUGE_BLOCK = 0x200000;

/// Pages of the process's address space.
std::size_t addressSpace()
{
    std::ifstream status("/proc/self/statm");
    std::size_t pages = 0;
    status >> pages;
    return pages;
}

TEST(TableMemory, BlocksOfEverySizeCanBeFilledToTheirEnd)
{
    for (const std::size_t size : {std::size_t{1}, std::size_t{0x10000}, std::size_t{0x10001}, HUGE_BLOCK - 1,
                                   HUGE_BLOCK, HUGE_BLOCK + 1, 3 * HUGE_BLOCK - 5000}) {
        auto* block = static_cast<unsigned char*>(softkey::takeTableMemory(size));
        std::memset(block, 0x5A, size);
        EXPECT_EQ(std::count(block, block + size, 0x5A), static_cast<std::ptrdiff_t>(size));
        softkey::giveBackTableMemory(block, size);
    }
}

TEST(TableMemory, AllOfABlockGoesBackToTheSystem)
{
    constexpr std::size_t SIZE = 2 * HUGE_BLOCK + 5000;
    softkey::giveBackTableMemory(softkey::takeTableMemory(SIZE), SIZE);
    const std::size_t before = addressSpace();
    for (int turn = 0; turn < 100; ++turn)
        softkey::giveBackTableMemory(softkey::takeTableMemory(SIZE), SIZE);
    EXPECT_LT(addressSpace(), before + HUGE_BLOCK / 4096);
}

TEST(TableMemory, PopulatingLeavesTheContentsOfABlock)
{
    std::vector<unsigned char> block(0x30001, 0x5A);
    softkey::populateTableMemory(block.data() + 1, block.size() - 1);
    EXPECT_EQ(std::count(block.begin(), block.end(), 0x5A), static_cast<std::ptrdiff_t>(block.size()));
}

} // namespace
