// How sleeps reach a test: the part of sleeps.h that each operating system has its own way for.
#pragma once

#include <chrono>

namespace test_system
{

/// Makes the system's call for sleeping ask `isSleepTakenOver` first, for good.
void redirectSleeps();

bool isSleepTakenOver(std::chrono::milliseconds time);

} // namespace test_system
