#include "summary.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "describe.h"
#include "names.h"

namespace velkor::trace
{
namespace
{

using nlohmann::json;

constexpr std::size_t SLOWEST_KEPT = 5;
constexpr std::size_t CAUSES_SHOWN = 3;
constexpr std::size_t ROWS_SHOWN = 10;
constexpr std::size_t SETS_KEPT = 64;

/// Entries of a map by a number of theirs, the largest first.
template <typename Map, typename Value>
std::vector<typename Map::const_iterator> byValue(const Map& map, const Value& value)
{
    std::vector<typename Map::const_iterator> entries;
    for (auto each = map.begin(); each != map.end(); ++each) {
        if (value(each->second) != 0)
            entries.push_back(each);
    }
    std::ranges::stable_sort(
        entries, [&](const auto& left, const auto& right) { return value(left->second) > value(right->second); });
    entries.resize(std::min(entries.size(), ROWS_SHOWN));
    return entries;
}

std::string row(const std::string& number, const std::string& what)
{
    std::string text = "  ";
    if (number.size() < 12)
        text.append(12 - number.size(), ' ');
    return text + number + "  " + what + "\n";
}

std::string listed(const std::set<std::string>& texts)
{
    std::string list;
    for (const std::string& text : texts)
        list += (list.empty() ? "" : ", ") + text;
    return list;
}

std::string causesText(const std::vector<Cause>& causes)
{
    if (causes.empty())
        return "Nothing wrong was seen.\n";
    std::string text = "Most likely causes\n";
    for (std::size_t each = 0; each < std::min(causes.size(), CAUSES_SHOWN); ++each) {
        const Cause& cause = causes[each];
        text += "  " + std::to_string(each + 1) + ". " + printable(cause.title) + "\n     " + printable(cause.details) +
                "\n";
        if (!cause.advice.empty())
            text += "     " + cause.advice + "\n";
    }
    return text;
}

} // namespace

void Summary::addLogin(OfProgram& program, const Call& call)
{
    if (call.function != "C_Login")
        return;
    if (call.outcome == Outcome::Refused)
        ++program.loginsRefused[outcomeText(call)];
    else if (call.hasEntry)
        ++program.loginsAccepted;
}

void Summary::addSlow(const Call& call)
{
    // Waiting for an event is no work, and how long it takes is the user's.
    const Milliseconds time = call.duration().value_or(0);
    if (time == 0 || call.function == "C_WaitForSlotEvent")
        return;
    const auto place = std::ranges::find_if(slowest_, [&](const SlowCall& each) { return each.time < time; });
    if (place == slowest_.end() && slowest_.size() >= SLOWEST_KEPT)
        return;
    slowest_.insert(place, {time, call.start, std::string(call.function), std::string(call.program)});
    slowest_.resize(std::min(slowest_.size(), SLOWEST_KEPT));
}

/// Whether lines of a row can name slots or tokens.
bool Summary::namesTokens(const TextRow& row)
{
    const auto has = [&](std::string_view part) { return row.pattern.find(part) != std::string_view::npos; };
    return has("{slot}") || has("{version}") || row.pattern.starts_with("Slot event:");
}

void Summary::addTokens(const Call& call)
{
    KnownText known;
    for (const CallLine& line : call.lines) {
        const bool mayName = line.row != nullptr && line.row->kind != TextKind::Refusal && namesTokens(*line.row);
        if (!mayName || !findText(line.text, known) || slots_.size() + firmware_.size() > SETS_KEPT)
            continue;
        if (const auto slot = known.value("slot"); !slot.empty())
            slots_.insert(valueInWords("slot", slot));
        if (const auto version = known.value("version"); !version.empty())
            firmware_.emplace(printable(version));
        if (known.row->pattern.starts_with("Slot event:"))
            devices_ = known.values.back().text;
    }
}

void Summary::add(const Call& call)
{
    investigation_.add(call);
    addTokens(call);
    if (call.isMonitor)
        return;
    const bool isRefused = call.outcome == Outcome::Refused || call.outcome == Outcome::Silent;
    auto [program, isNew] = programs_.try_emplace(std::string(call.program));
    if (isNew)
        program->second.first = call.start;
    program->second.last = call.start;
    ++program->second.calls;
    program->second.refused += isRefused ? 1U : 0U;
    addLogin(program->second, call);
    OfFunction& function = functions_[call.function.empty() ? "(unknown)" : std::string(call.function)];
    ++function.calls;
    function.refused += isRefused ? 1U : 0U;
    function.time += call.duration().value_or(0);
    if (isRefused)
        ++refusals_[std::string(call.function) + " " + outcomeText(call)];
    mixed_ += call.isMixed ? 1U : 0U;
    addSlow(call);
}

std::string Summary::text() const
{
    std::string text = causesText(causes()) + "\nPrograms\n";
    for (const auto& [name, program] : programs_)
        text += row(std::to_string(program.calls), printable(name) + ", " + std::to_string(program.refused) +
                                                       " refused, from " + clockText(program.first) + " to " +
                                                       clockText(program.last));
    text += "Tokens\n";
    if (!devices_.empty())
        text += row(devices_, "plugged in when last told");
    if (!slots_.empty() || !firmware_.empty())
        text += row("", listed(slots_) + (slots_.empty() || firmware_.empty() ? "" : "; ") +
                            (firmware_.empty() ? "" : "firmware " + listed(firmware_)));
    text += "Logins\n";
    for (const auto& [name, program] : programs_) {
        if (program.loginsAccepted != 0)
            text += row(std::to_string(program.loginsAccepted), printable(name) + ": no refusal seen");
        for (const auto& [outcome, count] : program.loginsRefused)
            text += row(std::to_string(count), printable(name) + ": " + outcome);
    }
    text += "Calls by number\n";
    for (const auto& each : byValue(functions_, [](const OfFunction& function) { return function.calls; }))
        text += row(std::to_string(each->second.calls), each->first);
    text += "Calls by time\n";
    for (const auto& each : byValue(functions_, [](const OfFunction& function) { return function.time; }))
        text += row(durationText(each->second.time), each->first);
    text += "Refusals\n";
    for (const auto& each : byValue(refusals_, [](std::uint64_t count) { return count; }))
        text += row(std::to_string(each->second), each->first);
    text += "Slowest calls\n";
    for (const SlowCall& call : slowest_)
        text += row(durationText(call.time),
                    call.function + " of " + printable(call.program) + " at " + clockText(call.start));
    if (mixed_ != 0)
        text += "Lines of several threads are mixed in " + std::to_string(mixed_) + " calls.\n";
    return text;
}

json Summary::json() const
{
    nlohmann::json document = {
        {"causes", json::array()}, {"programs", json::object()}, {"functions", json::object()}, {"refusals", refusals_},
        {"slots", slots_},         {"firmware", firmware_},      {"slowest", json::array()},    {"mixed", mixed_}};
    for (const Cause& cause : causes())
        document["causes"].push_back({{"title", cause.title}, {"details", cause.details}, {"advice", cause.advice}});
    for (const auto& [name, program] : programs_)
        document["programs"][name] = {{"calls", program.calls},
                                      {"refused", program.refused},
                                      {"loginsAccepted", program.loginsAccepted},
                                      {"loginsRefused", program.loginsRefused},
                                      {"first", clockText(program.first)},
                                      {"last", clockText(program.last)}};
    for (const auto& [name, function] : functions_)
        document["functions"][name] = {
            {"calls", function.calls}, {"refused", function.refused}, {"milliseconds", function.time}};
    for (const SlowCall& call : slowest_)
        document["slowest"].push_back({{"call", call.function},
                                       {"program", call.program},
                                       {"time", clockText(call.start)},
                                       {"milliseconds", call.time}});
    return document;
}

} // namespace velkor::trace
