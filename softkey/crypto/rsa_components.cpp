// The one import form of the interface: modulus, private exponent and first prime.
#include "crypto/keys.h"

#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/params.h>

namespace softkey
{
namespace
{

constexpr std::size_t COMPONENT_SIZE_MAX = 4096 / 8;

using SecretNumber = Owned<BIGNUM, BN_clear_free>;
using Workspace = Owned<BN_CTX, BN_CTX_free>;
using ParameterBuilder = Owned<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;
using Parameters = Owned<OSSL_PARAM, OSSL_PARAM_free>;

SecretNumber secretNumber()
{
    auto number = requireObject<SecretNumber>(BN_secure_new());
    BN_set_flags(number.get(), BN_FLG_CONSTTIME);
    return number;
}

SecretNumber readNumber(Bytes bigEndian)
{
    while (!bigEndian.empty() && bigEndian.front() == 0)
        bigEndian = bigEndian.subspan(1);
    require(!bigEndian.empty() && bigEndian.size() <= COMPONENT_SIZE_MAX, SoftkeyStatus::BadPrivateKey);
    SecretNumber number = secretNumber();
    require(BN_bin2bn(bigEndian.data(), static_cast<int>(bigEndian.size()), number.get()) != nullptr);
    return number;
}

/// All numbers of an RSA private key.
struct RsaNumbers {
    SecretNumber n, e, d, p, q, exponent1, exponent2, coefficient;
};

SecretNumber minusOne(const SecretNumber& number)
{
    SecretNumber result = secretNumber();
    require(BN_sub(result.get(), number.get(), BN_value_one()) == 1);
    return result;
}

SecretNumber reduced(const SecretNumber& number, const SecretNumber& modulus, BN_CTX* workspace)
{
    SecretNumber result = secretNumber();
    require(BN_mod(result.get(), number.get(), modulus.get(), workspace) == 1);
    return result;
}

void completeNumbers(RsaNumbers& numbers)
{
    const auto workspace = requireObject<Workspace>(BN_CTX_secure_new_ex(CryptoContext::get().library()));
    const SecretNumber remainder = secretNumber();
    numbers.q = secretNumber();
    require(BN_div(numbers.q.get(), remainder.get(), numbers.n.get(), numbers.p.get(), workspace.get()) == 1);
    require(BN_is_zero(remainder.get()) && BN_cmp(numbers.p.get(), BN_value_one()) > 0 &&
                BN_cmp(numbers.q.get(), BN_value_one()) > 0,
            SoftkeyStatus::BadPrivateKey);

    numbers.e = secretNumber();
    require(BN_set_word(numbers.e.get(), PUBLIC_EXPONENT) == 1);
    numbers.exponent1 = reduced(numbers.d, minusOne(numbers.p), workspace.get());
    numbers.exponent2 = reduced(numbers.d, minusOne(numbers.q), workspace.get());
    numbers.coefficient = secretNumber();
    require(BN_mod_inverse(numbers.coefficient.get(), numbers.q.get(), numbers.p.get(), workspace.get()) != nullptr,
            SoftkeyStatus::BadPrivateKey);
}

EvpKey buildKey(const RsaNumbers& numbers)
{
    const auto builder = requireObject<ParameterBuilder>(OSSL_PARAM_BLD_new());
    const auto push = [&](const char* name, const SecretNumber& number) {
        require(OSSL_PARAM_BLD_push_BN(builder.get(), name, number.get()) == 1);
    };
    push(OSSL_PKEY_PARAM_RSA_N, numbers.n);
    push(OSSL_PKEY_PARAM_RSA_E, numbers.e);
    push(OSSL_PKEY_PARAM_RSA_D, numbers.d);
    push(OSSL_PKEY_PARAM_RSA_FACTOR1, numbers.p);
    push(OSSL_PKEY_PARAM_RSA_FACTOR2, numbers.q);
    push(OSSL_PKEY_PARAM_RSA_EXPONENT1, numbers.exponent1);
    push(OSSL_PKEY_PARAM_RSA_EXPONENT2, numbers.exponent2);
    push(OSSL_PKEY_PARAM_RSA_COEFFICIENT1, numbers.coefficient);
    const auto parameters = requireObject<Parameters>(OSSL_PARAM_BLD_to_param(builder.get()));

    const EvpKeyContext context = contextFor("RSA");
    EVP_PKEY* key = nullptr;
    require(EVP_PKEY_fromdata_init(context.get()) == 1);
    require(EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_KEYPAIR, parameters.get()) == 1,
            SoftkeyStatus::BadPrivateKey);
    return EvpKey(key);
}

} // namespace

EvpKey rsaKeyFromComponents(Bytes modulus, Bytes privateExponent, Bytes prime1)
{
    RsaNumbers numbers;
    numbers.n = readNumber(modulus);
    numbers.d = readNumber(privateExponent);
    numbers.p = readNumber(prime1);
    completeNumbers(numbers);
    EvpKey key = buildKey(numbers);
    require(keyKindOf(key.get()) != nullptr, SoftkeyStatus::BadPrivateKey);
    checkPrivateKey(key.get());
    return key;
}

} // namespace softkey
