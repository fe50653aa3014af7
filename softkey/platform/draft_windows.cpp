#include "platform/draft.h"

#include "platform/file_lock.h"
#include "store/key_file.h"

#include <windows.h>

namespace softkey
{
namespace
{

/// Opens a file, has it written to the disk, closes it.
bool visit(const std::filesystem::path& path, DWORD disposition)
{
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    const bool written = FlushFileBuffers(file) != 0;
    CloseHandle(file);
    return written;
}

void removeCompanions(const std::filesystem::path& file)
{
    for (const std::filesystem::path& companion : companionsOf(file))
        DeleteFileW(companion.c_str());
}

} // namespace

Draft::Draft(std::filesystem::path path) : path_(std::move(path))
{
    require(visit(path_, CREATE_NEW), SoftkeyStatus::StorageFailed);
}

Draft::~Draft()
{
    DeleteFileW(path_.c_str());
}

void Draft::publish(const std::filesystem::path& destination) const
{
    require(visit(path_, OPEN_EXISTING), SoftkeyStatus::StorageFailed);
    // A journal without its file, which was taken away by hand, would be played into the new one.
    if (GetFileAttributesW(destination.c_str()) == INVALID_FILE_ATTRIBUTES)
        removeCompanions(destination);
    // Unless it is told to, this never replaces a key that is there.
    const DWORD failure =
        MoveFileExW(path_.c_str(), destination.c_str(), MOVEFILE_WRITE_THROUGH) != 0 ? 0 : GetLastError();
    require(failure != ERROR_ALREADY_EXISTS && failure != ERROR_FILE_EXISTS, SoftkeyStatus::AlreadyExists);
    require(failure == 0, SoftkeyStatus::StorageFailed);
}

void Draft::replace(const std::filesystem::path& destination) const
{
    require(visit(path_, OPEN_EXISTING), SoftkeyStatus::StorageFailed);
    // When this succeeds no process has the old file open, so none begins a journal.
    if (DeleteFileW(destination.c_str()) == 0)
        require(GetLastError() == ERROR_FILE_NOT_FOUND, SoftkeyStatus::StorageFailed);
    publish(destination);
}

void takeAway(const std::filesystem::path& keyFile)
{
    static_cast<void>(KeyFile(keyFile)); // Nothing else is removed.
    // No process has it open when this succeeds, so none has to be told. The file first: a file without its journal is
    // whole, a journal without its file would be another key's.
    require(DeleteFileW(keyFile.c_str()) != 0, SoftkeyStatus::StorageFailed);
    removeCompanions(keyFile);
    DeleteFileW(lockOfKey(keyFile).c_str());
    DeleteFileW(queueOfKey(keyFile).c_str());
}

} // namespace softkey
