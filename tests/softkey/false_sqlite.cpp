// What a host brings along under SQLite's names. None of it may ever be called.
#include <cstdlib>

// NOLINTBEGIN(bugprone-macro-parentheses): names, not values.
#define FALSE_FUNCTION(name)                                                                                           \
    extern "C" __attribute__((visibility("default"))) void name();                                                     \
    void name()                                                                                                        \
    {                                                                                                                  \
        std::abort();                                                                                                  \
    }
// NOLINTEND(bugprone-macro-parentheses)

FALSE_FUNCTION(sqlite3_bind_blob64)
FALSE_FUNCTION(sqlite3_bind_int64)
FALSE_FUNCTION(sqlite3_bind_text64)
FALSE_FUNCTION(sqlite3_busy_handler)
FALSE_FUNCTION(sqlite3_busy_timeout)
FALSE_FUNCTION(sqlite3_changes)
FALSE_FUNCTION(sqlite3_close_v2)
FALSE_FUNCTION(sqlite3_column_blob)
FALSE_FUNCTION(sqlite3_column_bytes)
FALSE_FUNCTION(sqlite3_column_int64)
FALSE_FUNCTION(sqlite3_db_config)
FALSE_FUNCTION(sqlite3_db_filename)
FALSE_FUNCTION(sqlite3_deserialize)
FALSE_FUNCTION(sqlite3_exec)
FALSE_FUNCTION(sqlite3_extended_result_codes)
FALSE_FUNCTION(sqlite3_file_control)
FALSE_FUNCTION(sqlite3_filename_journal)
FALSE_FUNCTION(sqlite3_finalize)
FALSE_FUNCTION(sqlite3_initialize)
FALSE_FUNCTION(sqlite3_open_v2)
FALSE_FUNCTION(sqlite3_prepare_v2)
FALSE_FUNCTION(sqlite3_step)
