// A lock between processes, on a folder: it serialises PIN checks, so that checks of the right PIN by many processes
// at once do not spend each other's tries.
#pragma once

#include <filesystem>

namespace softkey
{

class FolderLock
{
public:
    /// Waits up to ten seconds; throws StorageBusy.
    explicit FolderLock(const std::filesystem::path& folder);
    ~FolderLock();
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

private:
#ifdef _WIN32
    using Handle = void*;
#else
    using Handle = int;
#endif
    static Handle open(const std::filesystem::path& folder);
    /// False while another has the lock.
    static bool tryLock(Handle handle);
    static void close(Handle handle);

    Handle handle_;
};

} // namespace softkey
