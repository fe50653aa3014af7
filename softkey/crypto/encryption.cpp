#include "crypto/public_key.h"

namespace softkey
{

std::size_t encrypt(const KeyKindTraits& traits, Bytes subjectPublicKeyInfo, RsaPadding padding, Bytes plaintext,
                    std::span<unsigned char> ciphertext)
{
    const EvpKey key = publicKeyFromInfo(traits, subjectPublicKeyInfo);
    require(plaintext.size() + paddingOverhead(padding) <= traits.size(), SoftkeyStatus::DataLength);
    const EvpKeyContext context = contextFor(key.get());
    require(EVP_PKEY_encrypt_init(context.get()) == 1);
    setPadding(context.get(), padding);
    std::size_t size = ciphertext.size();
    require(EVP_PKEY_encrypt(context.get(), ciphertext.data(), &size, plaintext.data(), plaintext.size()) == 1);
    return size;
}

} // namespace softkey
