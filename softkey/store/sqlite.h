// SQLite as the software key uses it: a connection to one key's file, statements and transactions. Failures of
// SQLite become refusals with a status.
#pragma once

#include "base/bytes.h"
#include "base/status.h"

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace softkey
{

class Database
{
public:
    enum class Mode { Existing, Create };
    Database(const std::filesystem::path& path, Mode mode);
    /// Bytes that SQLite may look at behind the end of a damaged page, more than a quarter of the largest page. An
    /// image that has room for them is not moved.
    static constexpr std::size_t IMAGE_MARGIN = 0x4400;
    /// A database in memory, for reading alone. `image` gets the margin, and then stays as it is and where it is as
    /// long as this lives.
    explicit Database(ByteVector& image);

    void execute(const char* sql);
    /// First column of the first row.
    std::int64_t number(const char* sql);
    int changedRows() const { return sqlite3_changes(handle_.get()); }
    /// Bytes of the file itself, past SQLite and its locks. A descriptor of our own would not do: closing it would
    /// drop the locks that SQLite holds on the file in this process. False when the file is shorter. May be called
    /// while another thread uses the connection, as the next one may.
    bool readRaw(std::span<unsigned char> out, std::int64_t offset) const;
    /// Bytes of the file itself.
    std::size_t rawSize() const;
    /// The journal beside the file itself, which a link's own name would not find.
    const std::filesystem::path& journal() const { return journal_; }
    /// Whether the file at the path is no longer the one that was opened.
    bool fileWasReplaced() const;

    sqlite3* handle() const { return handle_.get(); }

private:
    void configure();

    Owned<sqlite3, sqlite3_close_v2> handle_;
    sqlite3_file* file_ = nullptr; ///< SQLite's own.
    std::filesystem::path journal_;
};

class Statement
{
public:
    Statement(const Database& database, const char* sql);

    /// Parameters are bound in order. Texts and bytes are borrowed until the statement ends.
    Statement& bind(std::int64_t value);
    Statement& bind(std::string_view text);
    Statement& bind(Bytes bytes);

    /// False at the end of the rows.
    bool step();
    void run();

    std::int64_t number(int column) const;
    std::string text(int column) const;
    Bytes bytes(int column) const; ///< Valid until the next step.

private:
    Owned<sqlite3_stmt, sqlite3_finalize> statement_;
    int bound_ = 0;
};

/// A change, rolled back unless it is committed.
class Transaction
{
public:
    explicit Transaction(Database& database);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

private:
    Database& database_;
    bool open_ = true;
};

} // namespace softkey
