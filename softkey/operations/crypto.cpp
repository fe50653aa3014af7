// Signing, verifying, encrypting, decrypting, ECDH and random numbers.
#include "operations/boundary.h"

#include "crypto/private_key.h"
#include "crypto/public_key.h"

using namespace softkey;

namespace
{

const KeyKindTraits& traitsOf(EncryptionType encryptionType)
{
    for (const KeyKindTraits& traits : keyKinds()) {
        if (traits.isRsa() && traits.encryptionType == encryptionType)
            return traits;
    }
    throw Refusal(SoftkeyStatus::NotSupported);
}

RsaPadding paddingOf(PaddingMode mode)
{
    require(mode == PaddingMode::Pkcs1 || mode == PaddingMode::Oaep, SoftkeyStatus::NotSupported);
    return mode == PaddingMode::Oaep ? RsaPadding::Oaep : RsaPadding::Pkcs1;
}

} // namespace

int velkor_signHash(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                    const unsigned char* hash, int hashLength, unsigned char* signature, int* signatureLength, bool,
                    void* libraryInstance, bool isPss)
{
    return answer([&] {
        const Bytes data = input(hash, hashLength);
        requireArgument(signature != nullptr && signatureLength != nullptr && *signatureLength > 0);
        const std::span<unsigned char> room(signature, static_cast<std::size_t>(*signatureLength));
        const Identifier wanted = identifier(keyIdentifier);
        PluggedKey device = pluggedDevice(deviceId, libraryInstance);
        const auto key = device.key->privateKey(std::move(device.seen), wanted, text(pin), USAGE_SIGN_VERIFY);
        *signatureLength = static_cast<int>(key->sign(data, isPss, room));
    });
}

int velkor_verifySignatureHash(unsigned int keyKind, const char* deviceId, const unsigned char* hash, int hashLength,
                               const unsigned char* publicKey, int publicKeyLength, const unsigned char* signature,
                               int signatureLength, void* libraryInstance, bool isPss)
{
    return answer([&] {
        const Bytes data = input(hash, hashLength);
        const Bytes encodedKey = input(publicKey, publicKeyLength);
        const Bytes signatureBytes = input(signature, signatureLength);
        pluggedKey(deviceId, libraryInstance);
        const bool valid = verifySignature(traitsOf(keyKind), encodedKey, data, signatureBytes, isPss);
        require(valid, SoftkeyStatus::SignatureInvalid);
    });
}

int velkor_encrypt(EncryptionType encryptionType, PaddingMode paddingMode, const unsigned char* data, int dataLength,
                   unsigned char* out, int* outLength, const unsigned char* publicKeyDer, int publicKeyDerLength,
                   void* libraryInstance)
{
    return answer([&] {
        requireInstance(libraryInstance);
        requireArgument(out != nullptr && outLength != nullptr);
        const Bytes plaintext = input(data, dataLength);
        const Bytes publicKey = input(publicKeyDer, publicKeyDerLength);
        const std::size_t length =
            encrypt(traitsOf(encryptionType), publicKey, paddingOf(paddingMode), plaintext, {out, CIPHERTEXT_CAPACITY});
        *outLength = static_cast<int>(length);
    });
}

int velkor_decrypt(const char* deviceId, const unsigned char* keyIdentifier, const char* pin, const unsigned char* data,
                   int dataLength, unsigned char** out, int* outLength, bool, void* libraryInstance)
{
    return answer([&] {
        requireArgument(out != nullptr && outLength != nullptr);
        const Bytes ciphertext = input(data, dataLength);
        const Identifier wanted = identifier(keyIdentifier);
        PluggedKey device = pluggedDevice(deviceId, libraryInstance);
        const auto key = device.key->privateKey(std::move(device.seen), wanted, text(pin), USAGE_DECRYPT_ENCRYPT);
        const SecretBuffer plaintext = key->decrypt(ciphertext);
        *out = allocateCopy(plaintext);
        *outLength = static_cast<int>(plaintext.size());
    });
}

int velkor_ecdhDerive(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                      const unsigned char* peerPublicKey, int peerPublicKeyLength, unsigned char** out, int* outLength,
                      void* libraryInstance)
{
    return answer([&] {
        requireArgument(out != nullptr && outLength != nullptr);
        const Bytes peer = input(peerPublicKey, peerPublicKeyLength);
        const Identifier wanted = identifier(keyIdentifier);
        PluggedKey device = pluggedDevice(deviceId, libraryInstance);
        // No usage flag stands for derivation.
        const auto key = device.key->privateKey(std::move(device.seen), wanted, text(pin), 0);
        const SecretBuffer secret = key->agree(peer);
        *out = allocateCopy(secret);
        *outLength = static_cast<int>(secret.size());
    });
}

int velkor_generateRamdomNumber(const char* deviceId, int count, unsigned char* out, bool, void* libraryInstance)
{
    return answer([&] {
        requireArgument(out != nullptr && count > 0);
        if (libraryInstance != nullptr)
            requireInstance(libraryInstance);
        keysFolder().findPlugged(text(deviceId));
        randomBytes({out, static_cast<std::size_t>(count)});
    });
}
