// Templates of attributes and parameters of mechanisms, over a device that does what it is asked.
#include "run.h"

extern "C" int LLVMFuzzerInitialize(int* /*argumentCount*/, char*** /*arguments*/)
{
    fuzz::prepareRuns();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    fuzz::runCalls(bytes, size, {.calls = fuzz::callsWithTemplates(), .deviceFails = false});
    return 0;
}
