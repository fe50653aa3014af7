// The log of the module's recorded run, whose calls have their codes beside it: what is read of each is what it
// answered.
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "describe.h"
#include "trace_files.h"

namespace velkor::trace
{
namespace
{

struct AnsweredCall {
    std::string function;
    CK_RV code;
};

struct RecordedRun {
    std::vector<AnsweredCall> answers;
    std::vector<std::string> lines;
};

RecordedRun readRecordedRun()
{
    std::ifstream stream(std::filesystem::path(SOURCES) / "tests/module/recorded_run.txt", std::ios::binary);
    RecordedRun run;
    for (std::string line; std::getline(stream, line);) {
        const bool isLogged = line.starts_with("DEBUG ") || line.starts_with("ERROR ");
        if (isLogged)
            run.lines.push_back(line.substr(0, 1) + line.substr(5));
        else if (line.starts_with("C_"))
            run.answers.push_back({line.substr(0, line.find_first_of(" (")),
                                   static_cast<CK_RV>(std::stoul(line.substr(line.rfind(' ') + 1), nullptr, 16))});
    }
    return run;
}

bool isRead(const Call& call, CK_RV code)
{
    if (code == CKR_OK)
        return call.outcome == Outcome::NoRefusalSeen || call.outcome == Outcome::Warned;
    if (call.function == "C_DeriveKey" && call.outcome == Outcome::Silent)
        return true;
    return call.outcome == Outcome::Refused && call.code == code;
}

TEST(TraceRecordedRunTest, EveryCallIsReadAsItWasAnswered)
{
    const RecordedRun run = readRecordedRun();
    std::vector<Call> calls = test::callsOf(run.lines);
    std::erase_if(calls, [](const Call& call) { return call.isMonitor; });
    ASSERT_GT(run.answers.size(), 1000U);
    ASSERT_EQ(calls.size(), run.answers.size());
    for (std::size_t each = 0; each < calls.size(); ++each) {
        const AnsweredCall& answer = run.answers[each];
        EXPECT_EQ(calls[each].function, answer.function) << each;
        EXPECT_TRUE(isRead(calls[each], answer.code))
            << each << " " << answer.function << " " << answer.code << ": " << outcomeText(calls[each]);
        EXPECT_FALSE(calls[each].isMixed) << each << " " << answer.function;
        if (answer.code != CKR_OK) {
            EXPECT_NE(explanationOf(calls[each]), "") << each << " " << answer.function;
        }
    }
}

} // namespace
} // namespace velkor::trace
