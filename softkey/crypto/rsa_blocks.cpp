#include "crypto/rsa_blocks.h"

#include "crypto/constant_time.h"
#include "crypto/short_hashes.h"

#include <openssl/core_names.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace softkey
{
namespace
{

using SecretNumber = Owned<BIGNUM, BN_clear_free>;

constexpr std::size_t SHA256_SIZE = 32;

struct OaepKind {
    const ShortHash& hash;
    const ShortHash& maskHash; ///< Under MGF1.
};
// Some hosts leave MGF1 at SHA-1 when they are asked for another hash.
constexpr OaepKind OAEP_KINDS[] = {
    {SHORT_SHA1, SHORT_SHA1},     {SHORT_SHA256, SHORT_SHA256}, {SHORT_SHA384, SHORT_SHA384},
    {SHORT_SHA512, SHORT_SHA512}, {SHORT_SHA256, SHORT_SHA1},   {SHORT_SHA384, SHORT_SHA1},
    {SHORT_SHA512, SHORT_SHA1},
};

constexpr std::size_t PKCS1_PADDING_MIN = 8;

std::array<unsigned char, 4> bigEndian32(std::size_t number)
{
    return {static_cast<unsigned char>(number >> 24), static_cast<unsigned char>(number >> 16),
            static_cast<unsigned char>(number >> 8), static_cast<unsigned char>(number)};
}

using HashValue = std::array<unsigned char, SHORT_HASH_SIZE_MAX>;

/// MGF1: covers or uncovers `data` with the mask that belongs to the seed.
void applyMask(std::span<unsigned char> data, Bytes seed, const ShortHash& hash)
{
    HashValue mask{};
    for (std::size_t counter = 0; counter * hash.size < data.size(); ++counter) {
        const auto counterBytes = bigEndian32(counter);
        hash.compute({seed, counterBytes}, mask.data());
        const std::span<unsigned char> part = data.subspan(counter * hash.size);
        for (std::size_t i = 0; i < std::min(hash.size, part.size()); ++i)
            part[i] ^= mask[i];
    }
    wipe(mask.data(), mask.size());
}

/// A block with its padding looked through: the plaintext is its end.
struct OpenedBlock {
    SecretBuffer bytes;
    Mask good = 0;
    std::size_t start = 0; ///< Of the plaintext; any number when the block is not good.
};

/// Looks for zeros, a one and the plaintext behind `from`.
void findOaepPlaintext(OpenedBlock& opened, std::size_t from)
{
    Mask found = 0;
    for (std::size_t i = from; i < opened.bytes.size(); ++i) {
        const unsigned char byte = opened.bytes.data()[i];
        const Mask one = areEqual(byte, 1);
        opened.start = choose(one & ~found, i + 1, opened.start);
        opened.good &= found | one | isZero(byte);
        found |= one;
    }
    opened.good &= found;
}

OpenedBlock openOaep(Bytes block, const OaepKind& kind)
{
    const std::size_t hashSize = kind.hash.size;
    OpenedBlock opened{SecretBuffer(block.size()), isZero(block[0])};
    std::copy(block.begin(), block.end(), opened.bytes.data());
    const std::span<unsigned char> whole(opened.bytes.data(), opened.bytes.size());
    const std::span<unsigned char> seed = whole.subspan(1, hashSize);
    const std::span<unsigned char> data = whole.subspan(1 + hashSize);
    applyMask(seed, data, kind.maskHash);
    applyMask(data, seed, kind.maskHash);

    std::size_t differences = 0;
    HashValue label{}; // The empty one.
    kind.hash.compute({}, label.data());
    for (std::size_t i = 0; i < hashSize; ++i)
        differences |= static_cast<std::size_t>(data[i] ^ label[i]);
    opened.good &= isZero(differences);
    findOaepPlaintext(opened, 1 + 2 * hashSize);
    return opened;
}

/// As many bytes as are asked for that a key, a purpose and their number decide.
SecretBuffer rejectionText(const HmacSha256& key, std::string_view purpose, std::size_t size)
{
    const Bytes purposeBytes = bytesOf(purpose);
    const std::size_t bits = size * 8;
    const std::array<unsigned char, 2> behind{static_cast<unsigned char>(bits >> 8), static_cast<unsigned char>(bits)};
    // Room for the whole of the last block.
    SecretBuffer text((size + SHA256_SIZE - 1) / SHA256_SIZE * SHA256_SIZE);
    for (std::size_t counter = 0; counter * SHA256_SIZE < size; ++counter) {
        const std::array<unsigned char, 2> before{static_cast<unsigned char>(counter >> 8),
                                                  static_cast<unsigned char>(counter)};
        key.compute({before, purposeBytes, behind}, text.data() + counter * SHA256_SIZE);
    }
    text.shorten(size);
    return text;
}

/// Length of the text that stands for a bad block: the last of 128 numbers that is short enough.
std::size_t rejectionLength(const HmacSha256& key, std::size_t blockSize)
{
    constexpr std::size_t CANDIDATES = 128;
    const std::size_t limit = blockSize - 2 - PKCS1_PADDING_MIN;
    std::size_t bits = 1;
    while (bits <= limit)
        bits <<= 1;
    const SecretBuffer numbers = rejectionText(key, "length", 2 * CANDIDATES);
    std::size_t length = 0;
    for (std::size_t i = 0; i < numbers.size(); i += 2) {
        const std::size_t candidate = (std::size_t{numbers.data()[i]} << 8 | numbers.data()[i + 1]) & (bits - 1);
        length = choose(isLess(candidate, limit), candidate, length);
    }
    return length;
}

/// The block, or when its padding is bad a text of the same length whose end stands for the plaintext.
OpenedBlock openPkcs1(Bytes block, Bytes rejectionKey)
{
    const HmacSha256 key(rejectionKey);
    OpenedBlock opened{rejectionText(key, "message", block.size()), YES,
                       block.size() - rejectionLength(key, block.size())};
    Mask good = isZero(block[0]) & areEqual(block[1], 2);
    Mask found = 0;
    std::size_t start = 0;
    for (std::size_t i = 2; i < block.size(); ++i) {
        const Mask zero = isZero(block[i]);
        start = choose(zero & ~found, i + 1, start);
        found |= zero;
    }
    good &= found & ~isLess(start, 2 + PKCS1_PADDING_MIN + 1);
    for (std::size_t i = 0; i < block.size(); ++i)
        opened.bytes.data()[i] = choose(good, block[i], opened.bytes.data()[i]);
    opened.start = choose(good, start, opened.start);
    return opened;
}

/// Keeps the first good block of those that are offered.
void take(OpenedBlock& chosen, const OpenedBlock& offered)
{
    const Mask taken = offered.good & ~chosen.good;
    for (std::size_t i = 0; i < chosen.bytes.size(); ++i)
        chosen.bytes.data()[i] = choose(taken, offered.bytes.data()[i], chosen.bytes.data()[i]);
    chosen.start = choose(taken, offered.start, chosen.start);
    chosen.good |= taken;
}

} // namespace

SecretBuffer plaintextOf(Bytes block, PaddingsTaken taken, Bytes rejectionKey)
{
    OpenedBlock chosen{SecretBuffer(block.size())};
    for (const OaepKind& kind : OAEP_KINDS) {
        if (2 * kind.hash.size + 2 <= block.size())
            take(chosen, openOaep(block, kind));
    }
    if (taken == PaddingsTaken::All)
        take(chosen, openPkcs1(block, rejectionKey));
    require(chosen.good != 0, SoftkeyStatus::DecryptionFailed);
    SecretBuffer plaintext(block.size() - chosen.start);
    std::copy_n(chosen.bytes.data() + chosen.start, plaintext.size(), plaintext.data());
    return plaintext;
}

SecretBuffer rejectionSecretOf(const EVP_PKEY* key)
{
    BIGNUM* exponent = nullptr;
    require(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_D, &exponent) == 1);
    const SecretNumber owner(exponent);
    SecretBuffer exponentBytes(static_cast<std::size_t>(EVP_PKEY_get_size(key)));
    require(BN_bn2binpad(exponent, exponentBytes.data(), static_cast<int>(exponentBytes.size())) >= 0);
    SecretBuffer hash(SHA256_SIZE);
    SHORT_SHA256.compute({exponentBytes}, hash.data());
    return hash;
}

SecretBuffer rejectionKeyOf(Bytes rejectionSecret, Bytes ciphertext)
{
    SecretBuffer rejectionKey(SHA256_SIZE);
    HmacSha256(rejectionSecret).compute({ciphertext}, rejectionKey.data());
    return rejectionKey;
}

} // namespace softkey
