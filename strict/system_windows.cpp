#include "strict/system.h"

#include <vector>

#ifndef NOMINMAX
#define NOMINMAX
#endif
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace velkor::strict::system
{
namespace
{

HMODULE ownModule(DWORD flags)
{
    HMODULE module = nullptr;
    GetModuleHandleExW(flags | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&loadModule), &module);
    return module;
}

std::wstring ownPath()
{
    std::vector<wchar_t> path(32768);
    const DWORD length = GetModuleFileNameW(ownModule(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT), path.data(),
                                            static_cast<DWORD>(path.size()));
    return {path.data(), length};
}

} // namespace

void* loadModule(std::string& error)
{
    const std::wstring own = ownPath();
    const std::wstring path = own.substr(0, own.find_last_of(L"\\/") + 1) + L"velkor-pkcs11.dll";
    // What the module is linked with is then looked for in the module's folder.
    HMODULE library = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (library == nullptr)
        error = "velkor-pkcs11.dll cannot be loaded, error " + std::to_string(GetLastError());
    return reinterpret_cast<void*>(library);
}

void* symbolOf(void* library, const char* name)
{
    return reinterpret_cast<void*>(GetProcAddress(reinterpret_cast<HMODULE>(library), name));
}

void stayMapped()
{
    ownModule(GET_MODULE_HANDLE_EX_FLAG_PIN);
}

void atExit(void (* /*work*/)()) {}

void watchForks(void (* /*before*/)(), void (* /*inParent*/)(), void (* /*inChild*/)()) {}

} // namespace velkor::strict::system
