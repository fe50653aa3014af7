// The two forms of an ECDSA signature: DER as OpenSSL has it, r and s of fixed width as devices have it.
#pragma once

#include "crypto/openssl.h"

namespace softkey
{

/// Writes r and s, each as wide as half of `fixed`.
void fixedFromDer(Bytes der, std::span<unsigned char> fixed);
ByteVector derFromFixed(Bytes fixed);

} // namespace softkey
