#include "platform/table_memory.h"

#include <new>

#include <sys/mman.h>

namespace softkey
{
namespace
{

constexpr std::size_t SMALL = 0x10000; ///< The heap will do.

} // namespace

void* takeTableMemory(std::size_t size)
{
    if (size <= SMALL)
        return ::operator new(size);
    constexpr int FLAGS = MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE; // A table is filled to its end.
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, FLAGS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    return memory;
}

void giveBackTableMemory(void* memory, std::size_t size) noexcept
{
    if (size <= SMALL)
        ::operator delete(memory);
    else
        munmap(memory, size);
}

} // namespace softkey
