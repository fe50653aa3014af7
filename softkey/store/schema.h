// The layout of a key's file: its marks, its tables, and the way from an older layout to the present one.
#pragma once

#include "store/sqlite.h"

#include <functional>

namespace softkey
{

inline constexpr std::int64_t APPLICATION_ID = 0x564b4559; // "VKEY"
inline constexpr std::int64_t SCHEMA_VERSION = 3;

/// Looks at the first bytes of the file alone, so that a file that is not a key's is left exactly as it is. Throws
/// FileForeign, FileDamaged or FileNewer.
void requireKeyFileHeader(const Database& database);
void requireKeyFileHeader(Bytes file);

/// Settings of a connection that changes the file: a committed change is on disk, deleted content is overwritten.
void configureConnection(Database& database);

void createSchema(Database& database);

/// Looks for damage in the file as a whole; throws FileDamaged.
void requireSoundStructure(Database& database);
/// Throws FileDamaged or FileNewer.
std::int64_t layoutOf(Database& database);
/// Brings an older layout up to date, in a transaction of its own. `requireSound` looks at the rows in the present
/// layout: when it throws, nothing was changed.
void migrate(Database& database, const std::function<void(Database&)>& requireSound);

/// The file may have got a newer layout since it was opened. The caller holds a transaction. Throws FileNewer.
void requirePresentLayout(Database& database);

/// SQLite's count of the changes of the file, from its header: it differs after every committed change.
std::uint32_t changeCounter(const Database& database);
std::uint32_t changeCounterOf(Bytes file);

} // namespace softkey
