// Pure helpers that several subsystems share.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct Utils {
    /// The numbers between the dots of a version text. A piece is read as strtol reads it: leading blanks and a sign,
    /// then digits up to the first other character; without digits it is 0. An empty text has no pieces.
    static std::vector<std::int32_t> versionNumbers(std::string_view version);

    /// Upper case, two digits a byte, no separators.
    static std::string toHexadecimal(std::span<const unsigned char> bytes);
};
