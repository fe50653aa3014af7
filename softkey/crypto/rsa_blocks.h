// What an RSA private operation has brought to light, looked at in constant time: which padding fits, and what is
// inside. Nothing but the plaintext, its length and the failure of a key that takes OAEP alone tells of the padding.
#pragma once

#include "base/secret.h"
#include "crypto/openssl.h"

namespace softkey
{

enum class PaddingsTaken {
    All,      ///< OAEP, else PKCS #1 v1.5 with implicit rejection: there is always a plaintext.
    OaepOnly, ///< A block that is not OAEP is refused.
};

/// The plaintext of a decrypted block, which is as long as the modulus. OAEP has no label and SHA-1, SHA-256, SHA-384
/// or SHA-512, with MGF1 over the same hash or over SHA-1. A block that is no OAEP counts as PKCS #1 v1.5; a bad one
/// of those answers a text that only `rejectionKey` and the ciphertext decide. Throws DecryptionFailed.
SecretBuffer plaintextOf(Bytes block, PaddingsTaken taken, Bytes rejectionKey);

/// What decides the texts that bad PKCS #1 v1.5 blocks answer, together with the ciphertext: made of a private key, and
/// as secret as that.
SecretBuffer rejectionSecretOf(const EVP_PKEY* key);
/// The key of these texts, for one ciphertext.
SecretBuffer rejectionKeyOf(Bytes rejectionSecret, Bytes ciphertext);

} // namespace softkey
