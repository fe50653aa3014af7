// The lines of the log that the documents quote, held against the table of texts.
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "texts.h"

namespace velkor::trace
{
namespace
{

/// What stands as code in the first column of every table whose first column is headed "Line".
std::vector<std::string> linesInTables(const std::string& document)
{
    static const std::regex CODE("^\\| `([^`]+)`");
    std::ifstream stream(std::filesystem::path(SOURCES) / "docs" / document);
    std::vector<std::string> lines;
    bool isInTable = false;
    for (std::string line; std::getline(stream, line);) {
        isInTable = line.starts_with("| Line |") || (isInTable && line.starts_with('|'));
        std::smatch found;
        if (isInTable && std::regex_search(line, found, CODE))
            lines.push_back(found[1]);
    }
    return lines;
}

/// What "log says" or "in the log" is followed by.
std::vector<std::string> linesInSentences(const std::string& document)
{
    static const std::regex QUOTED("(?:log says|in the log) `([^`]+)`");
    std::ifstream stream(std::filesystem::path(SOURCES) / "docs" / document);
    const std::string text{std::istreambuf_iterator<char>(stream), {}};
    std::vector<std::string> lines;
    for (std::sregex_iterator each(text.begin(), text.end(), QUOTED), end; each != end; ++each)
        lines.push_back((*each)[1]);
    return lines;
}

void expectKnown(const std::vector<std::string>& lines)
{
    for (const std::string& line : lines) {
        KnownText known;
        EXPECT_TRUE(findText(line, known)) << line;
    }
}

TEST(TraceDocumentsTest, LinesOfTheTableOfCausesAreWritten)
{
    const std::vector<std::string> lines = linesInTables("logging.md");
    EXPECT_GT(lines.size(), 15U);
    expectKnown(lines);
}

TEST(TraceDocumentsTest, LinesOfTroubleshootingAreWritten)
{
    const std::vector<std::string> lines = linesInSentences("troubleshooting.md");
    EXPECT_GT(lines.size(), 3U);
    expectKnown(lines);
}

} // namespace
} // namespace velkor::trace
