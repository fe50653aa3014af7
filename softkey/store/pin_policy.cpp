#include "store/pin_policy.h"

#include "store/refused_pins.h"

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

void storeTries(Database& database, PinRole role, int triesLeft)
{
    Statement(database, "UPDATE pin SET tries_left = ? WHERE role = ?")
        .bind(triesLeft)
        .bind(static_cast<std::int64_t>(role))
        .run();
}

PinRecord spendTry(KeyFile& file, const KeyFile::Turn& turn, PinRole role)
{
    PinRecord record;
    file.change(turn, [&](Database& database) {
        record = readPin(database, role);
        if (record.triesLeft == 0)
            throw Refusal::ofPin(SoftkeyStatus::PinLocked, 0);
        record.triesLeft -= 1;
        storeTries(database, role, record.triesLeft);
    });
    return record;
}

void restoreTries(KeyFile& file, const KeyFile::Turn& turn, const PinRecord& record, int triesLeft)
{
    file.change(turn, [&](Database& database) { storeTries(database, record.role, triesLeft); });
}

Refusal wrongPin(int triesLeft)
{
    return Refusal::ofPin(triesLeft == 0 ? SoftkeyStatus::PinLocked : SoftkeyStatus::PinIncorrect, triesLeft);
}

void refuseIfRefusedBefore(const PinRecord& record, std::string_view pin)
{
    if (RefusedPins::ofProcess().contain(record, pin))
        throw wrongPin(record.triesLeft);
}

bool isDerivedAlike(const PinRecord& one, const PinRecord& other)
{
    return one.salt == other.salt && one.cost.logN == other.cost.logN && one.cost.lanes == other.cost.lanes;
}

/// A try is on the disk before the seal is looked at, and given back when it opens.
CheckedPin tryOnSeal(KeyFile& file, const KeyFile::Turn& turn, PinRole role, std::string_view pin, Bytes key)
{
    const std::string serialNumber = file.contents()->device.serialNumber;
    const PinRecord record = spendTry(file, turn, role);
    std::optional<SecretBytes> masterKey;
    try {
        masterKey = unseal(key, record.wrappedMasterKey, masterKeyIdentity(role, serialNumber));
    } catch (...) {
        restoreTries(file, turn, record, record.triesLeft + 1); // The PIN was not looked at.
        throw;
    }
    if (!masterKey) {
        RefusedPins::ofProcess().add(record, pin);
        throw wrongPin(record.triesLeft);
    }
    restoreTries(file, turn, record, record.triesMax);
    return {std::move(*masterKey), record};
}

/// What is done with a PIN that was right, while nobody else can change the file.
using Consequence = std::function<void(const KeyFile::Turn&, const CheckedPin&)>;

CheckedPin checkAndThen(KeyFile& file, PinRole role, std::string_view pin, const Consequence& consequence)
{
    if (pin.empty())
        throw Refusal::ofPin(SoftkeyStatus::PinRequired, file.contents()->pin(role).triesLeft);
    for (;;) {
        // Deriving takes long, so it is done before anything is locked. No tries left is no reason to refuse yet:
        // while someone else's last try is being checked, none is left either.
        const PinRecord expected = file.contents()->pin(role);
        refuseIfRefusedBefore(expected, pin);
        SecretBytes key;
        if (expected.triesLeft > 0)
            key = keyFromPin(pin, expected.salt, expected.cost);
        const KeyFile::Turn turn(file);
        const PinRecord present = file.contents()->pin(role);
        if (present.triesLeft == 0)
            throw wrongPin(0);
        if (key.size() == 0 || !isDerivedAlike(expected, present))
            continue;                        // The PIN was changed meanwhile, or its last try was given back.
        refuseIfRefusedBefore(present, pin); // Another thread may have tried it meanwhile.
        CheckedPin checked = tryOnSeal(file, turn, role, pin, key);
        consequence(turn, checked);
        return checked;
    }
}

void replacePin(KeyFile& file, const KeyFile::Turn& turn, const PinRecord& record)
{
    file.change(turn, [&](Database& database) {
        Statement(database, "UPDATE pin SET changed = ?, tries_left = tries_max, scrypt_log_n = ?, "
                            "scrypt_block_size = ?, scrypt_lanes = ?, salt = ?, wrapped_master_key = ? WHERE role = ?")
            .bind(std::int64_t{record.changed})
            .bind(record.cost.logN)
            .bind(record.cost.blockSize)
            .bind(record.cost.lanes)
            .bind(Bytes(record.salt))
            .bind(Bytes(record.wrappedMasterKey))
            .bind(static_cast<std::int64_t>(record.role))
            .run();
    });
}

/// A PIN with a new salt, ready to go around a master key.
class Wrapping
{
public:
    Wrapping(std::string_view pin, const ScryptCost& cost) : cost_(cost), salt_(SALT_SIZE)
    {
        randomBytes(salt_);
        key_ = keyFromPin(pin, salt_, cost);
    }
    /// Fills cost, salt and wrapped key of a record that has its role.
    void wrap(PinRecord& record, Bytes masterKey, std::string_view serialNumber) const
    {
        record.cost = cost_;
        record.salt = salt_;
        record.wrappedMasterKey = seal(key_, masterKey, masterKeyIdentity(record.role, serialNumber));
    }

private:
    ScryptCost cost_;
    ByteVector salt_;
    SecretBytes key_;
};

} // namespace

void requirePinLength(std::string_view newPin)
{
    require(newPin.size() >= PIN_LENGTH_MIN && newPin.size() <= PIN_LENGTH_MAX, SoftkeyStatus::PinLength);
}

CheckedPin checkPin(KeyFile& file, PinRole role, std::string_view pin)
{
    return checkAndThen(file, role, pin, [](const KeyFile::Turn&, const CheckedPin&) {});
}

void changePin(KeyFile& file, PinRole role, std::string_view oldPin, std::string_view newPin)
{
    requirePinLength(newPin);
    const std::shared_ptr<const Contents> before = file.contents();
    const Wrapping wrapping(newPin, before->pin(role).cost);
    checkAndThen(file, role, oldPin, [&](const KeyFile::Turn& turn, const CheckedPin& checked) {
        PinRecord record = checked.record;
        record.changed = record.changed || oldPin != newPin;
        wrapping.wrap(record, checked.masterKey, before->device.serialNumber);
        replacePin(file, turn, record);
    });
}

void resetUserPin(KeyFile& file, std::string_view soPin, std::string_view newUserPin)
{
    requirePinLength(newUserPin);
    const std::shared_ptr<const Contents> before = file.contents();
    const Wrapping wrapping(newUserPin, before->userPin.cost);
    checkAndThen(file, PinRole::SecurityOfficer, soPin, [&](const KeyFile::Turn& turn, const CheckedPin& checked) {
        PinRecord record = file.contents()->userPin;
        record.changed = false;
        wrapping.wrap(record, checked.masterKey, before->device.serialNumber);
        replacePin(file, turn, record);
    });
}

void wrapMasterKey(PinRecord& record, std::string_view pin, Bytes masterKey, std::string_view serialNumber)
{
    Wrapping(pin, record.cost).wrap(record, masterKey, serialNumber);
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
