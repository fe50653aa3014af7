// DER as far as the front needs it: octet strings around points, and the numbers in an RSA public key.
#pragma once

#include "strict/object.h"

namespace velkor::strict
{

/// The bytes as a DER OCTET STRING.
SecretBytes derOctetString(Bytes content);

/// A point as the device has it, of one that is bare or in DER.
Bytes barePoint(Bytes point);

/// Modulus and exponent of a SubjectPublicKeyInfo or an RSAPublicKey, without leading zeros. False when it is neither.
bool readRsaPublicKey(Bytes der, SecretBytes& modulus, SecretBytes& exponent);

/// A big number without the zero bytes in front.
Bytes withoutLeadingZeros(Bytes number);

} // namespace velkor::strict
