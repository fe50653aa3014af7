#include "store/backup.h"

#include "platform/draft.h"
#include "platform/file_lock.h"
#include "store/key_settings.h"
#include "store/schema.h"

#include <fstream>

namespace softkey
{
namespace
{

/// Beside the file that it will become, and out of sight.
Draft draftFor(const std::filesystem::path& destination)
{
    std::string name(1, '.');
    name.append(destination.stem().string()).append(1, '.').append(randomSerialNumber()).append(DRAFT_SUFFIX);
    return Draft(destination.parent_path() / name);
}

void copyPages(const Database& source, const std::filesystem::path& destination)
{
    Database copy(destination, Database::Mode::Existing);
    sqlite3_backup* backup = sqlite3_backup_init(copy.handle(), "main", source.handle(), "main");
    require(backup != nullptr, SoftkeyStatus::StorageFailed);
    sqlite3_backup_step(backup, -1);
    require(sqlite3_backup_finish(backup) == SQLITE_OK, SoftkeyStatus::StorageFailed);
    // Whatever the key works with: the copy is one file.
    copy.execute("PRAGMA journal_mode = DELETE");
}

void copyBytes(const std::filesystem::path& source, const std::filesystem::path& destination)
{
    std::ifstream in(source, std::ios::binary);
    require(in.is_open(), SoftkeyStatus::DeviceUnreachable);
    std::ofstream out(destination, std::ios::binary | std::ios::in | std::ios::out);
    require(in.peek() == std::ifstream::traits_type::eof() || (out << in.rdbuf()), SoftkeyStatus::StorageFailed);
    require(static_cast<bool>(out.flush()), SoftkeyStatus::StorageFailed);
}

/// A copy of a backup, so that looking at it changes nothing and plays no journal that happens to lie beside it; its
/// layout is brought up to date.
std::string verifyCopy(const std::filesystem::path& copy)
{
    Database database(copy, Database::Mode::Existing);
    requireKeyFileHeader(database);
    database.execute("PRAGMA journal_mode = MEMORY");
    std::string serialNumber;
    requireSoundStructure(database);
    migrate(database, [&](Database& sound) { serialNumber = readContents(sound).device.serialNumber; });
    require(isSerialNumber(serialNumber), SoftkeyStatus::FileDamaged);
    return serialNumber;
}

/// A backup that something is unfinished beside is the file of a key at work.
void requireFinished(const std::filesystem::path& backup)
{
    std::error_code failure;
    for (const std::filesystem::path& companion : companionsOf(backup)) {
        if (std::filesystem::file_size(companion, failure) != 0 && !failure)
            throw Refusal(SoftkeyStatus::FileDamaged, companion.string() + " belongs to it and is not empty");
    }
}

} // namespace

void backUp(KeyFile& file, const std::filesystem::path& destination)
{
    static_cast<void>(file.contents()); // A damaged key makes no backup.
    const Draft draft = draftFor(std::filesystem::absolute(destination));
    file.read([&](Database& database) { copyPages(database, draft.path()); });
    draft.publish(std::filesystem::absolute(destination));
}

std::string restoreBackup(const std::filesystem::path& folder, const std::filesystem::path& backup, bool mayReplace)
{
    requireFinished(backup);
    const FileLock lock(lockOfFolder(folder), Patience());
    const Draft draft = draftFor(folder / "restored");
    copyBytes(backup, draft.path());
    std::string serialNumber = verifyCopy(draft.path());
    const std::filesystem::path destination = folder / (serialNumber + std::string(KEY_FILE_SUFFIX));
    if (mayReplace)
        draft.replace(destination);
    else
        draft.publish(destination);
    return serialNumber;
}

} // namespace softkey
