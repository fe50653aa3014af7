// A program and its DLLs each have operators new and delete of their own, but all release memory through the C
// runtime's `free`. So that is what is watched, in the program, the module and the device library.
#include "watched_memory.h"

#include <mutex>

#include <malloc.h>

#include "free_watch.h"

namespace
{

std::mutex watchLock; ///< Another thread may be looking at a block when the watch ends, and the bytes with it.
bool watching = false;
int blocksWithBytes = 0;
std::string_view watchedBytes;

void look(void* memory)
{
    if (memory == nullptr)
        return;
    const std::scoped_lock lock(watchLock);
    if (watching &&
        std::string_view(static_cast<char*>(memory), _msize(memory)).find(watchedBytes) != std::string_view::npos)
        ++blocksWithBytes;
}

} // namespace

int releasedBlocksWith(std::string_view bytes, const std::function<void()>& work)
{
    {
        const std::scoped_lock lock(watchLock);
        watchedBytes = bytes;
        blocksWithBytes = 0;
        watching = true;
    }
    watchFree(look);
    work();
    const std::scoped_lock lock(watchLock);
    watching = false;
    return blocksWithBytes;
}
