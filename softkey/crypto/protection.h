// How secrets are kept in a file: sealed with AES-256-GCM, the sealing key of the PIN derived with scrypt.
#pragma once

#include "base/secret.h"
#include "crypto/openssl.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace softkey
{

inline constexpr std::size_t SEALING_KEY_SIZE = 32;

/// Work that one guess of a PIN costs: 2^logN rounds over 128 * blockSize bytes each, `lanes` times.
struct ScryptCost {
    std::uint32_t logN = 17;
    std::uint32_t blockSize = 8;
    std::uint32_t lanes = 1;
};
inline constexpr std::uint32_t SCRYPT_LOG_N_MIN = 4;
inline constexpr std::uint32_t SCRYPT_LOG_N_MAX = 22;

/// False for costs out of range, which only a damaged file asks for.
bool isAcceptable(const ScryptCost& cost);

SecretBuffer keyFromPin(std::string_view pin, Bytes salt, const ScryptCost& cost);

/// HMAC with SHA-256, which gives a key or a code.
SecretBuffer keyedCode(Bytes key, Bytes message);
SecretBuffer keyedCode(Bytes key, std::string_view message);

/// Nonce, ciphertext and tag. `identity` is bound to the result: opening needs the same.
ByteVector seal(Bytes key, Bytes plaintext, Bytes identity);
/// Nothing when the key or the identity is another one, or the sealed bytes were changed.
std::optional<SecretBuffer> unseal(Bytes key, Bytes sealed, Bytes identity);

} // namespace softkey
