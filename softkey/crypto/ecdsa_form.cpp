#include "crypto/ecdsa_form.h"

#include <openssl/ec.h>

#include <algorithm>

namespace softkey
{
namespace
{

using EcdsaSignature = Owned<ECDSA_SIG, ECDSA_SIG_free>;

constexpr unsigned char SEQUENCE = 0x30;
constexpr unsigned char INTEGER = 0x02;

/// Takes a DER element of that tag off the front of `input`. Lengths up to 255 bytes do for every curve here.
Bytes takeElement(Bytes& input, unsigned char tag)
{
    require(input.size() >= 3 && input[0] == tag);
    const bool longForm = input[1] == 0x81;
    const std::size_t header = longForm ? 3 : 2;
    const std::size_t length = longForm ? input[2] : input[1];
    require((longForm || length < 0x80) && header + length <= input.size());
    const Bytes content = input.subspan(header, length);
    input = input.subspan(header + length);
    return content;
}

void writeFixed(Bytes integer, std::span<unsigned char> fixed)
{
    while (integer.size() > fixed.size() && integer.front() == 0)
        integer = integer.subspan(1);
    require(integer.size() <= fixed.size());
    const std::size_t padding = fixed.size() - integer.size();
    std::fill_n(fixed.begin(), padding, static_cast<unsigned char>(0));
    std::copy(integer.begin(), integer.end(), fixed.begin() + static_cast<std::ptrdiff_t>(padding));
}

} // namespace

void fixedFromDer(Bytes der, std::span<unsigned char> fixed)
{
    Bytes content = takeElement(der, SEQUENCE);
    writeFixed(takeElement(content, INTEGER), fixed.first(fixed.size() / 2));
    writeFixed(takeElement(content, INTEGER), fixed.last(fixed.size() / 2));
}

ByteVector derFromFixed(Bytes fixed)
{
    const int width = static_cast<int>(fixed.size() / 2);
    const auto signature = requireObject<EcdsaSignature>(ECDSA_SIG_new());
    BIGNUM* const r = BN_bin2bn(fixed.data(), width, nullptr);
    BIGNUM* const s = BN_bin2bn(fixed.data() + width, width, nullptr);
    if (ECDSA_SIG_set0(signature.get(), r, s) != 1) {
        BN_free(r);
        BN_free(s);
        throw Refusal(SoftkeyStatus::CryptoFailed);
    }
    unsigned char* der = nullptr;
    const int size = i2d_ECDSA_SIG(signature.get(), &der);
    const OpenSslBytes owner(der);
    require(size > 0);
    return {der, der + size};
}

} // namespace softkey
