#include "default_device.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace
{

constexpr int STATUS_UNKNOWN_DEVICE = STATUS_DEVICE_REMOVED;
constexpr int STATUS_NOT_FOUND = 7;
constexpr int STATUS_WRONG_PIN = 20;

int libraryInstanceObject = 0;

std::int32_t publicKeyLengthOf(std::uint32_t keyKind)
{
    switch (keyKind) {
    case KEY_KIND_RSA_1024:
        return 128;
    case KEY_KIND_RSA_3072:
        return 384;
    case KEY_KIND_RSA_4096:
        return 512;
    case KEY_KIND_EC_P256:
        return 65;
    case KEY_KIND_EC_P384:
        return 97;
    case KEY_KIND_EC_P521:
        return 133;
    default:
        return 256;
    }
}

bool isEc(std::uint32_t keyKind)
{
    return keyKind >= KEY_KIND_EC_P256 && keyKind <= KEY_KIND_EC_P521;
}

void setLabel(char (&field)[LABEL_CAPACITY + 1], const std::string& label)
{
    std::memset(field, 0, sizeof field);
    label.copy(field, LABEL_CAPACITY);
}

void fillGenerated(VelkorKeyPair& keyPair)
{
    std::memset(keyPair.keyIdentifier, static_cast<int>(0xA0 + keyPair.id % 0x50), KEY_IDENTIFIER_SIZE);
    keyPair.publicKeyLength = publicKeyLengthOf(keyPair.keyKind);
    std::memset(keyPair.publicKey, static_cast<int>(keyPair.id), static_cast<std::size_t>(keyPair.publicKeyLength));
    keyPair.publicKey[0] = isEc(keyPair.keyKind) ? 0x04 : 0xC5;
}

template <typename Record>
std::uint32_t nextId(const std::vector<Record>& records)
{
    std::uint32_t id = 1;
    for (const Record& record : records)
        id = std::max(id, record.id + 1);
    return id;
}

auto sameIdentifier(const unsigned char* identifier, auto field)
{
    return [=](const auto& record) { return std::memcmp(record.*field, identifier, KEY_IDENTIFIER_SIZE) == 0; };
}

auto withIdentifier(std::vector<VelkorKeyPair>& keyPairs, const unsigned char* identifier)
{
    return std::find_if(keyPairs.begin(), keyPairs.end(), sameIdentifier(identifier, &VelkorKeyPair::keyIdentifier));
}

int giveCopy(const std::vector<unsigned char>& bytes, unsigned char** out, int* outLength)
{
    *out = static_cast<unsigned char*>(std::malloc(bytes.size()));
    std::copy(bytes.begin(), bytes.end(), *out);
    *outLength = static_cast<int>(bytes.size());
    return 0;
}

std::vector<unsigned char> tagged(const char* prefix, const unsigned char* der, int derLength)
{
    std::vector<unsigned char> bytes(prefix, prefix + std::strlen(prefix));
    bytes.insert(bytes.end(), der, der + derLength);
    return bytes;
}

TokenInfo makeToken(const char* serialNumber, const char* label)
{
    TokenInfo token;
    token.serialNumber = serialNumber;
    token.manufacturer = "Brenmoor";
    token.label = label;
    token.model = "VK1 Key";
    token.firmwareVersion = "2.1.0";
    token.pinChanged = 1;
    token.pinTriesMax = 10;
    token.pinTriesLeft = 10;
    return token;
}

} // namespace

struct DefaultDevice::HashContext {
    std::size_t length;
    std::vector<unsigned char> state;
};

VelkorKeyPair makeKeyPair(std::uint32_t id, std::uint32_t keyKind, const std::string& label)
{
    VelkorKeyPair keyPair;
    keyPair.id = id;
    keyPair.keyKind = keyKind;
    keyPair.usageFlags = USAGE_SIGN_VERIFY | USAGE_DECRYPT_ENCRYPT;
    keyPair.objectId[0] = static_cast<unsigned char>(id);
    keyPair.objectIdLength = 1;
    setLabel(keyPair.label, label);
    fillGenerated(keyPair);
    return keyPair;
}

VelkorCertificate makeCertificate(std::uint32_t id, const std::string& label)
{
    VelkorCertificate certificate;
    certificate.id = id;
    std::memset(certificate.certificateIdentifier, static_cast<int>(0xC0 + id % 0x40), KEY_IDENTIFIER_SIZE);
    certificate.der = {0x30, 0x03, 0x02, 0x01, static_cast<unsigned char>(id)};
    certificate.objectId[0] = static_cast<unsigned char>(id);
    certificate.objectIdLength = 1;
    setLabel(certificate.label, label);
    return certificate;
}

DefaultDevice::DefaultDevice()
{
    DeviceRecords& first = devices[FIRST_DEVICE];
    first.token = makeToken(FIRST_DEVICE, "First key");
    for (std::uint32_t kind = KEY_KIND_RSA_1024; kind <= KEY_KIND_EC_P521; ++kind)
        first.keyPairs.push_back(makeKeyPair(kind, kind, "pair " + std::to_string(kind)));
    for (std::uint32_t id = 1; id <= 3; ++id) {
        const VelkorCertificate& certificate =
            first.certificates.emplace_back(makeCertificate(id, "certificate " + std::to_string(id)));
        const VelkorKeyPair& keyPair = first.keyPairs[id];
        CertificateDetails& parsed = detailsOf(certificate.der);
        parsed.subjectCommonName = "Subject " + std::to_string(id);
        parsed.issuerCommonName = "Issuer";
        parsed.subject = "CN=" + parsed.subjectCommonName + ",O=Example";
        parsed.issuer = "CN=Issuer,O=Example";
        parsed.publicKey.assign(keyPair.publicKey, keyPair.publicKey + keyPair.publicKeyLength);
    }
    devices[SECOND_DEVICE].token = makeToken(SECOND_DEVICE, "Second key");
    devices[SECOND_DEVICE].keyPairs.push_back(makeKeyPair(1, KEY_KIND_RSA_2048, "other pair"));
}

DefaultDevice::~DefaultDevice() = default;

void DefaultDevice::setConnected(std::vector<std::string> names)
{
    const std::scoped_lock lock(lock_);
    connected_ = std::move(names);
}

CertificateDetails& DefaultDevice::detailsOf(const std::vector<unsigned char>& der)
{
    return details_[std::string(der.begin(), der.end())];
}

DeviceRecords* DefaultDevice::find(const char* deviceId)
{
    const auto found = devices.find(deviceId);
    return found != devices.end() ? &found->second : nullptr;
}

DefaultDevice::HashContext* DefaultDevice::findHash(void* hashContext)
{
    const auto found = std::find_if(hashContexts_.begin(), hashContexts_.end(),
                                    [&](const auto& context) { return context.get() == hashContext; });
    return found != hashContexts_.end() ? found->get() : nullptr;
}

void DefaultDevice::velkor_createInstance(void** libraryInstance)
{
    *libraryInstance = &libraryInstanceObject;
}

void DefaultDevice::velkor_releaseInstance(void* /*libraryInstance*/) {}

std::vector<std::string> DefaultDevice::velkor_getConnectedDeviceList(bool /*refresh*/, void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    return connected_;
}

TokenInfo DefaultDevice::velkor_getTokenInfo(const char* deviceName, void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    const DeviceRecords* device = find(deviceName);
    return device != nullptr ? device->token : TokenInfo();
}

int DefaultDevice::velkor_initDevice(const char* deviceId, bool /*readContents*/, void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    return find(deviceId) != nullptr ? 0 : STATUS_UNKNOWN_DEVICE;
}

int DefaultDevice::velkor_validatePassword(const char* deviceId, const char* pin, int userType, int* triesLeft,
                                           void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    DeviceRecords* device = find(deviceId);
    if (device == nullptr)
        return STATUS_UNKNOWN_DEVICE;
    if ((userType == USER_TYPE_USER ? device->userPin : device->soPin) == pin)
        return 0;
    *triesLeft = --device->token.pinTriesLeft;
    return STATUS_WRONG_PIN;
}

bool DefaultDevice::velkor_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin,
                                              int* triesLeft, bool /*securityOfficer*/, bool /*force*/,
                                              void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    DeviceRecords* device = find(deviceId);
    if (device == nullptr)
        return false;
    if (device->userPin != oldPin) {
        *triesLeft = --device->token.pinTriesLeft;
        return false;
    }
    device->userPin = newPin;
    return true;
}

std::vector<VelkorKeyPair>& DefaultDevice::velkor_getKeyPairList(const char* deviceId, void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    std::vector<VelkorKeyPair>& list = keyPairLists_[std::this_thread::get_id()];
    const DeviceRecords* device = find(deviceId);
    list = device != nullptr ? device->keyPairs : std::vector<VelkorKeyPair>();
    return list;
}

std::vector<VelkorCertificate>& DefaultDevice::velkor_getCertificateList(const char* deviceId,
                                                                         void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    std::vector<VelkorCertificate>& list = certificateLists_[std::this_thread::get_id()];
    const DeviceRecords* device = find(deviceId);
    list = device != nullptr ? device->certificates : std::vector<VelkorCertificate>();
    return list;
}

int DefaultDevice::velkor_updateKeyPairDetails(const char* deviceId, const unsigned char* keyIdentifier,
                                               const char* /*pin*/, const char* label, const unsigned char* objectId,
                                               int objectIdLength, void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    DeviceRecords* device = find(deviceId);
    if (device == nullptr)
        return STATUS_UNKNOWN_DEVICE;
    const auto keyPair = withIdentifier(device->keyPairs, keyIdentifier);
    if (keyPair == device->keyPairs.end())
        return STATUS_NOT_FOUND;
    if (*label != '\0')
        setLabel(keyPair->label, label);
    if (objectIdLength > 0) {
        keyPair->objectIdLength = std::min(objectIdLength, static_cast<int>(OBJECT_ID_CAPACITY));
        std::memcpy(keyPair->objectId, objectId, static_cast<std::size_t>(keyPair->objectIdLength));
    }
    return 0;
}

int DefaultDevice::velkor_deleteKeyPair(const char* deviceId, const unsigned char* keyIdentifier, const char* /*pin*/,
                                        bool /*deviceFlag*/, void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    DeviceRecords* device = find(deviceId);
    if (device == nullptr)
        return STATUS_UNKNOWN_DEVICE;
    const auto sameKey = sameIdentifier(keyIdentifier, &VelkorKeyPair::keyIdentifier);
    return std::erase_if(device->keyPairs, sameKey) == 1 ? 0 : STATUS_NOT_FOUND;
}

int DefaultDevice::velkor_deleteCertificate(const char* deviceId, const unsigned char* certificateIdentifier,
                                            const char* /*pin*/, void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    DeviceRecords* device = find(deviceId);
    if (device == nullptr)
        return STATUS_UNKNOWN_DEVICE;
    const auto sameCertificate = sameIdentifier(certificateIdentifier, &VelkorCertificate::certificateIdentifier);
    return std::erase_if(device->certificates, sameCertificate) == 1 ? 0 : STATUS_NOT_FOUND;
}

int DefaultDevice::velkor_importCertificate(const char* deviceId, const char* /*pin*/, VelkorCertificate* certificate,
                                            void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    DeviceRecords* device = find(deviceId);
    if (device == nullptr)
        return STATUS_UNKNOWN_DEVICE;
    certificate->id = nextId(device->certificates);
    std::memset(certificate->certificateIdentifier, static_cast<int>(0xC0 + certificate->id), KEY_IDENTIFIER_SIZE);
    device->certificates.push_back(*certificate);
    return 0;
}

int DefaultDevice::velkor_importPfx(const char* deviceId, const char* /*pin*/, ImportPFXDetails* imported,
                                    void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    DeviceRecords* device = find(deviceId);
    if (device == nullptr)
        return STATUS_UNKNOWN_DEVICE;
    const auto& keyPair =
        device->keyPairs.emplace_back(makeKeyPair(nextId(device->keyPairs), KEY_KIND_RSA_2048, imported->label));
    std::copy_n(keyPair.keyIdentifier, KEY_IDENTIFIER_SIZE, imported->keyIdentifier);
    return 0;
}

std::vector<std::pair<std::string, std::vector<unsigned char>>>
DefaultDevice::velkor_getFilesWithExtensionsAndConvertDER(const char* /*folder*/,
                                                          const std::vector<std::string>& /*extensions*/,
                                                          bool /*recursive*/, void* /*libraryInstance*/)
{
    return files;
}

int DefaultDevice::velkor_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& parsed,
                                                void* /*libraryInstance*/)
{
    const auto found = details_.find(std::string(der, der + derLength));
    if (found == details_.end())
        return STATUS_NOT_FOUND;
    parsed = found->second;
    return 0;
}

std::vector<unsigned char> DefaultDevice::velkor_getCertificateSubject(const unsigned char* der, int derLength,
                                                                       void* /*libraryInstance*/)
{
    return tagged("subject", der, derLength);
}

std::vector<unsigned char> DefaultDevice::velkor_getCertificateIssuer(const unsigned char* der, int derLength,
                                                                      void* /*libraryInstance*/)
{
    return tagged("issuer", der, derLength);
}

std::vector<unsigned char> DefaultDevice::velkor_getCertificateSerialDER(const unsigned char* der, int derLength,
                                                                         void* /*libraryInstance*/)
{
    return tagged("serial", der, derLength);
}

int DefaultDevice::velkor_generateKeyPair(const char* deviceId, const char* /*pin*/, VelkorKeyPair* keyPair,
                                          void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    DeviceRecords* device = find(deviceId);
    if (device == nullptr)
        return STATUS_UNKNOWN_DEVICE;
    keyPair->id = nextId(device->keyPairs);
    fillGenerated(*keyPair);
    if (areKeysDistinct) {
        ++generated_;
        std::memcpy(keyPair->keyIdentifier + 8, &generated_, sizeof generated_);
        std::memcpy(keyPair->publicKey + 1, &generated_, sizeof generated_);
    }
    device->keyPairs.push_back(*keyPair);
    return 0;
}

int DefaultDevice::velkor_initHash(const char* /*deviceId*/, int hashAlgorithm, void** hashContext,
                                   void* /*libraryInstance*/)
{
    static const std::map<int, std::size_t> lengths = {
        {HASH_SHA1, 20}, {HASH_SHA224, 28}, {HASH_SHA256, 32}, {HASH_SHA384, 48}, {HASH_SHA512, 64}};
    const auto found = lengths.find(hashAlgorithm);
    if (found == lengths.end())
        return STATUS_NOT_FOUND;
    const std::scoped_lock lock(lock_);
    hashContexts_.push_back(std::make_unique<HashContext>(HashContext{found->second, {}}));
    *hashContext = hashContexts_.back().get();
    return 0;
}

int DefaultDevice::velkor_updateHash(void* hashContext, const unsigned char* data, int dataLength,
                                     void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    HashContext* context = findHash(hashContext);
    if (context == nullptr)
        return STATUS_NOT_FOUND;
    context->state.insert(context->state.end(), data, data + dataLength);
    return 0;
}

/// The "hash" is the start of the data, filled up with the data's length.
int DefaultDevice::velkor_finalHash(void* hashContext, unsigned char* hash, int* hashLength, void* /*libraryInstance*/)
{
    const std::scoped_lock lock(lock_);
    HashContext* context = findHash(hashContext);
    if (context == nullptr)
        return STATUS_NOT_FOUND;
    const auto dataLength = static_cast<unsigned char>(context->state.size());
    context->state.resize(context->length, dataLength);
    std::copy(context->state.begin(), context->state.end(), hash);
    *hashLength = static_cast<int>(context->length);
    std::erase_if(hashContexts_, [&](const auto& each) { return each.get() == context; });
    return 0;
}

/// The "signature" is 's', the PSS flag, and the hash.
int DefaultDevice::velkor_signHash(const char* /*deviceId*/, const unsigned char* /*keyIdentifier*/,
                                   const char* /*pin*/, const unsigned char* hash, int hashLength,
                                   unsigned char* signature, int* signatureLength, bool /*flag*/,
                                   void* /*libraryInstance*/, bool isPss)
{
    const int copied = std::min(hashLength, *signatureLength - 2);
    signature[0] = 's';
    signature[1] = isPss ? 1 : 0;
    std::copy_n(hash, copied, signature + 2);
    *signatureLength = copied + 2;
    return 0;
}

int DefaultDevice::velkor_verifySignatureHash(unsigned int /*keyKind*/, const char* /*deviceId*/,
                                              const unsigned char* hash, int hashLength,
                                              const unsigned char* /*publicKey*/, int /*publicKeyLength*/,
                                              const unsigned char* signature, int signatureLength,
                                              void* /*libraryInstance*/, bool /*isPss*/)
{
    if (signatureLength != hashLength + 2 || signature[0] != 's')
        return STATUS_NOT_FOUND;
    return std::equal(hash, hash + hashLength, signature + 2) ? 0 : STATUS_NOT_FOUND;
}

/// The "ciphertext" is the data with every bit turned.
int DefaultDevice::velkor_encrypt(EncryptionType /*encryptionType*/, PaddingMode /*paddingMode*/,
                                  const unsigned char* data, int dataLength, unsigned char* out, int* outLength,
                                  const unsigned char* /*publicKeyDer*/, int /*publicKeyDerLength*/,
                                  void* /*libraryInstance*/)
{
    std::transform(data, data + dataLength, out, [](unsigned char byte) { return static_cast<unsigned char>(~byte); });
    *outLength = dataLength;
    return 0;
}

int DefaultDevice::velkor_decrypt(const char* /*deviceId*/, const unsigned char* /*keyIdentifier*/, const char* /*pin*/,
                                  const unsigned char* data, int dataLength, unsigned char** out, int* outLength,
                                  bool /*deviceFlag*/, void* /*libraryInstance*/)
{
    std::vector<unsigned char> plain;
    std::transform(data, data + dataLength, std::back_inserter(plain),
                   [](unsigned char byte) { return static_cast<unsigned char>(~byte); });
    return giveCopy(plain, out, outLength);
}

/// The "secret" is the peer's point without its first byte.
int DefaultDevice::velkor_ecdhDerive(const char* /*deviceId*/, const unsigned char* /*keyIdentifier*/,
                                     const char* /*pin*/, const unsigned char* peerPublicKey, int peerPublicKeyLength,
                                     unsigned char** out, int* outLength, void* /*libraryInstance*/)
{
    const std::vector<unsigned char> point(peerPublicKey, peerPublicKey + peerPublicKeyLength);
    return giveCopy({point.begin() + (point.empty() ? 0 : 1), point.end()}, out, outLength);
}

int DefaultDevice::velkor_generateRamdomNumber(const char* /*deviceId*/, int count, unsigned char* out, bool /*flag*/,
                                               void* /*libraryInstance*/)
{
    std::memset(out, 0x5A, static_cast<std::size_t>(count));
    return 0;
}
