#include "crypto/rsa_blocks.h"

#include "crypto/constant_time.h"

#include <openssl/core_names.h>
#include <openssl/params.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace softkey
{
namespace
{

using SecretNumber = Owned<BIGNUM, BN_clear_free>;
using Mac = Owned<EVP_MAC, EVP_MAC_free>;
using MacContext = Owned<EVP_MAC_CTX, EVP_MAC_CTX_free>;

constexpr std::size_t SHA1_SIZE = 20;
constexpr std::size_t SHA256_SIZE = 32;
constexpr std::size_t SHA384_SIZE = 48;
constexpr std::size_t SHA512_SIZE = 64;

struct OaepKind {
    std::size_t hashSize;
    std::size_t maskHashSize; ///< Of the hash under MGF1.
};
// Some hosts leave MGF1 at SHA-1 when they are asked for another hash.
constexpr OaepKind OAEP_KINDS[] = {
    {SHA1_SIZE, SHA1_SIZE},   {SHA256_SIZE, SHA256_SIZE}, {SHA384_SIZE, SHA384_SIZE}, {SHA512_SIZE, SHA512_SIZE},
    {SHA256_SIZE, SHA1_SIZE}, {SHA384_SIZE, SHA1_SIZE},   {SHA512_SIZE, SHA1_SIZE},
};

constexpr std::size_t PKCS1_PADDING_MIN = 8;

std::array<unsigned char, 4> bigEndian32(std::size_t number)
{
    return {static_cast<unsigned char>(number >> 24), static_cast<unsigned char>(number >> 16),
            static_cast<unsigned char>(number >> 8), static_cast<unsigned char>(number)};
}

/// MGF1: covers or uncovers `data` with the mask that belongs to the seed.
void applyMask(std::span<unsigned char> data, Bytes seed, const Digest& hash)
{
    const auto context = requireObject<EvpDigestContext>(EVP_MD_CTX_new());
    SecretBuffer mask(hash.size);
    for (std::size_t counter = 0; counter * hash.size < data.size(); ++counter) {
        const auto counterBytes = bigEndian32(counter);
        require(EVP_DigestInit_ex2(context.get(), hash.algorithm, nullptr) == 1 &&
                EVP_DigestUpdate(context.get(), seed.data(), seed.size()) == 1 &&
                EVP_DigestUpdate(context.get(), counterBytes.data(), counterBytes.size()) == 1 &&
                EVP_DigestFinal_ex(context.get(), mask.data(), nullptr) == 1);
        const std::span<unsigned char> part = data.subspan(counter * hash.size);
        for (std::size_t i = 0; i < std::min(hash.size, part.size()); ++i)
            part[i] ^= mask.data()[i];
    }
}

ByteVector hashOfEmptyLabel(const Digest& hash)
{
    ByteVector value(hash.size);
    require(EVP_Digest("", 0, value.data(), nullptr, hash.algorithm, nullptr) == 1);
    return value;
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
    const Digest& hash = *CryptoContext::get().digestOfSize(kind.hashSize);
    const Digest& maskHash = *CryptoContext::get().digestOfSize(kind.maskHashSize);
    OpenedBlock opened{SecretBuffer(block.size()), isZero(block[0])};
    std::copy(block.begin(), block.end(), opened.bytes.data());
    const std::span<unsigned char> whole(opened.bytes.data(), opened.bytes.size());
    const std::span<unsigned char> seed = whole.subspan(1, hash.size);
    const std::span<unsigned char> data = whole.subspan(1 + hash.size);
    applyMask(seed, data, maskHash);
    applyMask(data, seed, maskHash);

    std::size_t differences = 0;
    const ByteVector label = hashOfEmptyLabel(hash);
    for (std::size_t i = 0; i < label.size(); ++i)
        differences |= static_cast<std::size_t>(data[i] ^ label[i]);
    opened.good &= isZero(differences);
    findOaepPlaintext(opened, 1 + 2 * hash.size);
    return opened;
}

/// As many bytes as are asked for that a key, a purpose and their number decide.
class RejectionText
{
public:
    explicit RejectionText(Bytes key)
    {
        const auto mac = requireObject<Mac>(EVP_MAC_fetch(CryptoContext::get().library(), "HMAC", nullptr));
        context_ = requireObject<MacContext>(EVP_MAC_CTX_new(mac.get()));
        char sha256[] = "SHA256";
        const OSSL_PARAM parameters[] = {
            OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, sha256, 0),
            OSSL_PARAM_construct_end(),
        };
        require(EVP_MAC_init(context_.get(), key.data(), key.size(), parameters) == 1);
    }

    SecretBuffer bytes(std::string_view purpose, std::size_t size)
    {
        SecretBuffer text(size);
        for (std::size_t counter = 0; counter * SHA256_SIZE < size; ++counter) {
            const SecretBuffer part = block(purpose, counter, size * 8);
            const std::size_t offset = counter * SHA256_SIZE;
            std::copy_n(part.data(), std::min(part.size(), size - offset), text.data() + offset);
        }
        return text;
    }

private:
    SecretBuffer block(std::string_view purpose, std::size_t counter, std::size_t bits)
    {
        const std::array<unsigned char, 2> before{static_cast<unsigned char>(counter >> 8),
                                                  static_cast<unsigned char>(counter)};
        const std::array<unsigned char, 2> behind{static_cast<unsigned char>(bits >> 8),
                                                  static_cast<unsigned char>(bits)};
        SecretBuffer value(SHA256_SIZE);
        std::size_t size = 0;
        require(EVP_MAC_init(context_.get(), nullptr, 0, nullptr) == 1 &&
                EVP_MAC_update(context_.get(), before.data(), before.size()) == 1 &&
                EVP_MAC_update(context_.get(), reinterpret_cast<const unsigned char*>(purpose.data()),
                               purpose.size()) == 1 &&
                EVP_MAC_update(context_.get(), behind.data(), behind.size()) == 1 &&
                EVP_MAC_final(context_.get(), value.data(), &size, value.size()) == 1);
        return value;
    }

    MacContext context_;
};

/// Length of the text that stands for a bad block: the last of 128 numbers that is short enough.
std::size_t rejectionLength(RejectionText& text, std::size_t blockSize)
{
    constexpr std::size_t CANDIDATES = 128;
    const std::size_t limit = blockSize - 2 - PKCS1_PADDING_MIN;
    std::size_t bits = 1;
    while (bits <= limit)
        bits <<= 1;
    const SecretBuffer numbers = text.bytes("length", 2 * CANDIDATES);
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
    RejectionText text(rejectionKey);
    OpenedBlock opened{text.bytes("message", block.size()), YES, block.size() - rejectionLength(text, block.size())};
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
        if (2 * kind.hashSize + 2 <= block.size())
            take(chosen, openOaep(block, kind));
    }
    if (taken == PaddingsTaken::All)
        take(chosen, openPkcs1(block, rejectionKey));
    require(chosen.good != 0, SoftkeyStatus::DecryptionFailed);
    SecretBuffer plaintext(block.size() - chosen.start);
    std::copy_n(chosen.bytes.data() + chosen.start, plaintext.size(), plaintext.data());
    return plaintext;
}

SecretBuffer rejectionKeyOf(const EVP_PKEY* key, Bytes ciphertext)
{
    BIGNUM* exponent = nullptr;
    require(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_D, &exponent) == 1);
    const SecretNumber owner(exponent);
    SecretBuffer exponentBytes(ciphertext.size());
    require(BN_bn2binpad(exponent, exponentBytes.data(), static_cast<int>(exponentBytes.size())) >= 0);
    const Digest& sha256 = *CryptoContext::get().digestOfSize(SHA256_SIZE);
    SecretBuffer hash(SHA256_SIZE);
    require(EVP_Digest(exponentBytes.data(), exponentBytes.size(), hash.data(), nullptr, sha256.algorithm, nullptr) ==
            1);
    SecretBuffer rejectionKey(SHA256_SIZE);
    std::size_t size = 0;
    require(EVP_Q_mac(CryptoContext::get().library(), "HMAC", nullptr, "SHA256", nullptr, hash.data(), hash.size(),
                      ciphertext.data(), ciphertext.size(), rejectionKey.data(), rejectionKey.size(),
                      &size) != nullptr);
    return rejectionKey;
}

} // namespace softkey
