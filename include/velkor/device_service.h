// The device-service interface: the 29 operations of VelkorDSCLibrary and the records that they exchange.
// The library is a shared object beside the module, found when the module is loaded; whatever defines these
// functions can stand in its place.
//
// Conventions
// - `libraryInstance` is the pointer that `velkor_createInstance` handed out.
// - `deviceId` and `deviceName` are NUL-terminated texts: a device's name as the device list has it, which is the
//   serial number of its `TokenInfo`.
// - `pin` is the user PIN as a NUL-terminated text, empty when nobody is logged in.
// - Lengths count bytes. An `int` result is 0 on success; any other value is a status of the library.
// - Input is borrowed for the call. Output buffers belong to the caller, except where an operation says that it
//   allocates: such a buffer comes from `malloc`, and the module wipes it and releases it with `free`.
// - Several threads may be inside the library at once. Operations answer by their result, not by exceptions; one that
//   throws all the same is answered as a failure of the module.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// What a compiler wants before a function that a library defines for others.
#ifndef VELKOR_DEVICE_OPERATION
#define VELKOR_DEVICE_OPERATION
#endif

// Capacities, in bytes.
inline constexpr std::size_t KEY_IDENTIFIER_SIZE = 16;
inline constexpr std::size_t PUBLIC_KEY_CAPACITY = 1024;
inline constexpr std::size_t OBJECT_ID_CAPACITY = 128;
inline constexpr std::size_t LABEL_CAPACITY = 128;
inline constexpr int CIPHERTEXT_CAPACITY = 1024;
inline constexpr int SIGNATURE_CAPACITY = 1024;
inline constexpr int HASH_CAPACITY = 64;

/// Bytes of a PIN, at least and at most.
inline constexpr std::size_t PIN_LENGTH_MIN = 4;
inline constexpr std::size_t PIN_LENGTH_MAX = 63;

/// Key pairs and certificates of a device are numbered below this.
inline constexpr std::uint32_t OBJECT_NUMBER_LIMIT = 4096;

/// Kinds of user as `velkor_validatePassword` knows them.
inline constexpr int USER_TYPE_USER = 1;
inline constexpr int USER_TYPE_SECURITY_OFFICER = 2;

/// Statuses of the library that mean that the device is gone.
inline constexpr int STATUS_DEVICE_REMOVED = 40;
inline constexpr int STATUS_DEVICE_UNREACHABLE = 242;
/// Status of `velkor_validatePassword` when the PIN could not be checked at all.
inline constexpr int STATUS_CHECK_NOT_POSSIBLE = 48;

/// What a device says of itself: seven texts, ten numbers, two texts, two numbers. The module reads the fields with
/// a comment and carries the others along.
struct TokenInfo {
    std::string serialNumber; ///< Empty: the device holds no usable token. Otherwise also the device identifier.
    std::string manufacturer;
    std::string label;
    std::string productName;
    std::string model;           ///< Its third character decides whether the token counts as FIPS 140-3.
    std::string firmwareVersion; ///< Decimal numbers separated by dots, major first.
    std::string hardwareVersion;
    std::int32_t pinChanged = 0; ///< 1 once the user PIN differs from its initial value.
    std::int32_t pinTriesMax = 0;
    std::int32_t pinTriesLeft = 0; ///< Tries left before the user PIN locks.
    std::int32_t soPinChanged = 0;
    std::int32_t soPinTriesMax = 0;
    std::int32_t soPinTriesLeft = 0;
    std::int32_t totalMemory = 0;
    std::int32_t freeMemory = 0;
    std::int32_t keyPairCount = 0;
    std::int32_t certificateCount = 0;
    std::string readerName;
    std::string devicePath;
    std::int32_t vendorId = 0;
    std::int32_t productId = 0;
};

/// `VelkorKeyPair::keyKind`. Any other number is treated as 2048-bit RSA.
enum KeyKind : std::uint32_t {
    KEY_KIND_RSA_1024 = 1,
    KEY_KIND_RSA_2048 = 2,
    KEY_KIND_RSA_3072 = 3,
    KEY_KIND_RSA_4096 = 4,
    KEY_KIND_EC_P256 = 5,
    KEY_KIND_EC_P384 = 6,
    KEY_KIND_EC_P521 = 7,
};

/// Bits of `VelkorKeyPair::usageFlags`.
inline constexpr std::uint32_t USAGE_SIGN_VERIFY = 1;
inline constexpr std::uint32_t USAGE_DECRYPT_ENCRYPT = 2;

/// A key pair on a device. As a request of `velkor_generateKeyPair` the caller fills object ID, label, usage flags
/// and key kind; the library fills the rest.
struct VelkorKeyPair {
    std::uint32_t id = 0; ///< The key pair's number on the device, below OBJECT_NUMBER_LIMIT.
    unsigned char keyIdentifier[KEY_IDENTIFIER_SIZE] = {};
    unsigned char publicKey[PUBLIC_KEY_CAPACITY] = {}; ///< RSA: modulus, or DER of the key. EC: uncompressed point.
    std::int32_t publicKeyLength = 0;
    unsigned char objectId[OBJECT_ID_CAPACITY] = {}; ///< What applications see as CKA_ID.
    std::int32_t objectIdLength = 0;
    char label[LABEL_CAPACITY + 1] = {}; ///< NUL-terminated.
    std::uint32_t usageFlags = 0;
    std::uint32_t keyKind = 0;
    bool deviceFlag = false; ///< The library's own; handed back to it on decryption and deletion.
};

/// A certificate on a device. As a request of `velkor_importCertificate` the caller fills object ID, DER and label;
/// the library fills `id` and `certificateIdentifier`.
struct VelkorCertificate {
    std::uint32_t id = 0; ///< The certificate's number on the device, below OBJECT_NUMBER_LIMIT.
    unsigned char certificateIdentifier[KEY_IDENTIFIER_SIZE] = {};
    std::vector<unsigned char> der;
    unsigned char objectId[OBJECT_ID_CAPACITY] = {}; ///< What applications see as CKA_ID.
    std::int32_t objectIdLength = 0;
    char label[LABEL_CAPACITY + 1] = {}; ///< NUL-terminated.
};

/// Fields of a parsed certificate. Names are texts such as "CN=Root,O=Example", most specific part first.
struct CertificateDetails {
    std::string serialNumber;      ///< Upper-case hexadecimal.
    std::string subjectCommonName; ///< First half of a computed label.
    std::string issuerCommonName;  ///< Second half of a computed label.
    std::string subject;
    std::string issuer;
    std::string notBefore; ///< UTC, "YYYY-MM-DD hh:mm:ss".
    std::string notAfter;
    std::vector<unsigned char> publicKey; ///< In the form of `VelkorKeyPair::publicKey`: modulus or point.
};

/// `ImportPFXDetails::kind` of an RSA private key given by its components.
inline constexpr std::int32_t IMPORT_KIND_RSA_COMPONENTS = 2;

/// A private key to be stored, and where it went.
struct ImportPFXDetails {
    std::int32_t kind = 0;
    std::string label;
    std::vector<unsigned char> objectId;
    std::vector<unsigned char> modulus; ///< Components are big-endian. The public exponent is 65537.
    std::vector<unsigned char> privateExponent;
    std::vector<unsigned char> prime1;
    unsigned char keyIdentifier[KEY_IDENTIFIER_SIZE] = {}; ///< Filled by the library: the stored key pair's.
};

/// Size of the RSA key that encrypts.
enum class EncryptionType : int { Rsa1024 = 7, Rsa2048 = 8, Rsa3072 = 9, Rsa4096 = 10 };

enum class PaddingMode : int { Pkcs1 = 1, Oaep = 4 };

/// Hash codes of `velkor_initHash`.
enum HashAlgorithm : int {
    HASH_SHA1 = 2,
    HASH_SHA256 = 3,
    HASH_SHA384 = 4,
    HASH_SHA512 = 5,
    HASH_SHA224 = 6,
};

// ---- Instance ----

/// Starts the library. `*libraryInstance` stays null when that fails.
VELKOR_DEVICE_OPERATION void velkor_createInstance(void** libraryInstance);
/// Ends the library; the pointer is invalid afterwards.
VELKOR_DEVICE_OPERATION void velkor_releaseInstance(void* libraryInstance);

// ---- Devices and PINs ----

/// Names of the connected devices. `refresh` false: as the library knows them.
VELKOR_DEVICE_OPERATION std::vector<std::string> velkor_getConnectedDeviceList(bool refresh, void* libraryInstance);
/// What a device says of itself; all fields empty when it cannot be read.
VELKOR_DEVICE_OPERATION TokenInfo velkor_getTokenInfo(const char* deviceName, void* libraryInstance);
/// Makes the library read a device's contents again.
VELKOR_DEVICE_OPERATION int velkor_initDevice(const char* deviceId, bool readContents, void* libraryInstance);
/// Checks a PIN. `userType`: one of the two kinds of user. `*triesLeft`: tries left after a refusal.
/// STATUS_CHECK_NOT_POSSIBLE: the PIN was not checked.
VELKOR_DEVICE_OPERATION int velkor_validatePassword(const char* deviceId, const char* pin, int userType, int* triesLeft,
                                                    void* libraryInstance);
/// Changes the user PIN; true on success. `*triesLeft`: tries left after a refusal. The two flags are always false.
VELKOR_DEVICE_OPERATION bool velkor_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin,
                                                       int* triesLeft, bool securityOfficer, bool force,
                                                       void* libraryInstance);

// ---- Contents of a device ----

/// A device's key pairs. The reference is valid until the same thread's next call of this function.
VELKOR_DEVICE_OPERATION std::vector<VelkorKeyPair>& velkor_getKeyPairList(const char* deviceId, void* libraryInstance);
/// A device's certificates. The reference is valid until the same thread's next call of this function.
VELKOR_DEVICE_OPERATION std::vector<VelkorCertificate>& velkor_getCertificateList(const char* deviceId,
                                                                                  void* libraryInstance);
/// Changes a key pair's label and object ID. An empty label, or a length of 0, leaves that field as it is.
VELKOR_DEVICE_OPERATION int velkor_updateKeyPairDetails(const char* deviceId, const unsigned char* keyIdentifier,
                                                        const char* pin, const char* label,
                                                        const unsigned char* objectId, int objectIdLength,
                                                        void* libraryInstance);
/// Deletes a key pair. `deviceFlag` is the record's.
VELKOR_DEVICE_OPERATION int velkor_deleteKeyPair(const char* deviceId, const unsigned char* keyIdentifier,
                                                 const char* pin, bool deviceFlag, void* libraryInstance);
VELKOR_DEVICE_OPERATION int velkor_deleteCertificate(const char* deviceId, const unsigned char* certificateIdentifier,
                                                     const char* pin, void* libraryInstance);
/// Stores a certificate; fills the record's `id` and `certificateIdentifier`.
VELKOR_DEVICE_OPERATION int velkor_importCertificate(const char* deviceId, const char* pin,
                                                     VelkorCertificate* certificate, void* libraryInstance);
/// Stores a private key; fills the record's `keyIdentifier`.
VELKOR_DEVICE_OPERATION int velkor_importPfx(const char* deviceId, const char* pin, ImportPFXDetails* details,
                                             void* libraryInstance);

// ---- Certificates, no device involved ----

/// Files of a folder whose names end in one of the extensions (with their dot), as (file name, DER) pairs. PEM is
/// converted; a file that cannot be read or converted has empty DER. `recursive` false: that folder only.
VELKOR_DEVICE_OPERATION std::vector<std::pair<std::string, std::vector<unsigned char>>>
velkor_getFilesWithExtensionsAndConvertDER(const char* folder, const std::vector<std::string>& extensions,
                                           bool recursive, void* libraryInstance);
/// Parses a certificate. The instance may be null.
VELKOR_DEVICE_OPERATION int velkor_getCertificateDetails(const unsigned char* der, int derLength,
                                                         CertificateDetails& details, void* libraryInstance);
/// The subject as a DER Name; empty when the certificate cannot be parsed.
VELKOR_DEVICE_OPERATION std::vector<unsigned char> velkor_getCertificateSubject(const unsigned char* der, int derLength,
                                                                                void* libraryInstance);
/// The issuer as a DER Name; empty when the certificate cannot be parsed.
VELKOR_DEVICE_OPERATION std::vector<unsigned char> velkor_getCertificateIssuer(const unsigned char* der, int derLength,
                                                                               void* libraryInstance);
/// The serial number as a DER INTEGER; empty when the certificate cannot be parsed.
VELKOR_DEVICE_OPERATION std::vector<unsigned char> velkor_getCertificateSerialDER(const unsigned char* der,
                                                                                  int derLength, void* libraryInstance);

// ---- Cryptography ----

/// Generates the key pair that the record asks for and fills the record.
VELKOR_DEVICE_OPERATION int velkor_generateKeyPair(const char* deviceId, const char* pin, VelkorKeyPair* keyPair,
                                                   void* libraryInstance);

/// Begins a hash. Derivation also passes the codes 1 and 4, as codes of its own. The context is ended by
/// `velkor_finalHash`, whatever that answers; there is no other release.
VELKOR_DEVICE_OPERATION int velkor_initHash(const char* deviceId, int hashAlgorithm, void** hashContext,
                                            void* libraryInstance);
VELKOR_DEVICE_OPERATION int velkor_updateHash(void* hashContext, const unsigned char* data, int dataLength,
                                              void* libraryInstance);
/// Writes the hash to `hash` and its length to `*hashLength`, which is 0 or HASH_CAPACITY on entry: the room is
/// HASH_CAPACITY in either case.
VELKOR_DEVICE_OPERATION int velkor_finalHash(void* hashContext, unsigned char* hash, int* hashLength,
                                             void* libraryInstance);

/// Signs a hash, or the data of a mechanism that does not hash. `*signatureLength`: on entry the room in
/// `signature`, on success the length of the signature. `flag` is always false.
VELKOR_DEVICE_OPERATION int velkor_signHash(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                            const unsigned char* hash, int hashLength, unsigned char* signature,
                                            int* signatureLength, bool flag, void* libraryInstance, bool isPss);
/// Verifies a signature; 0 when it is valid. `keyKind` as in `VelkorKeyPair`. `publicKey` is an EC point, an RSA
/// modulus, or a DER SubjectPublicKeyInfo.
VELKOR_DEVICE_OPERATION int velkor_verifySignatureHash(unsigned int keyKind, const char* deviceId,
                                                       const unsigned char* hash, int hashLength,
                                                       const unsigned char* publicKey, int publicKeyLength,
                                                       const unsigned char* signature, int signatureLength,
                                                       void* libraryInstance, bool isPss);
/// Encrypts for an RSA key, given as DER SubjectPublicKeyInfo. `out` has room for CIPHERTEXT_CAPACITY; `*outLength` is
/// 0 on entry and the length of the ciphertext on success.
VELKOR_DEVICE_OPERATION int velkor_encrypt(EncryptionType encryptionType, PaddingMode paddingMode,
                                           const unsigned char* data, int dataLength, unsigned char* out,
                                           int* outLength, const unsigned char* publicKeyDer, int publicKeyDerLength,
                                           void* libraryInstance);
/// Decrypts. The library allocates `*out`. `deviceFlag` is the key pair record's.
VELKOR_DEVICE_OPERATION int velkor_decrypt(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                           const unsigned char* data, int dataLength, unsigned char** out,
                                           int* outLength, bool deviceFlag, void* libraryInstance);
/// ECDH: the shared secret of a private key and a peer's public point. The library allocates `*out`.
VELKOR_DEVICE_OPERATION int velkor_ecdhDerive(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                              const unsigned char* peerPublicKey, int peerPublicKeyLength,
                                              unsigned char** out, int* outLength, void* libraryInstance);
/// Fills `out` with random bytes. `flag` is always true; the instance may be null. (The library spells it so.)
VELKOR_DEVICE_OPERATION int velkor_generateRamdomNumber(const char* deviceId, int count, unsigned char* out, bool flag,
                                                        void* libraryInstance);
