// What is chosen when a software key is made.
#pragma once

#include "crypto/protection.h"

#include <string>
#include <string_view>

namespace softkey
{

struct PinSettings {
    bool changed = true; ///< Whoever makes the key has chosen the PIN. False: its owner is to change it first.
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
    bool boundToMachine = false; ///< Of no use away from it.
};

inline constexpr std::string_view KEY_FILE_SUFFIX = ".velkorkey";

/// 1 to 16 letters, digits, '-', '_' and '.', the first no '.': fit for a file's name and the token's field.
bool isSerialNumber(std::string_view text);
std::string randomSerialNumber();

/// Throws BadArgument for settings out of range.
void requireAcceptable(const KeySettings& settings);

} // namespace softkey
