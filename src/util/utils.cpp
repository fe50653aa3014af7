#include "util/utils.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace velkor
{
namespace
{

/// Saturates at 32 bits on every system, as `long` does on Windows.
std::int32_t versionNumber(const std::string& piece)
{
    const long number = std::strtol(piece.c_str(), nullptr, 10);
    return static_cast<std::int32_t>(
        std::clamp<long>(number, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

} // namespace

std::vector<std::int32_t> Utils::versionNumbers(std::string_view version)
{
    std::vector<std::int32_t> numbers;
    while (!version.empty()) {
        const std::string_view piece = version.substr(0, version.find('.'));
        numbers.push_back(versionNumber(std::string(piece)));
        version.remove_prefix(std::min(piece.size() + 1, version.size()));
    }
    return numbers;
}

int Utils::compareFirmwareVersion(std::string_view left, std::string_view right)
{
    std::vector<std::int32_t> leftNumbers = versionNumbers(left);
    std::vector<std::int32_t> rightNumbers = versionNumbers(right);
    const std::size_t length = std::max(leftNumbers.size(), rightNumbers.size());
    leftNumbers.resize(length);
    rightNumbers.resize(length);
    if (leftNumbers == rightNumbers)
        return 0;
    return leftNumbers < rightNumbers ? -1 : 1;
}

std::string Utils::commonName(std::string_view distinguishedName)
{
    constexpr std::string_view KEY = "CN=";
    for (std::size_t key = distinguishedName.find(KEY); key != std::string_view::npos;
         key = distinguishedName.find(KEY, key + 1)) {
        const std::string_view rest = distinguishedName.substr(key + KEY.size());
        const std::string_view name = rest.substr(0, rest.find_first_of(",\n\r"));
        if (!name.empty())
            return std::string(name);
    }
    return {};
}

std::string Utils::trimmed(std::string_view text)
{
    constexpr std::string_view WHITE_SPACE = " \t\n\v\f\r";
    const std::size_t first = text.find_first_not_of(WHITE_SPACE);
    if (first == std::string_view::npos)
        return {};
    return std::string(text.substr(first, text.find_last_not_of(WHITE_SPACE) - first + 1));
}

std::string Utils::toHexadecimal(Bytes bytes)
{
    constexpr std::string_view DIGITS = "0123456789ABCDEF";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const unsigned char byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 0xF];
    }
    return text;
}

} // namespace velkor
