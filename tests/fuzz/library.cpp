#include "library.h"

#include <filesystem>
#include <iterator>

#include "eventually.h"

namespace fuzz
{
namespace
{

/// While no monitor is known to run, its sleep is none: one that is left may come to its end.
MonitorSleep& monitorSleep()
{
    static auto& sleep = *new MonitorSleep;
    return sleep;
}

std::ptrdiff_t threads()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

/// Of the fuzzer alone.
std::ptrdiff_t otherThreads()
{
    static const std::ptrdiff_t count = threads();
    return count;
}

} // namespace

Life::~Life()
{
    device_.setCalm(true);
    end();
    if (monitorRuns_) { // A start that failed has left it, which a good one ends.
        begin();
        end();
    }
}

void Life::begin()
{
    otherThreads(); // Before the first start there are no more.
    monitorSleep().skip();
    const CK_RV code = initializeLibrary(host_, device_);
    checkCode("C_Initialize", code);
    monitorRuns_ = monitorRuns_ || code == CKR_OK;
    holdMonitor();
}

void Life::end()
{
    monitorSleep().skip();
    const CK_RV code = host_.p11.C_Finalize(nullptr);
    checkCode("C_Finalize", code);
    if (code == CKR_OK) // The strict front ends in a thread of its own, which may come to it later.
        expect(test_system::eventually([] { return threads() <= otherThreads(); }), "its threads end");
    monitorRuns_ = monitorRuns_ && code == CKR_CRYPTOKI_NOT_INITIALIZED;
    holdMonitor();
}

void Life::letMonitorLook()
{
    if (monitorRuns_)
        expect(monitorSleep().runCycle(), "the monitor goes on");
}

void Life::holdMonitor()
{
    if (!monitorRuns_)
        return;
    monitorSleep().hold();
    expect(monitorSleep().waitForIt(), "the monitor comes to its sleep");
}

} // namespace fuzz
