// The double as a run has it: it answers as the default device does, unless the input says otherwise. Then it refuses,
// throws, or answers with records, lengths and texts of the input, as far as a device library may.
#pragma once

#include <thread>

#include <fuzzer/FuzzedDataProvider.h>

#include "default_device.h"

namespace fuzz
{

class FuzzedDevice : public DefaultDevice
{
public:
    /// Answers calls of the thread that makes it from the input; those of other threads, whose moments no input can
    /// choose, are answered as usual.
    explicit FuzzedDevice(FuzzedDataProvider& input) : input_(input) {}

    /// From here on everything is answered as usual, or again from the input.
    void setCalm(bool isCalm) { isCalm_ = isCalm; }
    bool isCalm() const { return isCalm_; }

    void velkor_createInstance(void** libraryInstance) override;
    void velkor_releaseInstance(void* libraryInstance) override;
    std::vector<std::string> velkor_getConnectedDeviceList(bool refresh, void* libraryInstance) override;
    TokenInfo velkor_getTokenInfo(const char* deviceName, void* libraryInstance) override;
    int velkor_initDevice(const char* deviceId, bool readContents, void* libraryInstance) override;
    int velkor_validatePassword(const char* deviceId, const char* pin, int userType, int* triesLeft,
                                void* libraryInstance) override;
    bool velkor_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin, int* triesLeft,
                                   bool securityOfficer, bool force, void* libraryInstance) override;
    std::vector<VelkorKeyPair>& velkor_getKeyPairList(const char* deviceId, void* libraryInstance) override;
    std::vector<VelkorCertificate>& velkor_getCertificateList(const char* deviceId, void* libraryInstance) override;
    int velkor_updateKeyPairDetails(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                    const char* label, const unsigned char* objectId, int objectIdLength,
                                    void* libraryInstance) override;
    int velkor_deleteKeyPair(const char* deviceId, const unsigned char* keyIdentifier, const char* pin, bool deviceFlag,
                             void* libraryInstance) override;
    int velkor_deleteCertificate(const char* deviceId, const unsigned char* certificateIdentifier, const char* pin,
                                 void* libraryInstance) override;
    int velkor_importCertificate(const char* deviceId, const char* pin, VelkorCertificate* certificate,
                                 void* libraryInstance) override;
    int velkor_importPfx(const char* deviceId, const char* pin, ImportPFXDetails* details,
                         void* libraryInstance) override;
    std::vector<std::pair<std::string, std::vector<unsigned char>>> velkor_getFilesWithExtensionsAndConvertDER(
        const char* folder, const std::vector<std::string>& extensions, bool recursive, void* libraryInstance) override;
    int velkor_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& details,
                                     void* libraryInstance) override;
    std::vector<unsigned char> velkor_getCertificateSubject(const unsigned char* der, int derLength,
                                                            void* libraryInstance) override;
    std::vector<unsigned char> velkor_getCertificateIssuer(const unsigned char* der, int derLength,
                                                           void* libraryInstance) override;
    std::vector<unsigned char> velkor_getCertificateSerialDER(const unsigned char* der, int derLength,
                                                              void* libraryInstance) override;
    int velkor_generateKeyPair(const char* deviceId, const char* pin, VelkorKeyPair* keyPair,
                               void* libraryInstance) override;
    int velkor_initHash(const char* deviceId, int hashAlgorithm, void** hashContext, void* libraryInstance) override;
    int velkor_updateHash(void* hashContext, const unsigned char* data, int dataLength, void* libraryInstance) override;
    int velkor_finalHash(void* hashContext, unsigned char* hash, int* hashLength, void* libraryInstance) override;
    int velkor_signHash(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                        const unsigned char* hash, int hashLength, unsigned char* signature, int* signatureLength,
                        bool flag, void* libraryInstance, bool isPss) override;
    int velkor_verifySignatureHash(unsigned int keyKind, const char* deviceId, const unsigned char* hash,
                                   int hashLength, const unsigned char* publicKey, int publicKeyLength,
                                   const unsigned char* signature, int signatureLength, void* libraryInstance,
                                   bool isPss) override;
    int velkor_encrypt(EncryptionType encryptionType, PaddingMode paddingMode, const unsigned char* data,
                       int dataLength, unsigned char* out, int* outLength, const unsigned char* publicKeyDer,
                       int publicKeyDerLength, void* libraryInstance) override;
    int velkor_decrypt(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                       const unsigned char* data, int dataLength, unsigned char** out, int* outLength, bool deviceFlag,
                       void* libraryInstance) override;
    int velkor_ecdhDerive(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                          const unsigned char* peerPublicKey, int peerPublicKeyLength, unsigned char** out,
                          int* outLength, void* libraryInstance) override;
    int velkor_generateRamdomNumber(const char* deviceId, int count, unsigned char* out, bool flag,
                                    void* libraryInstance) override;

private:
    enum class Turn { Usual, Odd, Refused };

    /// What the call at hand is to answer; throws where that is an exception.
    Turn turn();
    int refusal();
    int length();
    std::string text(std::size_t most);
    std::vector<unsigned char> bytes(std::size_t most);
    VelkorKeyPair keyPair();
    VelkorCertificate certificate();
    /// A buffer of the library's own, which the module releases.
    void give(unsigned char** out, int* outLength);

    template <typename Usual>
    int usualOrRefused(const Usual& usual)
    {
        return turn() == Turn::Usual ? usual() : refusal();
    }

    FuzzedDataProvider& input_;
    bool isCalm_ = false;
    std::thread::id host_ = std::this_thread::get_id();
    std::vector<VelkorKeyPair> keyPairs_;         ///< The last list that was not the usual one.
    std::vector<VelkorCertificate> certificates_; ///< The same.
};

} // namespace fuzz
