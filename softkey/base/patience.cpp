#include "base/patience.h"

#include "base/status.h"

#include <thread>

namespace softkey
{
namespace
{

constexpr int PAUSE_MIN_US = 500;
constexpr int PAUSE_MAX_US = 8'000;

} // namespace

std::atomic<int> Patience::limit{10'000};

Patience::Patience(std::function<std::uint64_t()> progress)
    : progress_(std::move(progress)),
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
    std::uniform_int_distribution<int> microseconds(PAUSE_MIN_US, PAUSE_MAX_US);
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds(random_)));
}

} // namespace softkey
