// Every text of the log: who writes it, what it means and what the caller does about it. `texts_module.inc` has those
// of the module, `texts_strict.inc` those of the strict front; a test holds both against the sources.
#pragma once

#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "cryptoki.h"

namespace velkor::trace
{

/// What a line with the text says of its call.
enum class TextKind {
    Refusal,      ///< An error line: the call was refused.
    QuietRefusal, ///< The same as a debug line.
    Warning,      ///< An error line; the call goes on.
    Note,         ///< A debug line.
    Monitor,      ///< A debug line of the thread that watches the devices.
};

/// Who writes it.
enum class TextSource { Module, Strict, Both };

/// Codes that depend on a value of the line.
inline constexpr CK_RV CODE_UNKNOWN = ~CK_RV{0};
inline constexpr CK_RV CODE_OF_STATUS = ~CK_RV{1};
inline constexpr CK_RV CODE_OF_RETRY_COUNT = ~CK_RV{2};
inline constexpr CK_RV CODE_IN_TEXT = ~CK_RV{3};

struct TextRow {
    TextSource source;
    TextKind kind;
    CK_RV code;                 ///< Of refusals.
    std::string_view functions; ///< That write it, separated by blanks; empty: the one in the text, or any.
    std::string_view pattern;   ///< Values stand in braces by their kind; "{call}" is the function's name.
    std::string_view meaning;
    std::string_view remedy;
};

std::span<const TextRow> textRows();

/// What there is to know of each row, found out once: logs have millions of lines.
template <typename Value>
class PerRow
{
public:
    template <typename Make>
    explicit PerRow(const Make& make)
    {
        for (const TextRow& row : textRows())
            values_.push_back(make(row));
    }

    typename std::vector<Value>::const_reference operator[](const TextRow& row) const
    {
        return values_[static_cast<std::size_t>(&row - textRows().data())];
    }

private:
    std::vector<Value> values_;
};

/// A number or a text in a line, by the kind that its row gives it.
struct TextValue {
    std::string_view kind;
    std::string_view text;
};

/// A text of the log, understood.
struct KnownText {
    const TextRow* row = nullptr;
    std::string_view function; ///< The function that the text itself begins with; empty when with none.
    std::vector<TextValue> values;

    /// The first value of a kind; empty when there is none.
    std::string_view value(std::string_view kind) const;
};

/// Finds the row of a text into `known`, whose memory is used again. False for a text that is in no table.
bool findText(std::string_view text, KnownText& known);

/// The function's own name for a text that begins with one of an export; empty for others.
std::string_view functionAtStart(std::string_view text);

/// The names of all exports.
std::span<const std::string_view> functionNames();

/// Whether the text is the name of an export alone, as entry lines have it.
bool isFunction(std::string_view text);

/// Whether a function writes the text.
bool isTextOf(const KnownText& known, std::string_view function);

} // namespace velkor::trace
