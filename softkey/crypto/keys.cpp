#include "crypto/keys.h"

#include "platform/fork_guard.h"

#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/encoder.h>
#include <openssl/rsa.h>

#include <algorithm>

namespace softkey
{
namespace
{

using Encoder = Owned<OSSL_ENCODER_CTX, OSSL_ENCODER_CTX_free>;
using Decoder = Owned<OSSL_DECODER_CTX, OSSL_DECODER_CTX_free>;
using PublicNumber = Owned<BIGNUM, BN_free>;

ByteVector modulusOf(const EVP_PKEY* key)
{
    BIGNUM* modulus = nullptr;
    require(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &modulus) == 1);
    const PublicNumber owner(modulus);
    ByteVector bytes(static_cast<std::size_t>(BN_num_bytes(modulus)));
    BN_bn2bin(modulus, bytes.data());
    return bytes;
}

ByteVector pointOf(const EVP_PKEY* key)
{
    // The affine coordinates, since a parsed key keeps the compressed form that it came in.
    const std::size_t size = (static_cast<std::size_t>(EVP_PKEY_get_bits(key)) + 7) / 8;
    ByteVector point{POINT_CONVERSION_UNCOMPRESSED};
    for (const char* coordinate : {OSSL_PKEY_PARAM_EC_PUB_X, OSSL_PKEY_PARAM_EC_PUB_Y}) {
        BIGNUM* value = nullptr;
        require(EVP_PKEY_get_bn_param(key, coordinate, &value) == 1);
        const PublicNumber owner(value);
        point.resize(point.size() + size);
        require(BN_bn2binpad(value, &point[point.size() - size], static_cast<int>(size)) >= 0);
    }
    return point;
}

} // namespace

EvpKey generateKey(const KeyKindTraits& traits)
{
    const EvpKeyContext context = contextFor(traits.isRsa() ? "RSA" : "EC");
    require(EVP_PKEY_keygen_init(context.get()) == 1);
    if (traits.isRsa())
        require(EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), static_cast<int>(traits.bits)) == 1);
    else
        require(EVP_PKEY_CTX_set_group_name(context.get(), traits.curve) == 1);
    EVP_PKEY* key = nullptr;
    require(EVP_PKEY_generate(context.get(), &key) == 1);
    return EvpKey(key);
}

void checkPrivateKey(const EVP_PKEY* key)
{
    if (EVP_PKEY_is_a(key, "RSA") == 1) {
        BIGNUM* exponent = nullptr;
        require(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &exponent) == 1, SoftkeyStatus::BadPrivateKey);
        const PublicNumber owner(exponent);
        require(BN_is_word(exponent, PUBLIC_EXPONENT) == 1, SoftkeyStatus::BadPrivateKey);
    }
    const EvpKeyContext context = contextFor(key);
    require(EVP_PKEY_check(context.get()) == 1, SoftkeyStatus::BadPrivateKey);
}

ByteVector publicKeyValue(const EVP_PKEY* key)
{
    return EVP_PKEY_is_a(key, "RSA") == 1 ? modulusOf(key) : pointOf(key);
}

SecretBuffer encodePrivateKey(const EVP_PKEY* key)
{
    const ForkSafeSection section; // Here and below: a forked child would find what OpenSSL works in.
    const auto encoder =
        requireObject<Encoder>(OSSL_ENCODER_CTX_new_for_pkey(key, EVP_PKEY_KEYPAIR, "DER", "PrivateKeyInfo", nullptr));
    unsigned char* der = nullptr;
    std::size_t size = 0;
    require(OSSL_ENCODER_to_data(encoder.get(), &der, &size) == 1);
    SecretBuffer encoded(size);
    std::copy_n(der, size, encoded.data());
    OPENSSL_clear_free(der, size);
    return encoded;
}

EvpKey decodePrivateKey(Bytes pkcs8)
{
    const ForkSafeSection section;
    EVP_PKEY* key = nullptr;
    const auto decoder = requireObject<Decoder>(OSSL_DECODER_CTX_new_for_pkey(
        &key, "DER", "PrivateKeyInfo", nullptr, EVP_PKEY_KEYPAIR, CryptoContext::get().library(), nullptr));
    const unsigned char* position = pkcs8.data();
    std::size_t left = pkcs8.size();
    const bool decoded = OSSL_DECODER_from_data(decoder.get(), &position, &left) == 1;
    EvpKey owner(key);
    require(decoded && left == 0, SoftkeyStatus::BadPrivateKey);
    return owner;
}

EvpKey privateKeyFromFileContent(Bytes content)
{
    EVP_PKEY* key = nullptr;
    const auto decoder = requireObject<Decoder>(OSSL_DECODER_CTX_new_for_pkey(
        &key, nullptr, nullptr, nullptr, EVP_PKEY_KEYPAIR, CryptoContext::get().library(), nullptr));
    // Never asks for a pass phrase.
    OSSL_DECODER_CTX_set_pem_password_cb(
        decoder.get(), [](char*, int, int, void*) { return -1; }, nullptr);
    const unsigned char* position = content.data();
    std::size_t left = content.size();
    const bool decoded = OSSL_DECODER_from_data(decoder.get(), &position, &left) == 1;
    EvpKey owner(key);
    return decoded ? std::move(owner) : nullptr;
}

} // namespace softkey
