#include "device_double.h"

#include <mutex>
#include <shared_mutex>
#include <utility>

#include "calls_lock.h"
#include "default_device.h"

namespace
{

std::mutex operationsLock;

std::shared_ptr<DeviceOperations>& operations()
{
    static auto& current = *new std::shared_ptr<DeviceOperations>(std::make_shared<DefaultDevice>());
    return current;
}

/// One call: operations which a test has taken away live until the last call is out of them.
class Call
{
public:
    DeviceOperations* operator->() const { return operations_.get(); }

private:
    static std::shared_ptr<DeviceOperations> copyOperations()
    {
        const std::scoped_lock lock(operationsLock);
        return operations();
    }

    std::shared_lock<std::shared_mutex> inside_{callsLock()};
    std::shared_ptr<DeviceOperations> operations_ = copyOperations();
};

} // namespace

std::shared_mutex& callsLock()
{
    static auto& lock = *new std::shared_mutex; // Never destroyed: the last calls come while the process exits.
    return lock;
}

void setDeviceOperations(std::shared_ptr<DeviceOperations> newOperations)
{
    const std::scoped_lock lock(operationsLock);
    operations().swap(newOperations);
}

void velkor_createInstance(void** libraryInstance)
{
    return Call()->velkor_createInstance(libraryInstance);
}

void velkor_releaseInstance(void* libraryInstance)
{
    return Call()->velkor_releaseInstance(libraryInstance);
}

std::vector<std::string> velkor_getConnectedDeviceList(bool refresh, void* libraryInstance)
{
    return Call()->velkor_getConnectedDeviceList(refresh, libraryInstance);
}

TokenInfo velkor_getTokenInfo(const char* deviceName, void* libraryInstance)
{
    return Call()->velkor_getTokenInfo(deviceName, libraryInstance);
}

int velkor_initDevice(const char* deviceId, bool readContents, void* libraryInstance)
{
    return Call()->velkor_initDevice(deviceId, readContents, libraryInstance);
}

int velkor_validatePassword(const char* deviceId, const char* pin, int userType, int* triesLeft, void* libraryInstance)
{
    return Call()->velkor_validatePassword(deviceId, pin, userType, triesLeft, libraryInstance);
}

bool velkor_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin, int* triesLeft,
                               bool securityOfficer, bool force, void* libraryInstance)
{
    return Call()->velkor_changeUserPassword(deviceId, oldPin, newPin, triesLeft, securityOfficer, force,
                                             libraryInstance);
}

std::vector<VelkorKeyPair>& velkor_getKeyPairList(const char* deviceId, void* libraryInstance)
{
    return Call()->velkor_getKeyPairList(deviceId, libraryInstance);
}

std::vector<VelkorCertificate>& velkor_getCertificateList(const char* deviceId, void* libraryInstance)
{
    return Call()->velkor_getCertificateList(deviceId, libraryInstance);
}

int velkor_updateKeyPairDetails(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                const char* label, const unsigned char* objectId, int objectIdLength,
                                void* libraryInstance)
{
    return Call()->velkor_updateKeyPairDetails(deviceId, keyIdentifier, pin, label, objectId, objectIdLength,
                                               libraryInstance);
}

int velkor_deleteKeyPair(const char* deviceId, const unsigned char* keyIdentifier, const char* pin, bool deviceFlag,
                         void* libraryInstance)
{
    return Call()->velkor_deleteKeyPair(deviceId, keyIdentifier, pin, deviceFlag, libraryInstance);
}

int velkor_deleteCertificate(const char* deviceId, const unsigned char* certificateIdentifier, const char* pin,
                             void* libraryInstance)
{
    return Call()->velkor_deleteCertificate(deviceId, certificateIdentifier, pin, libraryInstance);
}

int velkor_importCertificate(const char* deviceId, const char* pin, VelkorCertificate* certificate,
                             void* libraryInstance)
{
    return Call()->velkor_importCertificate(deviceId, pin, certificate, libraryInstance);
}

int velkor_importPfx(const char* deviceId, const char* pin, ImportPFXDetails* details, void* libraryInstance)
{
    return Call()->velkor_importPfx(deviceId, pin, details, libraryInstance);
}

std::vector<std::pair<std::string, std::vector<unsigned char>>> velkor_getFilesWithExtensionsAndConvertDER(
    const char* folder, const std::vector<std::string>& extensions, bool recursive, void* libraryInstance)
{
    return Call()->velkor_getFilesWithExtensionsAndConvertDER(folder, extensions, recursive, libraryInstance);
}

int velkor_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& details,
                                 void* libraryInstance)
{
    return Call()->velkor_getCertificateDetails(der, derLength, details, libraryInstance);
}

std::vector<unsigned char> velkor_getCertificateSubject(const unsigned char* der, int derLength, void* libraryInstance)
{
    return Call()->velkor_getCertificateSubject(der, derLength, libraryInstance);
}

std::vector<unsigned char> velkor_getCertificateIssuer(const unsigned char* der, int derLength, void* libraryInstance)
{
    return Call()->velkor_getCertificateIssuer(der, derLength, libraryInstance);
}

std::vector<unsigned char> velkor_getCertificateSerialDER(const unsigned char* der, int derLength,
                                                          void* libraryInstance)
{
    return Call()->velkor_getCertificateSerialDER(der, derLength, libraryInstance);
}

int velkor_generateKeyPair(const char* deviceId, const char* pin, VelkorKeyPair* keyPair, void* libraryInstance)
{
    return Call()->velkor_generateKeyPair(deviceId, pin, keyPair, libraryInstance);
}

int velkor_initHash(const char* deviceId, int hashAlgorithm, void** hashContext, void* libraryInstance)
{
    return Call()->velkor_initHash(deviceId, hashAlgorithm, hashContext, libraryInstance);
}

int velkor_updateHash(void* hashContext, const unsigned char* data, int dataLength, void* libraryInstance)
{
    return Call()->velkor_updateHash(hashContext, data, dataLength, libraryInstance);
}

int velkor_finalHash(void* hashContext, unsigned char* hash, int* hashLength, void* libraryInstance)
{
    return Call()->velkor_finalHash(hashContext, hash, hashLength, libraryInstance);
}

int velkor_signHash(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                    const unsigned char* hash, int hashLength, unsigned char* signature, int* signatureLength,
                    bool flag, void* libraryInstance, bool isPss)
{
    return Call()->velkor_signHash(deviceId, keyIdentifier, pin, hash, hashLength, signature, signatureLength, flag,
                                   libraryInstance, isPss);
}

int velkor_verifySignatureHash(unsigned int keyKind, const char* deviceId, const unsigned char* hash, int hashLength,
                               const unsigned char* publicKey, int publicKeyLength, const unsigned char* signature,
                               int signatureLength, void* libraryInstance, bool isPss)
{
    return Call()->velkor_verifySignatureHash(keyKind, deviceId, hash, hashLength, publicKey, publicKeyLength,
                                              signature, signatureLength, libraryInstance, isPss);
}

int velkor_encrypt(EncryptionType encryptionType, PaddingMode paddingMode, const unsigned char* data, int dataLength,
                   unsigned char* out, int* outLength, const unsigned char* publicKeyDer, int publicKeyDerLength,
                   void* libraryInstance)
{
    return Call()->velkor_encrypt(encryptionType, paddingMode, data, dataLength, out, outLength, publicKeyDer,
                                  publicKeyDerLength, libraryInstance);
}

int velkor_decrypt(const char* deviceId, const unsigned char* keyIdentifier, const char* pin, const unsigned char* data,
                   int dataLength, unsigned char** out, int* outLength, bool deviceFlag, void* libraryInstance)
{
    return Call()->velkor_decrypt(deviceId, keyIdentifier, pin, data, dataLength, out, outLength, deviceFlag,
                                  libraryInstance);
}

int velkor_ecdhDerive(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                      const unsigned char* peerPublicKey, int peerPublicKeyLength, unsigned char** out, int* outLength,
                      void* libraryInstance)
{
    return Call()->velkor_ecdhDerive(deviceId, keyIdentifier, pin, peerPublicKey, peerPublicKeyLength, out, outLength,
                                     libraryInstance);
}

int velkor_generateRamdomNumber(const char* deviceId, int count, unsigned char* out, bool flag, void* libraryInstance)
{
    return Call()->velkor_generateRamdomNumber(deviceId, count, out, flag, libraryInstance);
}
