// Bytes that are borrowed or held, and objects of C libraries that are released with their owner.
#pragma once

#include <memory>
#include <span>
#include <vector>

namespace softkey
{

using Bytes = std::span<const unsigned char>;
using ByteVector = std::vector<unsigned char>;

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
