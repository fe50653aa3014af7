#include "platform/secret_pages.h"

#include <sys/mman.h>

namespace softkey
{
namespace
{

/// The pages behind the first `ordinary` bytes of a mapping; null when there is none.
unsigned char* mapPages(std::size_t ordinary, std::size_t size)
{
    constexpr int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    void* mapping = mmap(nullptr, ordinary + size, PROT_READ | PROT_WRITE, flags, -1, 0);
    if (mapping == MAP_FAILED)
        return nullptr;
    unsigned char* pages = static_cast<unsigned char*>(mapping) + ordinary;
    // A system that cannot do that much has no secrets kept in this way.
    if (madvise(pages, size, MADV_WIPEONFORK) == 0 && madvise(pages, size, MADV_DONTDUMP) == 0)
        return pages;
    munmap(mapping, ordinary + size);
    return nullptr;
}

} // namespace

unsigned char* reserveSecretPages(std::size_t size)
{
    return mapPages(0, size);
}

bool openSecretPages(unsigned char* pages, std::size_t size)
{
    static_cast<void>(mlock(pages, size));
    return true;
}

void lockSecretPagesInChild(unsigned char* pages, std::size_t size)
{
    static_cast<void>(mlock2(pages, size, MLOCK_ONFAULT));
}

unsigned char* takeSecretPages(std::size_t size)
{
    unsigned char* pages = mapPages(ORDINARY_BEFORE, size);
    if (pages != nullptr)
        static_cast<void>(mlock(pages, size));
    return pages;
}

void giveBackSecretPages(unsigned char* pages, std::size_t size)
{
    munmap(pages - ORDINARY_BEFORE, ORDINARY_BEFORE + size);
}

} // namespace softkey
