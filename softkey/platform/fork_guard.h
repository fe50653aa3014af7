// Keeps the library usable in a forked child: no fork happens while a thread is inside storage or holds a lock
// that a child needs, and what cannot be carried across a fork is made anew in the child.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace softkey
{

/// Number of forks between the first process and this one.
std::uint32_t forkGeneration() noexcept;

/// While one of these lives, another thread's fork waits. Sections may nest.
class ForkSafeSection
{
public:
    ForkSafeSection();
    ~ForkSafeSection();
    ForkSafeSection(const ForkSafeSection&) = delete;
    ForkSafeSection& operator=(const ForkSafeSection&) = delete;
};

/// One object per process. It is never destroyed, since hosts call in until the very end of the process; a forked
/// child leaves its parent's object alone and gets one of its own.
template <class T>
class PerProcess
{
public:
    T& get()
    {
        Holder* current = current_.load(std::memory_order_acquire);
        const std::uint32_t generation = forkGeneration();
        if (current != nullptr && current->generation == generation)
            return current->value;
        auto fresh = std::make_unique<Holder>(generation);
        if (!current_.compare_exchange_strong(current, fresh.get(), std::memory_order_acq_rel))
            return current->value; // Another thread was first.
        return fresh.release()->value;
    }

private:
    struct Holder {
        explicit Holder(std::uint32_t forkGenerationOfOwner) : generation(forkGenerationOfOwner) {}
        std::uint32_t generation;
        T value;
    };
    std::atomic<Holder*> current_{nullptr};
};

} // namespace softkey
