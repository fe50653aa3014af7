// Digests by which a process knows a PIN again without keeping it: SHA-256 under a random key of the object's own.
#pragma once

#include "base/secret.h"
#include "crypto/openssl.h"

#include <initializer_list>

namespace softkey
{

class KeyedDigest
{
public:
    KeyedDigest();
    ByteVector of(std::initializer_list<Bytes> parts) const;

private:
    SecretBuffer key_;
};

/// Without telling by its time where they differ.
bool sameDigest(Bytes one, Bytes other);

} // namespace softkey
