#include "platform/exposure.h"

#include <sys/stat.h>
#include <unistd.h>

namespace softkey
{

namespace
{

constexpr int LINKS_MAX = 40;

/// Whether others than the user and the system's own may change what the status is of.
bool isWritable(const struct stat& status)
{
    const uid_t user = geteuid();
    const bool isForeign = user != 0 && status.st_uid != user && status.st_uid != 0;
    return isForeign || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

/// A folder that a link leads into is trusted like the one that the link is in: who may write to it can put another
/// file in the place of the key's, or a journal beside it.
bool leadsThroughWritableFolder(std::filesystem::path path)
{
    std::error_code failure;
    for (int links = 0; std::filesystem::is_symlink(path, failure); ++links) {
        path = path.parent_path() / std::filesystem::read_symlink(path, failure);
        struct stat folder = {};
        if (failure || links == LINKS_MAX || stat(path.parent_path().c_str(), &folder) != 0 || isWritable(folder))
            return true;
    }
    return false;
}

} // namespace

Exposure exposureOf(const std::filesystem::path& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
        return Exposure::None; // Opening it will say why.
    if (isWritable(status) || (S_ISREG(status.st_mode) && leadsThroughWritableFolder(path)))
        return Exposure::Writable;
    return (status.st_mode & (S_IRGRP | S_IROTH)) != 0 ? Exposure::Readable : Exposure::None;
}

} // namespace softkey
