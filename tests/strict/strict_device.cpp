#include "strict_device.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace
{

constexpr int STATUS_PIN_REQUIRED = 311;
constexpr int STATUS_PIN_INCORRECT = 312;
constexpr int STATUS_PIN_LOCKED = 313;
constexpr int STATUS_BAD_DATA = 336;
constexpr int TRIES = 10;

std::vector<unsigned char> copy(const unsigned char* data, int length)
{
    return {data, data + length};
}

/// What a signature of the double carries besides the key: a sum of what was signed.
std::uint64_t sumOf(const unsigned char* data, int length, bool isPss)
{
    std::uint64_t sum = isPss ? 17 : 14695981039346656037ULL;
    for (int index = 0; index < length; ++index)
        sum = (sum ^ data[index]) * 1099511628211ULL;
    return sum;
}

bool contains(const std::vector<unsigned char>& whole, const unsigned char* part, std::int32_t length)
{
    return std::search(whole.begin(), whole.end(), part, part + length) != whole.end();
}

} // namespace

StrictDevice::StrictDevice()
{
    for (const auto& [name, records] : devices) {
        tries_[name] = TRIES;
        userPins_[name] = records.userPin;
    }
}

int StrictDevice::checkPin(const std::string& device, const std::string& pin, const std::string& right)
{
    std::vector<std::string>& seen = pinsSeen_[device];
    if (std::find(seen.begin(), seen.end(), pin) == seen.end())
        seen.push_back(pin);
    if (pin.empty())
        return STATUS_PIN_REQUIRED;
    if (tries_[device] == 0)
        return STATUS_PIN_LOCKED;
    if (pin == right) {
        tries_[device] = TRIES;
        return 0;
    }
    return --tries_[device] == 0 ? STATUS_PIN_LOCKED : STATUS_PIN_INCORRECT;
}

#define REQUIRE_PIN(device, pin)                                                                                       \
    do {                                                                                                               \
        const std::scoped_lock guard(mutex_);                                                                          \
        const int status = checkPin(device, pin, userPins_[device]);                                                   \
        if (status != 0)                                                                                               \
            return status;                                                                                             \
    } while (false)

void StrictDevice::velkor_createInstance(void** libraryInstance)
{
    isStarting = true;
    while (isStartHeld)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (doesStart)
        DefaultDevice::velkor_createInstance(libraryInstance);
    isStarting = false;
}

std::vector<std::string> StrictDevice::velkor_getConnectedDeviceList(bool refresh, void* libraryInstance)
{
    {
        const std::scoped_lock guard(mutex_);
        threadsThatLooked_.insert(std::this_thread::get_id());
    }
    return DefaultDevice::velkor_getConnectedDeviceList(refresh, libraryInstance);
}

TokenInfo StrictDevice::velkor_getTokenInfo(const char* deviceName, void* libraryInstance)
{
    TokenInfo token = DefaultDevice::velkor_getTokenInfo(deviceName, libraryInstance);
    const std::scoped_lock guard(mutex_);
    token.pinTriesLeft = tries_[deviceName];
    return token;
}

int StrictDevice::velkor_validatePassword(const char* deviceId, const char* pin, int userType, int* triesLeft,
                                          void* /*libraryInstance*/)
{
    ++pinChecks;
    const std::scoped_lock guard(mutex_);
    if (userType == USER_TYPE_SECURITY_OFFICER) {
        const bool isRight = devices.at(deviceId).soPin == pin;
        *triesLeft = 5;
        return isRight ? 0 : STATUS_PIN_INCORRECT;
    }
    const int status = checkPin(deviceId, pin, userPins_[deviceId]);
    *triesLeft = tries_[deviceId];
    return status;
}

bool StrictDevice::velkor_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin,
                                             int* triesLeft, bool /*securityOfficer*/, bool /*force*/,
                                             void* /*libraryInstance*/)
{
    const std::scoped_lock guard(mutex_);
    const int status = checkPin(deviceId, oldPin, userPins_[deviceId]);
    *triesLeft = tries_[deviceId];
    if (status == 0)
        userPins_[deviceId] = newPin;
    return status == 0;
}

std::vector<VelkorKeyPair>& StrictDevice::velkor_getKeyPairList(const char* deviceId, void* libraryInstance)
{
    ++keyListReads;
    if (blindLooks_ > 0 && blindLooks_-- > 0) {
        thread_local std::vector<VelkorKeyPair> none;
        none.clear();
        return none;
    }
    return DefaultDevice::velkor_getKeyPairList(deviceId, libraryInstance);
}

int StrictDevice::velkor_updateKeyPairDetails(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                              const char* label, const unsigned char* objectId, int objectIdLength,
                                              void* libraryInstance)
{
    REQUIRE_PIN(deviceId, pin);
    return DefaultDevice::velkor_updateKeyPairDetails(deviceId, keyIdentifier, pin, label, objectId, objectIdLength,
                                                      libraryInstance);
}

int StrictDevice::velkor_deleteKeyPair(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                       bool deviceFlag, void* libraryInstance)
{
    REQUIRE_PIN(deviceId, pin);
    return DefaultDevice::velkor_deleteKeyPair(deviceId, keyIdentifier, pin, deviceFlag, libraryInstance);
}

int StrictDevice::velkor_importCertificate(const char* deviceId, const char* pin, VelkorCertificate* certificate,
                                           void* libraryInstance)
{
    REQUIRE_PIN(deviceId, pin);
    return DefaultDevice::velkor_importCertificate(deviceId, pin, certificate, libraryInstance);
}

int StrictDevice::velkor_generateKeyPair(const char* deviceId, const char* pin, VelkorKeyPair* keyPair,
                                         void* libraryInstance)
{
    REQUIRE_PIN(deviceId, pin);
    blindLooks_ = blindLooksAfterGeneration.load();
    return DefaultDevice::velkor_generateKeyPair(deviceId, pin, keyPair, libraryInstance);
}

std::size_t StrictDevice::signatureSizeOf(const std::string& device, const unsigned char* keyIdentifier)
{
    for (const VelkorKeyPair& pair : DefaultDevice::velkor_getKeyPairList(device.c_str(), nullptr)) {
        if (std::memcmp(pair.keyIdentifier, keyIdentifier, KEY_IDENTIFIER_SIZE) != 0)
            continue;
        const bool isEc = pair.keyKind >= KEY_KIND_EC_P256;
        return static_cast<std::size_t>(isEc ? pair.publicKeyLength - 1 : pair.publicKeyLength);
    }
    return 0;
}

int StrictDevice::velkor_signHash(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                  const unsigned char* hash, int hashLength, unsigned char* signature,
                                  int* signatureLength, bool /*flag*/, void* /*libraryInstance*/, bool isPss)
{
    REQUIRE_PIN(deviceId, pin);
    const int atOnce = ++signing;
    for (int most = mostSigning; most < atOnce && !mostSigning.compare_exchange_weak(most, atOnce);) {
    }
    if (const int delay = signingDelayMilliseconds; delay != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    --signing;
    const std::size_t size = signatureSizeOf(deviceId, keyIdentifier);
    if (size == 0)
        return 321;
    std::memset(signature, 0, size);
    std::memcpy(signature, keyIdentifier, KEY_IDENTIFIER_SIZE);
    const std::uint64_t sum = sumOf(hash, hashLength, isPss);
    std::memcpy(signature + KEY_IDENTIFIER_SIZE, &sum, sizeof sum);
    std::memcpy(signature + KEY_IDENTIFIER_SIZE + sizeof sum, deviceId, std::strlen(deviceId));
    *signatureLength = static_cast<int>(size);
    const std::scoped_lock guard(mutex_);
    signatures_.push_back({deviceId, copy(keyIdentifier, KEY_IDENTIFIER_SIZE), copy(hash, hashLength), isPss});
    return 0;
}

int StrictDevice::velkor_verifySignatureHash(unsigned int /*keyKind*/, const char* deviceId, const unsigned char* hash,
                                             int hashLength, const unsigned char* publicKey, int publicKeyLength,
                                             const unsigned char* signature, int /*signatureLength*/,
                                             void* /*libraryInstance*/, bool isPss)
{
    const std::uint64_t sum = sumOf(hash, hashLength, isPss);
    if (std::memcmp(signature + KEY_IDENTIFIER_SIZE, &sum, sizeof sum) != 0)
        return STATUS_BAD_DATA;
    for (const VelkorKeyPair& pair : DefaultDevice::velkor_getKeyPairList(deviceId, nullptr)) {
        if (std::memcmp(pair.keyIdentifier, signature, KEY_IDENTIFIER_SIZE) == 0 &&
            contains(copy(publicKey, publicKeyLength), pair.publicKey, pair.publicKeyLength))
            return 0;
    }
    return STATUS_BAD_DATA;
}

int StrictDevice::velkor_encrypt(EncryptionType encryptionType, PaddingMode paddingMode, const unsigned char* data,
                                 int dataLength, unsigned char* out, int* outLength,
                                 const unsigned char* /*publicKeyDer*/, int /*publicKeyDerLength*/,
                                 void* /*libraryInstance*/)
{
    constexpr int SIZES[] = {128, 256, 384, 512};
    *outLength = SIZES[static_cast<int>(encryptionType) - static_cast<int>(EncryptionType::Rsa1024)];
    std::memset(out, 0, static_cast<std::size_t>(*outLength));
    out[0] = 1;
    out[1] = static_cast<unsigned char>(paddingMode);
    out[2] = static_cast<unsigned char>(dataLength);
    std::copy_n(data, dataLength, out + 3);
    return 0;
}

int StrictDevice::velkor_decrypt(const char* deviceId, const unsigned char* /*keyIdentifier*/, const char* pin,
                                 const unsigned char* data, int dataLength, unsigned char** out, int* outLength,
                                 bool /*deviceFlag*/, void* /*libraryInstance*/)
{
    REQUIRE_PIN(deviceId, pin);
    if (data[0] != 1 || dataLength < 3)
        return STATUS_BAD_DATA;
    *outLength = data[2];
    *out = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(*outLength) + 1));
    std::copy_n(data + 3, *outLength, *out);
    return 0;
}

int StrictDevice::velkor_ecdhDerive(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                                    const unsigned char* peerPublicKey, int peerPublicKeyLength, unsigned char** out,
                                    int* outLength, void* libraryInstance)
{
    REQUIRE_PIN(deviceId, pin);
    return DefaultDevice::velkor_ecdhDerive(deviceId, keyIdentifier, pin, peerPublicKey, peerPublicKeyLength, out,
                                            outLength, libraryInstance);
}

int StrictDevice::triesLeft(const std::string& device)
{
    const std::scoped_lock guard(mutex_);
    return tries_[device];
}

void StrictDevice::setTriesLeft(const std::string& device, int tries)
{
    const std::scoped_lock guard(mutex_);
    tries_[device] = tries;
}

void StrictDevice::setUserPin(const std::string& device, const std::string& pin)
{
    const std::scoped_lock guard(mutex_);
    userPins_[device] = pin;
}

std::vector<std::string> StrictDevice::pinsSeen(const std::string& device)
{
    const std::scoped_lock guard(mutex_);
    return pinsSeen_[device];
}

std::vector<Signed> StrictDevice::signatures()
{
    const std::scoped_lock guard(mutex_);
    return signatures_;
}

bool StrictDevice::hasLooked(std::thread::id thread)
{
    const std::scoped_lock guard(mutex_);
    return threadsThatLooked_.contains(thread);
}

void StrictDevice::forgetLooks()
{
    const std::scoped_lock guard(mutex_);
    threadsThatLooked_.clear();
}

std::vector<unsigned char> StrictDevice::keyIdentifierOf(const VelkorKeyPair& keyPair)
{
    return copy(keyPair.keyIdentifier, KEY_IDENTIFIER_SIZE);
}
