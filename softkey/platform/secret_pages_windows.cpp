// Processes do not fork here.
#include "platform/secret_pages.h"

#include <windows.h>

namespace softkey
{
namespace
{

template <class Function>
Function kernelFunction(const char* name)
{
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), name)));
}

// Both are there from Windows 10 of 2017 on. A process may register 512 blocks; what goes beyond them stays in reports.

void leaveOutOfReports(const unsigned char* pages, std::size_t size)
{
    using Function = HRESULT(WINAPI*)(const void*, DWORD);
    static const auto exclude = kernelFunction<Function>("WerRegisterExcludedMemoryBlock");
    if (exclude != nullptr)
        exclude(pages, static_cast<DWORD>(size));
}

void endLeavingOut(const unsigned char* pages)
{
    using Function = HRESULT(WINAPI*)(const void*);
    static const auto include = kernelFunction<Function>("WerUnregisterExcludedMemoryBlock");
    if (include != nullptr)
        include(pages);
}

} // namespace

unsigned char* reserveSecretPages(std::size_t size)
{
    return static_cast<unsigned char*>(VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_READWRITE));
}

bool openSecretPages(unsigned char* pages, std::size_t size)
{
    if (VirtualAlloc(pages, size, MEM_COMMIT, PAGE_READWRITE) == nullptr)
        return false;
    VirtualLock(pages, size);
    leaveOutOfReports(pages, size);
    return true;
}

void lockSecretPagesInChild(unsigned char* /*pages*/, std::size_t /*size*/) {}

unsigned char* takeSecretPages(std::size_t size)
{
    void* memory = VirtualAlloc(nullptr, ORDINARY_BEFORE + size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (memory == nullptr)
        return nullptr;
    unsigned char* pages = static_cast<unsigned char*>(memory) + ORDINARY_BEFORE;
    VirtualLock(pages, size);
    leaveOutOfReports(pages, size);
    return pages;
}

void giveBackSecretPages(unsigned char* pages, std::size_t)
{
    endLeavingOut(pages); // Each holds one of the few places.
    VirtualFree(pages - ORDINARY_BEFORE, 0, MEM_RELEASE);
}

} // namespace softkey
