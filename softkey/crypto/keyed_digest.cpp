#include "crypto/keyed_digest.h"

#include "crypto/short_hashes.h"

#include <openssl/crypto.h>

#include <cstdint>
#include <cstring>

namespace softkey
{
namespace
{

constexpr std::size_t KEY_SIZE = 32;

} // namespace

KeyedDigest::KeyedDigest() : key_(KEY_SIZE)
{
    randomBytes({key_.data(), key_.size()});
}

PinDigest KeyedDigest::of(Bytes salt, Bytes pin) const
{
    // Refuses when an OpenSSL that is shared has gone: a use with contexts that are ready asks nothing else.
    CryptoContext::get();
    const std::uint64_t saltSize = salt.size(); // Where the one ends is digested, too.
    std::array<unsigned char, sizeof saltSize> size{};
    std::memcpy(size.data(), &saltSize, size.size());
    PinDigest digest{};
    SHORT_SHA256.compute({key_, size, salt, pin}, digest.data());
    return digest;
}

bool sameDigest(const PinDigest& one, const PinDigest& other)
{
    return CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}

} // namespace softkey
