// The names that users have for kinds of key pair.
#pragma once

#include "crypto/key_kinds.h"

#include <string>
#include <string_view>

namespace softkey
{

/// By its own name in any case, with or without the dash, or as other programs call it: rsa:2048, secp256r1. Null when
/// no kind is called that.
const KeyKindTraits* keyKindCalled(std::string_view name);
/// The kinds' own names, for a message.
std::string keyKindNames();

} // namespace softkey
