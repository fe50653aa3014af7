// Replaces the global operators new and delete of a test program, to see what released memory still holds.
#pragma once

#include <functional>
#include <string_view>

/// Number of memory blocks that still held `bytes` when they were released during `work`, in any thread.
int releasedBlocksWith(std::string_view bytes, const std::function<void()>& work);
