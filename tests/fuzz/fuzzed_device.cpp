#include "fuzzed_device.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <new>
#include <stdexcept>

namespace fuzz
{
namespace
{

constexpr int STATUSES[] = {
    1,   7,  STATUS_DEVICE_REMOVED,           STATUS_CHECK_NOT_POSSIBLE,      STATUS_DEVICE_UNREACHABLE, 312,
    313, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()};

/// What the default device, which is no cryptography, has room for.
constexpr int LARGEST_MESSAGE = 512;

/// Opaque to everybody else.
int instanceObject = 0;

template <std::size_t Capacity>
void fill(FuzzedDataProvider& input, unsigned char (&field)[Capacity])
{
    const std::vector<unsigned char> bytes = input.ConsumeBytes<unsigned char>(Capacity);
    std::copy(bytes.begin(), bytes.end(), field);
}

template <typename Record>
void fillCommon(FuzzedDataProvider& input, Record& record)
{
    record.id = input.ConsumeIntegral<std::uint32_t>();
    record.objectIdLength = input.ConsumeIntegral<std::int32_t>();
    std::fill(std::begin(record.label), std::end(record.label), input.ConsumeBool() ? 'x' : '\0');
}

} // namespace

FuzzedDevice::Turn FuzzedDevice::turn()
{
    if (std::this_thread::get_id() != host_ || isCalm_)
        return Turn::Usual;
    switch (input_.ConsumeIntegralInRange(0, 63)) {
    case 1:
    case 2:
    case 3:
        return Turn::Odd;
    case 4:
    case 5:
        return Turn::Refused;
    case 6:
        throw std::runtime_error(text(20));
    case 7:
        throw std::bad_alloc();
    case 8:
        throw 8;
    default:
        return Turn::Usual;
    }
}

int FuzzedDevice::refusal()
{
    return input_.PickValueInArray(STATUSES);
}

int FuzzedDevice::length()
{
    constexpr int LENGTHS[] = {
        0, 1, 20, 64, 65, 256, 1024, 1025, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()};
    return input_.PickValueInArray(LENGTHS);
}

std::string FuzzedDevice::text(std::size_t most)
{
    return input_.ConsumeRandomLengthString(most);
}

std::vector<unsigned char> FuzzedDevice::bytes(std::size_t most)
{
    return input_.ConsumeBytes<unsigned char>(input_.ConsumeIntegralInRange<std::size_t>(0, most));
}

VelkorKeyPair FuzzedDevice::keyPair()
{
    VelkorKeyPair record = makeKeyPair(1, input_.ConsumeIntegralInRange<std::uint32_t>(0, 9), text(10));
    if (input_.ConsumeBool())
        return record;
    fillCommon(input_, record);
    fill(input_, record.keyIdentifier);
    record.publicKeyLength = length();
    record.usageFlags = input_.ConsumeIntegral<std::uint32_t>();
    record.keyKind = input_.ConsumeIntegral<std::uint32_t>();
    return record;
}

VelkorCertificate FuzzedDevice::certificate()
{
    VelkorCertificate record = makeCertificate(input_.ConsumeIntegralInRange<std::uint32_t>(0, 9), text(10));
    if (input_.ConsumeBool())
        return record;
    fillCommon(input_, record);
    record.der = bytes(60);
    return record;
}

void FuzzedDevice::give(unsigned char** out, int* outLength)
{
    if (input_.ConsumeBool()) { // Nothing, whatever its length says.
        *outLength = length();
        return;
    }
    const std::vector<unsigned char> content = bytes(200);
    *out = static_cast<unsigned char*>(std::malloc(content.size() + 1));
    std::copy(content.begin(), content.end(), *out);
    *outLength = input_.ConsumeBool() ? static_cast<int>(content.size()) : -1;
}

void FuzzedDevice::velkor_createInstance(void** libraryInstance)
{
    if (turn() == Turn::Usual)
        *libraryInstance = &instanceObject;
}

void FuzzedDevice::velkor_releaseInstance(void* /*libraryInstance*/)
{
    turn();
}

std::vector<std::string> FuzzedDevice::velkor_getConnectedDeviceList(bool refresh, void* libraryInstance)
{
    if (turn() == Turn::Usual)
        return DefaultDevice::velkor_getConnectedDeviceList(refresh, libraryInstance);
    std::vector<std::string> names(input_.ConsumeIntegralInRange<std::size_t>(0, 4));
    for (std::string& name : names)
        name = input_.ConsumeBool() ? std::string(input_.ConsumeBool() ? FIRST_DEVICE : SECOND_DEVICE) : text(40);
    return names;
}

TokenInfo FuzzedDevice::velkor_getTokenInfo(const char* deviceName, void* libraryInstance)
{
    TokenInfo token = DefaultDevice::velkor_getTokenInfo(deviceName, libraryInstance);
    const Turn now = turn();
    if (now == Turn::Refused)
        return {};
    if (now == Turn::Usual)
        return token;
    for (std::string* field : {&token.serialNumber, &token.manufacturer, &token.label, &token.model,
                               &token.firmwareVersion, &token.hardwareVersion})
        *field = text(140);
    for (std::int32_t* field : {&token.pinChanged, &token.pinTriesMax, &token.pinTriesLeft})
        *field = input_.ConsumeIntegralInRange<std::int32_t>(-1, 3);
    return token;
}

int FuzzedDevice::velkor_initDevice(const char* deviceId, bool readContents, void* libraryInstance)
{
    return usualOrRefused([&] { return DefaultDevice::velkor_initDevice(deviceId, readContents, libraryInstance); });
}

int FuzzedDevice::velkor_validatePassword(const char* deviceId, const char* pin, int userType, int* triesLeft,
                                          void* libraryInstance)
{
    if (turn() == Turn::Usual)
        return DefaultDevice::velkor_validatePassword(deviceId, pin, userType, triesLeft, libraryInstance);
    *triesLeft = length();
    return refusal();
}

bool FuzzedDevice::velkor_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin,
                                             int* triesLeft, bool securityOfficer, bool force, void* libraryInstance)
{
    if (turn() == Turn::Usual)
        return DefaultDevice::velkor_changeUserPassword(deviceId, oldPin, newPin, triesLeft, securityOfficer, force,
                                                        libraryInstance);
    *triesLeft = length();
    return false;
}

std::vector<VelkorKeyPair>& FuzzedDevice::velkor_getKeyPairList(const char* deviceId, void* libraryInstance)
{
    const Turn now = turn();
    if (now == Turn::Usual)
        return DefaultDevice::velkor_getKeyPairList(deviceId, libraryInstance);
    keyPairs_.clear();
    if (now == Turn::Odd)
        std::generate_n(std::back_inserter(keyPairs_), input_.ConsumeIntegralInRange(1, 3), [&] { return keyPair(); });
    return keyPairs_;
}

std::vector<VelkorCertificate>& FuzzedDevice::velkor_getCertificateList(const char* deviceId, void* libraryInstance)
{
    const Turn now = turn();
    if (now == Turn::Usual)
        return DefaultDevice::velkor_getCertificateList(deviceId, libraryInstance);
    certificates_.clear();
    if (now == Turn::Odd)
        std::generate_n(std::back_inserter(certificates_), input_.ConsumeIntegralInRange(1, 3),
                        [&] { return certificate(); });
    return certificates_;
}

int FuzzedDevice::velkor_updateKeyPairDetails(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                              const char* label, const unsigned char* objectId, int objectIdLength,
                                              void* libraryInstance)
{
    return usualOrRefused([&] {
        return DefaultDevice::velkor_updateKeyPairDetails(deviceId, keyIdentifier, pin, label, objectId, objectIdLength,
                                                          libraryInstance);
    });
}

int FuzzedDevice::velkor_deleteKeyPair(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                       bool deviceFlag, void* libraryInstance)
{
    return usualOrRefused(
        [&] { return DefaultDevice::velkor_deleteKeyPair(deviceId, keyIdentifier, pin, deviceFlag, libraryInstance); });
}

int FuzzedDevice::velkor_deleteCertificate(const char* deviceId, const unsigned char* certificateIdentifier,
                                           const char* pin, void* libraryInstance)
{
    return usualOrRefused(
        [&] { return DefaultDevice::velkor_deleteCertificate(deviceId, certificateIdentifier, pin, libraryInstance); });
}

int FuzzedDevice::velkor_importCertificate(const char* deviceId, const char* pin, VelkorCertificate* certificate,
                                           void* libraryInstance)
{
    return usualOrRefused(
        [&] { return DefaultDevice::velkor_importCertificate(deviceId, pin, certificate, libraryInstance); });
}

int FuzzedDevice::velkor_importPfx(const char* deviceId, const char* pin, ImportPFXDetails* details,
                                   void* libraryInstance)
{
    return usualOrRefused([&] { return DefaultDevice::velkor_importPfx(deviceId, pin, details, libraryInstance); });
}

std::vector<std::pair<std::string, std::vector<unsigned char>>>
FuzzedDevice::velkor_getFilesWithExtensionsAndConvertDER(const char* folder, const std::vector<std::string>& extensions,
                                                         bool recursive, void* libraryInstance)
{
    if (turn() == Turn::Usual)
        return DefaultDevice::velkor_getFilesWithExtensionsAndConvertDER(folder, extensions, recursive,
                                                                         libraryInstance);
    std::vector<std::pair<std::string, std::vector<unsigned char>>> found(
        input_.ConsumeIntegralInRange<std::size_t>(1, 4));
    for (auto& [name, der] : found)
        der = bytes(8);
    return found;
}

/// Names are short, so that issuers find each other.
int FuzzedDevice::velkor_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& details,
                                               void* libraryInstance)
{
    const Turn now = turn();
    if (now == Turn::Refused)
        return refusal();
    if (now == Turn::Usual)
        return DefaultDevice::velkor_getCertificateDetails(der, derLength, details, libraryInstance);
    details.subject = "CN=" + text(2) + ",O=Example";
    details.issuer = "CN=" + text(2);
    details.subjectCommonName = text(100);
    details.issuerCommonName = text(100);
    details.publicKey = bytes(30);
    return 0;
}

std::vector<unsigned char> FuzzedDevice::velkor_getCertificateSubject(const unsigned char* der, int derLength,
                                                                      void* libraryInstance)
{
    return turn() == Turn::Usual ? DefaultDevice::velkor_getCertificateSubject(der, derLength, libraryInstance)
                                 : bytes(40);
}

std::vector<unsigned char> FuzzedDevice::velkor_getCertificateIssuer(const unsigned char* der, int derLength,
                                                                     void* libraryInstance)
{
    return turn() == Turn::Usual ? DefaultDevice::velkor_getCertificateIssuer(der, derLength, libraryInstance)
                                 : bytes(40);
}

std::vector<unsigned char> FuzzedDevice::velkor_getCertificateSerialDER(const unsigned char* der, int derLength,
                                                                        void* libraryInstance)
{
    return turn() == Turn::Usual ? DefaultDevice::velkor_getCertificateSerialDER(der, derLength, libraryInstance)
                                 : bytes(40);
}

int FuzzedDevice::velkor_generateKeyPair(const char* deviceId, const char* pin, VelkorKeyPair* generated,
                                         void* libraryInstance)
{
    const Turn now = turn();
    if (now == Turn::Refused)
        return refusal();
    if (now == Turn::Usual)
        return DefaultDevice::velkor_generateKeyPair(deviceId, pin, generated, libraryInstance);
    *generated = keyPair();
    return 0;
}

int FuzzedDevice::velkor_initHash(const char* deviceId, int hashAlgorithm, void** hashContext, void* libraryInstance)
{
    return usualOrRefused(
        [&] { return DefaultDevice::velkor_initHash(deviceId, hashAlgorithm, hashContext, libraryInstance); });
}

int FuzzedDevice::velkor_updateHash(void* hashContext, const unsigned char* data, int dataLength, void* libraryInstance)
{
    return usualOrRefused(
        [&] { return DefaultDevice::velkor_updateHash(hashContext, data, dataLength, libraryInstance); });
}

int FuzzedDevice::velkor_finalHash(void* hashContext, unsigned char* hash, int* hashLength, void* libraryInstance)
{
    const Turn now = turn();
    const int status = DefaultDevice::velkor_finalHash(hashContext, hash, hashLength, libraryInstance);
    if (now == Turn::Odd)
        *hashLength = length();
    return now == Turn::Refused ? refusal() : status;
}

int FuzzedDevice::velkor_signHash(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                  const unsigned char* hash, int hashLength, unsigned char* signature,
                                  int* signatureLength, bool flag, void* libraryInstance, bool isPss)
{
    const Turn now = turn();
    if (now == Turn::Refused)
        return refusal();
    const int status = DefaultDevice::velkor_signHash(deviceId, keyIdentifier, pin, hash, hashLength, signature,
                                                      signatureLength, flag, libraryInstance, isPss);
    if (now == Turn::Odd)
        *signatureLength = length();
    return status;
}

int FuzzedDevice::velkor_verifySignatureHash(unsigned int keyKind, const char* deviceId, const unsigned char* hash,
                                             int hashLength, const unsigned char* publicKey, int publicKeyLength,
                                             const unsigned char* signature, int signatureLength, void* libraryInstance,
                                             bool isPss)
{
    return usualOrRefused([&] {
        return DefaultDevice::velkor_verifySignatureHash(keyKind, deviceId, hash, hashLength, publicKey,
                                                         publicKeyLength, signature, signatureLength, libraryInstance,
                                                         isPss);
    });
}

int FuzzedDevice::velkor_encrypt(EncryptionType encryptionType, PaddingMode paddingMode, const unsigned char* data,
                                 int dataLength, unsigned char* out, int* outLength, const unsigned char* publicKeyDer,
                                 int publicKeyDerLength, void* libraryInstance)
{
    const Turn now = turn();
    if (now == Turn::Refused)
        return refusal();
    if (dataLength < 0 || dataLength > LARGEST_MESSAGE)
        return STATUSES[0];
    const int status = DefaultDevice::velkor_encrypt(encryptionType, paddingMode, data, dataLength, out, outLength,
                                                     publicKeyDer, publicKeyDerLength, libraryInstance);
    if (now == Turn::Odd)
        *outLength = length();
    return status;
}

int FuzzedDevice::velkor_decrypt(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                 const unsigned char* data, int dataLength, unsigned char** out, int* outLength,
                                 bool deviceFlag, void* libraryInstance)
{
    const Turn now = turn();
    if (now == Turn::Refused)
        return refusal();
    if (dataLength < 1 || dataLength > LARGEST_MESSAGE)
        return STATUSES[0];
    if (now == Turn::Usual)
        return DefaultDevice::velkor_decrypt(deviceId, keyIdentifier, pin, data, dataLength, out, outLength, deviceFlag,
                                             libraryInstance);
    give(out, outLength);
    return 0;
}

int FuzzedDevice::velkor_ecdhDerive(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                    const unsigned char* peerPublicKey, int peerPublicKeyLength, unsigned char** out,
                                    int* outLength, void* libraryInstance)
{
    const Turn now = turn();
    if (now == Turn::Refused)
        return refusal();
    if (peerPublicKeyLength < 2)
        return STATUSES[0];
    if (now == Turn::Usual)
        return DefaultDevice::velkor_ecdhDerive(deviceId, keyIdentifier, pin, peerPublicKey, peerPublicKeyLength, out,
                                                outLength, libraryInstance);
    give(out, outLength);
    return 0;
}

int FuzzedDevice::velkor_generateRamdomNumber(const char* deviceId, int count, unsigned char* out, bool flag,
                                              void* libraryInstance)
{
    return usualOrRefused(
        [&] { return DefaultDevice::velkor_generateRamdomNumber(deviceId, count, out, flag, libraryInstance); });
}

} // namespace fuzz
