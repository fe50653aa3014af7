// Memory for secrets: where it lies, and what is left of it.
#include "base/bytes.h"
#include "base/secret.h"
#include "memory_lock.h"
#include "platform/fork_guard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>
#include <span>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace softkey::test
{
namespace
{

/// The system's flags of the pages in which an address lies, with a space around each.
std::string pageFlagsOf(const void* address)
{
    const auto wanted = reinterpret_cast<std::uintptr_t>(address);
    std::ifstream smaps("/proc/self/smaps");
    bool isHere = false;
    for (std::string line; std::getline(smaps, line);) {
        std::uintptr_t begin = 0;
        std::uintptr_t end = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx ", &begin, &end) == 2)
            isHere = wanted >= begin && wanted < end;
        else if (isHere && line.starts_with("VmFlags:"))
            return line.substr(8) + " ";
    }
    return "";
}

bool has(const std::string& flags, const char* flag)
{
    return flags.find(flag) != std::string::npos;
}

SecretBuffer filled(std::size_t size)
{
    SecretBuffer secret(size);
    std::fill_n(secret.data(), size, static_cast<unsigned char>(0x5a));
    return secret;
}

class SecretMemoryTest : public ::testing::TestWithParam<std::size_t>
{
};

TEST_P(SecretMemoryTest, ItsPagesAreLockedAndLeftOutOfDumpsAndForks)
{
    const SecretBuffer secret = filled(GetParam());
    for (const unsigned char* at : {secret.data(), secret.data() + secret.size() - 1}) {
        const std::string flags = pageFlagsOf(at);
        EXPECT_TRUE(has(flags, " dd ")) << flags;
        EXPECT_TRUE(has(flags, " wf ")) << flags;
        EXPECT_TRUE(has(flags, " lo ") || !mayLock(4 * GetParam() + (1 << 20))) << flags;
    }
}

TEST_P(SecretMemoryTest, AForkedChildFindsItEmptyAndCanUseIt)
{
    const SecretBuffer secret = filled(GetParam());
    const pid_t child = fork();
    if (child == 0) {
        const Bytes seen = secret;
        const bool isEmpty = std::ranges::all_of(seen, [](unsigned char byte) { return byte == 0; });
        const SecretBuffer own = filled(GetParam());
        _exit(isEmpty && own.data()[own.size() - 1] == 0x5a ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(secret.data()[0], 0x5a) << "the parent's is as it was";
}

TEST_P(SecretMemoryTest, ManyHaveRoomOfTheirOwn)
{
    std::vector<SecretBuffer> secrets;
    for (unsigned char i = 0; i < 20; ++i) {
        secrets.emplace_back(GetParam());
        std::fill_n(secrets.back().data(), GetParam(), i);
    }
    for (unsigned char i = 0; i < 20; ++i) {
        const Bytes seen = secrets[i];
        EXPECT_TRUE(std::ranges::all_of(seen, [i](unsigned char byte) { return byte == i; }));
    }
}

// Blocks of the shared pages, and pages of their own.
const std::vector<std::size_t> SIZES{1, 32, 33, 4096, 16384, 16385, 1 << 20};

INSTANTIATE_TEST_SUITE_P(Sizes, SecretMemoryTest, ::testing::ValuesIn(SIZES),
                         [](const auto& size) { return std::to_string(size.param); });

/// Each thread has a number.
void inSixThreads(const std::function<void(unsigned char)>& work)
{
    std::vector<std::thread> threads;
    for (unsigned char number = 0; number < 6; ++number)
        threads.emplace_back(work, number);
    for (std::thread& thread : threads)
        thread.join();
}

TEST(SecretMemory, ThreadsGiveBackWhatOthersTook)
{
    constexpr std::size_t size = 48;
    std::vector<std::vector<SecretBuffer>> taken(6);
    for (int round = 0; round < 3; ++round) {
        inSixThreads([&](unsigned char number) {
            for (int i = 0; i < 200; ++i) {
                taken[number].emplace_back(size);
                std::fill_n(taken[number].back().data(), size, number);
            }
        });
        inSixThreads([&](unsigned char number) {
            const auto other = static_cast<unsigned char>((number + 1) % taken.size());
            for (const Bytes seen : taken[other])
                EXPECT_TRUE(std::ranges::all_of(seen, [other](unsigned char byte) { return byte == other; }));
            taken[other].clear();
        });
    }
}

TEST(SecretMemory, WhatIsGivenBackIsWiped)
{
    constexpr std::size_t size = 64;
    void* const before = takeSecretMemory(size);
    std::memset(before, 0x5a, size);
    giveBackMemory(before);
    void* const again = takeSecretMemory(size); // Of the pages, which stay, the block that was given back last.
    ASSERT_EQ(again, before);
    const std::span seen(static_cast<const unsigned char*>(again), size);
    // Its beginning leads to the next free block.
    EXPECT_TRUE(std::ranges::all_of(seen.subspan(sizeof(void*)), [](unsigned char byte) { return byte == 0; }));
    giveBackMemory(again);
}

// ---- Memory that is taken anew ----

TEST_P(SecretMemoryTest, WhatGrowsStaysAmongSecretsWhoeverAsks)
{
    for (const std::size_t size : {GetParam() / 2 + 1, 2 * GetParam()}) {
        void* const before = takeSecretMemory(GetParam());
        std::memset(before, 0x5a, GetParam());
        void* const after = takeMemoryAnew(before, size, false);
        const std::span seen(static_cast<const unsigned char*>(after), std::min(size, GetParam()));
        EXPECT_TRUE(std::ranges::all_of(seen, [](unsigned char byte) { return byte == 0x5a; }));
        const std::string flags = pageFlagsOf(after);
        EXPECT_TRUE(has(flags, " wf ") && has(flags, " dd ")) << flags;
        giveBackMemory(after);
    }
}

TEST(SecretMemory, NothingIsLeftWhereItGrew)
{
    constexpr std::size_t size = 64;
    void* const before = takeSecretMemory(size);
    std::memset(before, 0x5a, size);
    void* const after = takeMemoryAnew(before, 100 * size, false);
    const std::span seen(static_cast<const unsigned char*>(before), size); // A block that is free, of pages that stay.
    EXPECT_TRUE(std::ranges::all_of(seen.subspan(sizeof(void*)), [](unsigned char byte) { return byte == 0; }));
    giveBackMemory(after);
}

TEST(SecretMemory, OrdinaryMemoryThatIsTakenAnewMayBecomeSecret)
{
    void* const before = takeMemoryAnew(nullptr, 48, false);
    EXPECT_FALSE(has(pageFlagsOf(before), " wf "));
    std::memset(before, 0x5a, 48);
    void* const after = takeMemoryAnew(before, 96, true);
    EXPECT_EQ(static_cast<const unsigned char*>(after)[47], 0x5a);
    EXPECT_TRUE(has(pageFlagsOf(after), " wf "));
    giveBackMemory(after);
}

// ---- Forked children ----

/// What a forked child finds, to whom the library's locks have been handed over.
int inForkedChild(const std::function<bool()>& work)
{
    {
        const ForkSafeSection section;
    } // From here on forks are watched.
    const pid_t child = fork();
    if (child == 0)
        _exit(work() ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

TEST(SecretMemory, AForkedChildsPagesAreLockedAnew)
{
    const SecretBuffer parents = filled(48);
    const auto isLocked = [] {
        const SecretBuffer own = filled(48);
        return has(pageFlagsOf(own.data()), " lo ") || !mayLock(1 << 20);
    };
    EXPECT_EQ(inForkedChild(isLocked), 0);
    EXPECT_EQ(inForkedChild([&] { return inForkedChild(isLocked) == 0; }), 0) << "in a child's child";
}

TEST(SecretMemory, AForkedChildFindsTheBlocksThatWereFree)
{
    constexpr std::size_t size = 4096;
    constexpr std::size_t BLOCKS_OF_SLAB = 16;
    std::vector<void*> blocks;
    for (std::size_t i = 0; i < 2 * BLOCKS_OF_SLAB; ++i)
        blocks.push_back(takeSecretMemory(size));
    std::set<const void*> free;
    for (std::size_t i = 0; i < blocks.size(); i += 2) {
        giveBackMemory(blocks[i]);
        free.insert(blocks[i]);
    }
    const auto takesThem = [&] {
        std::set<const void*> taken;
        for (std::size_t i = 0; i < free.size(); ++i)
            taken.insert(takeSecretMemory(size));
        return taken == free;
    };
    EXPECT_EQ(inForkedChild(takesThem), 0);
    EXPECT_EQ(inForkedChild([&] { return inForkedChild(takesThem) == 0; }), 0) << "in a child's child";
    for (std::size_t i = 1; i < blocks.size(); i += 2)
        giveBackMemory(blocks[i]);
}

// ---- What is given back twice ----

class SecretMemoryDeathTest : public ::testing::TestWithParam<void* (*)(std::size_t)>
{
};

/// What a sanitizer has to say comes first, where it watches the memory.
constexpr const char* GIVEN_BACK_TWICE = "given back twice|heap-use-after-free";

TEST_P(SecretMemoryDeathTest, GivingBackTwiceEndsTheProcess)
{
    void* const memory = GetParam()(48);
    giveBackMemory(memory);
    EXPECT_DEATH(giveBackMemory(memory), GIVEN_BACK_TWICE);
}

TEST_P(SecretMemoryDeathTest, OthersThatWereGivenBackBetweenHideNothing)
{
    std::vector<void*> blocks;
    for (int i = 0; i < 8; ++i)
        blocks.push_back(GetParam()(48));
    for (void* block : blocks)
        giveBackMemory(block);
    EXPECT_DEATH(giveBackMemory(blocks[3]), GIVEN_BACK_TWICE);
}

INSTANTIATE_TEST_SUITE_P(Kinds, SecretMemoryDeathTest, ::testing::Values(takeSecretMemory, takeOrdinaryMemory),
                         [](const auto& kind) { return kind.index == 0 ? "Secret" : "Ordinary"; });

TEST(SecretBlockDeathTest, GivingBackAPartOfABlockEndsTheProcess)
{
    void* const memory = takeSecretMemory(64);
    EXPECT_DEATH(giveBackMemory(static_cast<unsigned char*>(memory) + 16), "never taken");
    giveBackMemory(memory);
}

} // namespace
} // namespace softkey::test
