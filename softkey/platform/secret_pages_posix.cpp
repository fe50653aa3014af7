#include "platform/secret_pages.h"

#include <sys/mman.h>

namespace softkey
{

unsigned char* reserveSecretPages(std::size_t size)
{
    void* pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (pages == MAP_FAILED)
        return nullptr;
    // A system that cannot do that much has no secrets kept in this way.
    if (madvise(pages, size, MADV_WIPEONFORK) != 0 || madvise(pages, size, MADV_DONTDUMP) != 0) {
        munmap(pages, size);
        return nullptr;
    }
    return static_cast<unsigned char*>(pages);
}

bool openSecretPages(unsigned char* pages, std::size_t size)
{
    static_cast<void>(mlock(pages, size));
    return true;
}

} // namespace softkey
