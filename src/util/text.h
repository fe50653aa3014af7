// Texts made of literal pieces and numbers.
#pragma once

#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>

namespace velkor
{

/// Signed decimal, without padding; the top bit of an unsigned number is read as its sign.
template <std::integral Number>
std::string decimal(Number number)
{
    return std::to_string(static_cast<std::make_signed_t<Number>>(number));
}

template <typename Enumeration>
requires std::is_enum_v<Enumeration> std::string decimal(Enumeration value)
{
    return decimal(static_cast<std::underlying_type_t<Enumeration>>(value));
}

template <typename Piece>
auto piece(const Piece& value)
{
    if constexpr (std::is_convertible_v<Piece, std::string_view>)
        return std::string_view(value);
    else if constexpr (std::is_invocable_v<Piece>)
        return value();
    else
        return decimal(value);
}

/// The pieces in a row: texts as they stand, numbers in decimal. A long text may be a function that composes it.
template <typename... Pieces>
std::string message(const Pieces&... pieces)
{
    std::string text;
    (text.append(piece(pieces)), ...);
    return text;
}

} // namespace velkor
