// The dynamic symbols of the built library, held against the one list of exports.
#include <cstdio>
#include <string>
#include <vector>

#include "module_fixture.h"

namespace
{

const std::vector<std::string> standardNames = {
#define EXPORT(name) #name,
#include "frame/exports.inc"
};

const std::vector<std::string> extensionNames = {
#define EXPORT(name)
#define EXTENSION(name) #name,
#include "frame/exports.inc"
};

/// Names that the module defines for others; C++ names without their parameters.
std::vector<std::string> dynamicSymbols()
{
    std::vector<std::string> names;
    FILE* nm = popen("nm -D --defined-only -C " MODULE_FILE, "r");
    char line[512];
    while (std::fgets(line, sizeof line, nm) != nullptr) {
        const std::string text(line, std::string(line).find_last_not_of('\n') + 1);
        const std::string name = text.substr(text.find(' ', 17) + 1);
        names.push_back(name.substr(0, name.find('(')));
    }
    EXPECT_EQ(pclose(nm), 0);
    return names;
}

TEST(Exports, AreExactlyTheListedNames)
{
    std::vector<std::string> expected = standardNames;
    expected.insert(expected.end(), extensionNames.begin(), extensionNames.end());
    EXPECT_EQ(expected.size(), 71u);
    EXPECT_THAT(dynamicSymbols(), testing::UnorderedElementsAreArray(expected));
}

TEST(Exports, HaveCNamesForTheStandardAndCxxNamesForTheExtensions)
{
    for (const std::string& name : standardNames)
        EXPECT_NE(test_system::moduleSymbol(MODULE_FILE, name.c_str()), nullptr) << name;
    for (const std::string& name : extensionNames)
        EXPECT_EQ(test_system::moduleSymbol(MODULE_FILE, name.c_str()), nullptr) << name;
}

} // namespace
