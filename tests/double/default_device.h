// A device library that answers from records. They hold two devices with key pairs of every kind and certificates; a
// test changes them before it starts. Its cryptography is a placeholder of the right shape, nothing more.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "device_operations.h"

/// What one device holds.
struct DeviceRecords {
    TokenInfo token;
    std::string userPin = "1234";
    std::string soPin = "12345678";
    std::vector<VelkorKeyPair> keyPairs;
    std::vector<VelkorCertificate> certificates;
};

constexpr const char* FIRST_DEVICE = "VK100001";
constexpr const char* SECOND_DEVICE = "VK100002";

/// A key pair record whose public key has the length of its kind and starts with 0xC5 (RSA) or 0x04 (EC).
DOUBLE_EXPORT VelkorKeyPair makeKeyPair(std::uint32_t id, std::uint32_t keyKind, const std::string& label);

/// A certificate record; its DER is no real DER, but is different for each id.
DOUBLE_EXPORT VelkorCertificate makeCertificate(std::uint32_t id, const std::string& label);

class DOUBLE_EXPORT DefaultDevice : public DeviceOperations
{
public:
    DefaultDevice();
    ~DefaultDevice() override;

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

    /// What parsing a DER gives; made when it is new, and a DER without it cannot be parsed.
    CertificateDetails& detailsOf(const std::vector<unsigned char>& der);

    /// Changes the connected devices, also while the monitor runs.
    void setConnected(std::vector<std::string> names);

    bool areKeysDistinct = false; ///< Each generated pair has bytes of its own, whatever its number.
    std::map<std::string, DeviceRecords> devices;
    std::vector<std::pair<std::string, std::vector<unsigned char>>> files;

private:
    struct HashContext;
    DeviceRecords* find(const char* deviceId);
    HashContext* findHash(void* hashContext);

    std::mutex lock_;
    std::map<std::string, CertificateDetails> details_; ///< By DER.
    std::vector<std::unique_ptr<HashContext>> hashContexts_;
    std::uint64_t generated_ = 0;
    /// Each thread's own, until its next call.
    std::map<std::thread::id, std::vector<VelkorKeyPair>> keyPairLists_;
    std::map<std::thread::id, std::vector<VelkorCertificate>> certificateLists_;
    std::vector<std::string> connected_{FIRST_DEVICE, SECOND_DEVICE};
};
