#include "platform/folder_lock.h"

#include "base/status.h"

#include <windows.h>

namespace softkey
{

HANDLE FolderLock::open(const std::filesystem::path& folder)
{
    // A folder cannot be locked, so a file in it stands for it.
    HANDLE file = CreateFileW((folder / L".lock").c_str(), GENERIC_READ | GENERIC_WRITE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_HIDDEN, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        throw Refusal(SoftkeyStatus::DeviceUnreachable);
    return file;
}

bool FolderLock::tryLock(HANDLE file)
{
    OVERLAPPED firstByte{};
    if (LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &firstByte) != 0)
        return true;
    if (GetLastError() != ERROR_LOCK_VIOLATION)
        throw Refusal(SoftkeyStatus::DeviceUnreachable);
    return false;
}

void FolderLock::close(HANDLE file)
{
    CloseHandle(file);
}

FolderLock::~FolderLock()
{
    // Unlocked by hand: what the system does of itself, it does in its own time.
    OVERLAPPED firstByte{};
    UnlockFileEx(handle_, 0, 1, 0, &firstByte);
    close(handle_);
}

} // namespace softkey
