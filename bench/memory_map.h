// Which mappings the memory of this process is in.
#pragma once

#include <map>
#include <string>

namespace bench
{

/// Mebibytes that the process holds, by what they are mapped from: a file's name, or a kind of memory without one.
std::map<std::string, double> memoryByMapping();

} // namespace bench
