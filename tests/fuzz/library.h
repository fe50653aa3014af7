// The library under a fuzzer: how it is reached, begun and ended, and which codes it may give. module_library.cpp and
// strict_library.cpp each have the one of theirs.
#pragma once

#include "fuzzed_device.h"
#include "host.h"
#include "monitor_sleep.h"

namespace fuzz
{

/// Loads it on first use.
const CK_FUNCTION_LIST& library();

Results resultsOfLibrary();

/// C_Initialize, with whatever arguments the library looks at.
CK_RV initializeLibrary(Host& host, FuzzedDevice& device);

/// Ends the run where the function does not have that code.
void checkCode(const char* function, CK_RV code);

/// From the first C_Initialize to the last C_Finalize of one run. In between, the monitor looks at the devices when it
/// is told to and at no other time, so that the same input does the same.
class Life
{
public:
    Life(Host& host, FuzzedDevice& device) : host_(host), device_(device) {}
    ~Life();
    Life(const Life&) = delete;
    Life& operator=(const Life&) = delete;

    void begin();
    void end();
    void letMonitorLook();

private:
    void holdMonitor();

    Host& host_;
    FuzzedDevice& device_;
    bool monitorRuns_ = false;
};

} // namespace fuzz
