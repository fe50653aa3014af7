// What the loader tells the library: that it was loaded, and that a thread ends.
#include "platform/thread_slot_windows.h"

#include <openssl/crypto.h>
#include <windows.h>

namespace
{

/// Threads of the host may be inside at any time, and have lists to release: this library is never unloaded.
bool stayLoaded()
{
    HMODULE self = nullptr;
    return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                              reinterpret_cast<LPCWSTR>(&stayLoaded), &self) != 0;
}

} // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID)
{
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        return softkey::takeThreadSlot() && stayLoaded();
    case DLL_THREAD_DETACH:
        softkey::emptyThreadSlot();
        OPENSSL_thread_stop(); // A static libcrypto does not see threads end, and keeps their random generators.
        break;
    default:
        break;
    }
    return TRUE;
}
