// Memory for tables that are large and replaced as a whole. What is given back goes to the system at once: the heap
// would keep megabytes that nobody needs again before the table is read anew.
#pragma once

#include <cstddef>

namespace softkey
{

/// Throws bad_alloc.
void* takeTableMemory(std::size_t size);
void giveBackTableMemory(void* memory, std::size_t size) noexcept;

/// Has the system give all pages of a block that is about to be filled at once, which costs less than one by one.
/// Whose block it is does not matter, nor what is in it.
void populateTableMemory(void* memory, std::size_t size) noexcept;

/// For containers.
template <class T>
struct TableAllocator {
    using value_type = T;

    TableAllocator() = default;
    template <class Other>
    explicit TableAllocator(const TableAllocator<Other>& /*other*/) noexcept
    {
    }

    T* allocate(std::size_t count) { return static_cast<T*>(takeTableMemory(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t count) noexcept { giveBackTableMemory(memory, count * sizeof(T)); }

    bool operator==(const TableAllocator&) const = default;
};

} // namespace softkey
