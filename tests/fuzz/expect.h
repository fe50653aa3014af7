// What has to hold in a run of a fuzzer.
#pragma once

#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace fuzz
{

/// Where the process's standard error led at its start: libFuzzer silences what programs print later.
inline const int reports = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);

/// Ends the run where something does not hold that must.
inline void expect(bool holds, const char* what)
{
    if (holds)
        return;
    dprintf(reports, "it does not hold that %s\n", what);
    std::abort();
}

} // namespace fuzz
