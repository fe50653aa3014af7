// A host that loads an installed module and calls every function of its table, with a device library that has no
// device.
//     table_host MODULE DEVICE_LIBRARY
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <initializer_list>

#include "cryptoki.h"

namespace
{

CK_FUNCTION_LIST* table = nullptr;
int calls = 0;

bool isOneOf(CK_RV code, std::initializer_list<CK_RV> codes)
{
    return std::find(codes.begin(), codes.end(), code) != codes.end();
}

/// Notes a call that answered something else than it may.
void expect(const char* call, CK_RV code, std::initializer_list<CK_RV> codes)
{
    if (isOneOf(code, codes))
        return;
    std::fprintf(stderr, "%s answered 0x%lX\n", call, static_cast<unsigned long>(code));
    std::exit(1);
}

/// A call with nothing in its arguments is refused for what is missing, or for what is not supported.
template <typename... Parameters>
void callWithNothing(const char* name, CK_RV (*function)(Parameters...))
{
    ++calls;
    expect(name, function(Parameters{}...),
           {CKR_ARGUMENTS_BAD, CKR_SLOT_ID_INVALID, CKR_SESSION_HANDLE_INVALID, CKR_FUNCTION_NOT_SUPPORTED,
            CKR_FUNCTION_NOT_PARALLEL});
}

void load(const char* path, const char* deviceLibrary)
{
    void* module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::exit(1);
    }
    if (dlopen(deviceLibrary, RTLD_NOW | RTLD_NOLOAD) == nullptr) {
        std::fprintf(stderr, "The module found another device library\n");
        std::exit(1);
    }
    const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(module, "C_GetFunctionList"));
    expect("C_GetFunctionList", getFunctionList(&table), {CKR_OK});
}

/// What a host asks first. There is no slot, and none appears.
void lookAround()
{
    CK_INFO info;
    expect("C_GetInfo", table->C_GetInfo(&info), {CKR_OK});
    CK_ULONG count = 77;
    expect("C_GetSlotList", table->C_GetSlotList(CK_TRUE, nullptr, &count), {CKR_OK});
    CK_SLOT_ID slot = 0;
    expect("C_WaitForSlotEvent", table->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr), {CKR_NO_EVENT});
    CK_SESSION_HANDLE session = 0;
    expect("C_OpenSession", table->C_OpenSession(0x50000001, CKF_SERIAL_SESSION, nullptr, nullptr, &session),
           {CKR_SLOT_ID_INVALID});
    if (count != 0) {
        std::fprintf(stderr, "%lu slots\n", static_cast<unsigned long>(count));
        std::exit(1);
    }
}

} // namespace

int main(int argumentCount, char** arguments)
{
    if (argumentCount != 3)
        return 2;
    load(arguments[1], arguments[2]);
    expect("C_Initialize", table->C_Initialize(nullptr), {CKR_OK});
    lookAround();
#define EXPORT(name)                                                                                                   \
    if (std::strcmp(#name, "C_Initialize") != 0 && std::strcmp(#name, "C_Finalize") != 0)                              \
        callWithNothing(#name, table->name);
#include EXPORTS
    expect("C_Finalize", table->C_Finalize(nullptr), {CKR_OK});
    std::printf("%d functions answered\n", calls + 2);
    return calls + 2 == 68 ? 0 : 1;
}
