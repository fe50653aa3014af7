// Hashes of little, of which looking at one decrypted block takes some eighty. They are made by the functions that
// OpenSSL had before its providers: through EVP, setting up each would take several times as long as the hash.
#pragma once

#include "base/bytes.h"

#include <openssl/sha.h>

#include <initializer_list>

namespace softkey
{

inline constexpr std::size_t SHORT_HASH_SIZE_MAX = SHA512_DIGEST_LENGTH;

/// What it worked with is wiped.
struct ShortHash {
    std::size_t size;
    /// Writes the hash of the parts in a row.
    void (*compute)(std::initializer_list<Bytes> parts, unsigned char* out);
};
extern const ShortHash SHORT_SHA1;
extern const ShortHash SHORT_SHA256;
extern const ShortHash SHORT_SHA384;
extern const ShortHash SHORT_SHA512;

/// HMAC with SHA-256, under one key for several messages.
class HmacSha256
{
public:
    /// A key of at most 64 bytes.
    explicit HmacSha256(Bytes key);
    ~HmacSha256();
    HmacSha256(const HmacSha256&) = delete;
    HmacSha256& operator=(const HmacSha256&) = delete;

    void compute(std::initializer_list<Bytes> parts, unsigned char* out) const;

private:
    SHA256_CTX inner_{};
    SHA256_CTX outer_{};
};

} // namespace softkey
