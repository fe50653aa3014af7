// The kinds of key pair that a key can hold, and their sizes.
#pragma once

#include "velkor/device_service.h"

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace softkey
{

struct KeyKindTraits {
    KeyKind kind;
    EncryptionType encryptionType; ///< RSA only.
    const char* name;              ///< As the tool spells it.
    std::size_t bits;              ///< Of the modulus or of the field.
    const char* curve;             ///< OpenSSL's name of the curve; null for RSA.

    bool isRsa() const { return curve == nullptr; }
    /// Bytes of the modulus, or of a coordinate.
    std::size_t size() const { return (bits + 7) / 8; }
    std::size_t signatureSize() const { return isRsa() ? size() : 2 * size(); }
    std::size_t pointSize() const { return 1 + 2 * size(); } ///< EC only: an uncompressed point.
};

std::span<const KeyKindTraits> keyKinds();
/// Any number that is none of the enumeration stands for 2048-bit RSA.
const KeyKindTraits& traitsOf(std::uint32_t keyKind);
/// Null when the name is unknown.
const KeyKindTraits* keyKindNamed(std::string_view name);
/// Null when no key pair of that type and size can be held.
const KeyKindTraits* keyKindOf(const EVP_PKEY* key);

} // namespace softkey
