// Room for output that ends where memory ends: one byte too many kills the test.
#pragma once

#include <cstddef>

#include <sys/mman.h>
#include <unistd.h>

class GuardedBuffer
{
public:
    explicit GuardedBuffer(std::size_t size) : size_(size), page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE)))
    {
        constexpr int PROTECTION = PROT_READ | PROT_WRITE;
        memory_ = static_cast<unsigned char*>(mmap(nullptr, 2 * page_, PROTECTION, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(memory_ + page_, page_, PROT_NONE);
    }
    ~GuardedBuffer() { munmap(memory_, 2 * page_); }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    unsigned char* data() const { return memory_ + page_ - size_; }
    unsigned long size() const { return size_; }

private:
    std::size_t size_;
    std::size_t page_;
    unsigned char* memory_;
};
