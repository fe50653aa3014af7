// The gate in front of the module's one key record and one PIN. Calls that use the key that was looked up last pass
// side by side; whoever needs another key, or another token's PIN, waits until they are through and then goes alone.
// Calls pass in the order in which they come, so that nobody starves.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

#include "cryptoki.h"
#include "util/secret.h"

namespace velkor::strict
{

struct Token;

/// Whose PIN the module holds: one login of one token, or none.
struct PinInForce {
    Token* token = nullptr;
    unsigned long login = 0;
    bool operator==(const PinInForce&) const = default;
};

/// A key pair of a token.
struct PairId {
    const Token* token = nullptr;
    CK_ULONG number = 0;
    bool operator==(const PairId&) const = default;
};

/// What the module holds. Changed only by who is alone behind the gate.
struct ModuleHolds {
    PinInForce pin;
    std::optional<PairId> pair; ///< The key pair that was looked up last; none when that is not known.
    SecretBytes identity;       ///< Of that pair, when it was last compared: its number may become another's.
    std::chrono::steady_clock::time_point checked; ///< When that was.
};

class KeyGate
{
public:
    /// A stay behind the gate, alone or beside others; it ends with the object.
    class Stay
    {
    public:
        explicit Stay(KeyGate& gate, bool alone) : gate_(&gate), alone_(alone) {}
        Stay(Stay&& other) noexcept : gate_(other.gate_), alone_(other.alone_) { other.gate_ = nullptr; }
        Stay(const Stay&) = delete;
        Stay& operator=(const Stay&) = delete;
        Stay& operator=(Stay&&) = delete;
        ~Stay();

        bool isAlone() const { return alone_; }
        /// Lets others in that want the same.
        void admitOthers();
        ModuleHolds& holds() const { return gate_->holds_; }

    private:
        KeyGate* gate_;
        bool alone_;
    };

    /// Enters beside others when `suits(holds)`, else alone.
    template <typename Suits>
    Stay enter(const Suits& suits)
    {
        std::unique_lock lock(mutex_);
        const unsigned long ticket = takeTicket();
        changed_.wait(lock, [&] { return isFirst(ticket) && !alone_; });
        if (suits(static_cast<const ModuleHolds&>(holds_))) {
            ++guests_;
            leaveQueue();
            return Stay(*this, false);
        }
        changed_.wait(lock, [&] { return guests_ == 0; });
        alone_ = true;
        leaveQueue();
        return Stay(*this, true);
    }

    Stay enterAlone()
    {
        return enter([](const ModuleHolds& /*holds*/) { return false; });
    }

    /// Nothing when the others were not through in time.
    std::optional<Stay> enterAlone(std::chrono::milliseconds patience);

private:
    unsigned long takeTicket()
    {
        queue_.push_back(++lastTicket_);
        return lastTicket_;
    }
    bool isFirst(unsigned long ticket) const { return queue_.front() == ticket; }
    void leaveQueue();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<unsigned long> queue_; ///< Tickets of those who wait.
    unsigned long lastTicket_ = 0;
    unsigned guests_ = 0; ///< Those behind the gate beside others.
    bool alone_ = false;
    ModuleHolds holds_;
};

} // namespace velkor::strict
