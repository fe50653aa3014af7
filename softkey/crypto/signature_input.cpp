#include "crypto/signature_input.h"

#include "crypto/der_tags.h"

#include <openssl/rsa.h>

#include <algorithm>

namespace softkey
{
namespace
{

// Object identifiers of the hashes, without tag and length.
struct HashOid {
    std::size_t hashSize;
    std::size_t size;
    unsigned char bytes[9];
};

constexpr HashOid HASH_OIDS[] = {
    {20, 5, {0x2b, 0x0e, 0x03, 0x02, 0x1a}},
    {28, 9, {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x04}},
    {32, 9, {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01}},
    {48, 9, {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02}},
    {64, 9, {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03}},
};

constexpr std::size_t PKCS1_OVERHEAD = 11;

} // namespace

DigestInfo::DigestInfo(Bytes input) : bytes_(input)
{
    const auto oid = std::find_if(std::begin(HASH_OIDS), std::end(HASH_OIDS),
                                  [&](const HashOid& candidate) { return candidate.hashSize == input.size(); });
    if (oid == std::end(HASH_OIDS))
        return;
    const auto oidSize = static_cast<unsigned char>(oid->size);
    const auto hashSize = static_cast<unsigned char>(oid->hashSize);
    const auto algorithmSize = static_cast<unsigned char>(2 + oidSize + 2);
    const auto contentSize = static_cast<unsigned char>(2 + algorithmSize + 2 + hashSize);
    auto end = storage_.begin();
    for (const unsigned char byte : {SEQUENCE, contentSize, SEQUENCE, algorithmSize, OBJECT_IDENTIFIER, oidSize})
        *end++ = byte;
    end = std::copy_n(oid->bytes, oid->size, end);
    for (const unsigned char byte : {NULL_VALUE, static_cast<unsigned char>(0), OCTET_STRING, hashSize})
        *end++ = byte;
    std::copy(input.begin(), input.end(), end);
    bytes_ = Bytes(storage_).first(2U + contentSize);
}

void requireRoomForPkcs1(const KeyKindTraits& traits, std::size_t encodedSize)
{
    require(encodedSize + PKCS1_OVERHEAD <= traits.size(), SoftkeyStatus::DataLength);
}

std::size_t pssDigestFor(const KeyKindTraits& traits, std::size_t inputSize)
{
    const std::span<const Digest> digests = CryptoContext::get().digests();
    const auto found =
        std::find_if(digests.begin(), digests.end(), [&](const Digest& digest) { return digest.size == inputSize; });
    // Hash, salt of the same size, and two bytes.
    require(found != digests.end() && 2 * inputSize + 2 <= traits.size(), SoftkeyStatus::DataLength);
    return static_cast<std::size_t>(found - digests.begin());
}

void setPssPadding(EVP_PKEY_CTX* context, const Digest& digest)
{
    require(EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
            EVP_PKEY_CTX_set_signature_md(context, digest.algorithm) == 1 &&
            EVP_PKEY_CTX_set_rsa_mgf1_md(context, digest.algorithm) == 1 &&
            EVP_PKEY_CTX_set_rsa_pss_saltlen(context, RSA_PSS_SALTLEN_DIGEST) == 1);
}

Bytes ecdsaInput(const KeyKindTraits& traits, Bytes input)
{
    return input.first(std::min(input.size(), traits.size()));
}

} // namespace softkey
