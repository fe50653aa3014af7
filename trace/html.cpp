#include "html.h"

#include <nlohmann/json.hpp>

#include "describe.h"
#include "output.h"

namespace velkor::trace
{
namespace
{

using nlohmann::json;

constexpr std::uint64_t CALLS_SHOWN = 50'000;

constexpr const char* HEAD =
#include "html_head.inc"
    ;
constexpr const char* TAIL =
#include "html_tail.inc"
    ;

/// A document that may stand inside a script element.
std::string embedded(const json& document)
{
    std::string text = document.dump(-1, ' ', true, json::error_handler_t::replace);
    for (std::size_t place = text.find('<'); place != std::string::npos; place = text.find('<', place))
        text.replace(place, 1, "\\u003c");
    return text;
}

} // namespace

HtmlPage::HtmlPage(std::FILE* file) : file_(file)
{
    write(HEAD);
    write(R"(<script type="application/json" id="calls">[)");
}

void HtmlPage::write(const std::string& text)
{
    isWhole_ &= std::fwrite(text.data(), 1, text.size(), file_) == text.size();
}

void HtmlPage::add(const Call& call)
{
    if (calls_++ >= CALLS_SHOWN)
        return;
    json document = json::parse(jsonLine(call));
    document["at"] = call.start;
    document["shown"] = outcomeText(call);
    document["took"] = durationText(call.duration());
    write((calls_ == 1 ? "\n" : ",\n") + embedded(document));
}

bool HtmlPage::finish(const Summary& summary)
{
    json document = summary.json();
    document["leftOut"] = calls_ > CALLS_SHOWN ? calls_ - CALLS_SHOWN : 0;
    write("]</script>\n<script type=\"application/json\" id=\"summary\">" + embedded(document) + "</script>\n");
    write(TAIL);
    return isWhole_ && std::fflush(file_) == 0;
}

} // namespace velkor::trace
