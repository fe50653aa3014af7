#include "output.h"

#include <algorithm>
#include <vector>

#include <nlohmann/json.hpp>

#include "describe.h"
#include "names.h"

namespace velkor::trace
{
namespace
{

using nlohmann::json;

constexpr std::size_t TIME_WIDTH = 12;
constexpr std::size_t DURATION_WIDTH = 9;
constexpr std::size_t PROGRAM_WIDTH = 12;
constexpr std::size_t CALL_WIDTH = 20;
constexpr std::size_t OUTCOME_WIDTH = 25;
/// Narrower than this the explanation goes to a line of its own.
constexpr std::size_t EXPLANATION_LEAST = 30;

/// Characters of a text in UTF-8.
std::size_t lengthOf(std::string_view text)
{
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char each) { return (static_cast<unsigned char>(each) & 0xC0) != 0x80; }));
}

std::string padded(std::string text, std::size_t width, bool right = false)
{
    const std::size_t length = lengthOf(text);
    if (length < width)
        text.insert(right ? 0 : text.size(), width - length, ' ');
    return text + "  ";
}

std::string coloured(const std::string& text, const char* colour, bool wanted)
{
    if (!wanted || text.empty())
        return text;
    std::string shown = "\033[";
    return shown.append(colour).append("m").append(text).append("\033[0m");
}

const char* colourOf(const Call& call)
{
    switch (call.outcome) {
    case Outcome::Refused:
    case Outcome::Silent:
        return "31";
    case Outcome::Warned:
        return "33";
    default:
        return call.isMonitor ? "36" : "32";
    }
}

/// Lines of at most `width` characters, broken at blanks.
std::vector<std::string> wrapped(std::string_view text, std::size_t width)
{
    std::vector<std::string> lines(1);
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(word.size() + 1, text.size()));
        if (!lines.back().empty() && width != 0 && lengthOf(lines.back()) + 1 + lengthOf(word) > width)
            lines.emplace_back();
        lines.back().append(lines.back().empty() ? "" : " ").append(word);
    }
    return lines;
}

std::string columns(const TableStyle& style, const std::string& time, const std::string& duration,
                    std::string_view program, const std::string& call, const std::string& outcome)
{
    std::string row = padded(time, TIME_WIDTH) + padded(duration, DURATION_WIDTH, true);
    if (style.programs)
        row += padded(printable(program), PROGRAM_WIDTH);
    return row + padded(call, CALL_WIDTH) + outcome;
}

std::string callName(const Call& call)
{
    if (call.isMonitor)
        return "(monitor)";
    return (call.function.empty() ? "(unknown)" : call.function) + (call.hasEntry ? "" : " *");
}

json lineAsJson(const CallLine& line)
{
    json document = {{"time", clockText(line.time)},
                     {"level", line.level == Level::Error   ? "error"
                               : line.level == Level::Debug ? "debug"
                                                            : "other"},
                     {"text", line.text},
                     {"line", line.number}};
    KnownText known;
    if (line.row == nullptr || !findText(line.text, known))
        return document;
    document["meaning"] = line.row->meaning;
    json values = json::array();
    for (const TextValue& value : known.values)
        values.push_back({{"kind", value.kind}, {"text", value.text}, {"words", valueInWords(value.kind, value.text)}});
    if (!values.empty())
        document["values"] = std::move(values);
    return document;
}

const char* outcomeKey(const Call& call)
{
    switch (call.outcome) {
    case Outcome::Refused:
        return "refused";
    case Outcome::Silent:
        return "refused without a line";
    case Outcome::Warned:
        return "goes on after an error";
    default:
        return "no refusal seen";
    }
}

} // namespace

std::string tableHeader(const TableStyle& style)
{
    const std::string header = columns(style, "TIME", "DURATION", "PROGRAM", "CALL", padded("OUTCOME", OUTCOME_WIDTH));
    const bool isBeside =
        style.width == 0 || static_cast<std::size_t>(style.width) >= header.size() + EXPLANATION_LEAST;
    return coloured(isBeside ? header + "EXPLANATION" : header, "1", style.colours) + "\n";
}

std::string tableRow(const Call& call, const TableStyle& style)
{
    const std::string outcome = outcomeText(call);
    const std::size_t length = std::max(lengthOf(outcome), OUTCOME_WIDTH);
    const std::string shown =
        coloured(outcome, colourOf(call), style.colours) + std::string(length - lengthOf(outcome) + 2, ' ');
    std::string row =
        columns(style, clockText(call.start), durationText(call.duration()), call.program, callName(call), shown);
    const auto width = static_cast<std::size_t>(style.width);
    const std::size_t indent = columns(style, "", "", "", callName(call), "").size() + length + 2;
    const std::string explanation = explanationOf(call);
    const bool isBeside = width == 0 || width >= indent + EXPLANATION_LEAST;
    const std::size_t margin = isBeside ? indent : 4;
    const auto lines =
        wrapped(explanation, width == 0 ? 0 : std::max<std::size_t>(width - std::min(width, margin), 20));
    for (std::size_t each = 0; each < lines.size(); ++each) {
        if (each != 0 || !isBeside)
            row.append("\n").append(margin, ' ');
        row.append(lines[each]);
    }
    row.erase(row.find_last_not_of(' ') + 1);
    return row + "\n";
}

json callAsJson(const Call& call)
{
    json document = {{"program", call.program}, {"date", dateText(call.start)}, {"time", clockText(call.start)},
                     {"call", call.function},   {"entry", call.hasEntry},       {"monitor", call.isMonitor},
                     {"mixed", call.isMixed},   {"outcome", outcomeKey(call)},  {"explanation", explanationOf(call)}};
    if (const auto duration = call.duration())
        document["milliseconds"] = *duration;
    if (call.outcome == Outcome::Refused && call.code != CODE_UNKNOWN)
        document["code"] = codeName(call.code);
    if (!remedyOf(call).empty())
        document["remedy"] = remedyOf(call);
    if (call.linesLeftOut != 0)
        document["linesLeftOut"] = call.linesLeftOut;
    json lines = json::array();
    for (const CallLine& line : call.lines)
        lines.push_back(lineAsJson(line));
    document["lines"] = std::move(lines);
    return document;
}

std::string jsonLine(const json& document)
{
    return document.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace velkor::trace
