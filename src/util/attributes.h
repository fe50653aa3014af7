// What callers give: mechanism parameters and values of template attributes.
#pragma once

#include <algorithm>
#include <cstring>

#include "cryptoki.h"
#include "util/bytes.h"

namespace velkor
{

inline bool hasParameter(const CK_MECHANISM& mechanism)
{
    return mechanism.pParameter != nullptr || mechanism.ulParameterLen != 0;
}

inline bool hasValue(const CK_ATTRIBUTE& attribute)
{
    return attribute.pValue != nullptr && attribute.ulValueLen != 0;
}

inline Bytes bytesOf(const CK_ATTRIBUTE& attribute)
{
    return {static_cast<const unsigned char*>(attribute.pValue), attribute.ulValueLen};
}

/// An integer; one that is shorter than a CK_ULONG is filled up with zeros, of a longer one the rest is not read.
inline CK_ULONG integerOf(const CK_ATTRIBUTE& attribute)
{
    CK_ULONG value = 0;
    std::memcpy(&value, attribute.pValue, std::min<std::size_t>(attribute.ulValueLen, sizeof value));
    return value;
}

} // namespace velkor
