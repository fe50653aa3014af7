#include "store/sqlite.h"

#include "base/patience.h"

namespace softkey
{
namespace
{

/// Failures of the file system while a change is written.
bool isWriteFailure(int code)
{
    switch (code) {
    case SQLITE_IOERR_WRITE:
    case SQLITE_IOERR_FSYNC:
    case SQLITE_IOERR_DIR_FSYNC:
    case SQLITE_IOERR_TRUNCATE:
    case SQLITE_IOERR_DELETE:
        return true;
    default:
        return false;
    }
}

[[noreturn]] void refuse(int code)
{
    if (code == SQLITE_READONLY_DBMOVED)
        throw Refusal(SoftkeyStatus::DeviceRemoved);
    if (isWriteFailure(code))
        throw Refusal(SoftkeyStatus::StorageFailed);
    switch (code & 0xff) {
    case SQLITE_NOMEM:
        throw std::bad_alloc();
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        throw Refusal(SoftkeyStatus::StorageBusy);
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
    case SQLITE_ERROR: // A statement does not fit the schema that the file claims to have.
    case SQLITE_FORMAT:
        throw Refusal(SoftkeyStatus::FileDamaged);
    case SQLITE_IOERR:
    case SQLITE_PERM:
    case SQLITE_AUTH:
        throw Refusal(SoftkeyStatus::DeviceUnreachable);
    default:
        throw Refusal(SoftkeyStatus::StorageFailed);
    }
}

void check(int code)
{
    if (code != SQLITE_OK && code != SQLITE_DONE && code != SQLITE_ROW)
        refuse(code);
}

sqlite3* openConnection(const char* name, int moreFlags)
{
    // Every connection is used by one thread at a time, under its key's lock.
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE | moreFlags;
    sqlite3* handle = nullptr;
    const int code = sqlite3_open_v2(name, &handle, flags, nullptr);
    if (code != SQLITE_OK) {
        sqlite3_close_v2(handle);
        // Later it is the journal that cannot be opened, and writing that fails.
        if ((code & 0xff) == SQLITE_CANTOPEN)
            throw Refusal(SoftkeyStatus::DeviceUnreachable);
        refuse(code);
    }
    return handle;
}

sqlite3* openFile(const std::filesystem::path& path, Database::Mode mode)
{
    const int create = mode == Database::Mode::Create ? SQLITE_OPEN_CREATE : 0;
    const std::u8string name = path.u8string();
    return openConnection(reinterpret_cast<const char*>(name.c_str()), create);
}

} // namespace

Database::Database(const std::filesystem::path& path, Mode mode) : handle_(openFile(path, mode))
{
    configure();
    check(sqlite3_file_control(handle(), "main", SQLITE_FCNTL_FILE_POINTER, &file_));
    if (file_ == nullptr || file_->pMethods == nullptr)
        throw Refusal(SoftkeyStatus::DeviceUnreachable);
    const char* journal = sqlite3_filename_journal(sqlite3_db_filename(handle(), "main"));
    journal_ = reinterpret_cast<const char8_t*>(journal);
}

Database::Database(ByteVector& image) : handle_(openConnection(":memory:", SQLITE_OPEN_MEMORY))
{
    configure();
    const auto size = static_cast<sqlite3_int64>(image.size());
    image.resize(image.size() + IMAGE_MARGIN);
    check(sqlite3_deserialize(handle(), "main", image.data(), size, size, SQLITE_DESERIALIZE_READONLY));
    // Pages are read where they are: nobody changes or cuts an image, as could happen to a file.
    execute(("PRAGMA cell_size_check = ON; PRAGMA mmap_size = " + std::to_string(size)).c_str());
}

void Database::configure()
{
    sqlite3_extended_result_codes(handle(), 1);
    sqlite3_busy_timeout(handle(), Patience::limit);
    sqlite3_db_config(handle(), SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(handle(), SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
}

void Database::execute(const char* sql)
{
    check(sqlite3_exec(handle(), sql, nullptr, nullptr, nullptr));
}

std::int64_t Database::number(const char* sql)
{
    Statement statement(*this, sql);
    return statement.step() ? statement.number(0) : 0;
}

bool Database::readRaw(std::span<unsigned char> out, std::int64_t offset) const
{
    const int code = file_->pMethods->xRead(file_, out.data(), static_cast<int>(out.size()), offset);
    if (code != SQLITE_OK && code != SQLITE_IOERR_SHORT_READ)
        throw Refusal(SoftkeyStatus::DeviceUnreachable);
    return code == SQLITE_OK;
}

std::size_t Database::rawSize() const
{
    sqlite3_int64 size = 0;
    require(file_->pMethods->xFileSize(file_, &size) == SQLITE_OK, SoftkeyStatus::DeviceUnreachable);
    return static_cast<std::size_t>(size);
}

bool Database::fileWasReplaced() const
{
    int moved = 0;
    const int code = file_->pMethods->xFileControl(file_, SQLITE_FCNTL_HAS_MOVED, &moved);
    // Where an open file cannot be replaced, the question is not known.
    return code != SQLITE_NOTFOUND && (code != SQLITE_OK || moved != 0);
}

Statement::Statement(const Database& database, const char* sql)
{
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v2(database.handle(), sql, -1, &statement, nullptr));
    statement_.reset(statement);
}

Statement& Statement::bind(std::int64_t value)
{
    check(sqlite3_bind_int64(statement_.get(), ++bound_, value));
    return *this;
}

Statement& Statement::bind(std::string_view text)
{
    check(sqlite3_bind_text64(statement_.get(), ++bound_, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8));
    return *this;
}

Statement& Statement::bind(Bytes bytes)
{
    // SQLite takes a null pointer for NULL, not for an empty value.
    const void* data = bytes.empty() ? "" : static_cast<const void*>(bytes.data());
    check(sqlite3_bind_blob64(statement_.get(), ++bound_, data, bytes.size(), SQLITE_STATIC));
    return *this;
}

bool Statement::step()
{
    const int code = sqlite3_step(statement_.get());
    check(code);
    return code == SQLITE_ROW;
}

void Statement::run()
{
    while (step()) {
    }
}

std::int64_t Statement::number(int column) const
{
    return sqlite3_column_int64(statement_.get(), column);
}

std::string Statement::text(int column) const
{
    const Bytes content = bytes(column);
    return {content.begin(), content.end()};
}

Bytes Statement::bytes(int column) const
{
    const auto* data = static_cast<const unsigned char*>(sqlite3_column_blob(statement_.get(), column));
    return {data, static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

Transaction::Transaction(Database& database) : database_(database)
{
    database_.execute("BEGIN IMMEDIATE");
}

Transaction::~Transaction()
{
    if (open_)
        sqlite3_exec(database_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit()
{
    database_.execute("COMMIT");
    open_ = false;
}

} // namespace softkey
