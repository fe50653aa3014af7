// Public keys: their forms, and what is done with them.
#pragma once

#include "crypto/key_kinds.h"
#include "crypto/openssl.h"
#include "crypto/rsa_padding.h"

namespace softkey
{

/// A public key of that kind from a modulus, a point or a SubjectPublicKeyInfo; throws BadPublicKey.
EvpKey publicKeyFrom(const KeyKindTraits& traits, Bytes encoded);
/// A public key of that kind from a SubjectPublicKeyInfo alone; throws BadPublicKey.
EvpKey publicKeyFromInfo(const KeyKindTraits& traits, Bytes subjectPublicKeyInfo);
/// A public key from an uncompressed point; throws BadPublicKey.
EvpKey publicKeyFromPoint(const KeyKindTraits& traits, Bytes point);

/// Whether a signature verifies; throws for a key or a length that no signature of that kind can have.
bool verifySignature(const KeyKindTraits& traits, Bytes publicKey, Bytes input, Bytes signature, bool isPss);

/// Encrypts for a public key; returns the length of the ciphertext.
std::size_t encrypt(const KeyKindTraits& traits, Bytes subjectPublicKeyInfo, RsaPadding padding, Bytes plaintext,
                    std::span<unsigned char> ciphertext);

} // namespace softkey
