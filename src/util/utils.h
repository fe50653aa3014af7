// Pure helpers that several subsystems share.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "util/bytes.h"

namespace velkor
{

struct Utils {
    /// The numbers between the dots of a version text. A piece is read as strtol reads it: leading blanks and a sign,
    /// then digits up to the first other character; without digits it is 0. An empty text has no pieces.
    static std::vector<std::int32_t> versionNumbers(std::string_view version);

    /// -1, 0 or 1: the left version is lower, the same, higher. A missing number counts as 0.
    static int compareFirmwareVersion(std::string_view left, std::string_view right);

    /// The common name of a distinguished name such as "CN=Root,O=Example"; empty when it has none.
    static std::string commonName(std::string_view distinguishedName);

    /// The text without white space at either end.
    static std::string trimmed(std::string_view text);

    /// Upper case, two digits a byte, no separators.
    static std::string toHexadecimal(Bytes bytes);
};

} // namespace velkor
