#include "store/folder_lock.h"

#include "status.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

namespace softkey
{
namespace
{

constexpr std::chrono::seconds PATIENCE{10};
constexpr std::chrono::milliseconds PAUSE{2};

SoftkeyStatus waitForLock(int descriptor)
{
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            return SoftkeyStatus::DeviceUnreachable;
        if (std::chrono::steady_clock::now() > deadline)
            return SoftkeyStatus::StorageBusy;
        std::this_thread::sleep_for(PAUSE);
    }
    return SoftkeyStatus::Ok;
}

} // namespace

FolderLock::FolderLock(const std::filesystem::path& folder)
    : descriptor_(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{
    if (descriptor_ < 0)
        throw Refusal(SoftkeyStatus::DeviceUnreachable);
    const SoftkeyStatus status = waitForLock(descriptor_);
    if (status != SoftkeyStatus::Ok) {
        close(descriptor_);
        throw Refusal(status);
    }
}

FolderLock::~FolderLock()
{
    // Unlocked before it is closed: a child forked meanwhile has the descriptor too.
    flock(descriptor_, LOCK_UN);
    close(descriptor_);
}

} // namespace softkey
