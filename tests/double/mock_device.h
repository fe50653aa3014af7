// The double as a GoogleMock object: a call without an expectation goes to the default device.
#pragma once

#include <gmock/gmock.h>

#include "default_device.h"

// Each type of operation once. GoogleMock's code for them is compiled in one place: that takes most of the time of
// compiling a test.
#define MOCK_DEVICE_FOR_EACH_TYPE(X)                                                                                   \
    X(velkor_createInstance)                                                                                           \
    X(velkor_releaseInstance)                                                                                          \
    X(velkor_getConnectedDeviceList)                                                                                   \
    X(velkor_getTokenInfo)                                                                                             \
    X(velkor_initDevice)                                                                                               \
    X(velkor_validatePassword)                                                                                         \
    X(velkor_changeUserPassword)                                                                                       \
    X(velkor_getKeyPairList)                                                                                           \
    X(velkor_getCertificateList)                                                                                       \
    X(velkor_updateKeyPairDetails)                                                                                     \
    X(velkor_deleteKeyPair)                                                                                            \
    X(velkor_deleteCertificate)                                                                                        \
    X(velkor_importCertificate)                                                                                        \
    X(velkor_importPfx)                                                                                                \
    X(velkor_getFilesWithExtensionsAndConvertDER)                                                                      \
    X(velkor_getCertificateDetails)                                                                                    \
    X(velkor_getCertificateSubject)                                                                                    \
    X(velkor_generateKeyPair)                                                                                          \
    X(velkor_initHash)                                                                                                 \
    X(velkor_updateHash)                                                                                               \
    X(velkor_finalHash)                                                                                                \
    X(velkor_signHash)                                                                                                 \
    X(velkor_verifySignatureHash)                                                                                      \
    X(velkor_encrypt)                                                                                                  \
    X(velkor_decrypt)                                                                                                  \
    X(velkor_ecdhDerive)                                                                                               \
    X(velkor_generateRamdomNumber)

#define DECLARE_MOCKER(name) extern template class testing::internal::FunctionMocker<decltype(::name)>;
MOCK_DEVICE_FOR_EACH_TYPE(DECLARE_MOCKER)
#undef DECLARE_MOCKER

class MockDevice : public DeviceOperations
{
public:
    MockDevice();
    ~MockDevice() override;

    MOCK_METHOD(void, velkor_createInstance, (void** libraryInstance), (override));
    MOCK_METHOD(void, velkor_releaseInstance, (void* libraryInstance), (override));
    MOCK_METHOD(std::vector<std::string>, velkor_getConnectedDeviceList, (bool refresh, void* libraryInstance),
                (override));
    MOCK_METHOD(TokenInfo, velkor_getTokenInfo, (const char* deviceName, void* libraryInstance), (override));
    MOCK_METHOD(int, velkor_initDevice, (const char* deviceId, bool readContents, void* libraryInstance), (override));
    MOCK_METHOD(int, velkor_validatePassword,
                (const char* deviceId, const char* pin, int userType, int* triesLeft, void* libraryInstance),
                (override));
    MOCK_METHOD(bool, velkor_changeUserPassword,
                (const char* deviceId, const char* oldPin, const char* newPin, int* triesLeft, bool securityOfficer,
                 bool force, void* libraryInstance),
                (override));
    MOCK_METHOD(std::vector<VelkorKeyPair>&, velkor_getKeyPairList, (const char* deviceId, void* libraryInstance),
                (override));
    MOCK_METHOD(std::vector<VelkorCertificate>&, velkor_getCertificateList,
                (const char* deviceId, void* libraryInstance), (override));
    MOCK_METHOD(int, velkor_updateKeyPairDetails,
                (const char* deviceId, const unsigned char* keyIdentifier, const char* pin, const char* label,
                 const unsigned char* objectId, int objectIdLength, void* libraryInstance),
                (override));
    MOCK_METHOD(int, velkor_deleteKeyPair,
                (const char* deviceId, const unsigned char* keyIdentifier, const char* pin, bool deviceFlag,
                 void* libraryInstance),
                (override));
    MOCK_METHOD(int, velkor_deleteCertificate,
                (const char* deviceId, const unsigned char* certificateIdentifier, const char* pin,
                 void* libraryInstance),
                (override));
    MOCK_METHOD(int, velkor_importCertificate,
                (const char* deviceId, const char* pin, VelkorCertificate* certificate, void* libraryInstance),
                (override));
    MOCK_METHOD(int, velkor_importPfx,
                (const char* deviceId, const char* pin, ImportPFXDetails* details, void* libraryInstance), (override));
    MOCK_METHOD((std::vector<std::pair<std::string, std::vector<unsigned char>>>),
                velkor_getFilesWithExtensionsAndConvertDER,
                (const char* folder, const std::vector<std::string>& extensions, bool recursive, void* libraryInstance),
                (override));
    MOCK_METHOD(int, velkor_getCertificateDetails,
                (const unsigned char* der, int derLength, CertificateDetails& details, void* libraryInstance),
                (override));
    MOCK_METHOD(std::vector<unsigned char>, velkor_getCertificateSubject,
                (const unsigned char* der, int derLength, void* libraryInstance), (override));
    MOCK_METHOD(std::vector<unsigned char>, velkor_getCertificateIssuer,
                (const unsigned char* der, int derLength, void* libraryInstance), (override));
    MOCK_METHOD(std::vector<unsigned char>, velkor_getCertificateSerialDER,
                (const unsigned char* der, int derLength, void* libraryInstance), (override));
    MOCK_METHOD(int, velkor_generateKeyPair,
                (const char* deviceId, const char* pin, VelkorKeyPair* keyPair, void* libraryInstance), (override));
    MOCK_METHOD(int, velkor_initHash,
                (const char* deviceId, int hashAlgorithm, void** hashContext, void* libraryInstance), (override));
    MOCK_METHOD(int, velkor_updateHash,
                (void* hashContext, const unsigned char* data, int dataLength, void* libraryInstance), (override));
    MOCK_METHOD(int, velkor_finalHash, (void* hashContext, unsigned char* hash, int* hashLength, void* libraryInstance),
                (override));
    MOCK_METHOD(int, velkor_signHash,
                (const char* deviceId, const unsigned char* keyIdentifier, const char* pin, const unsigned char* hash,
                 int hashLength, unsigned char* signature, int* signatureLength, bool flag, void* libraryInstance,
                 bool isPss),
                (override));
    MOCK_METHOD(int, velkor_verifySignatureHash,
                (unsigned int keyKind, const char* deviceId, const unsigned char* hash, int hashLength,
                 const unsigned char* publicKey, int publicKeyLength, const unsigned char* signature,
                 int signatureLength, void* libraryInstance, bool isPss),
                (override));
    MOCK_METHOD(int, velkor_encrypt,
                (EncryptionType encryptionType, PaddingMode paddingMode, const unsigned char* data, int dataLength,
                 unsigned char* out, int* outLength, const unsigned char* publicKeyDer, int publicKeyDerLength,
                 void* libraryInstance),
                (override));
    MOCK_METHOD(int, velkor_decrypt,
                (const char* deviceId, const unsigned char* keyIdentifier, const char* pin, const unsigned char* data,
                 int dataLength, unsigned char** out, int* outLength, bool deviceFlag, void* libraryInstance),
                (override));
    MOCK_METHOD(int, velkor_ecdhDerive,
                (const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                 const unsigned char* peerPublicKey, int peerPublicKeyLength, unsigned char** out, int* outLength,
                 void* libraryInstance),
                (override));
    MOCK_METHOD(int, velkor_generateRamdomNumber,
                (const char* deviceId, int count, unsigned char* out, bool flag, void* libraryInstance), (override));

    DefaultDevice defaults;
};
