// What is chosen when a software key is made, and the making of its file.
#pragma once

#include "store/contents.h"

#include <filesystem>

namespace softkey
{

struct PinSettings {
    bool changed = false; ///< Whether the PIN counts as changed from its initial value.
    int triesMax = 5;
    int triesLeft = 5;
};

struct KeySettings {
    std::string serialNumber; ///< Also the name of the file and of the device.
    std::string label = "Velkor Soft Key";
    std::string model = "VK1 Soft"; ///< Third character '1': does not count as FIPS 140-3.
    std::string firmwareVersion = "2.1.0";
    PinSettings userPin;
    PinSettings soPin;
    ScryptCost cost;
};

inline constexpr std::string_view KEY_FILE_SUFFIX = ".velkorkey";

/// 1 to 16 letters, digits, '-', '_' and '.', the first no '.': fit for a file's name and the token's field.
bool isSerialNumber(std::string_view text);
std::string randomSerialNumber();

/// Makes the file of a new key, whole or not at all. Throws BadArgument for settings out of range, PinLength, and
/// AlreadyExists.
void createKeyFile(const std::filesystem::path& folder, const KeySettings& settings, std::string_view userPin,
                   std::string_view soPin);

/// Unplugs a key and destroys its file. Throws the statuses of `KeyFile`, and StorageFailed.
void removeKeyFile(const std::filesystem::path& path);

} // namespace softkey
