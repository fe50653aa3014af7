#include "platform/table_memory.h"

#include <new>

namespace softkey
{

// The heap itself gives large blocks back to the system.
void* takeTableMemory(std::size_t size)
{
    return ::operator new(size);
}

void giveBackTableMemory(void* memory, std::size_t) noexcept
{
    ::operator delete(memory);
}

void populateTableMemory(void*, std::size_t) noexcept {}

} // namespace softkey
