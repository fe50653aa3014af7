// The paddings with which the key encrypts: PKCS #1 v1.5, and OAEP with SHA-1, MGF1 with SHA-1 and no label.
#pragma once

#include "crypto/openssl.h"

namespace softkey
{

enum class RsaPadding { Pkcs1, Oaep };

void setPadding(EVP_PKEY_CTX* context, RsaPadding padding);
/// Bytes of a block that are not plaintext, at least.
std::size_t paddingOverhead(RsaPadding padding);

} // namespace softkey
