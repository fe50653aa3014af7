#include "test_system.h"

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <stdexcept>

#include <dlfcn.h>
#include <pthread.h>

namespace test_system
{
namespace
{

void require(bool condition, const char* what)
{
    if (!condition)
        throw std::runtime_error(what);
}

} // namespace

std::filesystem::path program()
{
    return std::filesystem::read_symlink("/proc/self/exe");
}

void setEnvironment(const char* name, const std::string& value)
{
    setenv(name, value.c_str(), 1);
}

void removeEnvironment(const char* name)
{
    unsetenv(name);
}

std::filesystem::path scratchFolder(const std::string& testName)
{
    return std::filesystem::current_path() / "scratch" / testName;
}

void setTemporaryFolder(const std::filesystem::path& folder)
{
    setEnvironment("TMPDIR", folder);
}

std::string loggedProgramName()
{
    const std::string name = program().filename();
    return name.substr(0, name.find('.'));
}

LogLevel::LogLevel(const std::filesystem::path& folder) : file_(folder / "velkor.conf")
{
    setEnvironment("VELKOR_CONFIG", file_);
}

void LogLevel::set(const std::string& value) const
{
    std::ofstream(file_) << "logLevel = " << value << "\n";
}

void LogLevel::remove() const
{
    std::filesystem::remove(file_);
}

void useMachineWideRegistry() {}

void* moduleSymbol(const std::filesystem::path& file, const char* name)
{
    void* module = dlopen(file.c_str(), RTLD_NOW); // A program that calls nothing of it is not linked with it.
    require(module != nullptr, "the module cannot be loaded");
    return dlsym(module, name);
}

void withoutNewThreads(const std::function<void()>& work)
{
    pthread_attr_t usual;
    pthread_attr_t tooLarge;
    require(pthread_getattr_default_np(&usual) == 0, "default attributes of threads");
    require(pthread_getattr_default_np(&tooLarge) == 0, "default attributes of threads");
    require(pthread_attr_setstacksize(&tooLarge, std::size_t{1} << 47) == 0, "stack size");
    require(pthread_setattr_default_np(&tooLarge) == 0, "larger stacks");
    work();
    require(pthread_setattr_default_np(&usual) == 0, "usual stacks");
}

bool isEmulatedArm64()
{
    return false;
}

bool appendingIsOneStep()
{
    return true;
}

void setTimeZone(const char* zone)
{
    if (zone != nullptr)
        setEnvironment("TZ", zone);
    else
        removeEnvironment("TZ");
    tzset();
}

} // namespace test_system
