// A device library that answers at once: its lists are made before, and its cryptography is none.
#include "default_device.h"
#include "device_double.h"

#include <cstdlib>
#include <cstring>

namespace
{

class InstantDevice : public DefaultDevice
{
public:
    InstantDevice()
    {
        setConnected({FIRST_DEVICE});
        devices[FIRST_DEVICE].token.label = "bench";
        keyPairs_ = {pair(1, KEY_KIND_RSA_2048), pair(2, KEY_KIND_EC_P256)};
        certificates_ = {makeCertificate(1, "certificate")};
    }

    std::vector<VelkorKeyPair>& velkor_getKeyPairList(const char* /*deviceId*/, void* /*libraryInstance*/) override
    {
        return keyPairs_;
    }
    std::vector<VelkorCertificate>& velkor_getCertificateList(const char* /*deviceId*/,
                                                              void* /*libraryInstance*/) override
    {
        return certificates_;
    }
    int velkor_updateKeyPairDetails(const char* /*deviceId*/, const unsigned char* /*keyIdentifier*/,
                                    const char* /*pin*/, const char* /*label*/, const unsigned char* /*objectId*/,
                                    int /*objectIdLength*/, void* /*libraryInstance*/) override
    {
        return 0;
    }
    /// The pair that is there already, which stays when it is deleted.
    int velkor_generateKeyPair(const char* /*deviceId*/, const char* /*pin*/, VelkorKeyPair* keyPair,
                               void* /*libraryInstance*/) override
    {
        *keyPair = keyPairs_.back();
        return 0;
    }
    int velkor_importPfx(const char* /*deviceId*/, const char* /*pin*/, ImportPFXDetails* details,
                         void* /*libraryInstance*/) override
    {
        std::memcpy(details->keyIdentifier, keyPairs_.front().keyIdentifier, KEY_IDENTIFIER_SIZE);
        return 0;
    }
    int velkor_deleteKeyPair(const char* /*deviceId*/, const unsigned char* /*keyIdentifier*/, const char* /*pin*/,
                             bool /*deviceFlag*/, void* /*libraryInstance*/) override
    {
        return 0;
    }
    int velkor_initHash(const char* /*deviceId*/, int /*hashAlgorithm*/, void** hashContext,
                        void* /*libraryInstance*/) override
    {
        *hashContext = this;
        return 0;
    }
    int velkor_updateHash(void* /*hashContext*/, const unsigned char* /*data*/, int /*dataLength*/,
                          void* /*libraryInstance*/) override
    {
        return 0;
    }
    int velkor_finalHash(void* /*hashContext*/, unsigned char* hash, int* hashLength,
                         void* /*libraryInstance*/) override
    {
        std::memset(hash, 1, 32);
        *hashLength = 32;
        return 0;
    }
    int velkor_signHash(const char* /*deviceId*/, const unsigned char* /*keyIdentifier*/, const char* /*pin*/,
                        const unsigned char* /*hash*/, int /*hashLength*/, unsigned char* signature,
                        int* signatureLength, bool /*flag*/, void* /*libraryInstance*/, bool /*isPss*/) override
    {
        std::memset(signature, 1, 64);
        *signatureLength = 64;
        return 0;
    }
    int velkor_verifySignatureHash(unsigned int /*keyKind*/, const char* /*deviceId*/, const unsigned char* /*hash*/,
                                   int /*hashLength*/, const unsigned char* /*publicKey*/, int /*publicKeyLength*/,
                                   const unsigned char* /*signature*/, int /*signatureLength*/,
                                   void* /*libraryInstance*/, bool /*isPss*/) override
    {
        return 0;
    }

private:
    static VelkorKeyPair pair(std::uint32_t id, std::uint32_t kind)
    {
        VelkorKeyPair made = makeKeyPair(id, kind, "key pair of the benchmarks");
        made.objectId[3] = static_cast<unsigned char>(id); // Four bytes, big-endian.
        made.objectIdLength = 4;
        std::memset(made.objectId, 0, 3);
        return made;
    }

    std::vector<VelkorKeyPair> keyPairs_;
    std::vector<VelkorCertificate> certificates_;
};

/// Before the library under test is loaded.
const bool installed = [] {
    setDeviceOperations(std::make_shared<InstantDevice>());
    return true;
}();

} // namespace
