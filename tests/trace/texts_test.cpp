// The table of texts, held against the sources of those who write them.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "names.h"
#include "texts.h"

namespace velkor::trace
{
namespace
{

/// A call of refuse, logError or logDebug in a source file.
struct Statement {
    std::string writer;
    std::string code;
    std::vector<std::string> pieces;
    std::string place;
};

std::string contentsOf(const std::filesystem::path& path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// The arguments of a call whose first parenthesis is open at `place`.
std::vector<std::string> argumentsAt(const std::string& source, std::size_t place)
{
    std::vector<std::string> arguments(1);
    bool inText = false;
    for (int depth = 1; place < source.size(); ++place) {
        const char each = source[place];
        inText = inText != (each == '"' && source[place - 1] != '\\');
        const bool opens = each == '(' || each == '[' || each == '{';
        const bool closes = each == ')' || each == ']' || each == '}';
        depth += inText ? 0 : (opens ? 1 : 0) - (closes ? 1 : 0);
        if (depth == 0)
            break;
        if (!inText && depth == 1 && each == ',')
            arguments.emplace_back();
        else
            arguments.back() += each;
    }
    return arguments;
}

std::vector<std::filesystem::path> sourcesOf(const std::string& folder)
{
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(std::filesystem::path(SOURCES) / folder)) {
        const std::string extension = entry.path().extension().string();
        if ((extension == ".cpp" || extension == ".h") && entry.path().filename() != "log.h")
            files.push_back(entry.path());
    }
    return files;
}

std::string trimmed(std::string text)
{
    text.erase(0, text.find_first_not_of(" \n"));
    return text.substr(0, text.find_last_not_of(" \n") + 1);
}

std::vector<Statement> statementsOf(const std::string& folder)
{
    static const std::regex WRITER(R"(\b(refuse|logError|logDebug)\()");
    std::vector<Statement> statements;
    for (const auto& file : sourcesOf(folder)) {
        const std::string source = std::regex_replace(contentsOf(file), std::regex("//[^\n]*"), "");
        for (std::sregex_iterator each(source.begin(), source.end(), WRITER), end; each != end; ++each) {
            const auto place = static_cast<std::size_t>(each->position() + each->length());
            Statement statement{(*each)[1], "", argumentsAt(source, place), file.filename().string()};
            for (std::string& piece : statement.pieces)
                piece = trimmed(piece);
            if (statement.writer == "refuse") {
                statement.code = statement.pieces.front();
                statement.pieces.erase(statement.pieces.begin());
            }
            statements.push_back(statement);
        }
    }
    return statements;
}

std::vector<std::string> textsIn(const std::string& source)
{
    static const std::regex TEXT(R"re("((?:[^"\\]|\\.)*)"(?:\s*"((?:[^"\\]|\\.)*)")?)re");
    std::vector<std::string> texts;
    for (std::sregex_iterator each(source.begin(), source.end(), TEXT), end; each != end; ++each)
        texts.push_back((*each)[1].str() + (*each)[2].str());
    return texts;
}

bool isFunctionName(const std::string& piece)
{
    static const std::set<std::string> NAMES = {"name",   "NAME",     "CREATE", "COPY",
                                                "DERIVE", "GENERATE", "INIT",   "use.name"};
    return NAMES.contains(piece);
}

/// Texts that stand in tables of the sources, whose names are the first piece of a statement.
bool isFromTable(const std::string& piece)
{
    static const std::set<std::string> TABLES = {"texts.init",   "texts.update",     "texts.final",
                                                 "rule.invalid", "rule.notFound",    "rule.rsa1024",
                                                 "rule.text",    "transition.error", "line"};
    return TABLES.contains(piece);
}

/// The patterns of a statement: "{call}" for the function's name, "{}" for every other value.
std::vector<std::string> patternsOf(const Statement& statement)
{
    std::vector<std::string> patterns = {""};
    for (const std::string& piece : statement.pieces) {
        std::vector<std::string> choices = {"{}"};
        if (isFunctionName(piece) && piece == statement.pieces.front())
            choices = {"{call}"};
        else if (piece.starts_with('"') || piece.find("\n") != std::string::npos)
            choices = textsIn(piece);
        std::vector<std::string> longer;
        for (const std::string& pattern : patterns) {
            for (const std::string& choice : choices)
                longer.push_back(pattern + choice);
        }
        patterns = longer;
    }
    return patterns;
}

/// The texts of the tables, which statements name by their field.
std::map<std::string, std::string> patternsOfTables()
{
    std::map<std::string, std::string> patterns; // With the code of each.
    const std::filesystem::path src = std::filesystem::path(SOURCES) / "src";
    for (const char* file : {"crypto/signing.cpp", "crypto/verification.cpp", "crypto/derivation.cpp"}) {
        const std::string source = contentsOf(src / file);
        static const std::regex TABLE(R"(HashFailureTexts \w+ = \{([^}]*)\})");
        for (std::sregex_iterator each(source.begin(), source.end(), TABLE), end; each != end; ++each) {
            for (const std::string& text : textsIn((*each)[1]))
                patterns[text + "{}"] = "CKR_FUNCTION_FAILED";
        }
    }
    const std::string signing = contentsOf(src / "crypto/signing.cpp");
    const std::size_t rules = signing.find("FipsRule FIPS_RULES[]");
    for (const std::string& text : textsIn(signing.substr(rules, signing.find("};", rules) - rules)))
        patterns[text] = "CKR_MECHANISM_INVALID";
    const std::string selection = contentsOf(src / "crypto/key_selection.cpp");
    static const std::regex RULE(R"(\{KeyUse::[^}]*\})");
    for (std::sregex_iterator each(selection.begin(), selection.end(), RULE), end; each != end; ++each) {
        std::string row = each->str();
        row = std::regex_replace(row, std::regex("\"\""), "\"@\""); // An empty text has no neighbour to join.
        const auto texts = textsIn(std::regex_replace(row, std::regex(","), ",0"));
        patterns[texts.at(0) + "{}" + (texts.at(1) == "@" ? "" : texts.at(1))] = "CKR_OBJECT_HANDLE_INVALID";
        patterns[texts.at(2) + "{}"] = "CKR_OBJECT_HANDLE_INVALID";
        if (texts.size() > 3)
            patterns[texts.at(3)] = "CKR_KEY_SIZE_RANGE";
    }
    const std::string login = contentsOf(src / "sessions/login.cpp");
    static const std::regex NAMED(R"re(constexpr const char\* \w+ = ("[^"]*");)re");
    for (std::sregex_iterator each(login.begin(), login.end(), NAMED), end; each != end; ++each)
        patterns[textsIn((*each)[1]).at(0)] = "";
    const std::string search = contentsOf(src / "objects/object_search.cpp");
    static const std::regex LINE(R"re(std::string line = ("[^"]*");)re");
    std::smatch line;
    if (std::regex_search(search, line, LINE))
        patterns[textsIn(line[1]).at(0) + "{}"] = "";
    return patterns;
}

std::string patternOfRow(const TextRow& row)
{
    static const std::regex VALUE(R"(\{(?!call\})[a-z0-9]*\})");
    return std::regex_replace(std::string(row.pattern), VALUE, "{}");
}

/// A text of one function that a row of any call has.
std::string patternOfAnyCall(const std::string& pattern)
{
    return "{call}" + pattern.substr(functionAtStart(pattern).size());
}

const TextRow* rowOf(const std::string& pattern, TextSource source)
{
    const auto rows = textRows();
    const auto found = std::ranges::find_if(rows, [&](const TextRow& row) {
        return (row.source == source || row.source == TextSource::Both) && patternOfRow(row) == pattern;
    });
    if (found != rows.end())
        return &*found;
    return functionAtStart(pattern).empty() ? nullptr : rowOf(patternOfAnyCall(pattern), source);
}

/// Patterns of one house, with a statement that writes each.
std::map<std::string, Statement> patternsOfHouse(const std::string& folder)
{
    std::map<std::string, Statement> patterns;
    for (const Statement& statement : statementsOf(folder)) {
        const std::string& first = statement.pieces.front();
        if (isFromTable(first) || (isFunctionName(first) && statement.pieces.size() == 1))
            continue;
        for (const std::string& pattern : patternsOf(statement))
            patterns.emplace(pattern, statement);
    }
    return patterns;
}

std::map<std::string, Statement> patternsOfModule()
{
    std::map<std::string, Statement> patterns = patternsOfHouse("src");
    for (const auto& [pattern, code] : patternsOfTables())
        patterns.emplace(pattern, Statement{code.empty() ? "" : "refuse", code, {}, "a table"});
    return patterns;
}

bool isKindOf(const TextRow& row, const std::string& writer)
{
    const bool isDebug =
        row.kind == TextKind::QuietRefusal || row.kind == TextKind::Note || row.kind == TextKind::Monitor;
    if (writer == "logDebug")
        return isDebug;
    return writer.empty() || (!isDebug && (writer == "logError" || row.kind == TextKind::Refusal));
}

/// Whether a row has the code of a statement; codes that are computed there are computed here as well.
bool hasCode(const TextRow& row, const std::string& code)
{
    if (!code.starts_with("CKR_"))
        return code.empty() || row.code == CODE_UNKNOWN || row.code == CODE_OF_STATUS ||
               row.code == CODE_OF_RETRY_COUNT || row.code == CODE_IN_TEXT;
    const auto constant = findConstant(code);
    return constant && constant->value == row.code;
}

void expectRows(const std::map<std::string, Statement>& patterns, TextSource source)
{
    for (const auto& [pattern, statement] : patterns) {
        const TextRow* row = rowOf(pattern, source);
        ASSERT_NE(row, nullptr) << statement.place << " writes \"" << pattern << "\", which the table does not have";
        EXPECT_TRUE(isKindOf(*row, statement.writer)) << statement.place << ": " << pattern;
        EXPECT_TRUE(hasCode(*row, statement.code)) << statement.place << ": " << pattern << ": " << statement.code;
    }
}

void expectStatements(const std::map<std::string, Statement>& patterns, TextSource source)
{
    for (const TextRow& row : textRows()) {
        if (row.source == source || row.source == TextSource::Both) {
            EXPECT_TRUE(patterns.contains(patternOfRow(row)) || patterns.contains(patternOfAnyCall(patternOfRow(row))))
                << "nobody writes \"" << row.pattern << "\" any more";
        }
    }
}

TEST(TraceTextsTest, EveryTextOfTheModuleIsExplained)
{
    const auto patterns = patternsOfModule();
    EXPECT_GT(patterns.size(), 150U);
    expectRows(patterns, TextSource::Module);
    expectStatements(patterns, TextSource::Module);
}

TEST(TraceTextsTest, EveryTextOfTheStrictFrontIsExplained)
{
    auto patterns = patternsOfHouse("strict");
    patterns.merge(patternsOfHouse("src/log")); // Which both are made of.
    EXPECT_GT(patterns.size(), 120U);
    expectRows(patterns, TextSource::Strict);
    expectStatements(patterns, TextSource::Strict);
}

TEST(TraceTextsTest, StatementsThatBeginWithNoTextAreKnown)
{
    for (const char* house : {"src", "strict"}) {
        for (const Statement& statement : statementsOf(house)) {
            const std::string& first = statement.pieces.front();
            EXPECT_TRUE(first.starts_with('"') || isFunctionName(first) || isFromTable(first))
                << statement.place << ": " << first;
        }
    }
}

TEST(TraceTextsTest, EveryRefusalSaysWhatItMeansAndWhatToDo)
{
    for (const TextRow& row : textRows()) {
        EXPECT_TRUE(row.meaning.ends_with('.')) << row.pattern;
        if (row.kind == TextKind::Refusal || row.kind == TextKind::QuietRefusal || row.kind == TextKind::Warning) {
            EXPECT_TRUE(row.remedy.ends_with('.')) << row.pattern;
        }
    }
}

TEST(TraceTextsTest, EveryCodeOfTheSourcesHasAMeaningAndNoOtherHas)
{
    static const std::regex CODE(R"(\bCKR_[A-Z0-9_]+)");
    std::set<std::string> codes;
    for (const char* house : {"src", "strict"}) {
        for (const auto& file : sourcesOf(house)) {
            const std::string source = std::regex_replace(contentsOf(file), std::regex("//[^\n]*"), "");
            for (std::sregex_iterator each(source.begin(), source.end(), CODE), end; each != end; ++each)
                codes.insert(each->str());
        }
    }
    EXPECT_GT(codes.size(), 40U);
    for (const Constant& each : constants()) {
        if (each.prefix == "CKR") {
            EXPECT_EQ(codeMeaning(each.value) != "", codes.contains(std::string(each.name))) << each.name;
        }
    }
}

TEST(TraceTextsTest, EveryRowIsFoundByATextOfItsPattern)
{
    static const std::regex TEXT_VALUE(R"(\{(text|hex|version|objects|path|name)\})");
    static const std::regex NUMBER(R"(\{[a-z0-9]+\})");
    for (const TextRow& row : textRows()) {
        std::string text = std::regex_replace(std::string(row.pattern), std::regex(R"(\{call\})"), "C_CopyObject");
        text = std::regex_replace(text, TEXT_VALUE, "1.2.3");
        text = std::regex_replace(text, NUMBER, "-7");
        KnownText known;
        ASSERT_TRUE(findText(text, known)) << text;
        EXPECT_EQ(known.row->pattern, row.pattern);
    }
}

TEST(TraceTextsTest, FunctionsOfRowsAreExports)
{
    for (const TextRow& row : textRows()) {
        std::istringstream functions{std::string(row.functions)};
        for (std::string function; functions >> function;)
            EXPECT_TRUE(isFunction(function)) << row.pattern;
    }
}

TEST(TraceTextsTest, ATextThatIsCutOrLongerIsNotFound)
{
    KnownText known;
    EXPECT_FALSE(findText("C_SignInit: unsupported mechanism=", known));
    EXPECT_FALSE(findText("C_SignInit: unsupported mechanism=12x", known));
    EXPECT_FALSE(findText("C_GetInfo: pInfo is NUL", known));
    EXPECT_FALSE(findText("C_GetInfo: pInfo is NULL ", known));
    EXPECT_FALSE(findText("", known));
    EXPECT_TRUE(findText("C_SignInit: unsupported mechanism=12", known));
    EXPECT_EQ(known.value("mechanism"), "12");
}

} // namespace
} // namespace velkor::trace
