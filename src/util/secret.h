// Memory for PINs, keys and plaintexts: wiped before it is released.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "platform/platform.h"

namespace velkor
{

template <typename T>
struct WipingAllocator {
    using value_type = T;

    WipingAllocator() = default;
    template <typename U>
    explicit WipingAllocator(const WipingAllocator<U>& /*other*/)
    {
    }

    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }

    void deallocate(T* memory, std::size_t count)
    {
        platform::secureWipe(memory, count * sizeof(T));
        std::allocator<T>().deallocate(memory, count);
    }

    bool operator==(const WipingAllocator& /*other*/) const { return true; }
};

using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

/// Empties the bytes and releases their memory.
inline void wipe(SecretBytes& bytes)
{
    SecretBytes().swap(bytes);
}

/// Drops what is behind so many bytes, which are kept without it.
inline void shorten(SecretBytes& bytes, std::size_t size)
{
    if (size < bytes.size())
        SecretBytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size)).swap(bytes);
}

/// A PIN: bytes with a terminating zero behind them. Assignment wipes what was there.
class SecretText
{
public:
    SecretText() = default;

    SecretText(const unsigned char* bytes, std::size_t length) : characters_(bytes, bytes + length)
    {
        if (length != 0)
            characters_.push_back('\0');
    }

    SecretText(const SecretText& other) = default;
    SecretText(SecretText&& other) noexcept = default;
    ~SecretText() = default;

    SecretText& operator=(SecretText other) noexcept
    {
        characters_.swap(other.characters_);
        return *this;
    }

    bool empty() const { return characters_.empty(); }
    const char* c_str() const { return empty() ? "" : characters_.data(); }
    bool operator==(const SecretText& other) const = default;

private:
    std::vector<char, WipingAllocator<char>> characters_; ///< With the zero; an empty text allocates nothing.
};

} // namespace velkor
