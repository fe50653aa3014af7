#include "platform/fork_guard.h"

#include "base/secret_memory.h"

#include <new>
#include <pthread.h>
#include <shared_mutex>

namespace softkey
{
namespace
{

std::atomic<std::uint32_t> generation{0};

struct ForkGate {
    std::shared_mutex mutex;

    ForkGate()
    {
        pthread_atfork([] { gate().close(); }, [] { gate().open(); }, [] { gate().openInChild(); });
    }

    void close()
    {
        mutex.lock();
        holdSecretMemory();
    }

    void open()
    {
        releaseSecretMemory();
        mutex.unlock();
    }

    /// The lock still counts threads of the parent that wait for it; the child has none of them and begins anew.
    void openInChild()
    {
        generation.fetch_add(1, std::memory_order_acq_rel);
        releaseSecretMemory();
        new (&mutex) std::shared_mutex;
    }

    static ForkGate& gate()
    {
        static auto* const instance = new ForkGate; // Never destroyed: threads outlive static destruction.
        return *instance;
    }
};

} // namespace

std::uint32_t forkGeneration() noexcept
{
    return generation.load(std::memory_order_acquire);
}

ForkSafeSection::ForkSafeSection()
{
    ForkGate::gate().mutex.lock_shared();
}

ForkSafeSection::~ForkSafeSection()
{
    ForkGate::gate().mutex.unlock_shared();
}

} // namespace softkey
