#include "output.h"

#include <algorithm>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "describe.h"
#include "memo.h"
#include "names.h"

namespace velkor::trace
{
namespace
{

using nlohmann::json;
using namespace std::string_view_literals;

constexpr std::size_t TIME_WIDTH = 12;
constexpr std::size_t DURATION_WIDTH = 9;
constexpr std::size_t PROGRAM_WIDTH = 12;
constexpr std::size_t CALL_WIDTH = 20;
constexpr std::size_t OUTCOME_WIDTH = 25;
/// Narrower than this the explanation goes to a line of its own.
constexpr std::size_t EXPLANATION_LEAST = 30;
/// Bytes that few calls go beyond.
constexpr std::size_t ROW_EXPECTED = 250;
constexpr std::size_t JSON_EXPECTED = 1000;

/// Characters of a text in UTF-8.
std::size_t lengthOf(std::string_view text)
{
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char each) { return (static_cast<unsigned char>(each) & 0xC0) != 0x80; }));
}

void pad(std::string& row, std::string_view text, std::size_t width)
{
    const std::size_t length = lengthOf(text);
    row.append(length < width ? width - length : 0, ' ');
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
        if (!lines.back().empty() && lengthOf(lines.back()) + 1 + lengthOf(word) > width)
            lines.emplace_back();
        lines.back().append(lines.back().empty() ? "" : " ").append(word);
    }
    return lines;
}

/// Puts it beside the columns, or below them in a narrow terminal.
void addExplanation(std::string& row, std::string_view explanation, int columns, std::size_t indent)
{
    if (columns == 0) {
        row.append(explanation.substr(std::min(explanation.find_first_not_of(' '), explanation.size())));
        return;
    }
    constexpr std::size_t LEAST = 20;
    const auto width = static_cast<std::size_t>(columns);
    const bool isBeside = width >= indent + EXPLANATION_LEAST;
    const std::size_t margin = isBeside ? indent : 4;
    const auto lines = wrapped(explanation, std::max(width - std::min(width, margin), LEAST));
    for (std::size_t each = 0; each < lines.size(); ++each) {
        if (each != 0 || !isBeside)
            row.append("\n").append(margin, ' ');
        row.append(lines[each]);
    }
}

/// The columns before that of the outcome.
std::string columns(const TableStyle& style, std::string_view time, std::string_view duration, std::string_view program,
                    std::string_view call)
{
    std::string row;
    row.reserve(ROW_EXPECTED);
    row.append(time);
    pad(row, time, TIME_WIDTH + 2);
    pad(row, duration, DURATION_WIDTH);
    row.append(duration).append(2, ' ');
    if (style.programs) {
        const std::string shown = printable(program);
        row.append(shown);
        pad(row, shown, PROGRAM_WIDTH);
        row.append(2, ' ');
    }
    row.append(call);
    pad(row, call, CALL_WIDTH);
    return std::move(row.append(2, ' '));
}

/// How wide the columns are, but for what is too long for its own.
std::size_t widthOfColumns(const TableStyle& style, std::string_view call)
{
    return TIME_WIDTH + 2 + DURATION_WIDTH + 2 + (style.programs ? PROGRAM_WIDTH + 2 : 0) +
           std::max(call.size(), CALL_WIDTH) + 2;
}

std::string callName(const Call& call)
{
    if (call.isMonitor)
        return "(monitor)";
    return (call.function.empty() ? "(unknown)" : std::string(call.function)) + (call.hasEntry ? "" : " *");
}

std::string_view outcomeKey(const Call& call)
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

/// A document without its end of line.
std::string jsonText(const json& document)
{
    return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

bool needsNoEscape(std::string_view text)
{
    unsigned char odd = 0; // Without a branch for each byte.
    for (const char each : text) {
        const auto byte = static_cast<unsigned char>(each);
        odd |= static_cast<unsigned char>(byte < 0x20 || byte >= 0x7F || each == '"' || each == '\\' ? 1 : 0);
    }
    return odd == 0;
}

/// A member whose value is a text.
void addText(std::string& document, std::string_view name, std::string_view text)
{
    document.append(name);
    if (!needsNoEscape(text)) {
        document.append(jsonText(text));
        return;
    }
    document.push_back('"');
    document.append(text).push_back('"');
}

/// The parts of a line that its text decides.
struct TextInJson {
    std::string text;   ///< And the name of the time, which follows it.
    std::string values; ///< And their name; empty where there are none.
};

TextInJson makeTextInJson(std::string_view text)
{
    KnownText known;
    findText(text, known);
    TextInJson parts;
    addText(parts.text, "", text);
    parts.text.append(R"(,"time":")");
    for (const TextValue& value : known.values) {
        addText(parts.values, parts.values.empty() ? R"(,"values":[{"kind":)" : R"(,{"kind":)", value.kind);
        addText(parts.values, R"(,"text":)", value.text);
        addText(parts.values, R"(,"words":)", valueInWords(value.kind, value.text));
        parts.values.push_back('}');
    }
    parts.values.append(parts.values.empty() ? "" : "]");
    return parts;
}

std::string_view beginningOfLine(Level level)
{
    return level == Level::Error   ? R"({"level":"error","line":)"
           : level == Level::Debug ? R"({"level":"debug","line":)"
                                   : R"({"level":"other","line":)";
}

void addLine(std::string& document, const CallLine& line)
{
    static Memo<TextInJson> texts;
    static const PerRow<std::string> meanings(
        [](const TextRow& row) { return R"(,"meaning":)" + jsonText(row.meaning) + R"(,"text":)"; });
    const TextInJson& text = texts.of(line.text, makeTextInJson);
    document.append(beginningOfLine(line.level)).append(std::to_string(line.number));
    document.append(line.row != nullptr ? meanings[*line.row] : R"(,"text":)"sv);
    document.append(text.text).append(clockText(line.time)).push_back('"');
    if (line.row != nullptr)
        document.append(text.values);
    document.push_back('}');
}

void addFlag(std::string& document, std::string_view name, bool value)
{
    document.append(name).append(value ? "true"sv : "false"sv);
}

} // namespace

std::string tableHeader(const TableStyle& style)
{
    std::string header = columns(style, "TIME", "DURATION", "PROGRAM", "CALL") + "OUTCOME";
    pad(header, "OUTCOME", OUTCOME_WIDTH + 2);
    const bool isBeside =
        style.width == 0 || static_cast<std::size_t>(style.width) >= header.size() + EXPLANATION_LEAST;
    return coloured(isBeside ? header + "EXPLANATION" : header, "1", style.colours) + "\n";
}

std::string tableRow(const Call& call, const TableStyle& style)
{
    const std::string name = callName(call);
    const std::string outcome = outcomeText(call);
    const std::size_t length = std::max(lengthOf(outcome), OUTCOME_WIDTH) + 2;
    std::string row = columns(style, clockText(call.start), durationText(call.duration()), call.program, name);
    row.append(coloured(outcome, colourOf(call), style.colours));
    pad(row, outcome, length);
    addExplanation(row, explanationOf(call), style.width, widthOfColumns(style, name) + length);
    row.erase(row.find_last_not_of(' ') + 1);
    return std::move(row.append(1, '\n'));
}

std::string jsonLine(const Call& call)
{
    std::string document;
    document.reserve(JSON_EXPECTED);
    addText(document, R"({"call":)", call.function);
    if (call.outcome == Outcome::Refused && call.code != CODE_UNKNOWN)
        addText(document, R"(,"code":)", codeName(call.code));
    addText(document, R"(,"date":)", dateText(call.start));
    addFlag(document, R"(,"entry":)", call.hasEntry);
    addText(document, R"(,"explanation":)", explanationOf(call));
    document.append(R"(,"lines":)"sv);
    for (std::size_t each = 0; each < call.lines.size(); ++each) {
        document.append(each == 0 ? "["sv : ","sv);
        addLine(document, call.lines[each]);
    }
    document.append(call.lines.empty() ? "[]"sv : "]"sv);
    if (call.linesLeftOut != 0)
        document.append(R"(,"linesLeftOut":)"sv).append(std::to_string(call.linesLeftOut));
    if (const auto duration = call.duration())
        document.append(R"(,"milliseconds":)"sv).append(std::to_string(*duration));
    addFlag(document, R"(,"mixed":)", call.isMixed);
    addFlag(document, R"(,"monitor":)", call.isMonitor);
    addText(document, R"(,"outcome":)", outcomeKey(call));
    addText(document, R"(,"program":)", call.program);
    if (const std::string_view remedy = remedyOf(call); !remedy.empty())
        addText(document, R"(,"remedy":)", remedy);
    addText(document, R"(,"time":)", clockText(call.start));
    return std::move(document.append("}\n"sv));
}

std::string jsonLine(const json& document)
{
    return jsonText(document) + "\n";
}

} // namespace velkor::trace
