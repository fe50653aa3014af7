// Copies of a key's file that are whole, and the way back from one.
#pragma once

#include "store/key_file.h"

#include <filesystem>
#include <string>

namespace softkey
{

/// Writes what the key says at one moment into a file of its own, for its owner alone. Throws AlreadyExists, and leaves
/// alone what is there; StorageFailed.
void backUp(KeyFile& file, const std::filesystem::path& destination);

/// Puts a backup that is whole into the keys folder; gives its serial number. A key with that number that is there
/// already is replaced, and nothing of it stays, or AlreadyExists is thrown. Throws FileForeign, FileDamaged,
/// FileNewer, DeviceUnreachable, StorageBusy and StorageFailed too; the folder is as it was then.
std::string restoreBackup(const std::filesystem::path& folder, const std::filesystem::path& backup, bool mayReplace);

} // namespace softkey
