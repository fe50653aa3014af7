#include "store/object_store.h"

#include "crypto/keys.h"
#include "store/opened_key.h"
#include "velkor/record_fields.h"

#include <algorithm>
#include <cstring>

namespace softkey
{
namespace
{

using velkor::objectIdOf;
using velkor::publicKeyOf;

/// What a sealed private key belongs to: this file, this record, this public key.
ByteVector privateKeyIdentity(const VelkorKeyPair& record, std::string_view serialNumber)
{
    constexpr std::string_view purpose = "velkor-softkey private key";
    ByteVector identity(purpose.begin(), purpose.end());
    identity.push_back(static_cast<unsigned char>(record.keyKind));
    identity.insert(identity.end(), std::begin(record.keyIdentifier), std::end(record.keyIdentifier));
    const Bytes publicKey = publicKeyOf(record);
    identity.insert(identity.end(), publicKey.begin(), publicKey.end());
    identity.insert(identity.end(), serialNumber.begin(), serialNumber.end());
    constexpr std::string_view oaepOnly = "\nOAEP only"; // A line end is in no serial number.
    if (record.deviceFlag)
        identity.insert(identity.end(), oaepOnly.begin(), oaepOnly.end());
    return identity;
}

void applyAttributes(Database& database, const char* setObjectId, const char* setLabel, Bytes identifier,
                     const ObjectAttributes& attributes)
{
    if (!attributes.objectId.empty())
        Statement(database, setObjectId).bind(attributes.objectId).bind(identifier).run();
    if (!attributes.label.empty())
        Statement(database, setLabel).bind(bytesOf(attributes.label)).bind(identifier).run();
}

void applyKeyPairAttributes(Database& database, Bytes identifier, const ObjectAttributes& attributes)
{
    applyAttributes(database, "UPDATE key_pair SET object_id = ? WHERE identifier = ?",
                    "UPDATE key_pair SET label = ? WHERE identifier = ?", identifier, attributes);
}

void applyCertificateAttributes(Database& database, Bytes identifier, const ObjectAttributes& attributes)
{
    applyAttributes(database, "UPDATE certificate SET object_id = ? WHERE identifier = ?",
                    "UPDATE certificate SET label = ? WHERE identifier = ?", identifier, attributes);
}

/// Number of the object with that identifier; 0 when there is none.
std::uint32_t existingNumber(Database& database, const char* select, Bytes identifier)
{
    Statement row(database, select);
    row.bind(identifier);
    return row.step() ? static_cast<std::uint32_t>(row.number(0)) : 0;
}

std::uint32_t smallestFreeNumber(Database& database, const char* selectNumbers)
{
    Statement row(database, selectNumbers);
    std::int64_t candidate = 1;
    while (row.step() && row.number(0) == candidate)
        ++candidate;
    require(candidate < OBJECT_NUMBER_LIMIT, SoftkeyStatus::DeviceFull);
    return static_cast<std::uint32_t>(candidate);
}

constexpr const char* SELECT_KEY_PAIR = "SELECT id FROM key_pair WHERE identifier = ?";
constexpr const char* SELECT_KEY_PAIR_FOR_ALL_PADDINGS =
    "SELECT id FROM key_pair WHERE identifier = ? AND oaep_only = 0";
constexpr const char* SELECT_CERTIFICATE = "SELECT id FROM certificate WHERE identifier = ?";

void deleteObject(Database& database, const char* statement, const Identifier& identifier)
{
    Statement(database, statement).bind(Bytes(identifier)).run();
    require(database.changedRows() == 1, SoftkeyStatus::NoSuchObject);
}

} // namespace

PaddingsTaken paddingsOf(const VelkorKeyPair& record)
{
    return record.deviceFlag ? PaddingsTaken::OaepOnly : PaddingsTaken::All;
}

SecretBuffer openPrivateKey(Database& database, const VelkorKeyPair& record, Bytes masterKey,
                            std::string_view serialNumber)
{
    Statement row(database, "SELECT sealed_private_key FROM key_pair WHERE identifier = ?");
    row.bind(Bytes(record.keyIdentifier));
    require(row.step(), SoftkeyStatus::NoSuchObject);
    std::optional<SecretBuffer> pkcs8 = unseal(masterKey, row.bytes(0), privateKeyIdentity(record, serialNumber));
    require(pkcs8.has_value(), SoftkeyStatus::FileDamaged);
    return std::move(*pkcs8);
}

NewKeyPair prepareKeyPair(const EVP_PKEY* key, const ObjectAttributes& attributes, const KeyUsage& usage,
                          Bytes masterKey, std::string_view serialNumber)
{
    const KeyKindTraits* traits = keyKindOf(key);
    require(traits != nullptr, SoftkeyStatus::BadPrivateKey);
    require(traits->isRsa() || usage.paddings == PaddingsTaken::All, SoftkeyStatus::WrongKeyKind);
    const ByteVector publicKey = publicKeyValue(key);
    NewKeyPair keyPair;
    VelkorKeyPair& record = keyPair.record;
    std::ranges::copy(identifierOf(publicKey), record.keyIdentifier);
    record.publicKeyLength = velkor::copyInto(record.publicKey, publicKey);
    record.objectIdLength = velkor::copyInto(record.objectId, attributes.objectId);
    velkor::setLabel(record, attributes.label);
    record.usageFlags = usage.flags;
    record.deviceFlag = usage.paddings == PaddingsTaken::OaepOnly;
    record.keyKind = traits->kind;
    keyPair.sealedPrivateKey = seal(masterKey, encodePrivateKey(key), privateKeyIdentity(record, serialNumber));
    return keyPair;
}

EvpKey openedKey(Database& database, const VelkorKeyPair& record, Bytes masterKey, std::string_view serialNumber)
{
    return decodePrivateKey(openPrivateKey(database, record, masterKey, serialNumber));
}

std::shared_ptr<const PrivateKey> loadPrivateKey(Database& database, const VelkorKeyPair& record, Bytes masterKey,
                                                 std::string_view serialNumber)
{
    return std::make_shared<const PrivateKey>(openedKey(database, record, masterKey, serialNumber),
                                              traitsOf(record.keyKind), paddingsOf(record));
}

void resealPrivateKeys(Database& database, const Contents& contents, Bytes oldMasterKey, Bytes newMasterKey)
{
    const std::string& serialNumber = contents.device.serialNumber;
    for (const VelkorKeyPair& record : contents.keyPairs) {
        const SecretBuffer pkcs8 = openPrivateKey(database, record, oldMasterKey, serialNumber);
        const ByteVector sealed = seal(newMasterKey, pkcs8, privateKeyIdentity(record, serialNumber));
        Statement(database, "UPDATE key_pair SET sealed_private_key = ? WHERE identifier = ?")
            .bind(Bytes(sealed))
            .bind(Bytes(record.keyIdentifier))
            .run();
    }
}

void storeKeyPair(Database& database, NewKeyPair& keyPair)
{
    VelkorKeyPair& record = keyPair.record;
    const Bytes identifier(record.keyIdentifier);
    record.id = existingNumber(database, SELECT_KEY_PAIR, identifier);
    // A key pair that is there keeps its paddings: whoever wants OAEP alone is not to believe that they have it.
    if (record.deviceFlag && existingNumber(database, SELECT_KEY_PAIR_FOR_ALL_PADDINGS, identifier) != 0)
        throw Refusal(SoftkeyStatus::BadArgument,
                      "that key pair is there already and takes PKCS #1 v1.5 too; delete it first");
    if (record.id != 0)
        return applyKeyPairAttributes(database, identifier, {objectIdOf(record), record.label});
    record.id = smallestFreeNumber(database, "SELECT id FROM key_pair ORDER BY id");
    Statement(database, "INSERT INTO key_pair (id, identifier, kind, object_id, label, public_key, "
                        "sealed_private_key, usage_flags, oaep_only) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .bind(record.id)
        .bind(identifier)
        .bind(record.keyKind)
        .bind(objectIdOf(record))
        .bind(bytesOf(record.label))
        .bind(publicKeyOf(record))
        .bind(Bytes(keyPair.sealedPrivateKey))
        .bind(record.usageFlags)
        .bind(std::int64_t{record.deviceFlag})
        .run();
}

void storeCertificate(Database& database, VelkorCertificate& certificate)
{
    const Identifier identifier = identifierOf(certificate.der);
    const Bytes objectId = objectIdOf(certificate);
    std::uint32_t number = existingNumber(database, SELECT_CERTIFICATE, identifier);
    if (number != 0) {
        applyCertificateAttributes(database, identifier, {objectId, certificate.label});
    } else {
        number = smallestFreeNumber(database, "SELECT id FROM certificate ORDER BY id");
        Statement(database, "INSERT INTO certificate (id, identifier, object_id, label, der) VALUES (?, ?, ?, ?, ?)")
            .bind(number)
            .bind(Bytes(identifier))
            .bind(objectId)
            .bind(bytesOf(certificate.label))
            .bind(Bytes(certificate.der))
            .run();
    }
    certificate.id = number;
    std::ranges::copy(identifier, certificate.certificateIdentifier);
}

void updateKeyPair(Database& database, const Identifier& identifier, const ObjectAttributes& attributes)
{
    require(existingNumber(database, SELECT_KEY_PAIR, identifier) != 0, SoftkeyStatus::NoSuchObject);
    applyKeyPairAttributes(database, identifier, attributes);
}

void updateCertificate(Database& database, const Identifier& identifier, const ObjectAttributes& attributes)
{
    require(existingNumber(database, SELECT_CERTIFICATE, identifier) != 0, SoftkeyStatus::NoSuchObject);
    applyCertificateAttributes(database, identifier, attributes);
}

void deleteKeyPair(Database& database, const Identifier& identifier)
{
    deleteObject(database, "DELETE FROM key_pair WHERE identifier = ?", identifier);
}

void deleteCertificate(Database& database, const Identifier& identifier)
{
    deleteObject(database, "DELETE FROM certificate WHERE identifier = ?", identifier);
}

} // namespace softkey
