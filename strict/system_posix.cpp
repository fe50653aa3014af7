#include "strict/system.h"

#include <cstdlib>
#include <memory>

#include <dlfcn.h>
#include <pthread.h>

namespace velkor::strict::system
{
namespace
{

/// This library's file with every link resolved; empty when the system does not tell.
std::string findOwnPath()
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&loadModule), &info) == 0)
        return {};
    const std::unique_ptr<char, decltype(&std::free)> path(realpath(info.dli_fname, nullptr), &std::free);
    return path ? path.get() : "";
}

// Found when the library is loaded: a relative path holds only as long as the working directory. Never destroyed.
const std::string& ownPath = *new std::string(findOwnPath());

} // namespace

void* loadModule(std::string& error)
{
    const std::string path = ownPath.substr(0, ownPath.rfind('/') + 1) + "velkor-pkcs11.so";
    void* library = path.front() == '/' ? dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL) : nullptr;
    if (library == nullptr) {
        const char* reason = dlerror();
        error = reason != nullptr ? reason : path + ": the folder is not known";
    }
    return library;
}

void* symbolOf(void* library, const char* name)
{
    return dlsym(library, name);
}

void stayMapped() {} // The linker has marked the library so.

void atExit(void (*work)())
{
    std::atexit(work);
}

void watchForks(void (*before)(), void (*inParent)(), void (*inChild)())
{
    pthread_atfork(before, inParent, inChild);
}

} // namespace velkor::strict::system
