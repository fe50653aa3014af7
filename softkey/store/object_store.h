// Key pairs and certificates in a key's file. The functions that take a database run inside the caller's change.
#pragma once

#include "base/secret.h"
#include "crypto/private_key.h"
#include "store/contents.h"

namespace softkey
{

/// What a caller may choose of an object. An empty field leaves an existing object's as it is.
struct ObjectAttributes {
    Bytes objectId;
    std::string_view label;
};

/// What a key pair may be used for.
struct KeyUsage {
    std::uint32_t flags;
    PaddingsTaken paddings = PaddingsTaken::All; ///< RSA only: when it decrypts.
};

/// A key pair in the form in which it is stored.
struct NewKeyPair {
    VelkorKeyPair record; ///< All but the number.
    ByteVector sealedPrivateKey;
};

/// The library's own flag of a record says that the key takes OAEP alone.
PaddingsTaken paddingsOf(const VelkorKeyPair& record);

NewKeyPair prepareKeyPair(const EVP_PKEY* key, const ObjectAttributes& attributes, const KeyUsage& usage,
                          Bytes masterKey, std::string_view serialNumber);
/// Opens a stored private key, which is DER of PKCS #8; throws FileDamaged when it does not belong to the record.
SecretBuffer openPrivateKey(Database& database, const VelkorKeyPair& record, Bytes masterKey,
                            std::string_view serialNumber);
std::shared_ptr<const PrivateKey> loadPrivateKey(Database& database, const VelkorKeyPair& record, Bytes masterKey,
                                                 std::string_view serialNumber);

/// Seals all private keys under another master key; throws FileDamaged when one cannot be opened.
void resealPrivateKeys(Database& database, const Contents& contents, Bytes oldMasterKey, Bytes newMasterKey);

/// Stores a key pair under the smallest free number, or updates the attributes of the same key pair that is already
/// there. Fills the record's number; throws DeviceFull.
void storeKeyPair(Database& database, NewKeyPair& keyPair);
/// The same for a certificate, whose identifier is filled too.
void storeCertificate(Database& database, VelkorCertificate& certificate);

/// These throw NoSuchObject.
void updateKeyPair(Database& database, const Identifier& identifier, const ObjectAttributes& attributes);
void updateCertificate(Database& database, const Identifier& identifier, const ObjectAttributes& attributes);
void deleteKeyPair(Database& database, const Identifier& identifier);
void deleteCertificate(Database& database, const Identifier& identifier);

} // namespace softkey
