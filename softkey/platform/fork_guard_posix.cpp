#include "platform/fork_guard.h"

#include "base/secret_memory.h"

#include <array>
#include <mutex>
#include <new>
#include <pthread.h>

namespace softkey
{
namespace
{

std::atomic<std::uint32_t> generation{0};

/// How many threads are inside, of those that count here. In a cache line of its own: threads that sign at once do not
/// write to the same memory.
struct alignas(64) Counter {
    std::atomic<std::uint32_t> inside{0};
};

struct ForkGate {
    std::array<Counter, 64> counters;
    /// A fork that waits for those inside holds this, so that others do not go on coming in past it.
    std::mutex turnstile;
    std::atomic<bool> closing{false};
    std::atomic<std::size_t> threads{0};

    ForkGate()
    {
        pthread_atfork([] { gate().close(); }, [] { gate().open(); }, [] { gate().openInChild(); });
    }

    Counter& counterOfThread()
    {
        thread_local Counter* const mine = &counters[threads.fetch_add(1) % counters.size()];
        return *mine;
    }

    /// Whoever comes in is seen by a fork that begins to close, or sees that it is closing.
    void enter(Counter& counter)
    {
        for (;;) {
            counter.inside.fetch_add(1);
            if (!closing)
                return;
            leave(counter);
            const std::lock_guard turn(turnstile);
        }
    }

    void leave(Counter& counter)
    {
        counter.inside.fetch_sub(1);
        if (closing)
            counter.inside.notify_all();
    }

    void close()
    {
        turnstile.lock();
        closing = true;
        for (Counter& counter : counters) {
            while (const std::uint32_t inside = counter.inside)
                counter.inside.wait(inside);
        }
        holdSecretMemory();
    }

    void open()
    {
        releaseSecretMemory();
        closing = false;
        turnstile.unlock();
    }

    /// The lock still counts threads of the parent that wait for it; the child has none of them and begins anew.
    void openInChild()
    {
        generation.fetch_add(1, std::memory_order_acq_rel);
        releaseSecretMemoryInChild();
        for (Counter& counter : counters)
            counter.inside = 0;
        closing = false;
        turnstile.unlock(); // Which tells whoever keeps account of locks.
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
    if (depth++ == 0)
        gate.enter(gate.counterOfThread());
}

ForkSafeSection::~ForkSafeSection()
{
    ForkGate& gate = ForkGate::gate();
    if (--depth == 0)
        gate.leave(gate.counterOfThread());
}

} // namespace softkey
