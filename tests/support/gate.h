// A place where a call of the device gets stuck until the test lets it go.
#pragma once

#include <future>

/// Holds a call until it is let go.
class Gate
{
public:
    void hold()
    {
        entered_.set_value();
        released_.get_future().wait();
    }

    void waitUntilHeld() { entered_.get_future().wait(); }
    void letGo() { released_.set_value(); }

private:
    std::promise<void> entered_;
    std::promise<void> released_;
};
