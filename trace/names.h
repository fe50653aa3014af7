// Names of the numbers in the log, from the tables that the module and the software key are themselves built from.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cryptoki.h"

namespace velkor::trace
{

/// A number of the log: as wide as the widest layout writes them, also where this is built for another one.
using Number = std::uint64_t;

/// A constant of the Cryptoki header, by its prefix ("CKM") and value; empty when there is none.
std::string_view constantName(std::string_view prefix, Number value);

struct Constant {
    std::string_view prefix;
    std::string_view name;
    Number value;
};
/// All constants of the header.
std::span<const Constant> constants();
/// The constant of that name; nothing when there is none.
std::optional<Constant> findConstant(std::string_view name);

/// "CKR_PIN_LOCKED", or the number in hexadecimal.
std::string codeName(Number code);
/// What the return code says; empty for one that the module does not give.
std::string_view codeMeaning(Number code);

/// "private key 5", "certificate 0", "derived key 1"; empty for what is the handle of no object.
std::string objectName(Number number);
/// "slot 1"; empty for what is no slot's ID.
std::string slotName(Number slotID);
/// "session 2"; empty for what is no session's handle.
std::string sessionName(Number handle);
/// What a status of the device library means; empty for one that is not known.
std::string statusName(int status);
/// The known statuses of a device that is gone, which the module tells apart.
std::vector<int> statusesOfRemoval();
/// "status 313 (PinLocked)", and its meaning behind it.
std::string statusWithMeaning(int status);

/// A number of the log, which is signed decimal; nothing when it is none. What is negative is read as `CK_ULONG` was
/// written: in 32 bits where it fits.
std::optional<Number> numberOf(std::string_view text);

/// A value of a line in words, by the kind that the table of texts gives it: "CKM_SHA256 (592)", "private key 5".
std::string valueInWords(std::string_view kind, std::string_view text);

/// Everything that a bare number can stand for, one line each.
std::vector<std::string> meaningsOf(Number number);

} // namespace velkor::trace
