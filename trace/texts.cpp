#include "texts.h"

#include <algorithm>
#include <array>
#include <string>

#include "memo.h"
#include "strict/object.h"

namespace velkor::trace
{
namespace
{

using strict::CKR_ACTION_PROHIBITED;

// What many texts mean, and what the caller does then.
constexpr std::string_view NULL_POINTER = "The host passed a null pointer where a value is needed.";
constexpr std::string_view HOST_DEFECT = "This is a defect of the host: report it to its makers.";
constexpr std::string_view NO_DATA = "The host passed no data, or data of length 0.";
constexpr std::string_view EMPTY_TEMPLATE = "The host passed an empty template.";
constexpr std::string_view UNKNOWN_SLOT =
    "There is no slot with this ID. Slots exist only after a C_GetSlotList that filled a list.";
constexpr std::string_view FETCH_SLOTS = "Fetch the list first, and again after a slot event.";
constexpr std::string_view PIN_LENGTH = "A PIN has at least 4 and at most 63 bytes.";
constexpr std::string_view NO_KEY_PAIR = "The device has no key pair with this handle.";
constexpr std::string_view NO_CERTIFICATE = "The device has no certificate with this handle.";
constexpr std::string_view NO_KEY_HANDLE = "This is the handle of no key that the call takes.";
constexpr std::string_view SEARCH_AGAIN =
    "Search for the object again: another program may have deleted it, or the key may be another one.";
constexpr std::string_view DEVICE_FAILED = "The device library failed.";
constexpr std::string_view LOOK_AT_STATUS = "Look at the status, which is the device library's.";
constexpr std::string_view HASH_FAILED = "The device library could not hash the data.";
constexpr std::string_view FIPS = "The token follows the FIPS 140-3 rules, which do not let it sign with SHA-1 or MD5.";
constexpr std::string_view STRONGER_HASH = "Sign with SHA-256 or stronger.";
constexpr std::string_view RSA_1024 = "RSA keys of 1024 bits are refused for generating, importing and signing.";
constexpr std::string_view LARGER_KEY = "Use larger keys.";
constexpr std::string_view OLD_FIRMWARE = "The token's firmware is older than 2.0.0 and does not do this.";
constexpr std::string_view NEWER_FIRMWARE = "Use another mechanism, or a token with newer firmware.";
constexpr std::string_view NO_PARAMETER = "The mechanism takes no parameter, and one was given.";
constexpr std::string_view NEEDS_LOGIN = "This needs a user who is logged in on the token.";
constexpr std::string_view LOG_IN = "Log in.";
constexpr std::string_view TOKEN_LACKS = "The token cannot hold or make such an object.";
constexpr std::string_view OTHER_OBJECT = "Keep the object elsewhere, or create what the token takes.";
constexpr std::string_view INCOMPLETE = "The template lacks what such an object needs.";
constexpr std::string_view COMPLETE_IT = "Add the attribute to the template.";

constexpr TextRow ROWS[] = {
#define TEXT(source, kind, code, functions, pattern, meaning, remedy)                                                  \
    {TextSource::source, TextKind::kind, code, functions, pattern, meaning, remedy},
#include "texts_module.inc"
#include "texts_strict.inc"
#undef TEXT
};

constexpr std::string_view FUNCTIONS[] = {
#define EXPORT(name) #name,
#define EXTENSION(name) #name,
#include "frame/exports.inc"
};

constexpr std::string_view CALL = "{call}";

std::string_view literalStart(std::string_view pattern)
{
    return pattern.substr(0, pattern.find('{'));
}

/// Rows by what they begin with. Of rows that begin with one another, the longer ones lead to the shorter ones.
class Index
{
public:
    struct Entry {
        std::string_view start;
        std::string_view pattern;
        const TextRow* row;
        int shorter = -1;
    };

    explicit Index(bool ofAnyCall)
    {
        for (const TextRow& row : ROWS) {
            if (row.pattern.starts_with(CALL) != ofAnyCall)
                continue;
            const std::string_view pattern = row.pattern.substr(ofAnyCall ? CALL.size() : 0);
            entries_.push_back({literalStart(pattern), pattern, &row, -1});
        }
        // Of equal starts the longest pattern is tried first.
        std::ranges::sort(entries_, [](const Entry& left, const Entry& right) {
            return left.start != right.start ? left.start < right.start : left.pattern.size() < right.pattern.size();
        });
        for (std::size_t each = 1; each < entries_.size(); ++each)
            linkToShorter(each);
        for (std::size_t each = 0; each < entries_.size(); ++each)
            ends_[static_cast<unsigned char>(entries_[each].start.front())] = each + 1;
        for (std::size_t byte = 1; byte < ends_.size(); ++byte)
            ends_[byte] = std::max(ends_[byte], ends_[byte - 1]);
    }

    template <typename Match>
    const TextRow* find(std::string_view text, const Match& matches) const
    {
        if (text.empty())
            return nullptr;
        const auto byte = static_cast<unsigned char>(text.front());
        const auto first = entries_.begin() + static_cast<std::ptrdiff_t>(byte == 0 ? 0 : ends_[byte - 1U]);
        const auto last = entries_.begin() + static_cast<std::ptrdiff_t>(ends_[byte]);
        const auto above = std::upper_bound(
            first, last, text, [](std::string_view left, const Entry& right) { return left < right.start; });
        for (auto each = static_cast<int>(above - entries_.begin()) - 1; each >= first - entries_.begin();) {
            const Entry& entry = entries_[static_cast<std::size_t>(each)];
            if (text.starts_with(entry.start) && matches(entry.pattern))
                return entry.row;
            each = entry.shorter;
        }
        return nullptr;
    }

private:
    void linkToShorter(std::size_t each)
    {
        int candidate = static_cast<int>(each) - 1;
        while (candidate >= 0 && !entries_[each].start.starts_with(entries_[static_cast<std::size_t>(candidate)].start))
            candidate = entries_[static_cast<std::size_t>(candidate)].shorter;
        entries_[each].shorter = candidate;
    }

    std::vector<Entry> entries_;
    std::array<std::size_t, 256> ends_{}; ///< Behind the last entry that begins with this byte or a lower one.
};

bool isNumber(std::string_view text)
{
    if (text.starts_with('-'))
        text.remove_prefix(1);
    return !text.empty() && std::ranges::all_of(text, [](char each) { return each >= '0' && each <= '9'; });
}

/// Kinds of values that are texts; all others are numbers.
bool isTextKind(std::string_view kind)
{
    constexpr std::string_view TEXTS[] = {"text", "hex", "version", "objects", "path", "name"};
    return std::ranges::find(TEXTS, kind) != std::end(TEXTS);
}

/// Takes the values out of a text; false when it is not of the pattern.
bool takeValues(std::string_view pattern, std::string_view text, std::vector<TextValue>& values)
{
    values.clear();
    while (true) {
        const std::string_view literal = literalStart(pattern);
        if (!text.starts_with(literal))
            return false;
        text.remove_prefix(literal.size());
        pattern.remove_prefix(literal.size());
        if (pattern.empty())
            return text.empty();
        const std::string_view kind = pattern.substr(1, pattern.find('}') - 1);
        pattern.remove_prefix(kind.size() + 2);
        const std::string_view next = literalStart(pattern);
        // A text goes up to the last place where the rest can begin; a number to the first.
        const std::size_t end = next.empty() ? text.size() : isTextKind(kind) ? text.rfind(next) : text.find(next);
        if (end == std::string_view::npos)
            return false;
        values.push_back({kind, text.substr(0, end)});
        if (!isTextKind(kind) && !isNumber(values.back().text))
            return false;
        text.remove_prefix(end);
    }
}

std::size_t lengthOfName(std::string_view text)
{
    std::size_t length = 2;
    while (length < text.size() &&
           ((text[length] >= 'A' && text[length] <= 'Z') || (text[length] >= 'a' && text[length] <= 'z')))
        ++length;
    return length;
}

/// Names of exports for a look-up by their length and letters.
class FunctionNames
{
public:
    FunctionNames()
    {
        for (const std::string_view name : FUNCTIONS)
            byHash_[slotOf(name)].push_back(name);
    }

    std::string_view find(std::string_view name) const
    {
        for (const std::string_view each : byHash_[slotOf(name)]) {
            if (each == name)
                return each;
        }
        return {};
    }

private:
    static std::size_t slotOf(std::string_view name)
    {
        const auto at = [&](std::size_t place) {
            return place < name.size() ? static_cast<unsigned char>(name[place]) : 0U;
        };
        return (at(2) * 31U + at(name.size() - 1) * 7U + at(name.size() / 2) * 3U + name.size()) % 256;
    }

    std::array<std::vector<std::string_view>, 256> byHash_;
};

/// What a text is, without the text.
struct FoundText {
    struct Value {
        std::string_view kind;
        std::size_t start; ///< In the text.
        std::size_t size;
    };
    const TextRow* row = nullptr;
    std::string_view function;
    std::vector<Value> values;
};

FoundText searchText(std::string_view text)
{
    static const Index whole(false);
    static const Index ofAnyCall(true);
    std::vector<TextValue> values;
    const auto search = [&](const Index& index, std::string_view part) {
        return index.find(part, [&](std::string_view pattern) { return takeValues(pattern, part, values); });
    };
    FoundText found;
    found.function = functionAtStart(text);
    found.row = search(whole, text);
    if (found.row == nullptr && !found.function.empty())
        found.row = search(ofAnyCall, text.substr(found.function.size()));
    if (found.row == nullptr)
        return found;
    for (const TextValue& value : values)
        found.values.push_back(
            {value.kind, static_cast<std::size_t>(value.text.data() - text.data()), value.text.size()});
    return found;
}

} // namespace

std::span<const TextRow> textRows()
{
    return ROWS;
}

std::span<const std::string_view> functionNames()
{
    return FUNCTIONS;
}

std::string_view functionAtStart(std::string_view text)
{
    static const FunctionNames names;
    if (!text.starts_with("C_") || text.size() < 3)
        return {};
    return names.find(text.substr(0, lengthOfName(text)));
}

bool isFunction(std::string_view text)
{
    // Most texts end in a number, and are told by that alone.
    return text.size() > 3 && (text.back() < '0' || text.back() > '9') && functionAtStart(text).size() == text.size();
}

std::string_view KnownText::value(std::string_view kind) const
{
    const auto found = std::ranges::find(values, kind, &TextValue::kind);
    return found != values.end() ? found->text : std::string_view();
}

bool findText(std::string_view text, KnownText& known)
{
    static Memo<FoundText> found;
    const FoundText& kept = found.of(text, searchText);
    known.row = kept.row;
    known.function = kept.function;
    known.values.clear();
    for (const FoundText::Value& value : kept.values)
        known.values.push_back({value.kind, text.substr(value.start, value.size)});
    return known.row != nullptr;
}

bool isTextOf(const KnownText& known, std::string_view function)
{
    if (known.row == nullptr)
        return true;
    const std::string_view functions = known.row->functions;
    if (functions.empty())
        return known.function.empty() || known.function == function;
    for (std::size_t place = functions.find(function); place != std::string_view::npos;
         place = functions.find(function, place + 1)) {
        const std::size_t end = place + function.size();
        if ((place == 0 || functions[place - 1] == ' ') && (end == functions.size() || functions[end] == ' '))
            return true;
    }
    return false;
}

} // namespace velkor::trace
