// The one DER structure that the module writes.
#pragma once

#include <span>
#include <vector>

/// SubjectPublicKeyInfo of an RSA key with this big-endian modulus and the exponent 65537. A modulus whose top bit is
/// set gets a zero byte in front; leading zeros stay.
std::vector<unsigned char> rsaSubjectPublicKeyInfo(std::span<const unsigned char> modulus);
