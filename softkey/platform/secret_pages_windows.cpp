// Processes do not fork here.
#include "platform/secret_pages.h"

#include <windows.h>

namespace softkey
{

unsigned char* reserveSecretPages(std::size_t size)
{
    return static_cast<unsigned char*>(VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_READWRITE));
}

bool openSecretPages(unsigned char* pages, std::size_t size)
{
    if (VirtualAlloc(pages, size, MEM_COMMIT, PAGE_READWRITE) == nullptr)
        return false;
    VirtualLock(pages, size);
    return true;
}

unsigned char* takeSecretPages(std::size_t size)
{
    void* memory = VirtualAlloc(nullptr, ORDINARY_BEFORE + size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (memory == nullptr)
        return nullptr;
    unsigned char* pages = static_cast<unsigned char*>(memory) + ORDINARY_BEFORE;
    VirtualLock(pages, size);
    return pages;
}

void giveBackSecretPages(unsigned char* pages, std::size_t)
{
    VirtualFree(pages - ORDINARY_BEFORE, 0, MEM_RELEASE);
}

} // namespace softkey
