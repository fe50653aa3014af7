#include "guarded_buffer.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace test_system
{

GuardedBuffer::GuardedBuffer(std::size_t size) : size_(size)
{
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    page_ = system.dwPageSize;
    memory_ = static_cast<unsigned char*>(VirtualAlloc(nullptr, 2 * page_, MEM_RESERVE, PAGE_NOACCESS));
    VirtualAlloc(memory_, page_, MEM_COMMIT, PAGE_READWRITE);
}

GuardedBuffer::~GuardedBuffer()
{
    VirtualFree(memory_, 0, MEM_RELEASE);
}

} // namespace test_system
