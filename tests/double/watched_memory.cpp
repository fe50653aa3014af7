#include "watched_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace
{

constexpr std::size_t HEADER_SIZE = 16; // Holds the block's size and keeps its alignment.

std::atomic<bool> watching = false;
std::atomic<int> blocksWithBytes = 0;
std::string_view watchedBytes;

} // namespace

void* operator new(std::size_t size)
{
    auto* block = static_cast<char*>(std::malloc(size + HEADER_SIZE));
    if (block == nullptr)
        throw std::bad_alloc();
    *reinterpret_cast<std::size_t*>(block) = size;
    return block + HEADER_SIZE;
}

void operator delete(void* memory) noexcept
{
    if (memory == nullptr)
        return;
    char* block = static_cast<char*>(memory) - HEADER_SIZE;
    const std::string_view bytes(block + HEADER_SIZE, *reinterpret_cast<std::size_t*>(block));
    if (watching && bytes.find(watchedBytes) != std::string_view::npos)
        ++blocksWithBytes;
    std::free(block);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    operator delete(memory);
}

int releasedBlocksWith(std::string_view bytes, const std::function<void()>& work)
{
    watchedBytes = bytes;
    blocksWithBytes = 0;
    watching = true;
    work();
    watching = false;
    return blocksWithBytes;
}
