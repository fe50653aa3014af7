// Ranges of slot IDs and handles, and limits that the module sets.
#pragma once

#include "cryptoki.h"

inline constexpr CK_SLOT_ID SLOT_ID_BASE = 0x50000001;
inline constexpr CK_SESSION_HANDLE SESSION_HANDLE_BASE = 0x60000001;

/// Bytes of a PIN.
inline constexpr CK_ULONG MIN_PIN_LEN = 4;
inline constexpr CK_ULONG MAX_PIN_LEN = 63;
