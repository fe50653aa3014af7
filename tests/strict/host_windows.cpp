// The host on Windows: how it loads the library, and how it ends without its exit handlers.
#include <array>
#include <cstdlib>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include "host.h"

std::filesystem::path programFile()
{
    std::array<char, MAX_PATH> file{};
    GetModuleFileNameA(nullptr, file.data(), MAX_PATH);
    return file.data();
}

void* loadLibrary(const std::string& file, bool /*globally*/)
{
    // The front finds the module, and the module its device library, wherever the host does not look.
    const HMODULE library = LoadLibraryA(file.c_str());
    if (library == nullptr)
        std::fprintf(stderr, "error %lu\n", GetLastError());
    return reinterpret_cast<void*>(library);
}

void* symbolOf(void* library, const char* name)
{
    return reinterpret_cast<void*>(GetProcAddress(reinterpret_cast<HMODULE>(library), name));
}

bool unloadLibrary(void* library)
{
    return FreeLibrary(reinterpret_cast<HMODULE>(library)) != 0;
}

Ways waysOfThisSystem()
{
    return {{"quick-exit", [] {
                 start();
                 std::_Exit(0);
             }}};
}
