// A device library for the tests of the strict front: what the double has, with PINs that are checked and counted, and
// with signatures and ciphertexts of their real lengths that tell which key made them.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "default_device.h"

/// A signature that the device was asked for.
struct Signed {
    std::string device;
    std::vector<unsigned char> keyIdentifier;
    std::vector<unsigned char> input;
    bool isPss;
};

class StrictDevice : public DefaultDevice
{
public:
    StrictDevice();

    TokenInfo velkor_getTokenInfo(const char* deviceName, void* libraryInstance) override;
    int velkor_validatePassword(const char* deviceId, const char* pin, int userType, int* triesLeft,
                                void* libraryInstance) override;
    bool velkor_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin, int* triesLeft,
                                   bool securityOfficer, bool force, void* libraryInstance) override;
    std::vector<VelkorKeyPair>& velkor_getKeyPairList(const char* deviceId, void* libraryInstance) override;
    int velkor_updateKeyPairDetails(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                    const char* label, const unsigned char* objectId, int objectIdLength,
                                    void* libraryInstance) override;
    int velkor_deleteKeyPair(const char* deviceId, const unsigned char* keyIdentifier, const char* pin, bool deviceFlag,
                             void* libraryInstance) override;
    int velkor_importCertificate(const char* deviceId, const char* pin, VelkorCertificate* certificate,
                                 void* libraryInstance) override;
    int velkor_generateKeyPair(const char* deviceId, const char* pin, VelkorKeyPair* keyPair,
                               void* libraryInstance) override;
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
    void velkor_createInstance(void** libraryInstance) override;
    std::vector<std::string> velkor_getConnectedDeviceList(bool refresh, void* libraryInstance) override;

    int triesLeft(const std::string& device);
    void setTriesLeft(const std::string& device, int tries);
    void setUserPin(const std::string& device, const std::string& pin);
    /// PINs that came to a device, in whatever call, without repetition.
    std::vector<std::string> pinsSeen(const std::string& device);
    std::vector<Signed> signatures();
    /// Whether a thread has asked for the connected devices since looks were forgotten.
    bool hasLooked(std::thread::id thread);
    void forgetLooks();
    static std::vector<unsigned char> keyIdentifierOf(const VelkorKeyPair& keyPair);

    std::atomic<int> pinChecks = 0;
    std::atomic<int> keyListReads = 0;
    std::atomic<bool> doesStart = true;
    std::atomic<bool> isStartHeld = false; ///< A start stays where it is until this is false.
    std::atomic<bool> isStarting = false;
    /// So many looks at the key pairs find none once a pair has been generated.
    std::atomic<int> blindLooksAfterGeneration = 0;
    std::atomic<int> signingDelayMilliseconds = 0;
    std::atomic<int> signing = 0;     ///< Calls that are at it.
    std::atomic<int> mostSigning = 0; ///< The most that ever were.

private:
    int checkPin(const std::string& device, const std::string& pin, const std::string& right);
    std::size_t signatureSizeOf(const std::string& device, const unsigned char* keyIdentifier);

    std::atomic<int> blindLooks_ = 0;
    std::mutex mutex_;
    std::map<std::string, int> tries_;
    std::map<std::string, std::string> userPins_;
    std::map<std::string, std::vector<std::string>> pinsSeen_;
    std::vector<Signed> signatures_;
    std::set<std::thread::id> threadsThatLooked_;
};
