// Every log that the tests of the module have left: what the module really writes for each of its refusals is
// understood, and says what to do.
#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "describe.h"
#include "trace_files.h"

namespace velkor::trace
{
namespace
{

namespace fs = std::filesystem;

/// The logs in the folders of tests, but for those of an older module.
std::vector<fs::path> logsOfTests()
{
    std::vector<fs::path> logs;
    const auto built = fs::last_write_time(MODULE_FILE);
    const fs::recursive_directory_iterator files(fs::path(MODULE_TESTS) / "scratch",
                                                 fs::directory_options::skip_permission_denied);
    for (const auto& file : files) {
        if (file.is_regular_file() && file.path().extension() == ".LOG" && file.last_write_time() > built)
            logs.push_back(file.path());
    }
    return logs;
}

/// No call comes to these: the entry sequence, or the Init of the operation, refuses before, and a length is
/// overwritten before it is compared.
constexpr std::string_view NEVER_WRITTEN[] = {"{call}: unexpected activeOperation={operation}",
                                              "{call}: buffer too small, provided={size} required={size}",
                                              "C_Sign: unsupported mechanism={mechanism}"};

/// What was met in the logs.
struct Met {
    std::map<const TextRow*, std::uint64_t> refusals;
    std::set<std::string> refusingFunctions;
    std::uint64_t calls = 0;
};

void expectExplained(const Call& call, const fs::path& log)
{
    EXPECT_NE(explanationOf(call), "") << log << " " << call.function;
    EXPECT_NE(outcomeText(call), "refused") << log << " " << call.function << ": the code is in no table";
    if (isUnsupported(call.function)) {
        EXPECT_NE(remedyOf(call), "") << log << " " << call.function;
    }
    if (const CallLine* line = call.refusal()) {
        EXPECT_NE(remedyOf(call), "") << log << ": " << line->text;
        EXPECT_NE(explain(line->text), "") << log << ": " << line->text;
    }
}

void walk(const fs::path& log, Met& met)
{
    Source source(log);
    for (Call call; source.next(call, false);) {
        ++met.calls;
        for (const CallLine& line : call.lines) {
            EXPECT_TRUE(line.row != nullptr || isFunction(line.text))
                << log << ": nobody knows \"" << line.text << "\"";
            const bool isRefusal = line.row != nullptr &&
                                   (line.row->kind == TextKind::Refusal || line.row->kind == TextKind::QuietRefusal);
            met.refusals[line.row] += isRefusal ? 1U : 0U;
        }
        if (call.outcome != Outcome::Refused)
            continue;
        met.refusingFunctions.emplace(call.function);
        expectExplained(call, log);
    }
}

TEST(TraceModuleLogsTest, EveryRefusalThatTheModuleWroteIsExplained)
{
    const std::vector<fs::path> logs = logsOfTests();
    ASSERT_GT(logs.size(), 500U) << "the module's tests have not run";
    Met met;
    for (const fs::path& log : logs)
        walk(log, met);
    EXPECT_GT(met.calls, 10'000U);
    for (const TextRow& row : textRows()) {
        const bool isRefusal = row.kind == TextKind::Refusal || row.kind == TextKind::QuietRefusal;
        const bool isNever = std::ranges::find(NEVER_WRITTEN, row.pattern) != std::end(NEVER_WRITTEN);
        if (isRefusal && row.source != TextSource::Strict) {
            EXPECT_EQ(met.refusals[&row] == 0, isNever) << "\"" << row.pattern << "\"";
        }
    }
    for (const std::string_view function : functionNames())
        EXPECT_TRUE(met.refusingFunctions.contains(std::string(function))) << function << " was never refused";
}

} // namespace
} // namespace velkor::trace
