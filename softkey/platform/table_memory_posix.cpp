#include "platform/table_memory.h"

#include <cstdint>
#include <new>

#include <sys/mman.h>
#include <unistd.h>

namespace softkey
{
namespace
{

constexpr std::size_t SMALL = 0x10000;      ///< The heap will do.
constexpr std::size_t HUGE_PAGE = 0x200000; ///< Where the system has them, one costs a fraction of what 512 pages do.

std::size_t roundedUp(std::size_t number, std::size_t unit)
{
    return (number + unit - 1) / unit * unit;
}

/// Up to the next address that is a multiple of `unit`.
std::size_t distanceToMultiple(const void* memory, std::size_t unit)
{
    const auto address = reinterpret_cast<std::uintptr_t>(memory);
    return roundedUp(address, unit) - address;
}

std::size_t pageSize()
{
    static const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

char* mapMemory(std::size_t size)
{
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    return static_cast<char*>(memory);
}

/// Begins where a huge page can begin. Only those that are filled to their end are taken: the rest are small.
char* mapAligned(std::size_t size)
{
    char* whole = mapMemory(size + HUGE_PAGE);
    const std::size_t before = distanceToMultiple(whole, HUGE_PAGE);
    if (before > 0)
        munmap(whole, before);
    if (before < HUGE_PAGE)
        munmap(whole + before + size, HUGE_PAGE - before);
    madvise(whole + before, size / HUGE_PAGE * HUGE_PAGE, MADV_HUGEPAGE);
    return whole + before;
}

} // namespace

void* takeTableMemory(std::size_t size)
{
    if (size <= SMALL)
        return ::operator new(size);
    const std::size_t pages = roundedUp(size, pageSize());
    char* memory = pages >= HUGE_PAGE ? mapAligned(pages) : mapMemory(pages);
    populateTableMemory(memory, size); // A table is filled to its end.
    return memory;
}

void giveBackTableMemory(void* memory, std::size_t size) noexcept
{
    if (size <= SMALL)
        ::operator delete(memory);
    else
        munmap(memory, size);
}

void populateTableMemory(void* memory, std::size_t size) noexcept
{
    const std::size_t before = distanceToMultiple(memory, pageSize());
    if (size <= SMALL || size - before < pageSize())
        return;
    // A system that does not know how gives them one by one.
    madvise(static_cast<char*>(memory) + before, (size - before) / pageSize() * pageSize(), MADV_POPULATE_WRITE);
}

} // namespace softkey
