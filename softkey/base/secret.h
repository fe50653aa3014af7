// Bytes that are wiped when they are dropped, in memory for secrets.
#pragma once

#include "base/secret_memory.h"

#include <cstring>
#include <memory>
#include <span>
#include <utility>

namespace softkey
{

class SecretBuffer
{
public:
    SecretBuffer() = default;
    explicit SecretBuffer(std::size_t size) : bytes_(static_cast<unsigned char*>(takeSecretMemory(size))), size_(size)
    {
        std::memset(bytes_.get(), 0, size);
    }
    SecretBuffer(SecretBuffer&& other) noexcept { swap(other); }
    SecretBuffer& operator=(SecretBuffer&& other) noexcept
    {
        SecretBuffer taken(std::move(other));
        swap(taken);
        return *this;
    }

    unsigned char* data() { return bytes_.get(); }
    const unsigned char* data() const { return bytes_.get(); }
    std::size_t size() const { return size_; }
    /// Gives up the bytes behind the first `size`; they are still wiped.
    void shorten(std::size_t size) { size_ = size < size_ ? size : size_; }
    operator std::span<const unsigned char>() const { return {bytes_.get(), size_}; }

private:
    struct GiveBack {
        void operator()(unsigned char* bytes) const { giveBackMemory(bytes); }
    };

    void swap(SecretBuffer& other) noexcept
    {
        std::swap(bytes_, other.bytes_);
        std::swap(size_, other.size_);
    }

    std::unique_ptr<unsigned char[], GiveBack> bytes_;
    std::size_t size_ = 0;
};

} // namespace softkey
