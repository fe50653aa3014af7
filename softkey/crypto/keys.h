// Key pairs outside of storage: generating, building from components, checking, and the forms in which they are kept.
#pragma once

#include "base/secret.h"
#include "crypto/key_kinds.h"
#include "crypto/openssl.h"

namespace softkey
{

/// Of every RSA key that is generated or imported.
inline constexpr unsigned long PUBLIC_EXPONENT = 65537;

EvpKey generateKey(const KeyKindTraits& traits);

/// An RSA key from big-endian components and the public exponent 65537. The rest is computed, and everything is
/// checked; throws BadPrivateKey.
EvpKey rsaKeyFromComponents(Bytes modulus, Bytes privateExponent, Bytes prime1);

/// Checks a private key that came from outside: consistent, and for RSA with the public exponent 65537.
void checkPrivateKey(const EVP_PKEY* key);

/// As `VelkorKeyPair::publicKey` has it: the modulus without leading zeros, or the uncompressed point.
ByteVector publicKeyValue(const EVP_PKEY* key);

/// Private key as DER of PKCS #8.
SecretBuffer encodePrivateKey(const EVP_PKEY* key);
EvpKey decodePrivateKey(Bytes pkcs8);
/// A key file's content: PEM or DER, PKCS #8 or the older forms, not encrypted. Null when there is no such key.
EvpKey privateKeyFromFileContent(Bytes content);

} // namespace softkey
