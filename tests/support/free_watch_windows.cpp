#include "free_watch.h"

#include <atomic>
#include <cstdlib>

#include "imported_function.h"

namespace
{

std::atomic<void (*)(void*)> teller = nullptr;
void (*realFree)(void* memory) = nullptr;

void watchedFree(void* memory)
{
    teller.load()(memory);
    realFree(memory);
}

} // namespace

void watchFree(void (*seen)(void* memory))
{
    teller = seen;
    if (realFree != nullptr)
        return;
    void** address = test_system::importedFunction(GetModuleHandleA(nullptr), "free");
    if (address == nullptr)
        std::abort();
    realFree = reinterpret_cast<void (*)(void*)>(*address);
    test_system::replaceImportedFunction("free", reinterpret_cast<void*>(&watchedFree));
}
