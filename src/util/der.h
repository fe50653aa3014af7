// DER as far as the module needs it.
#pragma once

#include "util/bytes.h"

namespace velkor
{

inline constexpr unsigned char DER_TAG_SEQUENCE = 0x30;

/// The exponent of every RSA key, big-endian.
inline constexpr unsigned char RSA_PUBLIC_EXPONENT[] = {0x01, 0x00, 0x01};

/// SubjectPublicKeyInfo of an RSA key with this big-endian modulus and the exponent 65537. A modulus whose top bit is
/// set gets a zero byte in front; leading zeros stay.
OwnedBytes rsaSubjectPublicKeyInfo(Bytes modulus);

} // namespace velkor
