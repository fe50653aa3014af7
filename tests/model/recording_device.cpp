#include "recording_device.h"

#include <cstdint>
#include <stdexcept>

#include "hexadecimal.h"
#include "velkor/record_fields.h"

namespace
{

constexpr int NO_SUCH_CONTEXT = 7;
constexpr int GIVES_A_BUFFER = 7;   ///< The status of a failure that allocates all the same,
constexpr int GIVES_NO_BUFFER = 48; ///< and what stands for a success without a buffer.

std::string shown(const std::string& text)
{
    return '"' + text + '"';
}

std::string shown(const char* text)
{
    return text != nullptr ? shown(std::string(text)) : "null";
}

std::string shown(bool flag)
{
    return flag ? "true" : "false";
}

std::string shown(int number)
{
    return std::to_string(number);
}

std::string shown(unsigned int number)
{
    return std::to_string(number);
}

std::string shown(std::span<const unsigned char> bytes)
{
    return std::to_string(bytes.size()) + ':' + hexadecimal(bytes);
}

std::string shown(const DeviceBytes& bytes)
{
    return shown(std::span(bytes));
}

/// Bytes with a length of the module's. One that is negative is told, and nothing is read.
std::string shown(const unsigned char* bytes, int length)
{
    if (length < 0)
        return "length " + std::to_string(length);
    return shown(std::span(bytes, static_cast<std::size_t>(length)));
}

std::string shownIdentifier(const unsigned char* identifier)
{
    return shown(identifier, static_cast<int>(KEY_IDENTIFIER_SIZE));
}

std::string shownLibrary(const void* libraryInstance)
{
    return libraryInstance != nullptr ? "library" : "no library";
}

std::string shownTexts(const std::vector<std::string>& texts)
{
    std::string all;
    for (const std::string& text : texts)
        all += shown(text);
    return all;
}

} // namespace

template <typename... Parts>
bool RecordingDevice::fails(const char* name, const Parts&... parts)
{
    if (std::this_thread::get_id() != caller_)
        return false;
    [[maybe_unused]] std::string& line = calls_.emplace_back(name);
    ((line += ' ', line += parts), ...);
    return static_cast<int>(calls_.size()) == planned_.call;
}

void RecordingDevice::begin(const PlannedFault& planned)
{
    planned_ = planned;
    calls_.clear();
}

int RecordingDevice::failure() const
{
    if (planned_.status == FAULT_THROWS)
        throw std::runtime_error("broken");
    return planned_.status;
}

void RecordingDevice::velkor_createInstance(void** libraryInstance)
{
    if (!fails("createInstance"))
        DefaultDevice::velkor_createInstance(libraryInstance);
}

void RecordingDevice::velkor_releaseInstance(void* libraryInstance)
{
    fails("releaseInstance", shownLibrary(libraryInstance));
}

std::vector<std::string> RecordingDevice::velkor_getConnectedDeviceList(bool refresh, void* libraryInstance)
{
    if (fails("getConnectedDeviceList", shown(refresh), shownLibrary(libraryInstance)))
        return {};
    return connected();
}

TokenInfo RecordingDevice::velkor_getTokenInfo(const char* deviceName, void* libraryInstance)
{
    if (fails("getTokenInfo", shown(deviceName), shownLibrary(libraryInstance)))
        return {};
    return DefaultDevice::velkor_getTokenInfo(deviceName, libraryInstance);
}

int RecordingDevice::velkor_initDevice(const char* deviceId, bool readContents, void* libraryInstance)
{
    if (fails("initDevice", shown(deviceId), shown(readContents), shownLibrary(libraryInstance)))
        return planned_.status;
    return DefaultDevice::velkor_initDevice(deviceId, readContents, libraryInstance);
}

int RecordingDevice::velkor_validatePassword(const char* deviceId, const char* pin, int userType, int* triesLeft,
                                             void* libraryInstance)
{
    if (fails("validatePassword", shown(deviceId), shown(pin), shown(userType), shown(*triesLeft),
              shownLibrary(libraryInstance))) {
        *triesLeft = planned_.status % 3;
        return failure();
    }
    return DefaultDevice::velkor_validatePassword(deviceId, pin, userType, triesLeft, libraryInstance);
}

bool RecordingDevice::velkor_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin,
                                                int* triesLeft, bool securityOfficer, bool force, void* libraryInstance)
{
    if (fails("changeUserPassword", shown(deviceId), shown(oldPin), shown(newPin), shown(*triesLeft),
              shown(securityOfficer), shown(force), shownLibrary(libraryInstance))) {
        *triesLeft = planned_.status;
        failure();
        return false;
    }
    return DefaultDevice::velkor_changeUserPassword(deviceId, oldPin, newPin, triesLeft, securityOfficer, force,
                                                    libraryInstance);
}

std::vector<VelkorKeyPair>& RecordingDevice::velkor_getKeyPairList(const char* deviceId, void* libraryInstance)
{
    if (fails("getKeyPairList", shown(deviceId), shownLibrary(libraryInstance)))
        return noKeyPairs_;
    return DefaultDevice::velkor_getKeyPairList(deviceId, libraryInstance);
}

std::vector<VelkorCertificate>& RecordingDevice::velkor_getCertificateList(const char* deviceId, void* libraryInstance)
{
    if (fails("getCertificateList", shown(deviceId), shownLibrary(libraryInstance)))
        return noCertificates_;
    return DefaultDevice::velkor_getCertificateList(deviceId, libraryInstance);
}

int RecordingDevice::velkor_updateKeyPairDetails(const char* deviceId, const unsigned char* keyIdentifier,
                                                 const char* pin, const char* label, const unsigned char* objectId,
                                                 int objectIdLength, void* libraryInstance)
{
    if (fails("updateKeyPairDetails", shown(deviceId), shownIdentifier(keyIdentifier), shown(pin), shown(label),
              shown(objectId, objectIdLength), shownLibrary(libraryInstance)))
        return planned_.status;
    return DefaultDevice::velkor_updateKeyPairDetails(deviceId, keyIdentifier, pin, label, objectId, objectIdLength,
                                                      libraryInstance);
}

int RecordingDevice::velkor_deleteKeyPair(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                          bool deviceFlag, void* libraryInstance)
{
    if (fails("deleteKeyPair", shown(deviceId), shownIdentifier(keyIdentifier), shown(pin), shown(deviceFlag),
              shownLibrary(libraryInstance)))
        return failure();
    return DefaultDevice::velkor_deleteKeyPair(deviceId, keyIdentifier, pin, deviceFlag, libraryInstance);
}

int RecordingDevice::velkor_deleteCertificate(const char* deviceId, const unsigned char* certificateIdentifier,
                                              const char* pin, void* libraryInstance)
{
    if (fails("deleteCertificate", shown(deviceId), shownIdentifier(certificateIdentifier), shown(pin),
              shownLibrary(libraryInstance)))
        return failure();
    return DefaultDevice::velkor_deleteCertificate(deviceId, certificateIdentifier, pin, libraryInstance);
}

int RecordingDevice::velkor_importCertificate(const char* deviceId, const char* pin, VelkorCertificate* certificate,
                                              void* libraryInstance)
{
    if (fails("importCertificate", shown(deviceId), shown(pin), shown(velkor::objectIdOf(*certificate)),
              shown(certificate->der), shown(certificate->label), shownLibrary(libraryInstance)))
        return failure();
    return DefaultDevice::velkor_importCertificate(deviceId, pin, certificate, libraryInstance);
}

int RecordingDevice::velkor_importPfx(const char* deviceId, const char* pin, ImportPFXDetails* details,
                                      void* libraryInstance)
{
    if (fails("importPfx", shown(deviceId), shown(pin), shown(details->kind), shown(details->label),
              shown(details->objectId), shown(details->modulus), shown(details->privateExponent),
              shown(details->prime1), shownLibrary(libraryInstance)))
        return failure();
    return DefaultDevice::velkor_importPfx(deviceId, pin, details, libraryInstance);
}

std::vector<std::pair<std::string, std::vector<unsigned char>>>
RecordingDevice::velkor_getFilesWithExtensionsAndConvertDER(const char* folder,
                                                            const std::vector<std::string>& extensions, bool recursive,
                                                            void* libraryInstance)
{
    if (fails("getFilesWithExtensionsAndConvertDER", shown(folder), shownTexts(extensions), shown(recursive),
              shownLibrary(libraryInstance)))
        return {};
    return DefaultDevice::velkor_getFilesWithExtensionsAndConvertDER(folder, extensions, recursive, libraryInstance);
}

/// With or without the library: labels are computed without it.
int RecordingDevice::velkor_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& details,
                                                  void* libraryInstance)
{
    if (fails("getCertificateDetails", shown(der, derLength)))
        return planned_.status;
    return DefaultDevice::velkor_getCertificateDetails(der, derLength, details, libraryInstance);
}

std::vector<unsigned char> RecordingDevice::velkor_getCertificateSubject(const unsigned char* der, int derLength,
                                                                         void* libraryInstance)
{
    if (fails("getCertificateSubject", shown(der, derLength), shownLibrary(libraryInstance)))
        return {};
    return DefaultDevice::velkor_getCertificateSubject(der, derLength, libraryInstance);
}

std::vector<unsigned char> RecordingDevice::velkor_getCertificateIssuer(const unsigned char* der, int derLength,
                                                                        void* libraryInstance)
{
    if (fails("getCertificateIssuer", shown(der, derLength), shownLibrary(libraryInstance)))
        return {};
    return DefaultDevice::velkor_getCertificateIssuer(der, derLength, libraryInstance);
}

std::vector<unsigned char> RecordingDevice::velkor_getCertificateSerialDER(const unsigned char* der, int derLength,
                                                                           void* libraryInstance)
{
    if (fails("getCertificateSerialDER", shown(der, derLength), shownLibrary(libraryInstance)))
        return {};
    return DefaultDevice::velkor_getCertificateSerialDER(der, derLength, libraryInstance);
}

int RecordingDevice::velkor_generateKeyPair(const char* deviceId, const char* pin, VelkorKeyPair* keyPair,
                                            void* libraryInstance)
{
    if (fails("generateKeyPair", shown(deviceId), shown(pin), shown(velkor::objectIdOf(*keyPair)),
              shown(keyPair->label), shown(keyPair->usageFlags), shown(keyPair->keyKind),
              shownLibrary(libraryInstance)))
        return failure();
    return DefaultDevice::velkor_generateKeyPair(deviceId, pin, keyPair, libraryInstance);
}

std::string RecordingDevice::shownContext(void* hashContext) const
{
    return "context " + std::to_string(reinterpret_cast<std::uintptr_t>(hashContext));
}

void* RecordingDevice::realContext(void* hashContext) const
{
    const auto number = reinterpret_cast<std::uintptr_t>(hashContext);
    return number >= 1 && number <= contexts_.size() ? contexts_[number - 1] : nullptr;
}

/// Derivation has hash codes of its own; that of SHA-1 there is none of the default device's.
int RecordingDevice::velkor_initHash(const char* deviceId, int hashAlgorithm, void** hashContext, void* libraryInstance)
{
    if (fails("initHash", shown(deviceId), shown(hashAlgorithm), shownLibrary(libraryInstance)))
        return failure();
    void* real = nullptr;
    const int known = hashAlgorithm == 1 ? static_cast<int>(HASH_SHA1) : hashAlgorithm;
    const int status = DefaultDevice::velkor_initHash(deviceId, known, &real, libraryInstance);
    if (status != 0)
        return status;
    contexts_.push_back(real);
    *hashContext = reinterpret_cast<void*>(static_cast<std::uintptr_t>(contexts_.size()));
    return 0;
}

int RecordingDevice::velkor_updateHash(void* hashContext, const unsigned char* data, int dataLength,
                                       void* libraryInstance)
{
    if (fails("updateHash", shownContext(hashContext), shown(data, dataLength), shownLibrary(libraryInstance)))
        return failure();
    void* real = realContext(hashContext);
    if (real == nullptr)
        return NO_SUCH_CONTEXT;
    return DefaultDevice::velkor_updateHash(real, data, dataLength, libraryInstance);
}

int RecordingDevice::velkor_finalHash(void* hashContext, unsigned char* hash, int* hashLength, void* libraryInstance)
{
    if (fails("finalHash", shownContext(hashContext), shown(*hashLength), shownLibrary(libraryInstance)))
        return failure();
    void* real = realContext(hashContext);
    if (real == nullptr)
        return NO_SUCH_CONTEXT;
    contexts_[reinterpret_cast<std::uintptr_t>(hashContext) - 1] = nullptr;
    return DefaultDevice::velkor_finalHash(real, hash, hashLength, libraryInstance);
}

int RecordingDevice::velkor_signHash(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                     const unsigned char* hash, int hashLength, unsigned char* signature,
                                     int* signatureLength, bool flag, void* libraryInstance, bool isPss)
{
    if (fails("signHash", shown(deviceId), shownIdentifier(keyIdentifier), shown(pin), shown(hash, hashLength),
              shown(*signatureLength), shown(flag), shownLibrary(libraryInstance), shown(isPss)))
        return failure();
    return DefaultDevice::velkor_signHash(deviceId, keyIdentifier, pin, hash, hashLength, signature, signatureLength,
                                          flag, libraryInstance, isPss);
}

int RecordingDevice::velkor_verifySignatureHash(unsigned int keyKind, const char* deviceId, const unsigned char* hash,
                                                int hashLength, const unsigned char* publicKey, int publicKeyLength,
                                                const unsigned char* signature, int signatureLength,
                                                void* libraryInstance, bool isPss)
{
    if (fails("verifySignatureHash", shown(keyKind), shown(deviceId), shown(hash, hashLength),
              shown(publicKey, publicKeyLength), shown(signature, signatureLength), shownLibrary(libraryInstance),
              shown(isPss)))
        return failure();
    return DefaultDevice::velkor_verifySignatureHash(keyKind, deviceId, hash, hashLength, publicKey, publicKeyLength,
                                                     signature, signatureLength, libraryInstance, isPss);
}

int RecordingDevice::velkor_encrypt(EncryptionType encryptionType, PaddingMode paddingMode, const unsigned char* data,
                                    int dataLength, unsigned char* out, int* outLength,
                                    const unsigned char* publicKeyDer, int publicKeyDerLength, void* libraryInstance)
{
    if (fails("encrypt", shown(static_cast<int>(encryptionType)), shown(static_cast<int>(paddingMode)),
              shown(data, dataLength), shown(*outLength), shown(publicKeyDer, publicKeyDerLength),
              shownLibrary(libraryInstance)))
        return failure();
    return DefaultDevice::velkor_encrypt(encryptionType, paddingMode, data, dataLength, out, outLength, publicKeyDer,
                                         publicKeyDerLength, libraryInstance);
}

int RecordingDevice::velkor_decrypt(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                    const unsigned char* data, int dataLength, unsigned char** out, int* outLength,
                                    bool deviceFlag, void* libraryInstance)
{
    const bool failing = fails("decrypt", shown(deviceId), shownIdentifier(keyIdentifier), shown(pin),
                               shown(data, dataLength), shown(deviceFlag), shownLibrary(libraryInstance));
    if (failing && planned_.status != GIVES_A_BUFFER)
        return failure();
    DefaultDevice::velkor_decrypt(deviceId, keyIdentifier, pin, data, dataLength, out, outLength, deviceFlag,
                                  libraryInstance);
    return failing ? failure() : 0;
}

int RecordingDevice::velkor_ecdhDerive(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                       const unsigned char* peerPublicKey, int peerPublicKeyLength, unsigned char** out,
                                       int* outLength, void* libraryInstance)
{
    const bool failing = fails("ecdhDerive", shown(deviceId), shownIdentifier(keyIdentifier), shown(pin),
                               shown(peerPublicKey, peerPublicKeyLength), shownLibrary(libraryInstance));
    if (failing && planned_.status == GIVES_NO_BUFFER) {
        *out = nullptr;
        *outLength = 32;
        return 0;
    }
    if (failing && planned_.status != GIVES_A_BUFFER)
        return failure();
    DefaultDevice::velkor_ecdhDerive(deviceId, keyIdentifier, pin, peerPublicKey, peerPublicKeyLength, out, outLength,
                                     libraryInstance);
    return failing ? failure() : 0;
}

int RecordingDevice::velkor_generateRamdomNumber(const char* deviceId, int count, unsigned char* out, bool flag,
                                                 void* libraryInstance)
{
    if (fails("generateRamdomNumber", shown(deviceId), shown(count), shown(flag), shownLibrary(libraryInstance)))
        return failure();
    return DefaultDevice::velkor_generateRamdomNumber(deviceId, count, out, flag, libraryInstance);
}
