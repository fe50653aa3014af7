#include "platform/default_folder.h"

#include <windows.h>

namespace softkey
{
namespace
{

constexpr DWORD VARIABLE_MAX = 32768; // With its terminating zero.

/// The variable of the process, which the C runtime's copy of them need not have.
std::filesystem::path environmentPath(const wchar_t* name)
{
    std::wstring value(VARIABLE_MAX, L'\0');
    value.resize(GetEnvironmentVariableW(name, value.data(), VARIABLE_MAX));
    return value;
}

} // namespace

std::filesystem::path defaultKeysFolder()
{
    if (const std::filesystem::path chosen = environmentPath(L"VELKOR_SOFTKEY_HOME"); !chosen.empty())
        return std::filesystem::absolute(chosen);
    const std::filesystem::path data = environmentPath(L"LOCALAPPDATA");
    return data.is_absolute() ? data / L"velkor-softkey" : std::filesystem::path();
}

std::filesystem::path machineSecretFile()
{
    if (const std::filesystem::path chosen = environmentPath(L"VELKOR_SOFTKEY_MACHINE_SECRET"); !chosen.empty())
        return std::filesystem::absolute(chosen);
    const std::filesystem::path data = environmentPath(L"LOCALAPPDATA");
    return data.is_absolute() ? data / L"velkor-softkey-machine-secret" : std::filesystem::path();
}

bool ensureFolder(const std::filesystem::path& folder)
{
    // Its access list is that of the folder above, which in the user's profile admits the user alone.
    std::error_code failure;
    std::filesystem::create_directories(folder, failure);
    return std::filesystem::is_directory(folder, failure);
}

} // namespace softkey
