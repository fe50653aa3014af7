// Ranges of slot IDs and handles.
#pragma once

#include "cryptoki.h"
#include "velkor/device_service.h"

namespace velkor
{

inline constexpr CK_SLOT_ID SLOT_ID_BASE = 0x50000001;
inline constexpr CK_SESSION_HANDLE SESSION_HANDLE_BASE = 0x60000001;

/// A key pair's two objects and a certificate: base plus the record's id, which is below OBJECT_NUMBER_LIMIT.
inline constexpr CK_OBJECT_HANDLE PRIVATE_KEY_BASE = 0x70000000;
inline constexpr CK_OBJECT_HANDLE PUBLIC_KEY_BASE = PRIVATE_KEY_BASE + OBJECT_NUMBER_LIMIT;
inline constexpr CK_OBJECT_HANDLE CERTIFICATE_BASE = PUBLIC_KEY_BASE + OBJECT_NUMBER_LIMIT;
/// Derived keys count upwards from here.
inline constexpr CK_OBJECT_HANDLE DERIVED_KEY_BASE = CERTIFICATE_BASE + OBJECT_NUMBER_LIMIT;

} // namespace velkor
