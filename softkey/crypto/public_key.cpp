#include "crypto/public_key.h"

#include "crypto/keys.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/param_build.h>
#include <openssl/params.h>

namespace softkey
{
namespace
{

using ParameterBuilder = Owned<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;
using Parameters = Owned<OSSL_PARAM, OSSL_PARAM_free>;
using PublicNumber = Owned<BIGNUM, BN_free>;

EvpKey keyFromParameters(const char* algorithm, int selection, OSSL_PARAM* parameters, SoftkeyStatus failure)
{
    const EvpKeyContext context = contextFor(algorithm);
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

/// With the exponent 1 everything is its own signature; an even one has no private counterpart; a huge one is nothing
/// but work for whoever verifies.
bool hasUsableExponent(const EVP_PKEY* key)
{
    constexpr int EXPONENT_BITS_MAX = 64;
    BIGNUM* exponent = nullptr;
    require(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &exponent) == 1);
    const PublicNumber owner(exponent);
    return BN_is_odd(exponent) == 1 && BN_is_one(exponent) == 0 && BN_num_bits(exponent) <= EXPONENT_BITS_MAX;
}

} // namespace

EvpKey publicKeyFromInfo(const KeyKindTraits& traits, Bytes subjectPublicKeyInfo)
{
    const unsigned char* position = subjectPublicKeyInfo.data();
    const auto size = static_cast<long>(subjectPublicKeyInfo.size());
    EvpKey key(d2i_PUBKEY_ex(nullptr, &position, size, CryptoContext::get().library(), nullptr));
    const bool usable = key && position == subjectPublicKeyInfo.data() + size && keyKindOf(key.get()) == &traits;
    require(usable && (!traits.isRsa() || hasUsableExponent(key.get())), SoftkeyStatus::BadPublicKey);
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
