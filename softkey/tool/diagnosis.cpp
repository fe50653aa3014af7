#include "tool/diagnosis.h"

#include <algorithm>
#include <string_view>

namespace softkey
{

void Diagnosis::add(const char* state, const std::string& part, const std::string& text, const std::string& fix)
{
    findings_.push_back({state, part, printable(text), printable(fix)});
}

std::size_t Diagnosis::problems() const
{
    const auto isProblem = [](const Finding& finding) { return !finding.fix.empty(); };
    return static_cast<std::size_t>(std::ranges::count_if(findings_, isProblem));
}

void Diagnosis::print(const Session& session) const
{
    constexpr std::size_t STATE_WIDTH = 9;
    nlohmann::json list = nlohmann::json::array();
    std::string lines;
    for (const Finding& finding : findings_) {
        std::string state(finding.state);
        list.push_back({{"state", state}, {"part", finding.part}, {"text", finding.text}});
        state.resize(STATE_WIDTH, ' ');
        lines += state + finding.part + ": " + finding.text + '\n';
        if (finding.fix.empty())
            continue;
        list.back()["fix"] = finding.fix;
        lines += std::string(STATE_WIDTH, ' ') + "to mend it: " + finding.fix + '\n';
    }
    const std::size_t count = problems();
    session.print({{"well", count == 0}, {"findings", list}},
                  lines + (count == 0 ? "All is well." : "Not all is well."));
    if (count != 0)
        throw Failure(ExitCode::Failed, std::to_string(count) + (count == 1 ? " problem" : " problems"));
}

} // namespace softkey
