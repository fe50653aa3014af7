#include "calls_lock.h"

#include <new>

#include <pthread.h>

namespace
{

/// A lock of this kind belongs to a thread's number, which the child's thread does not have.
void renewInChild()
{
    new (&callsLock()) std::shared_mutex;
}

const int watched = pthread_atfork([] { callsLock().lock(); }, [] { callsLock().unlock(); }, renewInChild);

} // namespace
