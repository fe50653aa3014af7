#include "platform/uptime_clock.h"

#include <windows.h>

namespace softkey
{

UptimeClock::time_point UptimeClock::now() noexcept
{
    return time_point(std::chrono::milliseconds(GetTickCount64()));
}

} // namespace softkey
