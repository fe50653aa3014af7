// Bytes as upper-case hexadecimal digits.
#pragma once

#include <span>
#include <string>

inline std::string hexadecimal(std::span<const unsigned char> bytes)
{
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += DIGITS[byte >> 4U];
        text += DIGITS[byte & 0x0FU];
    }
    return text;
}
