// Loads and unloads the library while a thread that was inside lives on. Usage: loader LIBRARY SERIAL.
#include "device/device_service.h"

#include <condition_variable>
#include <dlfcn.h>
#include <mutex>
#include <thread>

namespace
{

template <class Function>
Function* symbol(void* library, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(library, name));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    for (int round = 0; round < 20; ++round) {
        void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
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
        dlclose(library);
        unloaded = true;
        changed.notify_all();
        lock.unlock();
        user.join(); // Its list is released here, by code of the library.
    }
    return 0;
}
