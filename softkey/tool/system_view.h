// What the doctor asks of the operating system: libraries as a host loads them and what they say, rights, and where
// modules are registered.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace softkey
{

/// A library, loaded as a host loads it, that stays until the program ends.
class LoadedLibrary
{
public:
    /// Throws a Failure with the system's reason.
    explicit LoadedLibrary(const std::filesystem::path& path);

    /// Null when the library exports no such function.
    template <class Function>
    Function function(const char* name) const
    {
        return reinterpret_cast<Function>(address(name));
    }

private:
    void* address(const char* name) const;

    void* handle_;
};

/// While it lives, nothing that this process writes to standard output gets there: a module complains on it.
class SilentOutput
{
public:
    SilentOutput();
    ~SilentOutput();
    SilentOutput(const SilentOutput&) = delete;
    SilentOutput& operator=(const SilentOutput&) = delete;

private:
    int kept_ = -1; ///< A descriptor of what standard output was.
};

/// The path of the device library that is loaded in this program; empty when none is.
std::filesystem::path loadedDeviceLibrary();

/// The file name of a library as the system ends it.
std::string libraryFileName(const std::string& name);

/// For libraries that are loaded afterwards.
void setEnvironmentVariable(const char* name, const std::string& value);

/// Whether this user may change a file, or make files in a folder.
bool mayWrite(const std::filesystem::path& path);

/// Where p11-kit looks for files that name modules, the user's own folder first; empty where there is no p11-kit.
std::vector<std::filesystem::path> registrationFolders();

} // namespace softkey
