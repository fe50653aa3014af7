// The sleeps of this process in the hands of a test: the module's, the software key's, and its own.
#pragma once

#include <chrono>
#include <functional>

namespace test_system
{

/// Called on the thread that wants to sleep. True when it has done so in its own way, false to let it sleep.
using Sleeper = std::function<bool(std::chrono::milliseconds)>;

/// Every sleep from here on goes to `sleeper`; to none when it is empty. One that is in its sleep stays there.
void takeOverSleeps(Sleeper sleeper);

} // namespace test_system
