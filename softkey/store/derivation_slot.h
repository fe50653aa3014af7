// How many derive from the PINs of one key at once: each derivation takes memory of its own, up to gigabytes, and a
// hundred programs that begin to sign together would take a hundred times that. No key waits for another one's.
#pragma once

#include "crypto/protection.h"
#include "platform/file_lock.h"

#include <filesystem>
#include <optional>

namespace softkey
{

class DerivationSlot
{
public:
    /// Waits until one of the key's slots is free, as long as those in them get on; then for one of some more, and
    /// in the end goes without one. Cheap derivations need none.
    DerivationSlot(const std::filesystem::path& keyFile, const ScryptCost& cost);

private:
    std::optional<FileLock> slot_;
};

/// What is left of the slots of a key that has gone.
void removeDerivationSlots(const std::filesystem::path& keyFile);

} // namespace softkey
