// The list of statuses against the documents that repeat it.
#include "world.h"

#include <regex>
#include <set>

namespace softkey::test
{
namespace
{

using NumberAndName = std::pair<int, std::string>;

std::string textOf(const std::filesystem::path& file)
{
    const Data content = readFile(file);
    return {content.begin(), content.end()};
}

TEST(StatusTest, TheDocumentListsEveryStatusWithItsNumber)
{
    const std::string document = textOf(SOFTKEY_DOCUMENT);
    std::set<NumberAndName> documented;
    const std::regex row("\n\\| ([0-9]+) \\| ([A-Za-z]+) \\|");
    for (std::sregex_iterator match(document.begin(), document.end(), row), end; match != end; ++match)
        documented.emplace(std::stoi((*match)[1]), (*match)[2]);
    std::set<NumberAndName> known;
    for (const StatusRow& each : statusRows())
        known.emplace(code(each.status), each.name);
    EXPECT_EQ(documented, known);
    EXPECT_EQ(known.size(), statusRows().size()) << "two statuses are one";
}

TEST(StatusTest, TheManualListsEveryExitCode)
{
    const std::string manual = textOf(softkeyManual());
    for (const StatusRow& each : statusRows())
        EXPECT_NE(manual.find("\n.B " + std::to_string(static_cast<int>(each.exitCode)) + "\n"), std::string::npos)
            << each.name;
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
