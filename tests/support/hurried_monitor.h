// The monitor of a whole program, whose second between two looks at the devices is cut short.
#pragma once

#include <atomic>
#include <chrono>
#include <thread>

#include "sleeps.h"

namespace test_system
{

inline std::atomic<int> monitorCycles = 0;

/// From here on the monitor's second lasts no longer than any other sleep.
inline void hurryMonitor()
{
    takeOverSleeps([](std::chrono::milliseconds time) {
        if (time != std::chrono::seconds(1))
            return false;
        ++monitorCycles;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return true;
    });
}

} // namespace test_system
