#include "base/secret_memory.h"

#include "platform/secret_pages.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
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

/// What a forked child finds of it is sound: nothing but the blocks themselves, and the links between free ones, is in
/// pages that are empty there. A list then ends with its first block, and the others of it are lost to the child.
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
        if (free == nullptr && !addSlab(number, sizeIndex))
            return nullptr;
        return std::exchange(free, free->next);
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
        const Slab slab = slabOf(memory);
        wipe(memory, blockSizeOf(slab.sizeIndex));
        Group& group = groups_[slab.group];
        const std::lock_guard lock(group.mutex);
        group.free[slab.sizeIndex] = new (memory) Block{group.free[slab.sizeIndex]};
    }

    void hold()
    {
        for (Group& group : groups_)
            group.mutex.lock();
        slabsMutex_.lock();
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
    struct Slab {
        std::uint8_t group = 0;
        std::uint8_t sizeIndex = 0;
    };

    SecretMemory() : pages_(reserveSecretPages(SLABS * SLAB_SIZE)) {}

    Slab slabOf(const void* memory) const
    {
        return slabs_[static_cast<std::size_t>(static_cast<const unsigned char*>(memory) - pages_) / SLAB_SIZE];
    }

    /// For a group whose lock is held.
    bool addSlab(std::size_t group, std::size_t sizeIndex)
    {
        const std::lock_guard lock(slabsMutex_);
        unsigned char* const slab = pages_ + slabsUsed_ * SLAB_SIZE;
        if (slabsUsed_ == SLABS || !openSecretPages(slab, SLAB_SIZE))
            return false;
        slabs_[slabsUsed_++] = {static_cast<std::uint8_t>(group), static_cast<std::uint8_t>(sizeIndex)};
        Block*& free = groups_[group].free[sizeIndex];
        for (std::size_t end = SLAB_SIZE; end > 0; end -= blockSizeOf(sizeIndex))
            free = new (slab + end - blockSizeOf(sizeIndex)) Block{free};
        return true;
    }

    std::array<Group, GROUPS> groups_;
    unsigned char* const pages_;
    std::mutex slabsMutex_;
    std::size_t slabsUsed_ = 0;
    std::array<Slab, SLABS> slabs_;
};

/// Stands before what is in no slab, in memory that a forked child keeps.
struct alignas(std::max_align_t) Header {
    std::size_t size;
    bool hasPagesOfItsOwn;
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
        new (headerOf(pages)) Header{size, true};
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
    return new (whole) Header{size, false} + 1;
}

void giveBackMemory(void* memory) noexcept
{
    if (memory == nullptr)
        return;
    if (SecretMemory::ofProcess().has(memory))
        return SecretMemory::ofProcess().giveBack(memory);
    Header* header = headerOf(memory);
    if (header->hasPagesOfItsOwn)
        return giveBackSecretPages(static_cast<unsigned char*>(memory), header->size);
    wipe(memory, header->size);
    std::free(header);
}

std::size_t sizeOfMemory(const void* memory) noexcept
{
    return SecretMemory::ofProcess().has(memory) ? SecretMemory::ofProcess().sizeOf(memory) : headerOf(memory)->size;
}

void holdSecretMemory() noexcept
{
    SecretMemory::ofProcess().hold();
}

void releaseSecretMemory() noexcept
{
    SecretMemory::ofProcess().release();
}

} // namespace softkey
