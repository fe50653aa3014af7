// Digests by which a process knows a PIN again without keeping it: SHA-256 under a random key of the object's own.
#pragma once

#include "base/secret.h"
#include "crypto/openssl.h"

#include <array>

namespace softkey
{

using PinDigest = std::array<unsigned char, 32>;

class KeyedDigest
{
public:
    KeyedDigest();
    PinDigest of(Bytes salt, Bytes pin) const;

private:
    SecretBuffer key_;
};

/// Without telling by its time where they differ.
bool sameDigest(const PinDigest& one, const PinDigest& other);

} // namespace softkey
