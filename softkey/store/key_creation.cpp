#include "store/key_creation.h"

#include "platform/draft.h"
#include "platform/file_lock.h"
#include "store/authenticity.h"
#include "store/pin_policy.h"
#include "store/schema.h"

namespace softkey
{
namespace
{

/// Removes what processes left behind that were killed while they made a key.
void sweepDrafts(const std::filesystem::path& folder)
{
    std::error_code failure;
    std::error_code kept;
    for (std::filesystem::directory_iterator file(folder, failure), end; !failure && file != end;
         file.increment(failure)) {
        const std::filesystem::path& path = file->path();
        if (path.extension() == DRAFT_SUFFIX && path.filename().string().starts_with('.'))
            std::filesystem::remove(path, kept);
    }
}

void insertDevice(Database& database, const KeySettings& settings)
{
    Statement(database, "INSERT INTO device (only_row, serial_number, label, model, firmware_version, plugged) "
                        "VALUES (1, ?, ?, ?, ?, 1)")
        .bind(std::string_view(settings.serialNumber))
        .bind(std::string_view(settings.label))
        .bind(std::string_view(settings.model))
        .bind(std::string_view(settings.firmwareVersion))
        .run();
}

PinRecord wrappedPin(PinRole role, const PinSettings& settings, const KeySettings& key, std::string_view pin,
                     Bytes masterKey)
{
    PinRecord record;
    record.role = role;
    record.changed = settings.changed;
    record.triesMax = settings.triesMax;
    record.triesLeft = settings.triesLeft;
    record.cost = key.cost;
    wrapMasterKey(record, pin, masterKey, key.serialNumber);
    return record;
}

} // namespace

void createKeyFile(const std::filesystem::path& folder, const KeySettings& settings, std::string_view userPin,
                   std::string_view soPin)
{
    requireAcceptable(settings);
    requirePinLength(userPin);
    requirePinLength(soPin);
    SecretBytes masterKey(SEALING_KEY_SIZE);
    randomBytes({masterKey.data(), masterKey.size()});
    // Whoever makes or removes a key holds the lock: a draft that is there belongs to nobody any more.
    const FileLock lock(lockOfFolder(folder), Patience());
    sweepDrafts(folder);
    const Draft draft(folder / ("." + settings.serialNumber + "." + randomSerialNumber() + std::string(DRAFT_SUFFIX)));
    {
        Database database(draft.path(), Database::Mode::Existing);
        // Nobody else sees the draft: it needs no journal and is synchronised once, as a whole.
        database.execute("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF;");
        Transaction transaction(database, Transaction::Kind::Write);
        createSchema(database);
        insertDevice(database, settings);
        insertPin(database, wrappedPin(PinRole::User, settings.userPin, settings, userPin, masterKey));
        insertPin(database, wrappedPin(PinRole::SecurityOfficer, settings.soPin, settings, soPin, masterKey));
        transaction.commit();
        Transaction sealing(database, Transaction::Kind::Write); // Of what the file says then.
        authenticate(database, masterKey);
        sealing.commit();
    }
    draft.publish(folder / (settings.serialNumber + std::string(KEY_FILE_SUFFIX)));
}

void removeKeyFile(const std::filesystem::path& path)
{
    const FileLock lock(lockOfFolder(path.parent_path()), Patience());
    sweepDrafts(path.parent_path());
    takeAway(path);
}

} // namespace softkey
