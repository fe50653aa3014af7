// How many derive keys from PINs at once: each derivation takes memory of its own, up to gigabytes, and a hundred
// programs that begin to sign together would take a hundred times that.
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
    /// Waits until one of the folder's slots is free, as long as those in them get on; then for one of some more, and
    /// in the end goes without one. Cheap derivations need none.
    DerivationSlot(const std::filesystem::path& folder, const ScryptCost& cost);

private:
    std::optional<FileLock> slot_;
};

} // namespace softkey
