// The time since the machine was started, which goes on while it sleeps and which nobody sets.
#pragma once

#include <chrono>

namespace softkey
{

struct UptimeClock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<UptimeClock>;
    static constexpr bool is_steady = true;

    static time_point now() noexcept;
};

} // namespace softkey
