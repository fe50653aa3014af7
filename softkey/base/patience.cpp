#include "base/patience.h"

#include "base/status.h"

#include <thread>

namespace softkey
{
namespace
{

/// Of the longest pause, the shortest one's share.
constexpr int SHORTEST_SHARE = 16;

} // namespace

std::atomic<int> Patience::limit{10'000};

Patience::Patience(std::function<std::uint64_t()> progress, std::chrono::microseconds longestPause)
    : progress_(std::move(progress)),
      longestPause_(longestPause),
      movedAt_(std::chrono::steady_clock::now()),
      random_(static_cast<std::minstd_rand::result_type>(movedAt_.time_since_epoch().count()))
{
    if (progress_)
        seen_ = progress_();
}

void Patience::pause()
{
    const auto now = std::chrono::steady_clock::now();
    if (const std::uint64_t current = progress_ ? progress_() : 0; current != seen_) {
        seen_ = current;
        movedAt_ = now;
    }
    require(now - movedAt_ < std::chrono::milliseconds(limit), SoftkeyStatus::StorageBusy);
    std::uniform_int_distribution microseconds(longestPause_.count() / SHORTEST_SHARE, longestPause_.count());
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds(random_)));
}

} // namespace softkey
