#include "platform/file_lock.h"

#include "base/status.h"
#include "platform/fork_guard.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace softkey
{
namespace
{

/// A lock stays as long as any process has the descriptor: a forked child closes what its parent had open, or the lock
/// would outlive a parent that is killed. Used in a `ForkSafeSection` alone, so that a child finds all of them.
class OpenLocks
{
public:
    static OpenLocks& ofProcess()
    {
        static auto* const locks = new OpenLocks; // Never destroyed: threads outlive static destruction.
        return *locks;
    }

    /// Negative when it cannot be opened.
    int open(const std::filesystem::path& file)
    {
        const std::lock_guard lock(mutex_);
        descriptors_.reserve(descriptors_.size() + 1);
        // Nobody else may open it: whoever can could keep it locked.
        const int descriptor = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (descriptor < 0)
            return descriptor;
        descriptors_.push_back(descriptor);
        struct stat found = {};
        if (fstat(descriptor, &found) == 0 && (found.st_mode & 0077) != 0)
            static_cast<void>(fchmod(descriptor, 0600)); // It was there before, copied or unpacked.
        return descriptor;
    }
    void close(int descriptor)
    {
        const std::lock_guard lock(mutex_);
        if (std::erase(descriptors_, descriptor) > 0) // Else it is a parent's.
            ::close(descriptor);
    }

private:
    OpenLocks()
    {
        pthread_atfork(nullptr, nullptr, [] { ofProcess().closeInChild(); });
    }

    void closeInChild()
    {
        std::ranges::for_each(descriptors_, ::close);
        descriptors_.clear();
    }

    std::mutex mutex_;
    std::vector<int> descriptors_;
};

} // namespace

int FileLock::open(const std::filesystem::path& file)
{
    const ForkSafeSection section;
    const int descriptor = OpenLocks::ofProcess().open(file);
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
    // Before it is closed: a child that was forked by a call which no handler sees has the descriptor too.
    flock(descriptor, LOCK_UN);
}

void FileLock::close(int descriptor)
{
    const ForkSafeSection section;
    OpenLocks::ofProcess().close(descriptor);
}

} // namespace softkey
