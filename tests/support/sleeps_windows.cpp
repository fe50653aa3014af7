#include "sleeps_system.h"

#include "imported_function.h"

namespace test_system
{
namespace
{

void WINAPI sleepUnlessTakenOver(DWORD milliseconds)
{
    using Function = decltype(&Sleep);
    static const auto original =
        reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "Sleep")));
    if (!isSleepTakenOver(std::chrono::milliseconds(milliseconds)))
        original(milliseconds);
}

} // namespace

void redirectSleeps()
{
    replaceImportedFunction("Sleep", reinterpret_cast<void*>(&sleepUnlessTakenOver));
}

} // namespace test_system
