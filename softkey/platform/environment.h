// Settings from the environment.
#pragma once

#include <optional>
#include <string>

namespace softkey
{

/// Nothing when the variable is not set; on POSIX also in privileged processes.
std::optional<std::string> environmentValue(const char* name);

} // namespace softkey
