// Which calls are inside the double: a fork waits for them, so that the child finds no lock held by a thread that it
// does not have.
#pragma once

#include <shared_mutex>

/// Shared by the calls that are inside.
std::shared_mutex& callsLock();
