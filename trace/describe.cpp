#include "describe.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <utility>
#include <vector>

#include "memo.h"
#include "names.h"

namespace velkor::trace
{
namespace
{

constexpr std::string_view MIXED = "Lines of several threads are mixed here; some may belong to another call.";
constexpr std::size_t VALUES_SHOWN = 6;

std::string joined(std::string left, std::string_view separator, std::string_view right)
{
    if (!left.empty() && !right.empty())
        left.append(separator);
    return std::move(left.append(right));
}

/// Kinds whose bare number says nothing by itself.
bool saysSomething(const TextValue& value)
{
    return value.kind != "count" && value.kind != "hex" && value.kind != "found";
}

/// The values of a text in words.
struct Words {
    std::string all;
    std::vector<std::string> telling; ///< Those that say something by themselves.
};

Words findWords(std::string_view text)
{
    Words words;
    KnownText known;
    findText(text, known);
    for (const TextValue& value : known.values) {
        const bool isTelling = saysSomething(value);
        std::string shown = printable(isTelling ? valueInWords(value.kind, value.text) : std::string(value.text));
        words.all = joined(std::move(words.all), ", ", shown);
        if (isTelling)
            words.telling.push_back(std::move(shown));
    }
    return words;
}

bool hasValues(const TextRow& row)
{
    return row.pattern.find('{') != std::string_view::npos;
}

/// Valid until the next call.
const Words& wordsOf(std::string_view text)
{
    static Memo<Words> words;
    return words.of(text, findWords);
}

/// The distinct values of all lines of a call.
std::string valuesOfCall(const Call& call)
{
    std::vector<std::string> shown;
    for (const CallLine& line : call.lines) {
        if (line.row == nullptr || !hasValues(*line.row))
            continue;
        for (const std::string& words : wordsOf(line.text).telling) {
            if (std::ranges::find(shown, words) == shown.end())
                shown.push_back(words);
        }
    }
    if (shown.size() == 1)
        return std::move(shown.front());
    std::string text;
    for (std::size_t each = 0; each < std::min(shown.size(), VALUES_SHOWN); ++each)
        text = joined(std::move(text), ", ", shown[each]);
    return shown.size() > VALUES_SHOWN ? text + ", ..." : text;
}

std::string explanationOfRefusal(const Call& call, const CallLine& line)
{
    std::string values = valuesInWords(line);
    for (const CallLine& each : call.lines) { // The status of a refused PIN stands in a line of its own.
        if (each.row != nullptr && each.row != line.row && each.row->kind == TextKind::Refusal)
            values = joined(valuesInWords(each), "; ", values);
    }
    return joined(std::move(values), ". ", line.row->meaning);
}

std::string explanationOfOther(const Call& call)
{
    if (call.outcome == Outcome::Refused && isUnsupported(call.function))
        return "The module does not do this function.";
    if (call.outcome == Outcome::Silent)
        return "It was refused without a line: for its arguments, its session, or because the module is not "
               "initialized.";
    for (const CallLine& line : call.lines) {
        if (line.row != nullptr && (line.row->kind == TextKind::Warning || line.row->kind == TextKind::Monitor))
            return joined(std::string(line.row->meaning), " ", valuesInWords(line));
    }
    for (const CallLine& line : call.lines) {
        if (line.row == nullptr && (line.level == Level::Error || !call.hasEntry))
            return "A text that this version does not know: " + printable(line.text);
    }
    return valuesOfCall(call);
}

std::string_view kindText(const TextRow& row)
{
    switch (row.kind) {
    case TextKind::Refusal:
        return "an error line: the call was refused";
    case TextKind::QuietRefusal:
        return "a debug line: the call was refused";
    case TextKind::Warning:
        return "an error line that is no refusal: the call goes on";
    case TextKind::Monitor:
        return "a debug line of the thread that watches the devices";
    default:
        return "a debug line";
    }
}

/// "status 40 and 242".
std::string removalStatuses()
{
    std::string text;
    for (const int status : statusesOfRemoval())
        text += (text.empty() ? "status " : " and ") + std::to_string(status);
    return text;
}

std::string codeOfRow(const TextRow& row)
{
    if (row.kind != TextKind::Refusal && row.kind != TextKind::QuietRefusal)
        return {};
    switch (row.code) {
    case CODE_UNKNOWN:
        return "one of several codes";
    case CODE_OF_STATUS:
        return "CKR_DEVICE_REMOVED for " + removalStatuses() + ", else CKR_FUNCTION_FAILED";
    case CODE_OF_RETRY_COUNT:
        return "CKR_PIN_LOCKED when no try is left, else CKR_PIN_INCORRECT";
    case CODE_IN_TEXT:
        return "the code in the line";
    default:
        return codeName(row.code);
    }
}

std::string pageOfText(const KnownText& known, std::string_view text)
{
    std::string page = printable(text) + "\n  " + std::string(kindText(*known.row)) + "\n";
    if (known.row->source == TextSource::Strict)
        page += "  written by the strict front\n";
    if (const std::string code = codeOfRow(*known.row); !code.empty())
        page += "  code: " + code + "\n";
    for (const TextValue& value : known.values)
        page += "  " + printable(value.text) + ": " + printable(valueInWords(value.kind, value.text)) + "\n";
    page += "  meaning: " + std::string(known.row->meaning) + "\n";
    if (!known.row->remedy.empty())
        page += "  what to do: " + std::string(known.row->remedy) + "\n";
    return page;
}

/// Texts that lead to a code, or that a function writes.
template <typename Choice>
std::string listOfTexts(std::string_view title, const Choice& isChosen)
{
    std::string list;
    for (const TextRow& row : textRows()) {
        if (isChosen(row))
            list += "    " + std::string(row.pattern) + "\n";
    }
    return list.empty() ? "" : "  " + std::string(title) + "\n" + list;
}

std::string pageOfConstant(const Constant& constant)
{
    std::string page = std::string(constant.name) + " (" + std::to_string(constant.value) + ")\n";
    if (constant.prefix != "CKR")
        return page;
    const std::string_view meaning = codeMeaning(constant.value);
    if (meaning.empty())
        return page + "  Neither the module nor the strict front gives this code.\n";
    page += "  meaning: " + std::string(meaning) + "\n";
    page += listOfTexts("lines that go with it:", [&](const TextRow& row) {
        const bool isRefusal = row.kind == TextKind::Refusal || row.kind == TextKind::QuietRefusal;
        const bool ofPin = row.code == CODE_OF_RETRY_COUNT &&
                           (constant.value == CKR_PIN_LOCKED || constant.value == CKR_PIN_INCORRECT);
        return isRefusal && (row.code == constant.value || ofPin);
    });
    if (constant.value != CKR_DEVICE_REMOVED && constant.value != CKR_FUNCTION_FAILED)
        return page;
    const std::string which = constant.value == CKR_DEVICE_REMOVED ? "with " : "with another than ";
    return page + listOfTexts("lines that go with it " + which + removalStatuses() + ":",
                              [](const TextRow& row) { return row.code == CODE_OF_STATUS; });
}

std::string pageOfFunction(std::string_view function)
{
    std::string page(function);
    page += isUnsupported(function) ? ": the module does not do this function (CKR_FUNCTION_NOT_SUPPORTED)\n" : "\n";
    return page + listOfTexts("its own lines:", [&](const TextRow& row) {
               KnownText known;
               known.row = &row;
               known.function = functionAtStart(row.pattern);
               return (!row.functions.empty() || !known.function.empty()) && isTextOf(known, function);
           });
}

std::optional<Number> anyNumber(std::string_view text)
{
    if (!text.starts_with("0x") && !text.starts_with("0X"))
        return numberOf(text);
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data() + 2, text.data() + text.size(), number, 16);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

std::string pageOfNumber(std::string_view text)
{
    const auto number = anyNumber(text);
    if (!number)
        return {};
    std::string page;
    for (const std::string& meaning : meaningsOf(*number))
        page += "  " + meaning + "\n";
    return page.empty() ? "" : std::string(text) + " can be\n" + page;
}

std::string pageOfStatus(std::string_view text)
{
    constexpr std::string_view STATUS = "status ";
    if (!text.starts_with(STATUS))
        return {};
    const auto number = numberOf(text.substr(STATUS.size()));
    if (!number)
        return {};
    const int status = static_cast<int>(*number);
    std::string page = statusWithMeaning(status) + "\n";
    if (statusName(status).empty())
        page += "  The makers of the device library know what it means.\n";
    return page +
           "  A status of the device library. For a refused PIN the module answers CKR_PIN_INCORRECT or "
           "CKR_PIN_LOCKED,\n  for a refused signature CKR_SIGNATURE_INVALID, else CKR_FUNCTION_FAILED; or "
           "CKR_DEVICE_REMOVED for\n  " +
           removalStatuses() + ", where the call tells that apart.\n";
}

} // namespace

std::string outcomeText(const Call& call)
{
    switch (call.outcome) {
    case Outcome::Refused:
        return call.code == CODE_UNKNOWN ? "refused" : "refused " + codeName(call.code);
    case Outcome::Warned:
        return "goes on after an error";
    case Outcome::Silent:
        return "refused, its code is not logged";
    default:
        return call.isMonitor ? "" : "no refusal seen";
    }
}

std::string valuesInWords(const CallLine& line)
{
    return line.row != nullptr && hasValues(*line.row) ? wordsOf(line.text).all : "";
}

std::string explanationOf(const Call& call)
{
    const CallLine* refusal = call.refusal();
    std::string text = refusal != nullptr ? explanationOfRefusal(call, *refusal) : explanationOfOther(call);
    return call.isMixed ? joined(std::move(text), " ", MIXED) : text;
}

std::string_view remedyOf(const Call& call)
{
    if (const CallLine* refusal = call.refusal())
        return refusal->row->remedy;
    if (call.outcome == Outcome::Refused && isUnsupported(call.function))
        return "Do without it.";
    if (call.outcome == Outcome::Silent)
        return "Check the base key, the mechanism's parameter and the template, and that the session is open.";
    for (const CallLine& line : call.lines) {
        if (line.row != nullptr && line.row->kind == TextKind::Warning)
            return line.row->remedy;
    }
    return {};
}

std::string durationText(std::optional<Milliseconds> duration)
{
    if (!duration)
        return {};
    if (*duration < 1000)
        return std::to_string(*duration) + " ms";
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.3f s", static_cast<double>(*duration) / 1000);
    return text.data();
}

std::string printable(std::string_view text)
{
    std::string shown(text);
    const bool isWhole = isText(shown);
    for (char& each : shown) {
        const auto byte = static_cast<unsigned char>(each);
        if (byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !isWhole))
            each = '?';
    }
    return shown;
}

std::string explain(std::string_view question)
{
    LogLine line;
    const std::string_view text = parseLine(question, line) ? line.text : question;
    KnownText known;
    if (findText(text, known))
        return pageOfText(known, text);
    if (isFunction(text))
        return pageOfFunction(text);
    if (const auto constant = findConstant(text))
        return pageOfConstant(*constant);
    const std::string status = pageOfStatus(text);
    return status.empty() ? pageOfNumber(text) : status;
}

} // namespace velkor::trace
