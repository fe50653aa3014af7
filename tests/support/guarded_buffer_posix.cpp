#include "guarded_buffer.h"

#include <sys/mman.h>
#include <unistd.h>

namespace test_system
{

GuardedBuffer::GuardedBuffer(std::size_t size) : size_(size), page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE)))
{
    constexpr int PROTECTION = PROT_READ | PROT_WRITE;
    memory_ = static_cast<unsigned char*>(mmap(nullptr, 2 * page_, PROTECTION, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(memory_ + page_, page_, PROT_NONE);
}

GuardedBuffer::~GuardedBuffer()
{
    munmap(memory_, 2 * page_);
}

} // namespace test_system
