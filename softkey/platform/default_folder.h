// Where the keys of a user live, and what binds them to the machine.
#pragma once

#include <filesystem>

namespace softkey
{

/// VELKOR_SOFTKEY_HOME, else the user's data folder (on Windows the local application data) with "velkor-softkey"
/// behind it; empty when there is neither.
std::filesystem::path defaultKeysFolder();
/// VELKOR_SOFTKEY_MACHINE_SECRET, else a file in the user's folder for the state of programs (on Windows the local
/// application data); empty when there is neither. Never in the keys' folder: who copies that leaves it behind.
std::filesystem::path machineSecretFile();
/// Makes the folder; on POSIX for its owner alone, on Windows for those whom the folder above admits. False when it is
/// not there and cannot be made.
bool ensureFolder(const std::filesystem::path& folder);

} // namespace softkey
