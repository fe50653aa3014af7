// One run of a fuzzer that calls a library: from the bytes of an input to a sequence of calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "calls.h"

namespace fuzz
{

/// Once for the process.
void prepareRuns();

struct RunSettings {
    std::span<const CallRow> calls;
    bool deviceFails; ///< Whether the device, too, answers from the input, comes, goes, and is begun and ended.
};

void runCalls(const std::uint8_t* bytes, std::size_t size, const RunSettings& settings);

} // namespace fuzz
