// A stored private key by itself: for the tool, which has OpenSSL sign whole requests and certificates with it.
#pragma once

#include "crypto/openssl.h"
#include "store/contents.h"

#include <string_view>

namespace softkey
{

/// Throws NoSuchObject, and FileDamaged when the key does not belong to the record.
EvpKey openedKey(Database& database, const VelkorKeyPair& record, Bytes masterKey, std::string_view serialNumber);

} // namespace softkey
