#include "platform/default_folder.h"

#include <cstdlib>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace softkey
{
namespace
{

std::filesystem::path environmentPath(const char* name)
{
    const char* value = secure_getenv(name); // Ignored in privileged processes.
    return value != nullptr ? std::filesystem::path(value) : std::filesystem::path();
}

/// Empty when the system knows none.
std::filesystem::path homeFolder()
{
    if (std::filesystem::path home = environmentPath("HOME"); home.is_absolute())
        return home;
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
        return {};
    return found->pw_dir;
}

} // namespace

std::filesystem::path defaultKeysFolder()
{
    if (const std::filesystem::path chosen = environmentPath("VELKOR_SOFTKEY_HOME"); !chosen.empty())
        return std::filesystem::absolute(chosen);
    if (const std::filesystem::path data = environmentPath("XDG_DATA_HOME"); data.is_absolute())
        return data / "velkor-softkey";
    const std::filesystem::path home = homeFolder();
    return home.empty() ? home : home / ".local" / "share" / "velkor-softkey";
}

std::filesystem::path machineSecretFile()
{
    constexpr const char* NAME = "velkor-softkey-machine-secret";
    if (const std::filesystem::path chosen = environmentPath("VELKOR_SOFTKEY_MACHINE_SECRET"); !chosen.empty())
        return std::filesystem::absolute(chosen);
    if (const std::filesystem::path state = environmentPath("XDG_STATE_HOME"); state.is_absolute())
        return state / NAME;
    const std::filesystem::path home = homeFolder();
    return home.empty() ? home : home / ".local" / "state" / NAME;
}

bool ensureFolder(const std::filesystem::path& folder)
{
    std::error_code failure;
    if (std::filesystem::is_directory(folder, failure))
        return true;
    std::filesystem::create_directories(folder.parent_path(), failure);
    return mkdir(folder.c_str(), 0700) == 0 || std::filesystem::is_directory(folder, failure);
}

} // namespace softkey
