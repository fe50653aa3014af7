#include "store/pin_policy.h"

#include "store/authenticity.h"
#include "store/derivation_slot.h"
#include "store/machine_binding.h"
#include "store/object_store.h"
#include "store/refused_pins.h"

namespace softkey
{
namespace
{

constexpr std::size_t SALT_SIZE = 16;

/// What a wrapped master key says besides itself. Layout 2 did not know whether the contents are under its seal: a
/// file whose seal was taken off must not pass for one of those.
enum class MasterKeyForm { BeforeSeals, WithSeal };

ByteVector masterKeyIdentity(PinRole role, std::string_view serialNumber,
                             MasterKeyForm wrapped = MasterKeyForm::WithSeal)
{
    const std::string_view purpose =
        wrapped == MasterKeyForm::WithSeal ? "velkor-softkey sealing master key" : "velkor-softkey master key";
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

bool isDerivedAlike(const PinRecord& one, const PinRecord& other)
{
    return one.salt == other.salt && one.cost.logN == other.cost.logN && one.cost.lanes == other.cost.lanes &&
           one.machine == other.machine;
}

/// `expected`: what the key was derived for.
PinRecord spendTry(KeyFile& file, const KeyFile::Turn& turn, const PinRecord& expected)
{
    PinRecord record;
    file.change(turn, [&](Database& database) {
        record = readPin(database, expected.role);
        // Somebody changes the file without taking turns: a right PIN must not cost a try.
        require(isDerivedAlike(expected, record), SoftkeyStatus::StorageBusy);
        if (record.triesLeft == 0)
            throw Refusal::ofPin(SoftkeyStatus::PinLocked, 0);
        record.triesLeft -= 1;
        storeTries(database, record.role, record.triesLeft);
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

SecretBuffer deriveKey(const std::filesystem::path& keyFile, std::string_view pin, const PinRecord& record)
{
    const MachineBinding machine(record.machine);
    const DerivationSlot slot(keyFile, record.cost);
    return machine.mixInto(keyFromPin(pin, record.salt, record.cost));
}

void storeWrapping(Database& database, const PinRecord& record)
{
    const ByteVector checksum = checksumOf(record);
    Statement(database, "UPDATE pin SET scrypt_log_n = ?, scrypt_block_size = ?, scrypt_lanes = ?, salt = ?, "
                        "wrapped_master_key = ?, checksum = ?, machine = ? WHERE role = ?")
        .bind(record.cost.logN)
        .bind(record.cost.blockSize)
        .bind(record.cost.lanes)
        .bind(Bytes(record.salt))
        .bind(Bytes(record.wrappedMasterKey))
        .bind(Bytes(checksum))
        .bind(Bytes(record.machine))
        .bind(static_cast<std::int64_t>(record.role))
        .run();
}

/// The first PIN that opens an older file puts its contents under their code; one that opens a file whose code leaves
/// the PINs out puts them under it, too.
void renewCode(Database& database, Bytes masterKey, bool isOlder)
{
    const Contents contents = readContents(database);
    if ((isOlder && contents.authenticator.empty()) || haveFormerCode(contents, masterKey))
        authenticate(database, masterKey);
}

/// A try is on the disk before the seal is looked at, and given back when it opens.
CheckedPin tryOnSeal(KeyFile& file, const KeyFile::Turn& turn, const PinRecord& expected, std::string_view pin,
                     Bytes key)
{
    const PinRole role = expected.role;
    const std::string serialNumber = file.contents()->device.serialNumber;
    PinRecord record = spendTry(file, turn, expected);
    std::optional<SecretBuffer> masterKey;
    bool isOlder = false;
    try {
        masterKey = unseal(key, record.wrappedMasterKey, masterKeyIdentity(role, serialNumber));
        if (!masterKey) {
            masterKey =
                unseal(key, record.wrappedMasterKey, masterKeyIdentity(role, serialNumber, MasterKeyForm::BeforeSeals));
            isOlder = masterKey.has_value();
        }
    } catch (...) {
        restoreTries(file, turn, record, record.triesLeft + 1); // The PIN was not looked at.
        throw;
    }
    if (!masterKey) {
        RefusedPins::ofProcess().add(record, pin);
        throw wrongPin(record.triesLeft);
    }
    if (isOlder)
        record.wrappedMasterKey = seal(key, *masterKey, masterKeyIdentity(role, serialNumber));
    file.change(turn, [&](Database& database) {
        storeTries(database, role, record.triesMax);
        if (isOlder)
            storeWrapping(database, record);
        renewCode(database, *masterKey, isOlder);
    });
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
        SecretBuffer key;
        if (expected.triesLeft > 0)
            key = deriveKey(file.path(), pin, expected);
        const KeyFile::Turn turn(file);
        const PinRecord present = file.contents()->pin(role);
        if (present.triesLeft == 0)
            throw wrongPin(0);
        if (key.size() == 0 || !isDerivedAlike(expected, present))
            continue;                        // The PIN was changed meanwhile, or its last try was given back.
        refuseIfRefusedBefore(present, pin); // Another thread may have tried it meanwhile.
        CheckedPin checked = tryOnSeal(file, turn, present, pin, key);
        consequence(turn, checked);
        return checked;
    }
}

void requireAuthentic(KeyFile& file, const CheckedPin& checked)
{
    require(areAuthentic(*file.contents(), checked.masterKey), SoftkeyStatus::FileDamaged);
}

void replacePin(Database& database, const PinRecord& record)
{
    Statement(database, "UPDATE pin SET changed = ?, tries_left = tries_max WHERE role = ?")
        .bind(std::int64_t{record.changed})
        .bind(static_cast<std::int64_t>(record.role))
        .run();
    storeWrapping(database, record);
}

void replaceOnePin(KeyFile& file, const KeyFile::Turn& turn, const PinRecord& record, Bytes masterKey)
{
    file.change(turn, [&](Database& database) {
        require(areAuthentic(readContents(database), masterKey), SoftkeyStatus::FileDamaged); // As they are now.
        replacePin(database, record);
        authenticate(database, masterKey);
    });
}

/// A PIN with a new salt, ready to go around a master key.
class Wrapping
{
public:
    /// At the cost and on the machine of a record.
    Wrapping(const std::filesystem::path& keyFile, std::string_view pin, const PinRecord& like)
        : cost_(like.cost), machine_(like.machine), salt_(SALT_SIZE)
    {
        randomBytes(salt_);
        PinRecord fresh = like;
        fresh.salt = salt_;
        key_ = deriveKey(keyFile, pin, fresh);
    }
    /// Fills all but role, tries and state of a record that has these.
    void wrap(PinRecord& record, Bytes masterKey, std::string_view serialNumber) const
    {
        record.cost = cost_;
        record.machine = machine_;
        record.salt = salt_;
        record.wrappedMasterKey = seal(key_, masterKey, masterKeyIdentity(record.role, serialNumber));
    }

private:
    ScryptCost cost_;
    ByteVector machine_;
    ByteVector salt_;
    SecretBuffer key_;
};

} // namespace

void requirePinLength(std::string_view newPin)
{
    require(newPin.size() >= PIN_LENGTH_MIN && newPin.size() <= PIN_LENGTH_MAX, SoftkeyStatus::PinLength);
}

void requireDifferent(std::string_view userPin, std::string_view soPin)
{
    if (userPin == soPin)
        throw Refusal(SoftkeyStatus::BadArgument, "user PIN and SO PIN are the same");
}

CheckedPin checkPin(KeyFile& file, PinRole role, std::string_view pin)
{
    return checkAndThen(file, role, pin,
                        [&](const KeyFile::Turn&, const CheckedPin& checked) { requireAuthentic(file, checked); });
}

CheckedPin checkPinAlone(KeyFile& file, PinRole role, std::string_view pin)
{
    return checkAndThen(file, role, pin, [](const KeyFile::Turn&, const CheckedPin&) {});
}

void changePin(KeyFile& file, PinRole role, std::string_view oldPin, std::string_view newPin,
               std::optional<ScryptCost> newCost)
{
    requirePinLength(newPin);
    const std::shared_ptr<const Contents> before = file.contents();
    PinRecord like = before->pin(role);
    like.cost = newCost.value_or(like.cost);
    const Wrapping wrapping(file.path(), newPin, like);
    checkAndThen(file, role, oldPin, [&](const KeyFile::Turn& turn, const CheckedPin& checked) {
        requireAuthentic(file, checked);
        PinRecord record = checked.record;
        record.changed = record.changed || oldPin != newPin;
        wrapping.wrap(record, checked.masterKey, before->device.serialNumber);
        replaceOnePin(file, turn, record, checked.masterKey);
    });
}

void rekey(KeyFile& file, std::string_view oldPin, std::string_view newPin, std::string_view soPin)
{
    requirePinLength(newPin);
    requireDifferent(newPin, soPin);
    const PinRecord checkedSo = checkPin(file, PinRole::SecurityOfficer, soPin).record;
    const std::shared_ptr<const Contents> before = file.contents();
    const Wrapping wrapping(file.path(), newPin, before->userPin);
    const Wrapping soWrapping(file.path(), soPin, before->soPin);
    SecretBuffer masterKey(SEALING_KEY_SIZE);
    randomBytes({masterKey.data(), masterKey.size()});
    checkAndThen(file, PinRole::User, oldPin, [&](const KeyFile::Turn& turn, const CheckedPin& checked) {
        requireAuthentic(file, checked);
        PinRecord user = checked.record;
        user.changed = user.changed || oldPin != newPin;
        file.change(turn, [&](Database& database) {
            const Contents contents = readContents(database);
            require(areAuthentic(contents, checked.masterKey), SoftkeyStatus::FileDamaged); // As it is now.
            PinRecord so = contents.soPin;
            require(so.salt == checkedSo.salt, SoftkeyStatus::StorageBusy); // Changed since it was checked.
            wrapping.wrap(user, masterKey, contents.device.serialNumber);
            soWrapping.wrap(so, masterKey, contents.device.serialNumber);
            resealPrivateKeys(database, contents, checked.masterKey, masterKey);
            replacePin(database, user);
            replacePin(database, so);
            authenticate(database, masterKey);
        });
    });
}

void resetUserPin(KeyFile& file, std::string_view soPin, std::string_view newUserPin)
{
    requirePinLength(newUserPin);
    const std::shared_ptr<const Contents> before = file.contents();
    const Wrapping wrapping(file.path(), newUserPin, before->userPin);
    checkAndThen(file, PinRole::SecurityOfficer, soPin, [&](const KeyFile::Turn& turn, const CheckedPin& checked) {
        requireAuthentic(file, checked);
        PinRecord record = file.contents()->userPin;
        record.changed = false;
        wrapping.wrap(record, checked.masterKey, before->device.serialNumber);
        replaceOnePin(file, turn, record, checked.masterKey);
    });
}

void wrapMasterKey(const std::filesystem::path& keyFile, PinRecord& record, std::string_view pin, Bytes masterKey,
                   std::string_view serialNumber)
{
    Wrapping(keyFile, pin, record).wrap(record, masterKey, serialNumber);
}

void insertPin(Database& database, const PinRecord& record)
{
    Statement(database, "INSERT INTO pin (role, changed, tries_max, tries_left, scrypt_log_n, scrypt_block_size, "
                        "scrypt_lanes, salt, wrapped_master_key) VALUES (?, ?, ?, ?, 0, 0, 0, X'', X'')")
        .bind(static_cast<std::int64_t>(record.role))
        .bind(std::int64_t{record.changed})
        .bind(record.triesMax)
        .bind(record.triesLeft)
        .run();
    storeWrapping(database, record);
}

} // namespace softkey
