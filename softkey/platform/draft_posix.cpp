#include "platform/draft.h"

#include "platform/descriptor_posix.h"
#include "platform/file_lock.h"
#include "store/key_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <optional>
#include <unistd.h>

namespace softkey
{
namespace
{

void removeCompanions(const std::filesystem::path& file)
{
    for (const std::filesystem::path& companion : companionsOf(file))
        unlink(companion.c_str());
}

/// Gives a file its name unless something has that already; the number of the error, or 0.
int publishAs(const std::filesystem::path& file, const std::filesystem::path& name)
{
    // Neither way replaces what is there. FAT has no links; NFS has no such renaming.
    if (link(file.c_str(), name.c_str()) == 0)
        return 0;
    if (errno != EPERM && errno != EOPNOTSUPP)
        return errno;
    return renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) == 0 ? 0 : errno;
}

/// While it lives, nobody who has the file open begins a change, whose journal would stand beside another file then.
class StandingStill
{
public:
    explicit StandingStill(const std::filesystem::path& file)
    {
        try {
            database_.emplace(file, Database::Mode::Existing);
            transaction_.emplace(*database_);
        } catch (const Refusal& refusal) {
            if (refusal.status() == SoftkeyStatus::StorageBusy)
                throw;
            // Nobody works with what cannot be opened.
        }
    }

private:
    std::optional<Database> database_;
    std::optional<Transaction> transaction_;
};

} // namespace

Draft::Draft(std::filesystem::path path) : path_(std::move(path))
{
    // Made here, so that it never exists with wider permissions.
    require(Descriptor(path_, O_RDWR | O_CREAT | O_EXCL).isOpen(), SoftkeyStatus::StorageFailed);
}

Draft::~Draft()
{
    unlink(path_.c_str());
}

void Draft::publish(const std::filesystem::path& destination) const
{
    require(Descriptor(path_, O_RDONLY).synchronise(), SoftkeyStatus::StorageFailed);
    // A journal without its file, which was taken away by hand, would be played into the new one.
    if (access(destination.c_str(), F_OK) != 0)
        removeCompanions(destination);
    const int failure = publishAs(path_, destination);
    require(failure != EEXIST, SoftkeyStatus::AlreadyExists);
    require(failure == 0, SoftkeyStatus::StorageFailed);
    const Descriptor folder(destination.parent_path(), O_RDONLY | O_DIRECTORY);
    require(folder.synchronise(), SoftkeyStatus::StorageFailed);
}

void Draft::replace(const std::filesystem::path& destination) const
{
    if (std::filesystem::is_symlink(destination)) // What it leads to would go on being used.
        throw Refusal(SoftkeyStatus::StorageFailed, destination.string() + " is a link; remove that key first");
    require(Descriptor(path_, O_RDONLY).synchronise(), SoftkeyStatus::StorageFailed);
    const StandingStill old(destination);
    removeCompanions(destination); // First: what is unfinished of the old file was undone by opening it.
    require(rename(path_.c_str(), destination.c_str()) == 0, SoftkeyStatus::StorageFailed);
    const Descriptor folder(destination.parent_path(), O_RDONLY | O_DIRECTORY);
    require(folder.synchronise(), SoftkeyStatus::StorageFailed);
}

void takeAway(const std::filesystem::path& keyFile)
{
    // A link goes after the file that it leads to, beside which SQLite keeps the journal.
    std::error_code failure;
    const std::filesystem::path target = std::filesystem::canonical(keyFile, failure);
    KeyFile(keyFile).setPlugged(false); // Running processes see it go before the file is away.
    // The file first: a file without its journal is whole, a journal without its file would be another key's.
    require(!failure && unlink(target.c_str()) == 0, SoftkeyStatus::StorageFailed);
    removeCompanions(target);
    const bool isLink = std::filesystem::is_symlink(keyFile, failure);
    require(!isLink || unlink(keyFile.c_str()) == 0, SoftkeyStatus::StorageFailed);
    unlink(lockOfKey(keyFile).c_str());
    unlink(queueOfKey(keyFile).c_str());
}

} // namespace softkey
