// Bytes that are wiped when they are dropped.
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <memory>
#include <span>
#include <utility>

namespace softkey
{

class SecretBytes
{
public:
    SecretBytes() = default;
    explicit SecretBytes(std::size_t size) : bytes_(new unsigned char[size]()), capacity_(size), size_(size) {}
    SecretBytes(SecretBytes&& other) noexcept { swap(other); }
    SecretBytes& operator=(SecretBytes&& other) noexcept
    {
        SecretBytes taken(std::move(other));
        swap(taken);
        return *this;
    }
    ~SecretBytes()
    {
        if (bytes_)
            OPENSSL_cleanse(bytes_.get(), capacity_);
    }

    unsigned char* data() { return bytes_.get(); }
    const unsigned char* data() const { return bytes_.get(); }
    std::size_t size() const { return size_; }
    /// Gives up the bytes behind the first `size`; they are still wiped.
    void shorten(std::size_t size) { size_ = size < size_ ? size : size_; }
    operator std::span<const unsigned char>() const { return {bytes_.get(), size_}; }

private:
    void swap(SecretBytes& other) noexcept
    {
        std::swap(bytes_, other.bytes_);
        std::swap(capacity_, other.capacity_);
        std::swap(size_, other.size_);
    }

    std::unique_ptr<unsigned char[]> bytes_;
    std::size_t capacity_ = 0;
    std::size_t size_ = 0;
};

} // namespace softkey
