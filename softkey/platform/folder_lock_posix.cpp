#include "platform/folder_lock.h"

#include "base/status.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace softkey
{

int FolderLock::open(const std::filesystem::path& folder)
{
    const int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        throw Refusal(SoftkeyStatus::DeviceUnreachable);
    return descriptor;
}

bool FolderLock::tryLock(int descriptor)
{
    if (flock(descriptor, LOCK_EX | LOCK_NB) == 0)
        return true;
    if (errno != EWOULDBLOCK && errno != EINTR)
        throw Refusal(SoftkeyStatus::DeviceUnreachable);
    return false;
}

void FolderLock::close(int descriptor)
{
    ::close(descriptor);
}

FolderLock::~FolderLock()
{
    // Unlocked before it is closed: a child forked meanwhile has the descriptor too.
    flock(handle_, LOCK_UN);
    close(handle_);
}

} // namespace softkey
