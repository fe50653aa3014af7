// Windows takes the module out of a process when its host asks for that; elsewhere it stays mapped.
#include "frame/module_state.h"

using namespace velkor;

/// Called by the loader, which passes null for `processEnds` when only the module goes: then the state goes with it,
/// and the derived keys, unless the monitor still runs. At a process's end the other threads have been stopped wherever
/// they were, and nothing is touched.
extern "C" int __stdcall DllMain(void* /*module*/, unsigned long reason, void* processEnds)
{
    constexpr unsigned long PROCESS_DETACH = 0;
    if (reason == PROCESS_DETACH && processEnds == nullptr && !moduleState().monitorThread.joinable())
        delete &moduleState();
    return 1;
}
