// The module as a host meets it: where it is, whether it loads, and which tokens it shows.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace softkey
{

/// Where the module is looked for beside this program, in that order; nowhere when its folder is not known.
std::vector<std::filesystem::path> modulePlaces();

/// Serial numbers of the tokens that a module shows. Throws a Failure when it does not load, or refuses a call.
std::vector<std::string> tokensOf(const std::filesystem::path& module);

} // namespace softkey
