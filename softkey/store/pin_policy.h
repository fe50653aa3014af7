// The rules of PINs: tries are counted down on disk before a PIN is looked at and given back after the right one; at
// zero the PIN is locked. Each of the two PINs wraps the master key of the file.
#pragma once

#include "store/key_file.h"

#include <optional>
#include <string_view>

namespace softkey
{

/// Throws PinLength for a text that cannot become a PIN.
void requirePinLength(std::string_view newPin);

/// Throws BadArgument: who knows the one would know both.
void requireDifferent(std::string_view userPin, std::string_view soPin);

/// A PIN that was right: what it opens, and the record that it was right for.
struct CheckedPin {
    SecretBuffer masterKey;
    PinRecord record;
};

/// Throws PinRequired for an empty PIN, which costs nothing, PinIncorrect or PinLocked, each with the tries left. A PIN
/// that this process has seen refused already, and that cannot have become right since, costs nothing more. Throws
/// FileDamaged when the PIN is right and the contents are not authentic.
CheckedPin checkPin(KeyFile& file, PinRole role, std::string_view pin);

/// The same without a look at the contents: for telling what is left of a file.
CheckedPin checkPinAlone(KeyFile& file, PinRole role, std::string_view pin);

/// Replaces a PIN, and perhaps what checking it costs; the old one is checked first.
void changePin(KeyFile& file, PinRole role, std::string_view oldPin, std::string_view newPin,
               std::optional<ScryptCost> newCost = {});

/// Replaces the user PIN and the master key, so that older copies of the file open nothing that comes later. The PIN
/// of the security officer stays, and has to be given, since it wraps the master key too.
void rekey(KeyFile& file, std::string_view oldPin, std::string_view newPin, std::string_view soPin);

/// Gives the user a new initial PIN and all tries, on the word of the security officer. Nothing else is lost.
void resetUserPin(KeyFile& file, std::string_view soPin, std::string_view newUserPin);

/// Puts a PIN around the master key of a key that is to have that file. `record` has its role, tries, cost and
/// machine; salt and wrapped key are filled.
void wrapMasterKey(const std::filesystem::path& keyFile, PinRecord& record, std::string_view pin, Bytes masterKey,
                   std::string_view serialNumber);
void insertPin(Database& database, const PinRecord& record);

} // namespace softkey
