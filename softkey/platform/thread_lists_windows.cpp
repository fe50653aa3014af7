#include "platform/thread_lists.h"
#include "platform/thread_slot_windows.h"

#include <windows.h>

namespace softkey
{
namespace
{

DWORD threadSlot = TLS_OUT_OF_INDEXES;

} // namespace

bool takeThreadSlot()
{
    threadSlot = TlsAlloc();
    return threadSlot != TLS_OUT_OF_INDEXES;
}

void emptyThreadSlot()
{
    delete static_cast<ThreadLists*>(TlsGetValue(threadSlot));
}

ThreadLists& threadLists()
{
    // Not thread_local: the main thread's would be destroyed before the host's last calls.
    auto* lists = static_cast<ThreadLists*>(TlsGetValue(threadSlot));
    if (lists == nullptr) {
        lists = new ThreadLists;
        TlsSetValue(threadSlot, lists);
    }
    return *lists;
}

} // namespace softkey
