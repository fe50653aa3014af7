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

} // namespace softkey
