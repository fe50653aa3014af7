// What is signed: DigestInfo around a bare hash for PKCS #1 v1.5, the hash of PSS chosen by its length.
#pragma once

#include "crypto/key_kinds.h"
#include "crypto/openssl.h"

#include <array>

namespace softkey
{

/// A DigestInfo of at most SHA-512, without allocation.
class DigestInfo
{
public:
    /// A hash of 20, 28, 32, 48 or 64 bytes is wrapped, anything else taken as it is. Borrows `input`.
    explicit DigestInfo(Bytes input);
    Bytes bytes() const { return bytes_; }

private:
    std::array<unsigned char, 19 + 64> storage_{};
    Bytes bytes_;
};

/// Throws DataLength when PKCS #1 v1.5 has no room for `encoded` in a key of that kind.
void requireRoomForPkcs1(const KeyKindTraits& traits, std::size_t encodedSize);

/// Position among the digests of the hash that PSS uses for an input of that size; throws DataLength when there is
/// none, or the key is too short for it.
std::size_t pssDigestFor(const KeyKindTraits& traits, std::size_t inputSize);

/// Sets PSS padding with that digest, MGF1 with the same, and a salt of its size.
void setPssPadding(EVP_PKEY_CTX* context, const Digest& digest);

/// What of an input ECDSA looks at: the leftmost bytes. Lengths that a host made up never reach OpenSSL, which
/// multiplies them.
Bytes ecdsaInput(const KeyKindTraits& traits, Bytes input);

} // namespace softkey
