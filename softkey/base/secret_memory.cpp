#include "base/secret_memory.h"

#include "platform/secret_pages.h"

#include <array>
#include <bit>
#include <bitset>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

namespace softkey
{
namespace
{

// Pages are handed out in slabs, each for blocks of one size: a power of two.
constexpr std::size_t SLAB_SIZE = 0x10000;
constexpr std::size_t SLABS = 1024;
constexpr std::size_t BLOCK_SIZE_MIN = 32;
constexpr std::size_t BLOCK_SIZE_MAX = SLAB_SIZE / 4;
constexpr std::size_t BLOCK_SIZES = std::bit_width(BLOCK_SIZE_MAX / BLOCK_SIZE_MIN);

// Free blocks are kept apart for groups of threads: a signature takes some twenty, and two threads that sign would
// write to the same memory all the time.
constexpr std::size_t GROUPS = 4;
constexpr std::size_t CACHE_LINE = 64;

std::size_t blockSizeOf(std::size_t sizeIndex)
{
    return BLOCK_SIZE_MIN << sizeIndex;
}

std::size_t groupOfThread()
{
    // By its name: a thread_local variable crashed here in the emulated Windows on ARM64.
    return std::hash<std::thread::id>()(std::this_thread::get_id()) % GROUPS;
}

/// Whoever gives memory back twice would hand it to two others, who see each other's secrets.
[[noreturn]] void endForMemoryNotTaken()
{
    std::fputs("velkor-softkey: memory for secrets was given back twice, or never taken\n", stderr);
    std::abort();
}

/// What a forked child finds of it is sound: nothing but the blocks themselves, and the links between free ones, is in
/// pages that are empty there. A list then ends with its first block; the others are put on it anew when it is empty.
class SecretMemory
{
public:
    static SecretMemory& ofProcess()
    {
        static auto* const memory = new SecretMemory; // Never destroyed: hosts call in to the very end.
        return *memory;
    }

    void* take(std::size_t size)
    {
        if (size > BLOCK_SIZE_MAX || pages_ == nullptr)
            return nullptr;
        const auto sizeIndex =
            static_cast<std::size_t>(std::bit_width((size < BLOCK_SIZE_MIN ? 0 : size - 1) / BLOCK_SIZE_MIN));
        const std::size_t number = groupOfThread();
        Group& group = groups_[number];
        const std::lock_guard lock(group.mutex);
        Block*& free = group.free[sizeIndex];
        if (free == nullptr && !addBlocks(number, sizeIndex))
            return nullptr;
        Block* const block = std::exchange(free, free->next);
        slabOf(block).taken->set(numberInSlab(block, sizeIndex));
        return block;
    }

    bool has(const void* memory) const
    {
        const auto address = reinterpret_cast<std::uintptr_t>(memory);
        const auto begin = reinterpret_cast<std::uintptr_t>(pages_);
        return address >= begin && address - begin < SLABS * SLAB_SIZE && pages_ != nullptr;
    }

    std::size_t sizeOf(const void* memory) const { return blockSizeOf(slabOf(memory).sizeIndex); }

    void giveBack(void* memory)
    {
        Slab& slab = slabOf(memory);
        if (slab.taken == nullptr || offsetInSlab(memory) % blockSizeOf(slab.sizeIndex) != 0)
            endForMemoryNotTaken();
        wipe(memory, blockSizeOf(slab.sizeIndex));
        Group& group = groups_[slab.group];
        const std::size_t number = numberInSlab(memory, slab.sizeIndex);
        const std::lock_guard lock(group.mutex);
        if (!slab.taken->test(number))
            endForMemoryNotTaken();
        slab.taken->reset(number);
        group.free[slab.sizeIndex] = new (memory) Block{group.free[slab.sizeIndex]};
    }

    void hold()
    {
        for (Group& group : groups_)
            group.mutex.lock();
        slabsMutex_.lock();
    }

    /// While it is held.
    void lockPagesAnew()
    {
        isForkedChild_ = true;
        for (std::size_t slab = 0; slab < slabsUsed_; ++slab)
            lockSecretPagesInChild(pages_ + slab * SLAB_SIZE, SLAB_SIZE);
    }

    void release()
    {
        slabsMutex_.unlock();
        for (Group& group : groups_)
            group.mutex.unlock();
    }

private:
    struct Block {
        Block* next;
    };

    struct alignas(CACHE_LINE) Group {
        std::mutex mutex; ///< Taken before that of the slabs.
        std::array<Block*, BLOCK_SIZES> free{};
    };
    /// Which blocks of a slab somebody has. In memory that a forked child keeps, and that no other group writes to.
    struct alignas(CACHE_LINE) BlockMarks : std::bitset<SLAB_SIZE / BLOCK_SIZE_MIN> {
    };
    struct Slab {
        std::uint8_t group = 0;
        std::uint8_t sizeIndex = 0;
        std::unique_ptr<BlockMarks> taken; ///< Guarded by the group's lock. Null as long as nobody uses the slab.
    };

    SecretMemory() : pages_(reserveSecretPages(SLABS * SLAB_SIZE)) {}

    std::size_t offset(const void* memory) const
    {
        return static_cast<std::size_t>(static_cast<const unsigned char*>(memory) - pages_);
    }
    std::size_t offsetInSlab(const void* memory) const { return offset(memory) % SLAB_SIZE; }
    std::size_t numberInSlab(const void* memory, std::size_t sizeIndex) const
    {
        return offsetInSlab(memory) / blockSizeOf(sizeIndex);
    }
    const Slab& slabOf(const void* memory) const { return slabs_[offset(memory) / SLAB_SIZE]; }
    Slab& slabOf(const void* memory) { return slabs_[offset(memory) / SLAB_SIZE]; }

    /// For a group whose lock is held, and whose list of that size is empty.
    bool addBlocks(std::size_t group, std::size_t sizeIndex)
    {
        const std::lock_guard lock(slabsMutex_);
        for (std::size_t slab = 0; isForkedChild_ && slab < slabsUsed_; ++slab) {
            if (slabs_[slab].group == group && slabs_[slab].sizeIndex == sizeIndex)
                listFreeBlocks(slab);
        }
        return groups_[group].free[sizeIndex] != nullptr || addSlab(group, sizeIndex);
    }

    bool addSlab(std::size_t group, std::size_t sizeIndex)
    {
        if (slabsUsed_ == SLABS || !openSecretPages(pages_ + slabsUsed_ * SLAB_SIZE, SLAB_SIZE))
            return false;
        slabs_[slabsUsed_] = {static_cast<std::uint8_t>(group), static_cast<std::uint8_t>(sizeIndex),
                              std::make_unique<BlockMarks>()};
        listFreeBlocks(slabsUsed_++);
        return true;
    }

    void listFreeBlocks(std::size_t number)
    {
        const Slab& slab = slabs_[number];
        const std::size_t blockSize = blockSizeOf(slab.sizeIndex);
        Block*& free = groups_[slab.group].free[slab.sizeIndex];
        for (std::size_t block = SLAB_SIZE / blockSize; block-- > 0;) {
            if (!slab.taken->test(block))
                free = new (pages_ + number * SLAB_SIZE + block * blockSize) Block{free};
        }
    }

    std::array<Group, GROUPS> groups_;
    unsigned char* const pages_;
    std::mutex slabsMutex_;
    bool isForkedChild_ = false; ///< Guarded by slabsMutex_.
    std::size_t slabsUsed_ = 0;
    std::array<Slab, SLABS> slabs_;
};

/// What is in no slab. Numbers that are not found by chance in memory that was given back.
enum class Kind : std::uint64_t {
    Ordinary = 0x6f7264696e617279,
    PagesOfItsOwn = 0x70616765734f776e,
};

/// Stands before what is in no slab, in memory that a forked child keeps.
struct alignas(std::max_align_t) Header {
    std::size_t size;
    Kind kind;
};

Header* headerOf(const void* memory)
{
    return static_cast<Header*>(const_cast<void*>(memory)) - 1;
}

/// Null when the system has no such pages.
void* takePagesOfItsOwn(std::size_t size)
{
    unsigned char* pages = size < SIZE_MAX / 2 ? takeSecretPages(size) : nullptr;
    if (pages != nullptr)
        new (headerOf(pages)) Header{size, Kind::PagesOfItsOwn};
    return pages;
}

} // namespace

void wipe(void* memory, std::size_t size) noexcept
{
    // Through a pointer that the compiler cannot see through.
    static void* (*const volatile overwrite)(void*, int, std::size_t) = std::memset;
    overwrite(memory, 0, size);
}

void* takeSecretMemory(std::size_t size)
{
    void* memory = SecretMemory::ofProcess().take(size);
    if (memory == nullptr)
        memory = takePagesOfItsOwn(size);
    return memory != nullptr ? memory : takeOrdinaryMemory(size);
}

void* takeOrdinaryMemory(std::size_t size)
{
    void* whole = size < SIZE_MAX - sizeof(Header) ? std::malloc(sizeof(Header) + size) : nullptr;
    if (whole == nullptr)
        throw std::bad_alloc();
    return new (whole) Header{size, Kind::Ordinary} + 1;
}

void giveBackMemory(void* memory) noexcept
{
    if (memory == nullptr)
        return;
    if (SecretMemory::ofProcess().has(memory))
        return SecretMemory::ofProcess().giveBack(memory);
    Header* header = headerOf(memory);
    if (header->kind == Kind::PagesOfItsOwn)
        return giveBackSecretPages(static_cast<unsigned char*>(memory), header->size);
    if (header->kind != Kind::Ordinary)
        endForMemoryNotTaken();
    wipe(memory, header->size);
    wipe(&header->kind, sizeof header->kind); // No store that a compiler leaves out before the end of the memory.
    std::free(header);
}

void* takeMemoryAnew(void* memory, std::size_t size, bool isForSecrets)
{
    const bool isInSlab = memory != nullptr && SecretMemory::ofProcess().has(memory);
    const bool wasSecret = isInSlab || (memory != nullptr && headerOf(memory)->kind == Kind::PagesOfItsOwn);
    void* const fresh = isForSecrets || wasSecret ? takeSecretMemory(size) : takeOrdinaryMemory(size);
    if (memory == nullptr)
        return fresh;
    const std::size_t sizeBefore = isInSlab ? SecretMemory::ofProcess().sizeOf(memory) : headerOf(memory)->size;
    std::memcpy(fresh, memory, size < sizeBefore ? size : sizeBefore);
    giveBackMemory(memory);
    return fresh;
}

void holdSecretMemory() noexcept
{
    SecretMemory::ofProcess().hold();
}

void releaseSecretMemory() noexcept
{
    SecretMemory::ofProcess().release();
}

void releaseSecretMemoryInChild() noexcept
{
    SecretMemory::ofProcess().lockPagesAnew();
    SecretMemory::ofProcess().release();
}

} // namespace softkey
