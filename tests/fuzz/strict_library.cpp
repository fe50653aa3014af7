#include "library.h"

#include "standard_codes.h"
#include "test_system.h"

namespace fuzz
{
namespace
{

CK_FUNCTION_LIST_PTR load()
{
    const auto getFunctionList =
        reinterpret_cast<CK_C_GetFunctionList>(test_system::moduleSymbol(STRICT_FILE, "C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR list = nullptr;
    getFunctionList(&list);
    return list;
}

CK_RV lockNothing(CK_VOID_PTR /*mutex*/)
{
    return CKR_OK;
}

CK_RV createNothing(CK_VOID_PTR_PTR mutex)
{
    *mutex = nullptr;
    return CKR_OK;
}

} // namespace

const CK_FUNCTION_LIST& library()
{
    static CK_FUNCTION_LIST_PTR list = load();
    return *list;
}

Results resultsOfLibrary()
{
    return Results::Bounded;
}

/// A device library that does not start would make the front rest for a second.
CK_RV initializeLibrary(Host& host, FuzzedDevice& device)
{
    FuzzedDataProvider& input = host.input;
    CK_C_INITIALIZE_ARGS arguments{};
    CK_VOID_PTR given = nullptr;
    if (input.ConsumeBool()) {
        arguments.CreateMutex = input.ConsumeBool() ? createNothing : nullptr;
        arguments.DestroyMutex = input.ConsumeBool() ? lockNothing : nullptr;
        arguments.LockMutex = arguments.UnlockMutex = arguments.DestroyMutex;
        arguments.flags = input.ConsumeIntegralInRange<CK_FLAGS>(0, 3);
        arguments.pReserved = input.ConsumeBool() ? &arguments : nullptr;
        given = &arguments;
    }
    const bool wasCalm = device.isCalm();
    device.setCalm(true);
    const CK_RV code = host.p11.C_Initialize(given);
    device.setCalm(wasCalm);
    return code;
}

void checkCode(const char* function, CK_RV code)
{
    const bool isAllowed = hasStandardCode(function, code);
    if (!isAllowed)
        dprintf(reports, "%s answers 0x%lX\n", function, static_cast<unsigned long>(code));
    expect(isAllowed, "the standard has this code for the function");
}

} // namespace fuzz
