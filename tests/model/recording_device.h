// A device whose calls are written down, and of which one call of a step can be made to fail. Two of them that are
// asked the same answer the same: one stands behind the module, one behind the model.
#pragma once

#include <string>
#include <thread>
#include <vector>

#include "default_device.h"

using DeviceBytes = std::vector<unsigned char>;

/// Which call of a step fails, counted from 1, and with which status; 0: none.
struct PlannedFault {
    int call = 0;
    int status = 0;
};

/// The status of a fault that throws instead, where a call of the device decides alone how the module's call ends.
inline constexpr int FAULT_THROWS = -99;

/// The statuses that faults have. What cannot answer a status answers nothing; a PIN check leaves `status % 3` tries.
inline constexpr int FAULT_STATUSES[] = {1, 7, 20, 40, 48, 242, -1, FAULT_THROWS};

class RecordingDevice final : public DefaultDevice
{
public:
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

    /// Begins a step: no call is written down yet.
    void begin(const PlannedFault& planned);

    /// The step's calls, one line each: name, then every input. Those of the module's monitor are not among them.
    const std::vector<std::string>& calls() const { return calls_; }

    /// The connected devices, without a call.
    std::vector<std::string> connected() { return DefaultDevice::velkor_getConnectedDeviceList(false, nullptr); }

private:
    /// Writes a call down. True when it is the one that fails.
    template <typename... Parts>
    bool fails(const char* name, const Parts&... parts);
    /// What the fault has planned: throws, or gives its status.
    int failure() const;
    std::string shownContext(void* hashContext) const;
    void* realContext(void* hashContext) const;

    const std::thread::id caller_ = std::this_thread::get_id();
    PlannedFault planned_;
    std::vector<std::string> calls_;
    /// What the default device knows a context by. A context is the number of its entry, from 1 on: the same in both
    /// devices. Null once it has ended.
    std::vector<void*> contexts_;
    std::vector<VelkorKeyPair> noKeyPairs_;
    std::vector<VelkorCertificate> noCertificates_;
};
