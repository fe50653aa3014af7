// The operations of a device library as an interface, so that a test can put its own in their place.
#pragma once

#include "velkor/device_service.h"

// What a compiler wants before the double's own functions.
#ifndef DOUBLE_EXPORT
#define DOUBLE_EXPORT
#endif

struct DeviceOperations {
    DeviceOperations() = default;
    DeviceOperations(const DeviceOperations&) = delete;
    DeviceOperations& operator=(const DeviceOperations&) = delete;
    virtual ~DeviceOperations() = default;

    virtual void velkor_createInstance(void** libraryInstance) = 0;
    virtual void velkor_releaseInstance(void* libraryInstance) = 0;
    virtual std::vector<std::string> velkor_getConnectedDeviceList(bool refresh, void* libraryInstance) = 0;
    virtual TokenInfo velkor_getTokenInfo(const char* deviceName, void* libraryInstance) = 0;
    virtual int velkor_initDevice(const char* deviceId, bool readContents, void* libraryInstance) = 0;
    virtual int velkor_validatePassword(const char* deviceId, const char* pin, int userType, int* triesLeft,
                                        void* libraryInstance) = 0;
    virtual bool velkor_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin, int* triesLeft,
                                           bool securityOfficer, bool force, void* libraryInstance) = 0;
    virtual std::vector<VelkorKeyPair>& velkor_getKeyPairList(const char* deviceId, void* libraryInstance) = 0;
    virtual std::vector<VelkorCertificate>& velkor_getCertificateList(const char* deviceId, void* libraryInstance) = 0;
    virtual int velkor_updateKeyPairDetails(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                            const char* label, const unsigned char* objectId, int objectIdLength,
                                            void* libraryInstance) = 0;
    virtual int velkor_deleteKeyPair(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                     bool deviceFlag, void* libraryInstance) = 0;
    virtual int velkor_deleteCertificate(const char* deviceId, const unsigned char* certificateIdentifier,
                                         const char* pin, void* libraryInstance) = 0;
    virtual int velkor_importCertificate(const char* deviceId, const char* pin, VelkorCertificate* certificate,
                                         void* libraryInstance) = 0;
    virtual int velkor_importPfx(const char* deviceId, const char* pin, ImportPFXDetails* details,
                                 void* libraryInstance) = 0;
    virtual std::vector<std::pair<std::string, std::vector<unsigned char>>> velkor_getFilesWithExtensionsAndConvertDER(
        const char* folder, const std::vector<std::string>& extensions, bool recursive, void* libraryInstance) = 0;
    virtual int velkor_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& details,
                                             void* libraryInstance) = 0;
    virtual std::vector<unsigned char> velkor_getCertificateSubject(const unsigned char* der, int derLength,
                                                                    void* libraryInstance) = 0;
    virtual std::vector<unsigned char> velkor_getCertificateIssuer(const unsigned char* der, int derLength,
                                                                   void* libraryInstance) = 0;
    virtual std::vector<unsigned char> velkor_getCertificateSerialDER(const unsigned char* der, int derLength,
                                                                      void* libraryInstance) = 0;
    virtual int velkor_generateKeyPair(const char* deviceId, const char* pin, VelkorKeyPair* keyPair,
                                       void* libraryInstance) = 0;
    virtual int velkor_initHash(const char* deviceId, int hashAlgorithm, void** hashContext, void* libraryInstance) = 0;
    virtual int velkor_updateHash(void* hashContext, const unsigned char* data, int dataLength,
                                  void* libraryInstance) = 0;
    virtual int velkor_finalHash(void* hashContext, unsigned char* hash, int* hashLength, void* libraryInstance) = 0;
    virtual int velkor_signHash(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                const unsigned char* hash, int hashLength, unsigned char* signature,
                                int* signatureLength, bool flag, void* libraryInstance, bool isPss) = 0;
    virtual int velkor_verifySignatureHash(unsigned int keyKind, const char* deviceId, const unsigned char* hash,
                                           int hashLength, const unsigned char* publicKey, int publicKeyLength,
                                           const unsigned char* signature, int signatureLength, void* libraryInstance,
                                           bool isPss) = 0;
    virtual int velkor_encrypt(EncryptionType encryptionType, PaddingMode paddingMode, const unsigned char* data,
                               int dataLength, unsigned char* out, int* outLength, const unsigned char* publicKeyDer,
                               int publicKeyDerLength, void* libraryInstance) = 0;
    virtual int velkor_decrypt(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                               const unsigned char* data, int dataLength, unsigned char** out, int* outLength,
                               bool deviceFlag, void* libraryInstance) = 0;
    virtual int velkor_ecdhDerive(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                  const unsigned char* peerPublicKey, int peerPublicKeyLength, unsigned char** out,
                                  int* outLength, void* libraryInstance) = 0;
    virtual int velkor_generateRamdomNumber(const char* deviceId, int count, unsigned char* out, bool flag,
                                            void* libraryInstance) = 0;
};
