#include "platform/fork_guard.h"

#include "base/secret_memory.h"

#include <mutex>
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
    /// A fork that waits for those inside holds this, so that others do not go on coming in past it.
    std::mutex turnstile;
    std::atomic<bool> closing{false};

    ForkGate()
    {
        pthread_atfork([] { gate().close(); }, [] { gate().open(); }, [] { gate().openInChild(); });
    }

    void close()
    {
        turnstile.lock();
        closing = true;
        mutex.lock();
        holdSecretMemory();
    }

    void open()
    {
        releaseSecretMemory();
        mutex.unlock();
        closing = false;
        turnstile.unlock();
    }

    /// The locks still count threads of the parent that wait for them; the child has none of them and begins anew.
    void openInChild()
    {
        generation.fetch_add(1, std::memory_order_acq_rel);
        releaseSecretMemory();
        new (&mutex) std::shared_mutex;
        closing = false;
        new (&turnstile) std::mutex;
    }

    static ForkGate& gate()
    {
        static auto* const instance = new ForkGate; // Never destroyed: threads outlive static destruction.
        return *instance;
    }
};

thread_local int depth = 0; ///< Sections that this thread is in.

} // namespace

std::uint32_t forkGeneration() noexcept
{
    return generation.load(std::memory_order_acquire);
}

ForkSafeSection::ForkSafeSection()
{
    ForkGate& gate = ForkGate::gate();
    if (depth++ == 0 && gate.closing)
        const std::lock_guard turn(gate.turnstile);
    gate.mutex.lock_shared();
}

ForkSafeSection::~ForkSafeSection()
{
    ForkGate::gate().mutex.unlock_shared();
    --depth;
}

} // namespace softkey
