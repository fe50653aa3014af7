// The diagnostic log: one file per process and day in the user's temporary folder, written line by line. Whether a
// line is written is decided afresh each time, so that tracing can be turned on while applications run.
#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>

#include "util/text.h"

namespace velkor
{

/// Level codes of `writeLogLine`. Any other code is tagged as information.
enum LogCode : int { LOG_EXCEPTION = 1, LOG_ERROR = 2, LOG_DEBUG = 3 };

/// Appends a line to today's file. Failures go to standard output while `tellsOfLostLines`, never to the caller.
void writeLogLine(int code, std::string text);

/// Whether lines of a level, LOG_DEBUG or LOG_ERROR, are written at this moment.
bool isLogged(LogCode code);

/// Writes a line when its level is logged. Its text is composed only then. No failure of the log reaches the caller.
template <typename... Pieces>
void logLine(LogCode code, const Pieces&... pieces) noexcept
{
    try {
        if (isLogged(code))
            writeLogLine(code, message(pieces...));
    } catch (...) { // NOLINT(bugprone-empty-catch)
    }
}

/// Writes a line made of `pieces` when `logLevel` is exactly 3.
template <typename... Pieces>
void logDebug(const Pieces&... pieces) noexcept
{
    logLine(LOG_DEBUG, pieces...);
}

/// Writes a line made of `pieces` when `logLevel` is absent, or 2 and above.
template <typename... Pieces>
void logError(const Pieces&... pieces) noexcept
{
    logLine(LOG_ERROR, pieces...);
}

/// Logs an error line made of `pieces` and gives back `code`.
template <typename Code, typename... Pieces>
Code refuse(Code code, const Pieces&... pieces) noexcept
{
    logError(pieces...);
    return code;
}

/// Locked around each line when it is set. Nothing in the module sets it: lines rely on the system's appending.
extern std::mutex* logLock;

/// Whether lines that are lost are told on standard output.
extern std::atomic<bool> tellsOfLostLines;

// ---- The steps of a line, for its tests ----

/// Fills the buffer with the temporary folder and gives 0; zeroes it and gives -1 when there is no such folder.
int getLogBaseFolderPath(char* buffer, std::size_t size);

/// Creates the first missing folder of a path whose levels are separated by '/'. -1 when that was not the last
/// level; else what `createFolder` says of the whole path.
int createFolderPath(const std::string& path);

/// Non-zero when the folder was created.
int createFolder(const std::string& path);

/// Name of the process's program up to its first '.'.
std::string getProcessBaseName();

} // namespace velkor
