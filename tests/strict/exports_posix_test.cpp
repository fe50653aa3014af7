// The dynamic symbols of the built library: the standard's functions, and nothing that a host could stumble over.
#include <cstdio>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "test_system.h"

namespace
{

const std::vector<std::string> functionsOfTheStandard = {
#define EXPORT(name) #name,
#include "frame/exports.inc"
};

std::vector<std::string> definedSymbols()
{
    std::vector<std::string> names;
    FILE* nm = popen("nm -D --defined-only " STRICT_FILE, "r");
    char line[512];
    while (std::fgets(line, sizeof line, nm) != nullptr) {
        const std::string text(line, std::string(line).find_last_not_of('\n') + 1);
        names.push_back(text.substr(text.rfind(' ') + 1));
    }
    EXPECT_EQ(pclose(nm), 0);
    return names;
}

TEST(StrictExports, AreExactlyTheStandardsFunctions)
{
    EXPECT_EQ(functionsOfTheStandard.size(), 68U);
    EXPECT_THAT(definedSymbols(), testing::UnorderedElementsAreArray(functionsOfTheStandard));
}

TEST(StrictExports, AreFoundByTheirNames)
{
    for (const std::string& name : functionsOfTheStandard)
        EXPECT_NE(test_system::moduleSymbol(STRICT_FILE, name.c_str()), nullptr) << name;
}

} // namespace
