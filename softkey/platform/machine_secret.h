// A secret of this machine's user, in a file of its own outside the keys' folder: what a key is bound to that is of no
// use elsewhere.
#pragma once

#include "base/bytes.h"
#include "base/secret.h"

#include <optional>

namespace softkey
{

/// Nothing when there is none of that size, or none that this user on this machine alone can read.
std::optional<SecretBuffer> readMachineSecret(std::size_t size);
/// Writes the file, whole or not at all; one that is there stays.
void storeMachineSecret(Bytes secret);

} // namespace softkey
