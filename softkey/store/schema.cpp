#include "store/schema.h"

#include <array>
#include <cstring>
#include <string_view>

namespace softkey
{
namespace
{

// Fields of the header of an SQLite database file.
constexpr std::size_t HEADER_SIZE = 100;
constexpr std::string_view MAGIC{"SQLite format 3\0", 16};
constexpr std::size_t WRITE_FORMAT_OFFSET = 18;
constexpr std::size_t READ_FORMAT_OFFSET = 19;
constexpr std::size_t CHANGE_COUNTER_OFFSET = 24;
constexpr std::size_t USER_VERSION_OFFSET = 60;
constexpr std::size_t APPLICATION_ID_OFFSET = 68;
constexpr unsigned char ROLLBACK_JOURNAL = 1;

constexpr const char* CREATE_TABLES = R"sql(
    CREATE TABLE device (
        only_row INTEGER PRIMARY KEY CHECK (only_row = 1),
        serial_number TEXT NOT NULL,
        label TEXT NOT NULL,
        model TEXT NOT NULL,
        firmware_version TEXT NOT NULL,
        plugged INTEGER NOT NULL CHECK (plugged IN (0, 1)),
        times_unplugged INTEGER NOT NULL DEFAULT 0,
        authenticator BLOB NOT NULL DEFAULT X''
    ) STRICT;

    -- role: 1 user, 2 security officer. The master key of the file is wrapped once for each.
    CREATE TABLE pin (
        role INTEGER PRIMARY KEY CHECK (role IN (1, 2)),
        changed INTEGER NOT NULL CHECK (changed IN (0, 1)),
        tries_max INTEGER NOT NULL CHECK (tries_max BETWEEN 1 AND 255),
        tries_left INTEGER NOT NULL CHECK (tries_left BETWEEN 0 AND tries_max),
        scrypt_log_n INTEGER NOT NULL,
        scrypt_block_size INTEGER NOT NULL,
        scrypt_lanes INTEGER NOT NULL,
        salt BLOB NOT NULL,
        wrapped_master_key BLOB NOT NULL,
        checksum BLOB NOT NULL DEFAULT X'',
        machine BLOB NOT NULL DEFAULT X''
    ) STRICT;

    CREATE TABLE key_pair (
        id INTEGER PRIMARY KEY CHECK (id BETWEEN 1 AND 4095),
        identifier BLOB NOT NULL UNIQUE CHECK (length(identifier) = 16),
        kind INTEGER NOT NULL CHECK (kind BETWEEN 1 AND 7),
        object_id BLOB NOT NULL CHECK (length(object_id) <= 128),
        label BLOB NOT NULL CHECK (length(label) <= 128),
        public_key BLOB NOT NULL CHECK (length(public_key) BETWEEN 1 AND 1024),
        sealed_private_key BLOB NOT NULL,
        usage_flags INTEGER NOT NULL DEFAULT 3 CHECK (usage_flags BETWEEN 1 AND 3),
        oaep_only INTEGER NOT NULL DEFAULT 0 CHECK (oaep_only IN (0, 1))
    ) STRICT;

    CREATE TABLE certificate (
        id INTEGER PRIMARY KEY CHECK (id BETWEEN 1 AND 4095),
        identifier BLOB NOT NULL UNIQUE CHECK (length(identifier) = 16),
        object_id BLOB NOT NULL CHECK (length(object_id) <= 128),
        label BLOB NOT NULL CHECK (length(label) <= 128),
        der BLOB NOT NULL
    ) STRICT;
)sql";
static_assert(OBJECT_NUMBER_LIMIT == 4096 && KEY_IDENTIFIER_SIZE == 16 && OBJECT_ID_CAPACITY == 128 &&
              LABEL_CAPACITY == 128 && PUBLIC_KEY_CAPACITY == 1024); // What the layout says, too.

/// What brings a file of one layout to the next.
struct Migration {
    std::int64_t from;
    const char* sql;
};
constexpr Migration MIGRATIONS[] = {
    // Knew no usage flags: every key could do everything. Nor did it count how often a key was unplugged.
    {1, R"sql(
        ALTER TABLE key_pair ADD COLUMN usage_flags INTEGER NOT NULL DEFAULT 3 CHECK (usage_flags BETWEEN 1 AND 3);
        ALTER TABLE device ADD COLUMN times_unplugged INTEGER NOT NULL DEFAULT 0;
    )sql"},
    // Knew no keys that take OAEP alone, and trusted what the file said.
    {2, R"sql(
        ALTER TABLE device ADD COLUMN authenticator BLOB NOT NULL DEFAULT X'';
        ALTER TABLE pin ADD COLUMN checksum BLOB NOT NULL DEFAULT X'';
        ALTER TABLE pin ADD COLUMN machine BLOB NOT NULL DEFAULT X'';
        ALTER TABLE key_pair ADD COLUMN oaep_only INTEGER NOT NULL DEFAULT 0 CHECK (oaep_only IN (0, 1));
    )sql"},
};

void setMarks(Database& database)
{
    database.execute(("PRAGMA application_id = " + std::to_string(APPLICATION_ID)).c_str());
    database.execute(("PRAGMA user_version = " + std::to_string(SCHEMA_VERSION)).c_str());
}

void requireKnownVersion(std::int64_t version)
{
    require(version >= 1, SoftkeyStatus::FileDamaged);
    require(version <= SCHEMA_VERSION, SoftkeyStatus::FileNewer);
}

} // namespace

void requireKeyFileHeader(Bytes file)
{
    const bool complete = file.size() >= HEADER_SIZE;
    require(complete && std::memcmp(file.data(), MAGIC.data(), MAGIC.size()) == 0 &&
                bigEndian(file.subspan(APPLICATION_ID_OFFSET)) == APPLICATION_ID,
            SoftkeyStatus::FileForeign);
    requireKnownVersion(bigEndian(file.subspan(USER_VERSION_OFFSET)));
    require(file[WRITE_FORMAT_OFFSET] == ROLLBACK_JOURNAL && file[READ_FORMAT_OFFSET] == ROLLBACK_JOURNAL,
            SoftkeyStatus::FileDamaged);
}

void requireKeyFileHeader(const Database& database)
{
    std::array<unsigned char, HEADER_SIZE> header{};
    const bool complete = database.readRaw(header, 0);
    requireKeyFileHeader(Bytes(header).first(complete ? HEADER_SIZE : 0));
}

void configureConnection(Database& database)
{
    // The journal is truncated, not deleted: with full synchronisation that is durable, and the folder's own time
    // of change keeps telling of keys that come and go.
    database.execute("PRAGMA mmap_size = 0; PRAGMA journal_mode = TRUNCATE; PRAGMA synchronous = FULL;"
                     "PRAGMA secure_delete = ON; PRAGMA temp_store = MEMORY; PRAGMA cell_size_check = ON;"
                     // Nothing is written to the file before the end of a change.
                     "PRAGMA cache_spill = OFF;");
}

void createSchema(Database& database)
{
    database.execute(CREATE_TABLES);
    setMarks(database);
}

void requireSoundStructure(Database& database)
{
    // With the indexes: one that is damaged would hide what is there.
    Statement check(database, "PRAGMA integrity_check(1)");
    require(check.step() && check.text(0) == "ok", SoftkeyStatus::FileDamaged);
    // Only tables: a trigger of someone else's making could change what an update does.
    require(database.number("SELECT count(*) FROM sqlite_schema WHERE type IN ('trigger', 'view')") == 0,
            SoftkeyStatus::FileDamaged);
}

std::int64_t layoutOf(Database& database)
{
    const std::int64_t version = database.number("PRAGMA user_version");
    requireKnownVersion(version);
    return version;
}

void migrate(Database& database, const std::function<void(Database&)>& requireSound)
{
    Transaction transaction(database);
    // Another process may have been faster, perhaps one of a newer version.
    const std::int64_t found = layoutOf(database);
    for (const Migration& migration : MIGRATIONS) {
        if (found <= migration.from)
            database.execute(migration.sql);
    }
    if (found < SCHEMA_VERSION)
        setMarks(database);
    requireSound(database);
    transaction.commit();
}

void requirePresentLayout(Database& database)
{
    // An older one can only be another file in the place of the one that was migrated.
    require(layoutOf(database) == SCHEMA_VERSION, SoftkeyStatus::FileDamaged);
}

std::uint32_t changeCounter(const Database& database)
{
    std::array<unsigned char, 4> counter{};
    require(database.readRaw(counter, CHANGE_COUNTER_OFFSET), SoftkeyStatus::FileDamaged);
    return bigEndian(counter);
}

std::uint32_t changeCounterOf(Bytes file)
{
    require(file.size() >= HEADER_SIZE, SoftkeyStatus::FileDamaged);
    return bigEndian(file.subspan(CHANGE_COUNTER_OFFSET));
}

} // namespace softkey
