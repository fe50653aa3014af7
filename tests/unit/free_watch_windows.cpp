#include <cstdlib>

#include "free_watch.h"
#include "imported_function.h"

namespace
{

void (*tell)(void* memory) = nullptr;
void (*realFree)(void* memory) = nullptr;

void watchedFree(void* memory)
{
    tell(memory);
    realFree(memory);
}

} // namespace

void watchFree(void (*seen)(void* memory))
{
    tell = seen;
    if (realFree != nullptr)
        return;
    void** address = test_system::importedFunction(GetModuleHandleA(nullptr), "free");
    if (address == nullptr)
        std::abort();
    realFree = reinterpret_cast<void (*)(void*)>(*address);
    test_system::replaceImportedFunction("free", reinterpret_cast<void*>(&watchedFree));
}
