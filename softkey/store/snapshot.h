// What a key's file held after the last change that was completed, read without any lock: neither waits for the other,
// the reader or whoever is at work in the file. While a change is under way, SQLite's journal beside the file has the
// pages that it replaces; a snapshot is the file with these put back.
#pragma once

#include "store/sqlite.h"

#include <optional>

namespace softkey
{

class Snapshot
{
public:
    /// `file` is open at that path. Throws FileForeign and the like for what is no key's file, DeviceUnreachable when
    /// it cannot be read, and StorageBusy when it never stood still.
    Snapshot(const Database& file, const std::filesystem::path& path);

    /// SQLite's count of the changes of the file, up to and with the last one that was completed.
    std::uint32_t changeCounter() const { return changeCounter_; }
    /// For reading alone, as long as the snapshot lives.
    Database& database() { return database_; }

private:
    ByteVector image_;
    std::uint32_t changeCounter_;
    Database database_;
};

/// The count of changes before the one that is under way; nothing when none is that far. Reads the journal alone.
std::optional<std::uint32_t> changeCounterBefore(const Database& file);

/// The journal's pages put back into an image of the file; throws FileDamaged. Exposed for its tests.
void putBack(ByteVector& image, Bytes journal);

} // namespace softkey
