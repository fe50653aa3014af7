#include "store/keys_folder.h"

#include <windows.h>

namespace softkey
{
namespace
{

/// The variable of the process, which the C runtime's copy of them need not have.
std::filesystem::path environmentPath(const wchar_t* name)
{
    std::wstring value(GetEnvironmentVariableW(name, nullptr, 0), L'\0');
    value.resize(GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size())));
    return value;
}

} // namespace

std::filesystem::path defaultKeysFolder()
{
    if (const std::filesystem::path chosen = environmentPath(L"VELKOR_SOFTKEY_HOME"); !chosen.empty())
        return std::filesystem::absolute(chosen);
    const std::filesystem::path data = environmentPath(L"LOCALAPPDATA");
    return data.empty() ? data : data / L"velkor-softkey";
}

bool ensureFolder(const std::filesystem::path& folder)
{
    // Its access list is that of the folder above, which in the user's profile admits the user alone.
    std::error_code failure;
    std::filesystem::create_directories(folder, failure);
    return std::filesystem::is_directory(folder, failure);
}

} // namespace softkey
