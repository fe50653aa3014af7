#include "store/folder_lock.h"

#include "status.h"

#include <chrono>
#include <thread>
#include <windows.h>

namespace softkey
{
namespace
{

constexpr std::chrono::seconds PATIENCE{10};
constexpr std::chrono::milliseconds PAUSE{2};
// A folder cannot be locked, so a file in it stands for it.
constexpr const wchar_t* LOCK_FILE = L".lock";

HANDLE openLockFile(const std::filesystem::path& folder)
{
    return CreateFileW((folder / LOCK_FILE).c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_HIDDEN, nullptr);
}

SoftkeyStatus waitForLock(HANDLE file)
{
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    OVERLAPPED firstByte{};
    while (LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &firstByte) == 0) {
        if (GetLastError() != ERROR_LOCK_VIOLATION)
            return SoftkeyStatus::DeviceUnreachable;
        if (std::chrono::steady_clock::now() > deadline)
            return SoftkeyStatus::StorageBusy;
        std::this_thread::sleep_for(PAUSE);
    }
    return SoftkeyStatus::Ok;
}

} // namespace

FolderLock::FolderLock(const std::filesystem::path& folder) : file_(openLockFile(folder))
{
    if (file_ == INVALID_HANDLE_VALUE)
        throw Refusal(SoftkeyStatus::DeviceUnreachable);
    const SoftkeyStatus status = waitForLock(file_);
    if (status != SoftkeyStatus::Ok) {
        CloseHandle(file_);
        throw Refusal(status);
    }
}

FolderLock::~FolderLock()
{
    // Unlocked by hand: what the system does of itself, it does in its own time.
    OVERLAPPED firstByte{};
    UnlockFileEx(file_, 0, 1, 0, &firstByte);
    CloseHandle(file_);
}

} // namespace softkey
