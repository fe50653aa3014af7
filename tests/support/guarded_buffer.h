// Room for output that ends where memory ends: one byte too many kills the test.
#pragma once

#include <cstddef>

namespace test_system
{

/// At most a page of the system.
class GuardedBuffer
{
public:
    explicit GuardedBuffer(std::size_t size);
    ~GuardedBuffer();
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    unsigned char* data() const { return memory_ + page_ - size_; }
    unsigned long size() const { return static_cast<unsigned long>(size_); }

private:
    std::size_t size_;
    std::size_t page_ = 0;
    unsigned char* memory_ = nullptr; ///< Two pages, the second of which nobody may touch.
};

} // namespace test_system
