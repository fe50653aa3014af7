// A program and its DLLs each have operators new and delete of their own, but all release memory through the C
// runtime's `free`. So that is what is watched, in the program, the module and the device library.
#include "watched_memory.h"

#include <atomic>

#include <malloc.h>

#include "imported_function.h"

namespace
{

std::atomic<bool> watching = false;
std::atomic<int> blocksWithBytes = 0;
std::string_view watchedBytes;

using Release = void (*)(void*);
Release systemRelease = nullptr;

void release(void* memory)
{
    if (watching && memory != nullptr &&
        std::string_view(static_cast<char*>(memory), _msize(memory)).find(watchedBytes) != std::string_view::npos)
        ++blocksWithBytes;
    systemRelease(memory);
}

void replaceRelease()
{
    if (systemRelease != nullptr)
        return;
    void** address = test_system::importedFunction(GetModuleHandleA(nullptr), "free");
    systemRelease = reinterpret_cast<Release>(*address);
    test_system::replaceImportedFunction("free", reinterpret_cast<void*>(&release));
}

} // namespace

int releasedBlocksWith(std::string_view bytes, const std::function<void()>& work)
{
    replaceRelease();
    watchedBytes = bytes;
    blocksWithBytes = 0;
    watching = true;
    work();
    watching = false;
    return blocksWithBytes;
}
