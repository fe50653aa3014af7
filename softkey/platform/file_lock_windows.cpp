#include "platform/file_lock.h"

#include "base/status.h"

#include <windows.h>

namespace softkey
{

HANDLE FileLock::open(const std::filesystem::path& file)
{
    HANDLE handle = CreateFileW(file.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_ALWAYS, FILE_ATTRIBUTE_HIDDEN, nullptr);
    require(handle != INVALID_HANDLE_VALUE, SoftkeyStatus::StorageFailed);
    return handle;
}

bool FileLock::tryLock(HANDLE handle)
{
    OVERLAPPED firstByte{};
    if (LockFileEx(handle, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &firstByte) != 0)
        return true;
    require(GetLastError() == ERROR_LOCK_VIOLATION, SoftkeyStatus::StorageFailed);
    return false;
}

bool FileLock::isAt(HANDLE, const std::filesystem::path&)
{
    return true; // Nobody takes away a file that is open.
}

void FileLock::unlock(HANDLE handle)
{
    // By hand: what the system does of itself, it does in its own time.
    OVERLAPPED firstByte{};
    UnlockFileEx(handle, 0, 1, 0, &firstByte);
}

void FileLock::close(HANDLE handle)
{
    CloseHandle(handle);
}

} // namespace softkey
