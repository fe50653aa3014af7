// The function table and the dynamic symbols of the built library, held against the one list of exports.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <dlfcn.h>

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
    void* module = dlopen(MODULE_FILE, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(module, nullptr);
    for (const std::string& name : standardNames)
        EXPECT_NE(dlsym(module, name.c_str()), nullptr) << name;
    for (const std::string& name : extensionNames)
        EXPECT_EQ(dlsym(module, name.c_str()), nullptr) << name;
}

class FunctionTableTest : public ModuleTest
{
protected:
    static CK_FUNCTION_LIST_PTR table()
    {
        CK_FUNCTION_LIST_PTR functions = nullptr;
        EXPECT_EQ(C_GetFunctionList(&functions), CKR_OK);
        return functions;
    }
};

TEST_F(FunctionTableTest, HoldsInEverySlotTheExportOfThatName)
{
    void* module = dlopen(MODULE_FILE, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(module, nullptr);
    const CK_FUNCTION_LIST_PTR functions = table();
#define EXPORT(name) EXPECT_EQ(reinterpret_cast<void*>(functions->name), dlsym(module, #name)) << #name;
#include "frame/exports.inc"
}

TEST_F(FunctionTableTest, FollowsTheOrderOfTheListWithoutNullSlots)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(table());
    const std::size_t first = sizeof(CK_FUNCTION_LIST) - standardNames.size() * sizeof(void*);
    for (std::size_t index = 0; index < standardNames.size(); ++index) {
        void* slot = nullptr;
        std::memcpy(&slot, bytes + first + index * sizeof slot, sizeof slot);
        Dl_info symbol{};
        ASSERT_NE(dladdr(slot, &symbol), 0);
        EXPECT_EQ(symbol.dli_sname, standardNames[index]);
    }
}

TEST_F(FunctionTableTest, SaysVersion220)
{
    EXPECT_EQ(table()->version.major, 2);
    EXPECT_EQ(table()->version.minor, 20);
}

TEST_F(FunctionTableTest, IsGivenBeforeInitialize)
{
    CK_FUNCTION_LIST_PTR functions = nullptr;
    EXPECT_EQ(answer(C_GetFunctionList, &functions), (Answer{CKR_OK, {"DEBUG C_GetFunctionList"}}));
}

TEST_F(FunctionTableTest, IsRefusedForANullPointer)
{
    EXPECT_EQ(answer(C_GetFunctionList, nullptr),
              refusal(CKR_ARGUMENTS_BAD, "C_GetFunctionList", "C_GetFunctionList: ppFunctionList is NULL"));
}

TEST_F(FunctionTableTest, IsOneAndTheSameObject)
{
    EXPECT_EQ(table(), table());
}

} // namespace
