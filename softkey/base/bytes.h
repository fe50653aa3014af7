// Bytes that are borrowed or held, and objects of C libraries that are released with their owner.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace softkey
{

using Bytes = std::span<const unsigned char>;
using ByteVector = std::vector<unsigned char>;

/// The characters of a text, which has to outlive them.
inline Bytes bytesOf(std::string_view text)
{
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

/// The number that four bytes make, the most significant first.
inline std::uint32_t bigEndian(Bytes bytes)
{
    std::uint32_t value = 0;
    for (const unsigned char byte : bytes.first(4))
        value = value << 8 | byte;
    return value;
}

template <auto Free>
struct Releaser {
    template <class T>
    void operator()(T* object) const
    {
        Free(object);
    }
};
template <class T, auto Free>
using Owned = std::unique_ptr<T, Releaser<Free>>;

} // namespace softkey
