// Texts in fields of a fixed size: the module ends them with a zero byte, the standard pads them with blanks.
#pragma once

#include <algorithm>
#include <iterator>
#include <string_view>

namespace velkor::strict
{

/// What stands in a field up to its first zero byte.
template <std::size_t Size>
std::string_view textOf(const unsigned char (&field)[Size])
{
    const auto end = std::find(std::begin(field), std::end(field), static_cast<unsigned char>(0));
    return {reinterpret_cast<const char*>(field), static_cast<std::size_t>(end - std::begin(field))};
}

/// Fills a field with a text, or with as much of it as fits without cutting a UTF-8 character, and with blanks.
template <std::size_t Size>
void putPadded(unsigned char (&field)[Size], std::string_view text)
{
    std::size_t length = std::min(text.size(), Size);
    const auto continues = [&](std::size_t index) {
        return (static_cast<unsigned char>(text[index]) & 0xC0U) == 0x80U;
    };
    while (length != 0 && length < text.size() && continues(length))
        --length;
    std::fill(std::copy_n(text.begin(), length, field), field + Size, static_cast<unsigned char>(' '));
}

/// Puts blanks in the place of the zero byte that ends a field's text, and of all that is behind it.
template <std::size_t Size>
void pad(unsigned char (&field)[Size])
{
    std::fill(field + textOf(field).size(), field + Size, static_cast<unsigned char>(' '));
}

} // namespace velkor::strict
