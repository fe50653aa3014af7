// What a fuzzer's process needs around it: a temporary folder of its own, and a say in what is logged.
#pragma once

#include <filesystem>

namespace fuzz
{

/// Makes an empty folder the process's temporary one, and lets nothing be logged. Gives the folder.
std::filesystem::path prepareSurroundings();

/// Lets every line be logged, or none.
void logAll(bool all);

/// Empties what was logged so far: a fuzzer would fill the disk.
void emptyLogs();

} // namespace fuzz
