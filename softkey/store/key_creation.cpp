#include "store/key_creation.h"

#include "platform/default_folder.h"
#include "platform/draft.h"
#include "platform/file_lock.h"
#include "store/authenticity.h"
#include "store/derivation_slot.h"
#include "store/machine_binding.h"
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

/// With a slash at its end, whether the folder is there or not.
std::filesystem::path wholePath(const std::filesystem::path& folder)
{
    std::error_code failure;
    return std::filesystem::weakly_canonical(folder, failure) / "";
}

/// Whoever takes the keys' folder away would have the secret with the keys that are bound to it.
void requireSecretElsewhere(const std::filesystem::path& folder)
{
    const std::filesystem::path secret = machineSecretFile();
    if (wholePath(secret.parent_path()) == wholePath(folder))
        throw Refusal(SoftkeyStatus::BadArgument,
                      "the machine's secret would lie in the keys' folder: " + secret.string());
}

/// What both PINs of a new key go around.
struct Wrapped {
    const std::filesystem::path& folder;
    const KeySettings& key;
    SecretBuffer masterKey;
    ByteVector machine;
};

PinRecord wrappedPin(PinRole role, const PinSettings& settings, std::string_view pin, const Wrapped& wrapped)
{
    PinRecord record;
    record.role = role;
    record.changed = settings.changed;
    record.triesMax = settings.triesMax;
    record.triesLeft = settings.triesLeft;
    record.cost = wrapped.key.cost;
    record.machine = wrapped.machine;
    const std::filesystem::path keyFile = wrapped.folder / (wrapped.key.serialNumber + std::string(KEY_FILE_SUFFIX));
    wrapMasterKey(keyFile, record, pin, wrapped.masterKey, wrapped.key.serialNumber);
    return record;
}

} // namespace

void createKeyFile(const std::filesystem::path& folder, const KeySettings& settings, std::string_view userPin,
                   std::string_view soPin)
{
    requireAcceptable(settings);
    requirePinLength(userPin);
    requirePinLength(soPin);
    requireDifferent(userPin, soPin);
    if (settings.boundToMachine)
        requireSecretElsewhere(folder);
    Wrapped wrapped{folder, settings, SecretBuffer(SEALING_KEY_SIZE),
                    settings.boundToMachine ? bindToMachine() : ByteVector()};
    randomBytes({wrapped.masterKey.data(), wrapped.masterKey.size()});
    const PinRecord user = wrappedPin(PinRole::User, settings.userPin, userPin, wrapped);
    const PinRecord securityOfficer = wrappedPin(PinRole::SecurityOfficer, settings.soPin, soPin, wrapped);
    // Whoever makes or removes a key holds the lock: a draft that is there belongs to nobody any more.
    const FileLock lock(lockOfFolder(folder), Patience());
    sweepDrafts(folder);
    const Draft draft(folder / ("." + settings.serialNumber + "." + randomSerialNumber() + std::string(DRAFT_SUFFIX)));
    {
        Database database(draft.path(), Database::Mode::Existing);
        // Nobody else sees the draft: it needs no journal and is synchronised once, as a whole.
        database.execute("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF;");
        Transaction transaction(database);
        createSchema(database);
        insertDevice(database, settings);
        insertPin(database, user);
        insertPin(database, securityOfficer);
        authenticate(database, wrapped.masterKey);
        transaction.commit();
    }
    draft.publish(folder / (settings.serialNumber + std::string(KEY_FILE_SUFFIX)));
}

void removeKeyFile(const std::filesystem::path& path)
{
    const FileLock lock(lockOfFolder(path.parent_path()), Patience());
    sweepDrafts(path.parent_path());
    takeAway(path);
    removeDerivationSlots(path);
}

} // namespace softkey
