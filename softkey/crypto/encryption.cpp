#include "crypto/public_key.h"
#include "crypto/public_keys.h"

namespace softkey
{

std::size_t encrypt(const KeyKindTraits& traits, Bytes subjectPublicKeyInfo, RsaPadding padding, Bytes plaintext,
                    std::span<unsigned char> ciphertext)
{
    const std::shared_ptr<const PublicKey> key =
        PublicKeys::ofProcess().find(traits, PublicKeyForm::Info, subjectPublicKeyInfo);
    require(plaintext.size() + paddingOverhead(padding) <= traits.size(), SoftkeyStatus::DataLength);
    std::size_t size = ciphertext.size();
    const bool done = key->runFor(
        padding == RsaPadding::Oaep ? PublicKey::OaepEncryption : PublicKey::Encryption,
        [&](EVP_PKEY_CTX* context) {
            require(EVP_PKEY_encrypt_init(context) == 1);
            setPadding(context, padding);
        },
        [&](EVP_PKEY_CTX* context) {
            return EVP_PKEY_encrypt(context, ciphertext.data(), &size, plaintext.data(), plaintext.size()) == 1;
        });
    require(done);
    return size;
}

} // namespace softkey
