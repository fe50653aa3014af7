#include "library.h"

#include <openssl/crypto.h>
#include <windows.h>

namespace softkey
{
namespace
{

DWORD threadSlot = TLS_OUT_OF_INDEXES;

/// Threads of the host may be inside at any time, and have lists to release: this library is never unloaded.
bool stayLoaded()
{
    HMODULE self = nullptr;
    return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                              reinterpret_cast<LPCWSTR>(&stayLoaded), &self) != 0;
}

} // namespace

ThreadLists& threadLists()
{
    // Not thread_local: the main thread's would be destroyed before the host's last calls.
    auto* lists = static_cast<ThreadLists*>(TlsGetValue(threadSlot));
    if (lists == nullptr) {
        lists = new ThreadLists;
        TlsSetValue(threadSlot, lists);
    }
    return *lists;
}

} // namespace softkey

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID)
{
    using namespace softkey;
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        threadSlot = TlsAlloc();
        return threadSlot != TLS_OUT_OF_INDEXES && stayLoaded();
    case DLL_THREAD_DETACH:
        delete static_cast<ThreadLists*>(TlsGetValue(threadSlot));
        OPENSSL_thread_stop(); // A static libcrypto does not see threads end, and keeps their random generators.
        break;
    default:
        break;
    }
    return TRUE;
}
