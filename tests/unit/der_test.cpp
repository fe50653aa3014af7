// The public key structure, compared with what OpenSSL writes for the same numbers.
#include "util/der.h"

#include <algorithm>
#include <memory>
#include <numeric>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/x509.h>

using namespace velkor;

namespace
{

using ByteVector = std::vector<unsigned char>;

constexpr unsigned char WITH_TOP_BIT = 0xC5;
constexpr unsigned char WITHOUT_TOP_BIT = 0x45;

ByteVector makeModulus(std::size_t size, unsigned char firstByte)
{
    ByteVector modulus(size);
    std::iota(modulus.begin(), modulus.end(), static_cast<unsigned char>(size));
    modulus.front() = firstByte;
    return modulus;
}

template <typename Object>
auto owned(Object* object, void (*release)(Object*))
{
    return std::unique_ptr<Object, void (*)(Object*)>(object, release);
}

/// OpenSSL's encoding of the key with this modulus and the exponent 65537; empty when it refuses.
ByteVector encodedByOpenSsl(const ByteVector& modulus)
{
    const auto n = owned(BN_bin2bn(modulus.data(), static_cast<int>(modulus.size()), nullptr), BN_free);
    const auto builder = owned(OSSL_PARAM_BLD_new(), OSSL_PARAM_BLD_free);
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n.get());
    OSSL_PARAM_BLD_push_ulong(builder.get(), OSSL_PKEY_PARAM_RSA_E, 65537);
    const auto parameters = owned(OSSL_PARAM_BLD_to_param(builder.get()), OSSL_PARAM_free);
    const auto context = owned(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(context.get());
    EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get());
    const auto keyOwner = owned(key, EVP_PKEY_free);
    unsigned char* der = nullptr;
    const int length = key != nullptr ? i2d_PUBKEY(key, &der) : 0;
    ByteVector encoded(der, der + std::max(length, 0));
    OPENSSL_free(der);
    return encoded;
}

class ModulusSize : public testing::TestWithParam<std::size_t>
{
};

INSTANTIATE_TEST_SUITE_P(Usual, ModulusSize, testing::Values(128, 192, 256, 384, 512));
INSTANTIATE_TEST_SUITE_P(Odd, ModulusSize, testing::Values(1, 2, 3, 100, 126, 127, 129, 254, 255, 257));

TEST_P(ModulusSize, IsEncodedAsOpenSslDoes)
{
    for (const unsigned char firstByte : {WITH_TOP_BIT, WITHOUT_TOP_BIT, static_cast<unsigned char>(0x80),
                                          static_cast<unsigned char>(0x7F), static_cast<unsigned char>(0x01)}) {
        const ByteVector modulus = makeModulus(GetParam(), firstByte);
        const ByteVector expected = encodedByOpenSsl(modulus);
        ASSERT_FALSE(expected.empty());
        EXPECT_EQ(rsaSubjectPublicKeyInfo(modulus), expected) << int{firstByte};
    }
}

const ByteVector ALGORITHM = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
const ByteVector EXPONENT = {0x02, 0x03, 0x01, 0x00, 0x01};

ByteVector inARow(std::initializer_list<ByteVector> pieces)
{
    ByteVector bytes;
    for (const ByteVector& piece : pieces)
        bytes.insert(bytes.end(), piece.begin(), piece.end());
    return bytes;
}

TEST(SubjectPublicKeyInfo, OfAModulusWithTopBitHasAZeroInFront)
{
    EXPECT_EQ(
        rsaSubjectPublicKeyInfo(ByteVector{0xC5, 0x01}),
        inARow({{0x30, 0x1E}, ALGORITHM, {0x03, 0x0D, 0x00, 0x30, 0x0A, 0x02, 0x03, 0x00, 0xC5, 0x01}, EXPONENT}));
}

TEST(SubjectPublicKeyInfo, KeepsLeadingZeros)
{
    EXPECT_EQ(
        rsaSubjectPublicKeyInfo(ByteVector{0x00, 0x00, 0x45}),
        inARow({{0x30, 0x1E}, ALGORITHM, {0x03, 0x0D, 0x00, 0x30, 0x0A, 0x02, 0x03, 0x00, 0x00, 0x45}, EXPONENT}));
    EXPECT_EQ(rsaSubjectPublicKeyInfo(ByteVector{0x00, 0xC5}),
              inARow({{0x30, 0x1D}, ALGORITHM, {0x03, 0x0C, 0x00, 0x30, 0x09, 0x02, 0x02, 0x00, 0xC5}, EXPONENT}));
}

TEST(SubjectPublicKeyInfo, OfAnEmptyModulusHasAnEmptyNumber)
{
    EXPECT_EQ(rsaSubjectPublicKeyInfo({}),
              inARow({{0x30, 0x1B}, ALGORITHM, {0x03, 0x0A, 0x00, 0x30, 0x07, 0x02, 0x00}, EXPONENT}));
}

struct Encoding {
    std::size_t modulusSize;
    unsigned char firstByte;
    ByteVector beforeAlgorithm;
    ByteVector behindAlgorithm; ///< Up to the modulus's first byte.
};

TEST(SubjectPublicKeyInfo, WritesLengthsInTheShortestForm)
{
    const Encoding encodings[] = {
        {1, 0x45, {0x30, 0x1C}, {0x03, 0x0B, 0x00, 0x30, 0x08, 0x02, 0x01, 0x45}},
        {1, 0xC5, {0x30, 0x1D}, {0x03, 0x0C, 0x00, 0x30, 0x09, 0x02, 0x02, 0x00, 0xC5}},
        {127, 0x45, {0x30, 0x81, 0x9C}, {0x03, 0x81, 0x8A, 0x00, 0x30, 0x81, 0x86, 0x02, 0x7F, 0x45}},
        {127, 0xC5, {0x30, 0x81, 0x9E}, {0x03, 0x81, 0x8C, 0x00, 0x30, 0x81, 0x88, 0x02, 0x81, 0x80, 0x00, 0xC5}},
        {128, 0x45, {0x30, 0x81, 0x9E}, {0x03, 0x81, 0x8C, 0x00, 0x30, 0x81, 0x88, 0x02, 0x81, 0x80, 0x45}},
        {255,
         0xC5,
         {0x30, 0x82, 0x01, 0x21},
         {0x03, 0x82, 0x01, 0x0E, 0x00, 0x30, 0x82, 0x01, 0x09, 0x02, 0x82, 0x01, 0x00, 0x00, 0xC5}},
        {256,
         0x45,
         {0x30, 0x82, 0x01, 0x21},
         {0x03, 0x82, 0x01, 0x0E, 0x00, 0x30, 0x82, 0x01, 0x09, 0x02, 0x82, 0x01, 0x00, 0x45}},
        {256,
         0xC5,
         {0x30, 0x82, 0x01, 0x22},
         {0x03, 0x82, 0x01, 0x0F, 0x00, 0x30, 0x82, 0x01, 0x0A, 0x02, 0x82, 0x01, 0x01, 0x00, 0xC5}},
    };
    for (const Encoding& each : encodings) {
        const ByteVector modulus = makeModulus(each.modulusSize, each.firstByte);
        const ByteVector rest(modulus.begin() + 1, modulus.end());
        EXPECT_EQ(rsaSubjectPublicKeyInfo(modulus),
                  inARow({each.beforeAlgorithm, ALGORITHM, each.behindAlgorithm, rest, EXPONENT}))
            << each.modulusSize;
    }
}

} // namespace
