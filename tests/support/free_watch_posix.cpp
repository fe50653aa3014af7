#include "free_watch.h"

namespace
{
void (*tell)(void* memory) = nullptr;
}

extern "C" void __real_free(void* memory);

/// The linker puts this in the place of `free`.
extern "C" void __wrap_free(void* memory)
{
    if (tell != nullptr)
        tell(memory);
    __real_free(memory);
}

void watchFree(void (*seen)(void* memory))
{
    tell = seen;
}
