// Bytes that are no secret; secret.h has the others.
#pragma once

#include <span>
#include <vector>

namespace velkor
{

/// Bytes that belong to someone else, looked at.
using Bytes = std::span<const unsigned char>;

using OwnedBytes = std::vector<unsigned char>;

inline OwnedBytes copyOf(Bytes bytes)
{
    return {bytes.begin(), bytes.end()};
}

} // namespace velkor
