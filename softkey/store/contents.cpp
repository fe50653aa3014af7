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

constexpr const char* SELECT_KEY_PAIRS =
    "SELECT id, identifier, kind, object_id, label, public_key, usage_flags, oaep_only FROM key_pair ORDER BY id";
constexpr const char* SELECT_CERTIFICATES = "SELECT id, identifier, object_id, label, der FROM certificate ORDER BY id";

void readKeyPair(const Statement& row, VelkorKeyPair& keyPair)
{
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

KeyPairTable readKeyPairs(Database& database)
{
    KeyPairTable keyPairs;
    const auto count = static_cast<std::size_t>(database.number("SELECT count(*) FROM key_pair"));
    keyPairs.reserve(std::min<std::size_t>(count, OBJECT_NUMBER_LIMIT)); // A damaged file may claim any number.
    Statement row(database, SELECT_KEY_PAIRS);
    while (row.step())
        readKeyPair(row, keyPairs.emplace_back());
    return keyPairs;
}

void indexKeyPairs(Contents& contents)
{
    contents.keyPairPositions.reserve(contents.keyPairs.size());
    for (std::size_t position = 0; position < contents.keyPairs.size(); ++position)
        contents.keyPairPositions.emplace(std::to_array(contents.keyPairs[position].keyIdentifier), position);
}

void readCertificate(const Statement& row, VelkorCertificate& certificate)
{
    certificate.id = readId(row);
    copyIdentifier(certificate.certificateIdentifier, row.bytes(1));
    certificate.objectIdLength = copyInto(certificate.objectId, row.bytes(2));
    copyLabel(certificate.label, row.bytes(3));
    const Bytes der = row.bytes(4);
    certificate.der.assign(der.begin(), der.end());
    requireIdentifierOf(der, certificate.certificateIdentifier);
}

std::vector<VelkorCertificate> readCertificates(Database& database)
{
    std::vector<VelkorCertificate> certificates;
    Statement row(database, SELECT_CERTIFICATES);
    while (row.step())
        readCertificate(row, certificates.emplace_back());
    return certificates;
}

template <class Look>
bool isReadable(Look look)
{
    try {
        look();
        return true;
    } catch (const Refusal&) {
        return false;
    }
}

template <class Record>
void lookAtTable(Database& database, const char* select, const std::string& name,
                 void (*read)(const Statement&, Record&), std::vector<RecordFinding>& findings)
{
    const bool reachesEnd = isReadable([&] {
        Statement row(database, select);
        while (row.step()) {
            Record record;
            const bool isSound = isReadable([&] { read(row, record); });
            findings.push_back({"record of " + name + " " + std::to_string(row.number(0)), isSound});
        }
    });
    if (!reachesEnd)
        findings.push_back({"records of further " + name + "s", false});
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

std::vector<RecordFinding> lookAtRecords(Database& database)
{
    std::vector<RecordFinding> findings;
    findings.push_back({"record of the device", isReadable([&] { readDevice(database); })});
    findings.push_back({"record of the user PIN", isReadable([&] { readPin(database, PinRole::User); })});
    findings.push_back({"record of the SO PIN", isReadable([&] { readPin(database, PinRole::SecurityOfficer); })});
    lookAtTable(database, SELECT_KEY_PAIRS, "key pair", readKeyPair, findings);
    lookAtTable(database, SELECT_CERTIFICATES, "certificate", readCertificate, findings);
    return findings;
}

} // namespace softkey
