// Waiting for what another thread or process is about to do.
#pragma once

#include <chrono>
#include <thread>

namespace test_system
{

/// Waits until it holds, and no longer. False when it still does not hold after a minute, which no machine needs.
template <typename Condition>
bool eventually(const Condition& holds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace test_system
