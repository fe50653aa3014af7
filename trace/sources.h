// The logs that are read, and their calls in the order of time.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "calls.h"
#include "log_reader.h"

namespace velkor::trace
{

/// Where the module writes the logs of this user's programs; empty when there is no such folder of the user's own.
std::filesystem::path logFolder();

/// Name of today's log in the folder of a program.
std::string todaysName();

/// Today's logs below a folder, one for each program.
std::vector<std::filesystem::path> todaysLogs(const std::filesystem::path& folder);

/// The program that a log is of: the name of its folder where the module has named the file, else the file's own.
std::string programOf(const std::filesystem::path& log);

/// Why lines that the module writes to this file are lost; empty when nothing stands against it.
std::string whyUnwritable(const std::filesystem::path& log);

/// One log: its lines, put together to calls.
class Source
{
public:
    explicit Source(const std::filesystem::path& log, std::size_t bufferSize = LARGE_BUFFER);

    /// When its first line was written; long ago where that is not known.
    Milliseconds firstTime() const;

    /// The next call; false at the end. With `isGrowing` the last call is kept back until it is complete.
    bool next(Call& call, bool isGrowing);
    /// Gives out the call in progress.
    void finish() { builder_.finish(); }
    bool refresh() { return reader_.refresh(); }
    /// Keeps what was met, and nothing that takes memory.
    void close() { reader_.close(); }

    const LogReader& reader() const { return reader_; }
    const CallBuilder& builder() const { return builder_; }

private:
    bool add(LogLine& line);

    LogReader reader_;
    CallBuilder builder_;
    Milliseconds year_ = 0; ///< Of the file's name; lines have none.
    bool ended_ = false;
};

/// The calls of several logs in the order of their beginning. A log is opened when its time comes and closed at its
/// end, so that memory does not grow with their number.
class MergedCalls
{
public:
    explicit MergedCalls(const std::vector<std::filesystem::path>& logs);

    bool next(Call& call);
    const std::vector<std::unique_ptr<Source>>& sources() const { return sources_; }

private:
    struct Waiting {
        Milliseconds start;
        std::size_t number;
    };
    struct Open {
        std::size_t number;
        Call head;
    };

    void openThoseDue();
    std::vector<Open>::iterator earliest();

    std::vector<std::unique_ptr<Source>> sources_; ///< In the order in which they were given.
    std::vector<Waiting> waiting_;                 ///< The earliest is the last.
    std::vector<Open> open_;
};

/// What there is to tell of the reading of a log, a line each: "2 lines were cut".
std::vector<std::string> notesInWords(const Source& source);

} // namespace velkor::trace
