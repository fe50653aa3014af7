#include "crypto/keys.h"

#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/encoder.h>
#include <openssl/param_build.h>
#include <openssl/params.h>
#include <openssl/rsa.h>

#include <algorithm>

namespace softkey
{
namespace
{

using ParameterBuilder = Owned<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;
using Parameters = Owned<OSSL_PARAM, OSSL_PARAM_free>;
using Encoder = Owned<OSSL_ENCODER_CTX, OSSL_ENCODER_CTX_free>;
using Decoder = Owned<OSSL_DECODER_CTX, OSSL_DECODER_CTX_free>;
using PublicNumber = Owned<BIGNUM, BN_free>;

EvpKeyContext contextNamed(const char* algorithm)
{
    return requireObject<EvpKeyContext>(EVP_PKEY_CTX_new_from_name(CryptoContext::get().library(), algorithm, nullptr));
}

EvpKeyContext contextOf(const EVP_PKEY* key)
{
    return requireObject<EvpKeyContext>(
        EVP_PKEY_CTX_new_from_pkey(CryptoContext::get().library(), const_cast<EVP_PKEY*>(key), nullptr));
}

EvpKey keyFromParameters(const char* algorithm, int selection, OSSL_PARAM* parameters, SoftkeyStatus failure)
{
    const EvpKeyContext context = contextNamed(algorithm);
    EVP_PKEY* key = nullptr;
    require(EVP_PKEY_fromdata_init(context.get()) == 1);
    const bool built = EVP_PKEY_fromdata(context.get(), &key, selection, parameters) == 1;
    EvpKey owner(key);
    require(built, failure);
    return owner;
}

EvpKey rsaPublicKey(Bytes modulus)
{
    const PublicNumber number(BN_bin2bn(modulus.data(), static_cast<int>(modulus.size()), nullptr));
    const ParameterBuilder builder(OSSL_PARAM_BLD_new());
    require(number && builder && OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, number.get()) &&
            OSSL_PARAM_BLD_push_ulong(builder.get(), OSSL_PKEY_PARAM_RSA_E, PUBLIC_EXPONENT));
    const auto parameters = requireObject<Parameters>(OSSL_PARAM_BLD_to_param(builder.get()));
    return keyFromParameters("RSA", EVP_PKEY_PUBLIC_KEY, parameters.get(), SoftkeyStatus::BadPublicKey);
}

int reportProgress(EVP_PKEY_CTX* context)
{
    (*static_cast<const Progress*>(EVP_PKEY_CTX_get_app_data(context)))();
    return 1;
}

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

EvpKey generateKey(const KeyKindTraits& traits, const Progress& progress)
{
    const EvpKeyContext context = contextNamed(traits.isRsa() ? "RSA" : "EC");
    require(EVP_PKEY_keygen_init(context.get()) == 1);
    if (traits.isRsa())
        require(EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), static_cast<int>(traits.bits)) == 1);
    else
        require(EVP_PKEY_CTX_set_group_name(context.get(), traits.curve) == 1);
    if (progress) {
        EVP_PKEY_CTX_set_app_data(context.get(), const_cast<Progress*>(&progress));
        EVP_PKEY_CTX_set_cb(context.get(), reportProgress);
    }
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
    const EvpKeyContext context = contextOf(key);
    require(EVP_PKEY_check(context.get()) == 1, SoftkeyStatus::BadPrivateKey);
}

ByteVector publicKeyValue(const EVP_PKEY* key)
{
    return EVP_PKEY_is_a(key, "RSA") == 1 ? modulusOf(key) : pointOf(key);
}

SecretBytes encodePrivateKey(const EVP_PKEY* key)
{
    const auto encoder =
        requireObject<Encoder>(OSSL_ENCODER_CTX_new_for_pkey(key, EVP_PKEY_KEYPAIR, "DER", "PrivateKeyInfo", nullptr));
    unsigned char* der = nullptr;
    std::size_t size = 0;
    require(OSSL_ENCODER_to_data(encoder.get(), &der, &size) == 1);
    SecretBytes encoded(size);
    std::copy_n(der, size, encoded.data());
    OPENSSL_clear_free(der, size);
    return encoded;
}

EvpKey decodePrivateKey(Bytes pkcs8)
{
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

EvpKey publicKeyFromInfo(const KeyKindTraits& traits, Bytes subjectPublicKeyInfo)
{
    const unsigned char* position = subjectPublicKeyInfo.data();
    const auto size = static_cast<long>(subjectPublicKeyInfo.size());
    EvpKey key(d2i_PUBKEY_ex(nullptr, &position, size, CryptoContext::get().library(), nullptr));
    const bool usable = key && position == subjectPublicKeyInfo.data() + size && keyKindOf(key.get()) == &traits;
    require(usable, SoftkeyStatus::BadPublicKey);
    return key;
}

EvpKey publicKeyFromPoint(const KeyKindTraits& traits, Bytes point)
{
    require(point.size() == traits.pointSize() && point[0] == POINT_CONVERSION_UNCOMPRESSED,
            SoftkeyStatus::BadPublicKey);
    OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char*>(traits.curve), 0),
        OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, const_cast<unsigned char*>(point.data()),
                                          point.size()),
        OSSL_PARAM_construct_end(),
    };
    return keyFromParameters("EC", EVP_PKEY_PUBLIC_KEY, parameters, SoftkeyStatus::BadPublicKey);
}

EvpKey publicKeyFrom(const KeyKindTraits& traits, Bytes encoded)
{
    // A modulus or point has one length; a SubjectPublicKeyInfo of the same key is always longer.
    if (!traits.isRsa())
        return encoded.size() == traits.pointSize() ? publicKeyFromPoint(traits, encoded)
                                                    : publicKeyFromInfo(traits, encoded);
    if (encoded.size() != traits.size())
        return publicKeyFromInfo(traits, encoded);
    const bool fullLength = (encoded.front() & 0x80) != 0 && (encoded.back() & 1) != 0;
    require(fullLength, SoftkeyStatus::BadPublicKey);
    return rsaPublicKey(encoded);
}

} // namespace softkey
