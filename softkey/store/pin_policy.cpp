#include "store/pin_policy.h"

#include "platform/folder_lock.h"

namespace softkey
{
namespace
{

constexpr std::size_t SALT_SIZE = 16;

ByteVector masterKeyIdentity(PinRole role, std::string_view serialNumber)
{
    constexpr std::string_view purpose = "velkor-softkey master key";
    ByteVector identity(purpose.begin(), purpose.end());
    identity.push_back(static_cast<unsigned char>(role));
    identity.insert(identity.end(), serialNumber.begin(), serialNumber.end());
    return identity;
}

std::optional<SecretBytes> unwrapMasterKey(const PinRecord& record, std::string_view pin, std::string_view serialNumber)
{
    const SecretBytes key = keyFromPin(pin, record.salt, record.cost);
    return unseal(key, record.wrappedMasterKey, masterKeyIdentity(record.role, serialNumber));
}

void storeTries(Database& database, PinRole role, int triesLeft)
{
    Statement(database, "UPDATE pin SET tries_left = ? WHERE role = ?")
        .bind(triesLeft)
        .bind(static_cast<std::int64_t>(role))
        .run();
}

PinRecord spendTry(KeyFile& file, PinRole role)
{
    PinRecord record;
    file.change([&](Database& database) {
        record = readPin(database, role);
        if (record.triesLeft == 0)
            throw Refusal::ofPin(SoftkeyStatus::PinLocked, 0);
        record.triesLeft -= 1;
        storeTries(database, role, record.triesLeft);
    });
    return record;
}

void restoreTries(KeyFile& file, const PinRecord& record, int triesLeft)
{
    file.change([&](Database& database) { storeTries(database, record.role, triesLeft); });
}

/// The caller holds the folder's lock.
CheckedPin checkAlone(KeyFile& file, PinRole role, std::string_view pin)
{
    const std::shared_ptr<const Contents> contents = file.contents();
    if (pin.empty())
        throw Refusal::ofPin(SoftkeyStatus::PinRequired, contents->pin(role).triesLeft);
    const PinRecord record = spendTry(file, role);
    std::optional<SecretBytes> masterKey;
    try {
        masterKey = unwrapMasterKey(record, pin, contents->device.serialNumber);
    } catch (...) {
        restoreTries(file, record, record.triesLeft + 1); // The PIN was not looked at.
        throw;
    }
    if (!masterKey) {
        const SoftkeyStatus status = record.triesLeft == 0 ? SoftkeyStatus::PinLocked : SoftkeyStatus::PinIncorrect;
        throw Refusal::ofPin(status, record.triesLeft);
    }
    restoreTries(file, record, record.triesMax);
    return {std::move(*masterKey), record};
}

void replacePin(KeyFile& file, const PinRecord& record)
{
    file.change([&](Database& database) {
        Statement(database, "UPDATE pin SET changed = ?, tries_left = tries_max, salt = ?, wrapped_master_key = ? "
                            "WHERE role = ?")
            .bind(std::int64_t{record.changed})
            .bind(Bytes(record.salt))
            .bind(Bytes(record.wrappedMasterKey))
            .bind(static_cast<std::int64_t>(record.role))
            .run();
    });
}

} // namespace

void requirePinLength(std::string_view newPin)
{
    require(newPin.size() >= PIN_LENGTH_MIN && newPin.size() <= PIN_LENGTH_MAX, SoftkeyStatus::PinLength);
}

CheckedPin checkPin(KeyFile& file, PinRole role, std::string_view pin)
{
    const FolderLock lock(file.path().parent_path());
    return checkAlone(file, role, pin);
}

void changePin(KeyFile& file, PinRole role, std::string_view oldPin, std::string_view newPin)
{
    requirePinLength(newPin);
    const FolderLock lock(file.path().parent_path());
    CheckedPin checked = checkAlone(file, role, oldPin);
    checked.record.changed = checked.record.changed || oldPin != newPin;
    wrapMasterKey(checked.record, newPin, checked.masterKey, file.contents()->device.serialNumber);
    replacePin(file, checked.record);
}

void resetUserPin(KeyFile& file, std::string_view soPin, std::string_view newUserPin)
{
    requirePinLength(newUserPin);
    const FolderLock lock(file.path().parent_path());
    const CheckedPin checked = checkAlone(file, PinRole::SecurityOfficer, soPin);
    const std::shared_ptr<const Contents> contents = file.contents();
    PinRecord record = contents->userPin;
    record.changed = false;
    wrapMasterKey(record, newUserPin, checked.masterKey, contents->device.serialNumber);
    replacePin(file, record);
}

void wrapMasterKey(PinRecord& record, std::string_view pin, Bytes masterKey, std::string_view serialNumber)
{
    record.salt.resize(SALT_SIZE);
    randomBytes(record.salt);
    const SecretBytes key = keyFromPin(pin, record.salt, record.cost);
    record.wrappedMasterKey = seal(key, masterKey, masterKeyIdentity(record.role, serialNumber));
}

void insertPin(Database& database, const PinRecord& record)
{
    Statement(database, "INSERT INTO pin (role, changed, tries_max, tries_left, scrypt_log_n, scrypt_block_size, "
                        "scrypt_lanes, salt, wrapped_master_key) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .bind(static_cast<std::int64_t>(record.role))
        .bind(std::int64_t{record.changed})
        .bind(record.triesMax)
        .bind(record.triesLeft)
        .bind(record.cost.logN)
        .bind(record.cost.blockSize)
        .bind(record.cost.lanes)
        .bind(Bytes(record.salt))
        .bind(Bytes(record.wrappedMasterKey))
        .run();
}

} // namespace softkey
