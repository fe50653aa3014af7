#include "store/contents.h"

#include "crypto/key_kinds.h"
#include "store/schema.h"
#include "velkor/record_fields.h"

#include <algorithm>
#include <cstring>

namespace softkey
{
namespace
{

/// Copies a value into a field of a record; returns its length.
std::int32_t copyInto(std::span<unsigned char> field, Bytes value)
{
    require(value.size() <= field.size(), SoftkeyStatus::FileDamaged);
    std::copy(value.begin(), value.end(), field.begin());
    return static_cast<std::int32_t>(value.size());
}

void copyIdentifier(std::span<unsigned char, KEY_IDENTIFIER_SIZE> field, Bytes value)
{
    require(value.size() == field.size(), SoftkeyStatus::FileDamaged);
    std::copy(value.begin(), value.end(), field.begin());
}

template <std::size_t Size>
void copyLabel(char (&field)[Size], Bytes value)
{
    require(value.size() < Size, SoftkeyStatus::FileDamaged);
    std::copy(value.begin(), value.end(), field);
}

/// An identifier that is another's would lend its object's name to this one.
void requireIdentifierOf(Bytes content, Bytes identifier)
{
    require(velkor::sameBytes(identifierOf(content), identifier), SoftkeyStatus::FileDamaged);
}

std::uint32_t readId(const Statement& row)
{
    const std::int64_t id = row.number(0);
    require(id >= 1 && id < OBJECT_NUMBER_LIMIT, SoftkeyStatus::FileDamaged);
    return static_cast<std::uint32_t>(id);
}

DeviceRecord readDevice(Database& database)
{
    Statement row(database,
                  "SELECT serial_number, label, model, firmware_version, plugged, times_unplugged FROM device");
    require(row.step(), SoftkeyStatus::FileDamaged);
    return {row.text(0), row.text(1), row.text(2), row.text(3), row.number(4) != 0, row.number(5)};
}

ByteVector readAuthenticator(Database& database)
{
    Statement row(database, "SELECT authenticator FROM device");
    require(row.step(), SoftkeyStatus::FileDamaged);
    const Bytes code = row.bytes(0);
    return {code.begin(), code.end()};
}

std::vector<VelkorKeyPair> readKeyPairs(Database& database)
{
    std::vector<VelkorKeyPair> keyPairs;
    keyPairs.reserve(static_cast<std::size_t>(database.number("SELECT count(*) FROM key_pair")));
    Statement row(database, "SELECT id, identifier, kind, object_id, label, public_key, usage_flags, oaep_only "
                            "FROM key_pair ORDER BY id");
    while (row.step()) {
        VelkorKeyPair& keyPair = keyPairs.emplace_back();
        keyPair.id = readId(row);
        copyIdentifier(keyPair.keyIdentifier, row.bytes(1));
        keyPair.keyKind = traitsOf(static_cast<std::uint32_t>(row.number(2))).kind;
        keyPair.objectIdLength = copyInto(keyPair.objectId, row.bytes(3));
        copyLabel(keyPair.label, row.bytes(4));
        keyPair.publicKeyLength = copyInto(keyPair.publicKey, row.bytes(5));
        requireIdentifierOf(row.bytes(5), keyPair.keyIdentifier);
        keyPair.usageFlags = static_cast<std::uint32_t>(row.number(6));
        keyPair.deviceFlag = row.number(7) != 0;
    }
    return keyPairs;
}

void indexKeyPairs(Contents& contents)
{
    contents.keyPairPositions.reserve(contents.keyPairs.size());
    for (std::size_t position = 0; position < contents.keyPairs.size(); ++position)
        contents.keyPairPositions.emplace(std::to_array(contents.keyPairs[position].keyIdentifier), position);
}

std::vector<VelkorCertificate> readCertificates(Database& database)
{
    std::vector<VelkorCertificate> certificates;
    Statement row(database, "SELECT id, identifier, object_id, label, der FROM certificate ORDER BY id");
    while (row.step()) {
        VelkorCertificate& certificate = certificates.emplace_back();
        certificate.id = readId(row);
        copyIdentifier(certificate.certificateIdentifier, row.bytes(1));
        certificate.objectIdLength = copyInto(certificate.objectId, row.bytes(2));
        copyLabel(certificate.label, row.bytes(3));
        const Bytes der = row.bytes(4);
        certificate.der.assign(der.begin(), der.end());
        requireIdentifierOf(der, certificate.certificateIdentifier);
    }
    return certificates;
}

} // namespace

std::size_t IdentifierHash::operator()(const Identifier& identifier) const
{
    std::size_t hash = 0;
    std::memcpy(&hash, identifier.data(), sizeof hash);
    return hash;
}

const VelkorKeyPair* Contents::findKeyPair(const Identifier& identifier) const
{
    const auto position = keyPairPositions.find(identifier);
    return position != keyPairPositions.end() ? &keyPairs[position->second] : nullptr;
}

const VelkorCertificate* Contents::findCertificate(const Identifier& identifier) const
{
    for (const VelkorCertificate& certificate : certificates) {
        if (std::memcmp(certificate.certificateIdentifier, identifier.data(), identifier.size()) == 0)
            return &certificate;
    }
    return nullptr;
}

ByteVector checksumOf(const PinRecord& pin)
{
    ByteVector record{static_cast<unsigned char>(pin.role)};
    for (const std::uint32_t number : {pin.cost.logN, pin.cost.blockSize, pin.cost.lanes}) {
        for (int shift = 24; shift >= 0; shift -= 8)
            record.push_back(static_cast<unsigned char>(number >> shift));
    }
    record.insert(record.end(), pin.salt.begin(), pin.salt.end());
    record.insert(record.end(), pin.machine.begin(), pin.machine.end());
    record.insert(record.end(), pin.wrappedMasterKey.begin(), pin.wrappedMasterKey.end());
    return sha256(record);
}

Identifier identifierOf(Bytes content)
{
    const ByteVector hash = sha256(content);
    Identifier identifier{};
    std::copy_n(hash.begin(), identifier.size(), identifier.begin());
    return identifier;
}

PinRecord readPin(Database& database, PinRole role)
{
    Statement row(database, "SELECT changed, tries_max, tries_left, scrypt_log_n, scrypt_block_size, scrypt_lanes, "
                            "salt, wrapped_master_key, checksum, machine FROM pin WHERE role = ?");
    row.bind(static_cast<std::int64_t>(role));
    require(row.step(), SoftkeyStatus::FileDamaged);
    PinRecord pin;
    pin.role = role;
    pin.changed = row.number(0) != 0;
    pin.triesMax = static_cast<int>(row.number(1));
    pin.triesLeft = static_cast<int>(row.number(2));
    pin.cost = {static_cast<std::uint32_t>(row.number(3)), static_cast<std::uint32_t>(row.number(4)),
                static_cast<std::uint32_t>(row.number(5))};
    const Bytes salt = row.bytes(6);
    pin.salt.assign(salt.begin(), salt.end());
    const Bytes wrapped = row.bytes(7);
    pin.wrappedMasterKey.assign(wrapped.begin(), wrapped.end());
    const Bytes machine = row.bytes(9);
    pin.machine.assign(machine.begin(), machine.end());
    const bool sound = pin.triesMax >= 1 && pin.triesMax <= 255 && pin.triesLeft >= 0 &&
                       pin.triesLeft <= pin.triesMax && isAcceptable(pin.cost);
    // A file of an older layout gets its checksums when PINs open it.
    const Bytes checksum = row.bytes(8);
    require(sound && (checksum.empty() || velkor::sameBytes(checksum, checksumOf(pin))), SoftkeyStatus::FileDamaged);
    return pin;
}

Contents readContents(Database& database)
{
    Contents contents;
    contents.device = readDevice(database);
    contents.userPin = readPin(database, PinRole::User);
    contents.soPin = readPin(database, PinRole::SecurityOfficer);
    contents.keyPairs = readKeyPairs(database);
    indexKeyPairs(contents);
    contents.certificates = readCertificates(database);
    contents.authenticator = readAuthenticator(database);
    return contents;
}

} // namespace softkey
