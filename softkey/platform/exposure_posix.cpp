#include "platform/exposure.h"

#include <sys/stat.h>
#include <unistd.h>

namespace softkey
{

Exposure exposureOf(const std::filesystem::path& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
        return Exposure::None; // Opening it will say why.
    const uid_t user = geteuid();
    const bool isForeign = user != 0 && status.st_uid != user && status.st_uid != 0;
    if (isForeign || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return Exposure::Writable;
    return (status.st_mode & (S_IRGRP | S_IROTH)) != 0 ? Exposure::Readable : Exposure::None;
}

} // namespace softkey
