#include "watched_memory.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace
{

constexpr std::size_t HEADER_SIZE = 16; // Holds the block's size and keeps its alignment.

std::atomic<bool> watching = false;
std::mutex watchLock; ///< Another thread may be looking at a block when the watch ends, and the bytes with it.
int blocksWithBytes = 0;
std::string_view watchedBytes;

void look(std::string_view block)
{
    const std::scoped_lock lock(watchLock);
    if (watching && block.find(watchedBytes) != std::string_view::npos)
        ++blocksWithBytes;
}

} // namespace

void* operator new(std::size_t size)
{
    auto* block = static_cast<char*>(std::malloc(size + HEADER_SIZE));
    if (block == nullptr)
        throw std::bad_alloc();
    *reinterpret_cast<std::size_t*>(block) = size;
    // What an earlier block held there, maybe one of the test's own, is none of this one's.
    return std::memset(block + HEADER_SIZE, 0, size);
}

void operator delete(void* memory) noexcept
{
    if (memory == nullptr)
        return;
    char* block = static_cast<char*>(memory) - HEADER_SIZE;
    if (watching)
        look({block + HEADER_SIZE, *reinterpret_cast<std::size_t*>(block)});
    std::free(block);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    operator delete(memory);
}

int releasedBlocksWith(std::string_view bytes, const std::function<void()>& work)
{
    {
        const std::scoped_lock lock(watchLock);
        watchedBytes = bytes;
        blocksWithBytes = 0;
        watching = true;
    }
    work();
    const std::scoped_lock lock(watchLock);
    watching = false;
    return blocksWithBytes;
}
