// A library calls the program's own function where it has one of the name.
#include "sleeps_system.h"

#include <cerrno>
#include <ctime>
#include <unistd.h>

namespace test_system
{
namespace
{

int sleepUnlessTakenOver(const timespec& time, timespec* left)
{
    const auto whole = std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    if (isSleepTakenOver(std::chrono::duration_cast<std::chrono::milliseconds>(whole)))
        return 0;
    errno = clock_nanosleep(CLOCK_REALTIME, 0, &time, left);
    return errno == 0 ? 0 : -1;
}

} // namespace

void redirectSleeps() {}

} // namespace test_system

extern "C" int nanosleep(const timespec* requested, timespec* left)
{
    return test_system::sleepUnlessTakenOver(*requested, left);
}

extern "C" int usleep(useconds_t microseconds)
{
    return test_system::sleepUnlessTakenOver({microseconds / 1'000'000, microseconds % 1'000'000 * 1'000L}, nullptr);
}
