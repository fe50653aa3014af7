// Handles of objects: a range for each kind, and what a handle says of its record.
#pragma once

#include "cryptoki.h"
#include "velkor/device_service.h"

namespace velkor
{

/// A key pair's two objects and a certificate: base plus the record's id, which is below OBJECT_NUMBER_LIMIT.
inline constexpr CK_OBJECT_HANDLE PRIVATE_KEY_BASE = 0x70000000;
inline constexpr CK_OBJECT_HANDLE PUBLIC_KEY_BASE = PRIVATE_KEY_BASE + OBJECT_NUMBER_LIMIT;
inline constexpr CK_OBJECT_HANDLE CERTIFICATE_BASE = PUBLIC_KEY_BASE + OBJECT_NUMBER_LIMIT;
/// Derived keys count upwards from here.
inline constexpr CK_OBJECT_HANDLE DERIVED_KEY_BASE = CERTIFICATE_BASE + OBJECT_NUMBER_LIMIT;

inline bool isPrivateKeyHandle(CK_OBJECT_HANDLE handle)
{
    return handle >= PRIVATE_KEY_BASE && handle < PUBLIC_KEY_BASE;
}

inline bool isPublicKeyHandle(CK_OBJECT_HANDLE handle)
{
    return handle >= PUBLIC_KEY_BASE && handle < CERTIFICATE_BASE;
}

/// The id of a key pair by the handle of either of its halves.
inline CK_ULONG keyPairIdOf(CK_OBJECT_HANDLE handle)
{
    return handle - (handle >= PUBLIC_KEY_BASE ? PUBLIC_KEY_BASE : PRIVATE_KEY_BASE);
}

} // namespace velkor
