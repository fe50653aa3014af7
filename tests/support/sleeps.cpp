#include "sleeps.h"

#include <memory>
#include <mutex>

#include "sleeps_system.h"

namespace test_system
{
namespace
{

// Never destroyed: the monitor may come by while the process ends.
std::mutex& sleeperLock = *new std::mutex;
std::shared_ptr<const Sleeper>& presentSleeper = *new std::shared_ptr<const Sleeper>;

} // namespace

void takeOverSleeps(Sleeper sleeper)
{
    redirectSleeps();
    const std::scoped_lock lock(sleeperLock);
    presentSleeper = sleeper ? std::make_shared<const Sleeper>(std::move(sleeper)) : nullptr;
}

bool isSleepTakenOver(std::chrono::milliseconds time)
{
    std::unique_lock lock(sleeperLock);
    const std::shared_ptr<const Sleeper> sleeper = presentSleeper;
    lock.unlock();
    return sleeper != nullptr && (*sleeper)(time);
}

} // namespace test_system
