// The monitor's sleep between two looks at the devices, in the hands of a test.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "sleeps.h"

/// The monitor may outlive the test, so it keeps what its sleep needs.
class MonitorSleep
{
public:
    /// From here on the monitor sleeps as long as it asks to, at most.
    MonitorSleep()
    {
        test_system::takeOverSleeps([state = state_](std::chrono::milliseconds time) {
            if (time != PERIOD) // A thread of the test's.
                return false;
            state->sleep();
            return true;
        });
    }

    ~MonitorSleep() { release(); }
    MonitorSleep(const MonitorSleep&) = delete;
    MonitorSleep& operator=(const MonitorSleep&) = delete;

    /// From here on a sleep ends when the test says so, and not before.
    void hold() { change(Length::UntilWoken); }

    /// Ends the present sleep, and every later one a moment after its beginning.
    void skip() { change(Length::None); }

    void release() { change(Length::AsAsked); }

    /// Waits until the monitor sleeps. False when it does not come to that.
    bool waitForIt()
    {
        std::unique_lock lock(state_->lock);
        return state_->waitUntilBegun(lock, state_->ended + 1);
    }

    /// Wakes the monitor from the sleep that is held, and waits until it sleeps again.
    bool runCycle()
    {
        std::unique_lock lock(state_->lock);
        if (!state_->waitUntilBegun(lock, state_->ended + 1))
            return false;
        state_->woken = state_->begun;
        state_->changed.notify_all();
        return state_->waitUntilBegun(lock, state_->woken + 1);
    }

private:
    static constexpr std::chrono::milliseconds PERIOD{1000};
    static constexpr std::chrono::milliseconds MOMENT{1};
    enum class Length { AsAsked, UntilWoken, None };

    struct State {
        std::mutex lock;
        std::condition_variable changed;
        Length length = Length::AsAsked;
        std::size_t begun = 0;
        std::size_t woken = 0; ///< The number of the last sleep that the test has ended.
        std::size_t ended = 0;

        void sleep()
        {
            std::unique_lock guard(lock);
            const std::size_t number = ++begun;
            changed.notify_all();
            // A monitor that never rests keeps others from what it locks.
            changed.wait_for(guard, MOMENT, [&] { return length != Length::None; });
            if (length == Length::UntilWoken)
                changed.wait(guard, [&] { return length != Length::UntilWoken || woken >= number; });
            else
                changed.wait_for(guard, PERIOD, [&] { return length == Length::None; });
            ended = number;
        }

        bool waitUntilBegun(std::unique_lock<std::mutex>& guard, std::size_t number)
        {
            return changed.wait_for(guard, std::chrono::minutes(1), [&] { return begun >= number; });
        }
    };

    void change(Length length)
    {
        const std::scoped_lock lock(state_->lock);
        state_->length = length;
        state_->changed.notify_all();
    }

    const std::shared_ptr<State> state_ = std::make_shared<State>();
};
