// Texts in fields of a fixed size.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace velkor
{

/// Copies as much of a text as leaves room for its terminating zero; the bytes behind that zero stay as they were.
inline void copyTerminated(unsigned char* field, std::size_t size, std::string_view text)
{
    text = text.substr(0, size - 1);
    std::copy(text.begin(), text.end(), field);
    field[text.size()] = 0;
}

template <std::size_t Size>
void copyTerminated(unsigned char (&field)[Size], std::string_view text)
{
    copyTerminated(field, Size, text);
}

/// Copies at most `limit` bytes of a text and fills the field up with zeros.
template <std::size_t Size>
void copyPadded(unsigned char (&field)[Size], std::string_view text, std::size_t limit = Size)
{
    text = text.substr(0, limit);
    std::fill(std::copy(text.begin(), text.end(), field), field + Size, static_cast<unsigned char>(0));
}

} // namespace velkor
