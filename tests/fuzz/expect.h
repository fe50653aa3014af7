// What has to hold in a run of a fuzzer.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz
{

/// Ends the run where something does not hold that must.
inline void expect(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "it does not hold that %s\n", what);
    std::abort();
}

} // namespace fuzz
