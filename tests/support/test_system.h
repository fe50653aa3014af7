// What tests ask of the operating system, so that they read the same on every one of them.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace test_system
{

/// Path of the running program.
std::filesystem::path program();

void setEnvironment(const char* name, const std::string& value);
void removeEnvironment(const char* name);

/// A folder for one test, below the working folder; its path is short enough for the system's temporary folder.
std::filesystem::path scratchFolder(const std::string& testName);

/// Makes a folder the user's temporary folder, as this process sees it.
void setTemporaryFolder(const std::filesystem::path& folder);

/// The program's name as its log has it: up to its first '.'; empty where the system does not tell it.
std::string loggedProgramName();

/// What `logLevel` is read from during a test. The value is written as a configuration file has it: a number, or a
/// text in double quotes; anything else makes it an unreadable one, and on Windows an absent one.
class LogLevel
{
public:
    /// `folder` is where a system without a registry keeps its configuration.
    explicit LogLevel(const std::filesystem::path& folder);
    void set(const std::string& value) const;
    void remove() const;

private:
    std::filesystem::path file_;
};

/// On Windows: has this process read the machine's own registry. Until then it reads one of its own, so that tests
/// can run side by side.
void useMachineWideRegistry();

/// Address of an export of a library, which is loaded from its file; null when it has none of that name.
void* moduleSymbol(const std::filesystem::path& file, const char* name);

/// Does `work` while no thread can be created.
void withoutNewThreads(const std::function<void()>& work);

/// Whether this runs in the emulation of an ARM64 Windows, which is no whole one.
bool isEmulatedArm64();

/// Whether what several threads append to a file at once comes out whole. Where not, that needs a lock of the host.
bool appendingIsOneStep();

/// Sets the time zone of this process, as "NAME-14" for one that is 14 hours ahead; null: the machine's.
void setTimeZone(const char* zone);

} // namespace test_system
