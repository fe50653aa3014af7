// What a token may do by its model and its firmware.
#pragma once

#include "velkor/device_service.h"

namespace velkor
{

/// A token counts as FIPS 140-3 unless the third character of its model is '1'; an empty model does too.
bool isFipsToken(const TokenInfo& token);

/// Whether the firmware is recent enough for RSA-PSS, RSA-OAEP and ECDH.
bool isFirmwareRecent(const TokenInfo& token);

} // namespace velkor
