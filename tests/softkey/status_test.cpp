// The list of statuses against the documents that repeat it.
#include "world.h"

#include <regex>
#include <set>
#include <tuple>

namespace softkey::test
{
namespace
{

using DocumentedStatus = std::tuple<int, std::string, int>; ///< Number, name, exit code of the tool.

std::string textOf(const std::filesystem::path& file)
{
    const Data content = readFile(file);
    return {content.begin(), content.end()};
}

int exitCodeOf(const StatusRow& status)
{
    return static_cast<int>(status.exitCode);
}

TEST(StatusTest, TheDocumentListsEveryStatusWithItsNumberAndExitCode)
{
    const std::string document = textOf(SOFTKEY_DOCUMENT);
    std::set<DocumentedStatus> documented;
    const std::regex row("\n\\| ([0-9]+) \\| ([A-Za-z]+) \\| ([0-9]+) \\|");
    for (std::sregex_iterator match(document.begin(), document.end(), row), end; match != end; ++match)
        documented.emplace(std::stoi((*match)[1]), (*match)[2], std::stoi((*match)[3]));
    std::set<DocumentedStatus> known;
    for (const StatusRow& each : statusRows())
        known.emplace(code(each.status), each.name, exitCodeOf(each));
    EXPECT_EQ(documented, known);
    EXPECT_EQ(known.size(), statusRows().size()) << "two statuses are one";
}

TEST(StatusTest, TheManualListsTheExitCodesAndNoOthers)
{
    const std::string manual = textOf(softkeyManual());
    std::set<int> documented;
    const std::regex entry("\n\\.B ([0-9]+)\n");
    for (std::sregex_iterator match(manual.begin(), manual.end(), entry), end; match != end; ++match)
        documented.insert(std::stoi((*match)[1]));
    std::set<int> known;
    for (const StatusRow& each : statusRows())
        known.insert(exitCodeOf(each));
    EXPECT_EQ(documented, known);
}

TEST(StatusTest, EveryStatusHasATextOfItsOwn)
{
    std::set<std::string> texts;
    for (const StatusRow& each : statusRows())
        texts.insert(each.text);
    EXPECT_EQ(texts.size(), statusRows().size());
}

} // namespace
} // namespace softkey::test
