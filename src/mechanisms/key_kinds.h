// Key kinds of the device library in Cryptoki terms.
#pragma once

#include <cstdint>

#include "cryptoki.h"
#include "util/bytes.h"

namespace velkor
{

inline constexpr CK_ULONG RSA_1024_BITS = 1024;
inline constexpr CK_ULONG RSA_2048_BITS = 2048;

struct KeyKindInfo {
    std::uint32_t keyKind;
    CK_KEY_TYPE keyType;
    CK_ULONG bits;
    CK_MECHANISM_TYPE generationMechanism;
    Bytes ecParams; ///< DER of the curve's object identifier; empty for RSA.
};

/// The kind's row; that of 2048-bit RSA for any kind that has none of its own.
const KeyKindInfo& keyKindInfo(std::uint32_t keyKind);

/// The kind of RSA keys of a size; null when there is none.
const KeyKindInfo* findRsaKind(CK_ULONG bits);

/// The kind of the curve with these parameters, byte for byte; null when there is none.
const KeyKindInfo* findCurveKind(Bytes ecParams);

} // namespace velkor
