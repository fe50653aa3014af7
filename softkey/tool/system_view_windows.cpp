#include "tool/session.h"
#include "tool/system_view.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <io.h>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace softkey
{
namespace
{

constexpr int STANDARD_OUTPUT = 1;

/// Folders of the library itself first, as hosts load it that name it by its path.
HMODULE load(const std::filesystem::path& path)
{
    return LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

} // namespace

LoadedLibrary::LoadedLibrary(const std::filesystem::path& path) : handle_(load(path))
{
    if (handle_ == nullptr)
        throw Failure(ExitCode::Failed, "Windows does not load it, error " + std::to_string(GetLastError()));
}

void* LoadedLibrary::address(const char* name) const
{
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle_), name));
}

SilentOutput::SilentOutput()
{
    std::fflush(stdout);
    const int nowhere = _open("NUL", _O_WRONLY);
    if (nowhere < 0)
        return;
    kept_ = _dup(STANDARD_OUTPUT);
    if (kept_ >= 0)
        _dup2(nowhere, STANDARD_OUTPUT);
    _close(nowhere);
}

SilentOutput::~SilentOutput()
{
    if (kept_ < 0)
        return;
    std::fflush(stdout);
    _dup2(kept_, STANDARD_OUTPUT);
    _close(kept_);
}

std::filesystem::path loadedDeviceLibrary()
{
    std::array<wchar_t, 32768> path{};
    const HMODULE library = GetModuleHandleW(L"VelkorDSCLibrary.dll");
    if (library == nullptr || GetModuleFileNameW(library, path.data(), static_cast<DWORD>(path.size())) == 0)
        return {};
    return path.data();
}

std::string libraryFileName(const std::string& name)
{
    return name + ".dll";
}

void setEnvironmentVariable(const char* name, const std::string& value)
{
    _putenv_s(name, value.c_str());
}

bool mayWrite(const std::filesystem::path& path)
{
    constexpr int WRITE = 2;
    return _waccess(path.c_str(), WRITE) == 0;
}

std::vector<std::filesystem::path> registrationFolders()
{
    return {};
}

} // namespace softkey
