#include "filter.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>

#include "names.h"
#include "sessions/session_table.h"

namespace velkor::trace
{
namespace
{

bool namesSession(const Call& call, std::uint64_t session)
{
    const std::uint64_t handle = session < SESSION_HANDLE_BASE ? session + SESSION_HANDLE_BASE - 1 : session;
    KnownText known;
    return std::ranges::any_of(call.lines, [&](const CallLine& line) {
        return line.row != nullptr && findText(line.text, known) && numberOf(known.value("session")) == handle;
    });
}

struct Unit {
    std::string_view name;
    double milliseconds;
};

constexpr Unit UNITS[] = {{"", 1}, {"ms", 1}, {"s", 1000}, {"m", 60'000}};

} // namespace

bool Filter::wants(const Call& call)
{
    firstDay = firstDay.value_or(call.start / DAY);
    if (errors && call.outcome == Outcome::NoRefusalSeen)
        return false;
    if (since && call.start < *firstDay * DAY + *since)
        return false;
    if (!function.empty() && call.function != function && call.function != "C_" + function)
        return false;
    if (slow && call.duration().value_or(-1) < *slow)
        return false;
    return !session || namesSession(call, *session);
}

std::optional<Milliseconds> timeOfDay(const std::string& text)
{
    constexpr int LIMITS[] = {24, 60, 60};
    int parts[3] = {0, 0, 0};
    const char* place = text.data();
    const char* const end = place + text.size();
    std::size_t count = 0;
    for (; count < 3; ++count) {
        const auto [next, error] = std::from_chars(place, end, parts[count]);
        if (error != std::errc() || parts[count] < 0 || parts[count] >= LIMITS[count])
            return std::nullopt;
        place = next;
        if (place == end)
            break;
        if (*place++ != ':')
            return std::nullopt;
    }
    if (count == 0 || count > 2)
        return std::nullopt;
    return ((parts[0] * Milliseconds{60} + parts[1]) * 60 + parts[2]) * 1000;
}

std::optional<Milliseconds> durationOf(const std::string& text)
{
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || !(number >= 0) || number > 1e9)
        return std::nullopt;
    const std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
    const auto* const found = std::ranges::find(UNITS, unit, &Unit::name);
    return found != std::end(UNITS) ? std::optional<Milliseconds>(std::llround(number * found->milliseconds))
                                    : std::nullopt;
}

} // namespace velkor::trace
