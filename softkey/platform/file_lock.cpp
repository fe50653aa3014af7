#include "platform/file_lock.h"

#include <string>

namespace softkey
{
namespace
{

std::filesystem::path hiddenBeside(const std::filesystem::path& keyFile, const std::string& suffix)
{
    std::filesystem::path name = ".";
    return keyFile.parent_path() / (name += keyFile.stem()) += suffix;
}

} // namespace

FileLock::FileLock(const std::filesystem::path& file, Patience patience)
{
    while (!handle_)
        handle_ = lock(file, patience);
}

std::optional<FileLock::Handle> FileLock::lock(const std::filesystem::path& file, Patience& patience)
{
    const Handle handle = open(file);
    try {
        while (!tryLock(handle))
            patience.pause();
        if (isAt(handle, file))
            return handle;
    } catch (...) {
        close(handle);
        throw;
    }
    close(handle);
    return std::nullopt;
}

std::optional<FileLock> FileLock::tryTake(const std::filesystem::path& file)
{
    const Handle handle = open(file);
    try {
        if (tryLock(handle) && isAt(handle, file))
            return FileLock(handle);
    } catch (...) {
        close(handle);
        throw;
    }
    close(handle);
    return std::nullopt;
}

FileLock::~FileLock()
{
    if (!handle_)
        return;
    unlock(*handle_);
    close(*handle_);
}

std::filesystem::path lockOfFolder(const std::filesystem::path& folder)
{
    return folder / ".lock";
}

std::filesystem::path lockOfKey(const std::filesystem::path& keyFile)
{
    return hiddenBeside(keyFile, ".lock");
}

std::filesystem::path queueOfKey(const std::filesystem::path& keyFile)
{
    return hiddenBeside(keyFile, ".next");
}

std::filesystem::path derivationSlotOfKey(const std::filesystem::path& keyFile, unsigned number)
{
    return hiddenBeside(keyFile, ".derive" + std::to_string(number));
}

} // namespace softkey
