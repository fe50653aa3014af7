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
    const HMODULE loaded = LoadLibraryA(file.c_str());
    if (loaded == nullptr)
        std::fprintf(stderr, "error %lu\n", GetLastError());
    return reinterpret_cast<void*>(loaded);
}

void* symbolOf(void* loaded, const char* name)
{
    return reinterpret_cast<void*>(GetProcAddress(reinterpret_cast<HMODULE>(loaded), name));
}

bool unloadLibrary(void* loaded)
{
    return FreeLibrary(reinterpret_cast<HMODULE>(loaded)) != 0;
}

void awaitEndOfThreads()
{
    Sleep(1500); // Longer than the monitor sleeps; nothing here counts the threads of a process.
}

Ways waysOfThisSystem()
{
    return {{"quick-exit", [] {
                 start();
                 std::_Exit(0);
             }}};
}
