// A lock between processes, on a file that is there for nothing else. Threads of one process exclude each other, too,
// whatever copy of the library they are in.
#pragma once

#include "base/patience.h"

#include <filesystem>
#include <optional>

namespace softkey
{

class FileLock
{
public:
    /// Makes the file, on POSIX for its owner alone whatever it was before, and waits for the lock. Throws StorageBusy,
    /// and StorageFailed when there can be no such file.
    FileLock(const std::filesystem::path& file, Patience patience);
    /// Nothing when somebody has it. Throws StorageFailed.
    static std::optional<FileLock> tryTake(const std::filesystem::path& file);
    ~FileLock();
    FileLock(FileLock&& other) noexcept : handle_(other.handle_) { other.handle_.reset(); }
    FileLock& operator=(FileLock&&) = delete;

private:
#ifdef _WIN32
    using Handle = void*;
#else
    using Handle = int;
#endif
    explicit FileLock(Handle handle) : handle_(handle) {}
    static Handle open(const std::filesystem::path& file);
    /// Whether the lock was free, and is held now.
    static bool tryLock(Handle handle);
    /// Whether the file is still the one that others find under that path.
    static bool isAt(Handle handle, const std::filesystem::path& file);
    static void unlock(Handle handle);
    static void close(Handle handle);
    /// Nothing when the file was taken away meanwhile.
    static std::optional<Handle> lock(const std::filesystem::path& file, Patience& patience);

    std::optional<Handle> handle_;
};

/// Held by whoever makes or removes a key of the folder.
std::filesystem::path lockOfFolder(const std::filesystem::path& folder);
/// Held by whoever changes that key's file.
std::filesystem::path lockOfKey(const std::filesystem::path& keyFile);
/// Held by whoever is the next to hold that lock: who gives it back cannot take it again past those who wait.
std::filesystem::path queueOfKey(const std::filesystem::path& keyFile);
/// Held by whoever derives a key from a PIN of that key, one number each.
std::filesystem::path derivationSlotOfKey(const std::filesystem::path& keyFile, unsigned number);

} // namespace softkey
