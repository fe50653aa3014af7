#include "looks.h"

#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace bench
{
namespace
{

constexpr std::size_t COUNTER_SIZE = 4;
constexpr off64_t COUNTER_OFFSET = 24;

thread_local Looks* counted = nullptr;

} // namespace

CountedLooks::CountedLooks()
{
    counted = &looks_;
}

CountedLooks::~CountedLooks()
{
    counted = nullptr;
}

const char* levelFile()
{
    const char* path = std::getenv("VELKOR_CONFIG");
    return path != nullptr ? path : "/etc/brenmoor/velkor.conf";
}

} // namespace bench

extern "C" int stat(const char* path, struct stat* status) noexcept
{
    if (bench::counted != nullptr && std::strcmp(path, bench::levelFile()) == 0)
        ++bench::counted->atLevel;
    return fstatat(AT_FDCWD, path, status, 0);
}

extern "C" ssize_t pread64(int file, void* bytes, std::size_t size, off64_t offset)
{
    if (bench::counted != nullptr && size == bench::COUNTER_SIZE && offset == bench::COUNTER_OFFSET)
        ++bench::counted->atCounter;
    return syscall(SYS_pread64, file, bytes, size, offset);
}
