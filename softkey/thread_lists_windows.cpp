#include "library.h"

#include <windows.h>

namespace softkey
{
namespace
{

/// The thread's lists are dropped by code in here, which therefore must not be unloaded.
DWORD makeThreadKey()
{
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCWSTR>(&makeThreadKey), &self);
    return FlsAlloc([](void* lists) { delete static_cast<ThreadLists*>(lists); });
}

} // namespace

ThreadLists& threadLists()
{
    // Not thread_local: the main thread's would be destroyed before the host's last calls.
    static const DWORD key = makeThreadKey();
    auto* lists = static_cast<ThreadLists*>(FlsGetValue(key));
    if (lists == nullptr) {
        lists = new ThreadLists;
        FlsSetValue(key, lists);
    }
    return *lists;
}

} // namespace softkey
