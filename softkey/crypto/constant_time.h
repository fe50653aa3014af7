// Choices that a secret decides without a branch and without an address: a mask is all ones for yes and 0 for no.
#pragma once

#include <cstddef>
#include <limits>

namespace softkey
{

using Mask = std::size_t;
inline constexpr Mask YES = ~Mask{0};

/// The same value, of which the compiler knows nothing: it would turn masks back into branches.
inline std::size_t hidden(std::size_t value)
{
    asm("" : "+r"(value));
    return value;
}

inline Mask maskOfTopBit(std::size_t value)
{
    return Mask{0} - (hidden(value) >> (std::numeric_limits<std::size_t>::digits - 1));
}

inline Mask isZero(std::size_t value)
{
    return maskOfTopBit(~value & (value - 1));
}

inline Mask areEqual(std::size_t left, std::size_t right)
{
    return isZero(left ^ right);
}

inline Mask isLess(std::size_t left, std::size_t right)
{
    return maskOfTopBit(left ^ ((left ^ right) | ((left - right) ^ right)));
}

/// `one` where the mask says yes, else `other`.
template <class Number>
Number choose(Mask mask, Number one, Number other)
{
    mask = hidden(mask);
    return static_cast<Number>((mask & one) | (~mask & other));
}

} // namespace softkey
