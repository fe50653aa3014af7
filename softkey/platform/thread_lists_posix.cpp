#include "platform/thread_lists.h"

#include <pthread.h>

namespace softkey
{
namespace
{

pthread_key_t makeThreadKey()
{
    pthread_key_t key{};
    pthread_key_create(&key, [](void* lists) { delete static_cast<ThreadLists*>(lists); });
    return key;
}

} // namespace

ThreadLists& threadLists()
{
    // Not thread_local: the main thread's would be destroyed before the host's last calls.
    static const pthread_key_t key = makeThreadKey();
    auto* lists = static_cast<ThreadLists*>(pthread_getspecific(key));
    if (lists == nullptr) {
        lists = new ThreadLists;
        pthread_setspecific(key, lists);
    }
    return *lists;
}

} // namespace softkey
