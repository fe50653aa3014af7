// Ranges of slot IDs and handles, and limits that the module sets.
#pragma once

#include "cryptoki.h"

inline constexpr CK_SLOT_ID SLOT_ID_BASE = 0x50000001;
inline constexpr CK_SESSION_HANDLE SESSION_HANDLE_BASE = 0x60000001;

/// Bytes of a PIN.
inline constexpr CK_ULONG MIN_PIN_LEN = 4;
inline constexpr CK_ULONG MAX_PIN_LEN = 63;

/// A key pair's two objects and a certificate: base plus the record's id. Each range is 0x1000 wide.
inline constexpr CK_OBJECT_HANDLE PRIVATE_KEY_BASE = 0x70000000;
inline constexpr CK_OBJECT_HANDLE PUBLIC_KEY_BASE = 0x70001000;
inline constexpr CK_OBJECT_HANDLE CERTIFICATE_BASE = 0x70002000;
/// Derived keys count upwards from here.
inline constexpr CK_OBJECT_HANDLE DERIVED_KEY_BASE = 0x70003000;
