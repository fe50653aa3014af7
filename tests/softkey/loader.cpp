// Loads and unloads the library while a thread that was inside lives on. Usage: loader LIBRARY SERIAL.
#include "velkor/device_service.h"

#include <condition_variable>
#include <mutex>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace
{

#ifdef _WIN32
using Library = HMODULE;

Library load(const char* file)
{
    return LoadLibraryA(file);
}

void* address(Library library, const char* name)
{
    return reinterpret_cast<void*>(GetProcAddress(library, name));
}

void unload(Library library)
{
    FreeLibrary(library);
}
#else
using Library = void*;

Library load(const char* file)
{
    return dlopen(file, RTLD_NOW | RTLD_LOCAL);
}

void* address(Library library, const char* name)
{
    return dlsym(library, name);
}

void unload(Library library)
{
    dlclose(library);
}
#endif

template <class Function>
Function* symbol(Library library, const char* name)
{
    return reinterpret_cast<Function*>(address(library, name));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    for (int round = 0; round < 20; ++round) {
        const Library library = load(argv[1]);
        if (library == nullptr)
            return 3;
        const auto create = symbol<void(void**)>(library, "_Z21velkor_createInstancePPv");
        const auto release = symbol<void(void*)>(library, "_Z22velkor_releaseInstancePv");
        const auto list =
            symbol<std::vector<VelkorKeyPair>&(const char*, void*)>(library, "_Z21velkor_getKeyPairListPKcPv");
        void* instance = nullptr;
        create(&instance);
        std::mutex mutex;
        std::condition_variable changed;
        bool listed = false;
        bool unloaded = false;
        std::thread user([&] {
            const std::size_t size = list(argv[2], instance).size();
            std::unique_lock lock(mutex);
            listed = size == 2;
            changed.notify_all();
            changed.wait(lock, [&] { return unloaded; });
        });
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return listed; });
        release(instance);
        unload(library);
        unloaded = true;
        changed.notify_all();
        lock.unlock();
        user.join(); // Its list is released here, by code of the library.
    }
    return 0;
}
