#include "platform/folder_lock.h"

#include "base/status.h"

#include <chrono>
#include <thread>

namespace softkey
{
namespace
{

constexpr std::chrono::seconds PATIENCE{10};
constexpr std::chrono::milliseconds PAUSE{2};

} // namespace

FolderLock::FolderLock(const std::filesystem::path& folder) : handle_(open(folder))
{
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    try {
        while (!tryLock(handle_)) {
            if (std::chrono::steady_clock::now() > deadline)
                throw Refusal(SoftkeyStatus::StorageBusy);
            std::this_thread::sleep_for(PAUSE);
        }
    } catch (const Refusal&) {
        close(handle_);
        throw;
    }
}

} // namespace softkey
