// Sequences of all calls, over a device that answers as the input says.
#include "run.h"

extern "C" int LLVMFuzzerInitialize(int* /*argumentCount*/, char*** /*arguments*/)
{
    fuzz::prepareRuns();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    fuzz::runCalls(bytes, size, {.calls = fuzz::calls(), .deviceFails = true});
    return 0;
}
