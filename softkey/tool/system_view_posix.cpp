#include "platform/descriptor_posix.h"
#include "tool/session.h"
#include "tool/system_view.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <link.h>
#include <string_view>
#include <unistd.h>

namespace softkey
{
namespace
{

int keepDeviceLibrary(dl_phdr_info* loaded, std::size_t, void* found)
{
    const std::string_view path(loaded->dlpi_name);
    if (path.find("VelkorDSCLibrary") == std::string_view::npos)
        return 0;
    *static_cast<std::filesystem::path*>(found) = path;
    return 1;
}

} // namespace

LoadedLibrary::LoadedLibrary(const std::filesystem::path& path) : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL))
{
    if (handle_ == nullptr)
        throw Failure(ExitCode::Failed, dlerror());
}

void* LoadedLibrary::address(const char* name) const
{
    return dlsym(handle_, name);
}

SilentOutput::SilentOutput()
{
    std::fflush(stdout);
    const Descriptor nowhere("/dev/null", O_WRONLY);
    if (nowhere.isOpen())
        kept_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    if (kept_ >= 0)
        dup2(nowhere.value(), STDOUT_FILENO);
}

SilentOutput::~SilentOutput()
{
    if (kept_ < 0)
        return;
    std::fflush(stdout);
    dup2(kept_, STDOUT_FILENO);
    close(kept_);
}

std::filesystem::path loadedDeviceLibrary()
{
    std::filesystem::path found;
    dl_iterate_phdr(keepDeviceLibrary, &found);
    return found;
}

std::string libraryFileName(const std::string& name)
{
    return name + ".so";
}

void setEnvironmentVariable(const char* name, const std::string& value)
{
    setenv(name, value.c_str(), 1);
}

bool mayWrite(const std::filesystem::path& path)
{
    return access(path.c_str(), W_OK) == 0;
}

std::vector<std::filesystem::path> registrationFolders()
{
    std::vector<std::filesystem::path> folders;
    const char* configuration = std::getenv("XDG_CONFIG_HOME");
    const char* home = std::getenv("HOME");
    if (configuration != nullptr && *configuration == '/')
        folders.push_back(std::filesystem::path(configuration) / "pkcs11/modules");
    else if (home != nullptr && *home == '/')
        folders.push_back(std::filesystem::path(home) / ".config/pkcs11/modules");
    folders.emplace_back("/etc/pkcs11/modules");
    folders.emplace_back("/usr/share/p11-kit/modules");
    return folders;
}

} // namespace softkey
