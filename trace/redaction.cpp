#include "redaction.h"

#include <algorithm>
#include <iterator>

namespace velkor::trace
{
namespace
{

constexpr std::string_view HIDDEN = "[hidden]";

bool isHidden(std::string_view kind)
{
    constexpr std::string_view KINDS[] = {"hex", "name", "path", "text"};
    return std::ranges::find(KINDS, kind) != std::end(KINDS);
}

void redactText(std::string& text)
{
    KnownText known;
    if (!findText(text, known)) {
        text = HIDDEN;
        return;
    }
    // From behind, so that the places of the others stay.
    std::for_each(known.values.rbegin(), known.values.rend(), [&](const TextValue& value) {
        if (isHidden(value.kind))
            text.replace(static_cast<std::size_t>(value.text.data() - text.data()), value.text.size(), HIDDEN);
    });
}

} // namespace

void redact(Call& call)
{
    for (CallLine& line : call.lines) {
        if (!isFunction(line.text))
            redactText(line.text);
    }
}

} // namespace velkor::trace
