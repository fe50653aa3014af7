// The function table, held against the one list of exports.
#include <cstring>
#include <string>
#include <vector>

#include "module_fixture.h"

namespace
{

const std::vector<std::string> standardNames = {
#define EXPORT(name) #name,
#include "frame/exports.inc"
};

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
    const CK_FUNCTION_LIST_PTR functions = table();
#define EXPORT(name)                                                                                                   \
    EXPECT_EQ(reinterpret_cast<void*>(functions->name), test_system::moduleSymbol(MODULE_FILE, #name)) << #name;
#include "frame/exports.inc"
}

TEST_F(FunctionTableTest, FollowsTheOrderOfTheListWithoutNullSlots)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(table());
    const std::size_t first = sizeof(CK_FUNCTION_LIST) - standardNames.size() * sizeof(void*);
    for (std::size_t index = 0; index < standardNames.size(); ++index) {
        void* slot = nullptr;
        std::memcpy(&slot, bytes + first + index * sizeof slot, sizeof slot);
        ASSERT_NE(slot, nullptr);
        EXPECT_EQ(slot, test_system::moduleSymbol(MODULE_FILE, standardNames[index].c_str())) << standardNames[index];
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
