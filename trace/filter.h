// Which calls are wanted.
#pragma once

#include <optional>
#include <string>

#include "calls.h"

namespace velkor::trace
{

struct Filter {
    bool errors = false;                                 ///< Refused calls, and those with an error line.
    std::optional<Milliseconds> since = std::nullopt;    ///< Of the first day; later ones are wanted whole.
    std::string function = {};                           ///< Its name, with or without "C_".
    std::optional<std::uint64_t> session = std::nullopt; ///< Its number or its handle.
    std::optional<Milliseconds> slow = std::nullopt;     ///< Calls that took at least this long.
    std::optional<Milliseconds> firstDay = std::nullopt; ///< Of the calls that it was asked about.

    bool wants(const Call& call);
};

/// "10:30" or "10:30:15" as milliseconds of the day; nothing for anything else.
std::optional<Milliseconds> timeOfDay(const std::string& text);

/// "200ms", "1.5s", "2m" or a bare number of milliseconds; nothing for anything else.
std::optional<Milliseconds> durationOf(const std::string& text);

} // namespace velkor::trace
