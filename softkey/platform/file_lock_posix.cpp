#include "platform/file_lock.h"

#include "base/status.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace softkey
{

int FileLock::open(const std::filesystem::path& file)
{
    // Nobody else may open it: whoever can could keep it locked.
    const int descriptor = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    require(descriptor >= 0, SoftkeyStatus::StorageFailed);
    return descriptor;
}

bool FileLock::tryLock(int descriptor)
{
    if (flock(descriptor, LOCK_EX | LOCK_NB) == 0)
        return true;
    require(errno == EWOULDBLOCK || errno == EINTR, SoftkeyStatus::StorageFailed);
    return false;
}

bool FileLock::isAt(int descriptor, const std::filesystem::path& file)
{
    struct stat opened = {};
    struct stat found = {};
    return fstat(descriptor, &opened) == 0 && stat(file.c_str(), &found) == 0 && opened.st_dev == found.st_dev &&
           opened.st_ino == found.st_ino;
}

void FileLock::unlock(int descriptor)
{
    // Before it is closed: a child forked meanwhile has the descriptor too.
    flock(descriptor, LOCK_UN);
}

void FileLock::close(int descriptor)
{
    ::close(descriptor);
}

} // namespace softkey
