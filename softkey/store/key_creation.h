// The making and the removing of a key's file.
#pragma once

#include "store/key_settings.h"

#include <filesystem>

namespace softkey
{

/// Makes the file of a new key, whole or not at all. Throws BadArgument for settings out of range and for two PINs that
/// are the same, PinLength, and AlreadyExists.
void createKeyFile(const std::filesystem::path& folder, const KeySettings& settings, std::string_view userPin,
                   std::string_view soPin);

/// Unplugs a key and destroys its file. Throws the statuses of `KeyFile`, and StorageFailed.
void removeKeyFile(const std::filesystem::path& path);

} // namespace softkey
