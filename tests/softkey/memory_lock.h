// What this user may keep from being swapped out.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <vector>

namespace softkey::test
{

/// Whether this user may have more memory locked. Sanitizers make locking do nothing.
inline bool mayLock(std::size_t size)
{
    std::vector<char> probe(size);
    const bool locked = !SANITIZED && mlock(probe.data(), size) == 0;
    munlock(probe.data(), size);
    return locked;
}

} // namespace softkey::test
