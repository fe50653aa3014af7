// Waiting for other processes: as long as they get on, and ten seconds more.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <random>

namespace softkey
{

class Patience
{
public:
    static constexpr std::chrono::microseconds LONGEST_PAUSE{8'000};

    /// `progress` answers a number that changes while others get on with their work.
    explicit Patience(std::function<std::uint64_t()> progress = {},
                      std::chrono::microseconds longestPause = LONGEST_PAUSE);

    /// Sleeps for a moment; throws StorageBusy when nothing has moved for too long.
    void pause();

    /// Of every wait that begins from now on. Milliseconds.
    static std::atomic<int> limit;

private:
    std::function<std::uint64_t()> progress_;
    std::chrono::microseconds longestPause_;
    std::uint64_t seen_ = 0;
    std::chrono::steady_clock::time_point movedAt_;
    std::minstd_rand random_; ///< So that many who wait do not come all at once.
};

} // namespace softkey
