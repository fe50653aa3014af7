#include "platform/uptime_clock.h"

#include <ctime>

namespace softkey
{
namespace
{

#ifdef CLOCK_BOOTTIME
constexpr clockid_t CLOCK = CLOCK_BOOTTIME; // The monotonic clock stands still while a Linux machine sleeps.
#else
constexpr clockid_t CLOCK = CLOCK_MONOTONIC;
#endif

} // namespace

UptimeClock::time_point UptimeClock::now() noexcept
{
    timespec time = {};
    clock_gettime(CLOCK, &time);
    return time_point(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
}

} // namespace softkey
