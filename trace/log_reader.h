// Reads the lines of a log in a stream: memory does not grow with the file, and what is no line of the log is counted
// and passed over.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velkor::trace
{

enum class Level { Error, Debug, Other };

/// Milliseconds since the beginning of some year; lines have no year of their own.
using Milliseconds = std::int64_t;
inline constexpr Milliseconds DAY = Milliseconds{24} * 60 * 60 * 1000;

struct LogLine {
    Milliseconds time = 0;
    int day = 0;
    int month = 0;
    Level level = Level::Other;
    std::string_view text; ///< Valid until the next line is read.
    std::uint64_t number = 0;
};

/// What is added to the time of a line that was written in this year.
Milliseconds timeOfYear(int year);

/// "13:46:27.123" of a time of a line.
std::string clockText(Milliseconds time);

/// "2026-11-15" of a time of a line; "11-15" where the year is not known.
std::string dateText(Milliseconds time);

/// What was met in a file beside lines of the log.
struct ReadingNotes {
    std::uint64_t bytes = 0;
    std::uint64_t lines = 0;
    std::uint64_t cut = 0;        ///< Lines without their end or their beginning.
    std::uint64_t foreign = 0;    ///< Lines of somebody else.
    std::uint64_t overlong = 0;   ///< Lines whose end was left out.
    std::uint64_t wrongBytes = 0; ///< Lines with bytes that are no UTF-8 or no text.
    std::uint64_t backwards = 0;  ///< Lines that are older than the one before by a second or more.
    std::uint64_t shrunk = 0;     ///< Times that the file became shorter.
    bool carriageReturns = false;
    std::string error; ///< Why the file could not be read, or not to its end.
};

/// Takes a line apart. False when it is none of the log.
bool parseLine(std::string_view whole, LogLine& line);

/// Whether all bytes are text in UTF-8.
bool isText(std::string_view bytes);

/// The time of a file's first line; nothing where its beginning has none.
std::optional<Milliseconds> firstTime(const std::filesystem::path& path);

/// What a reader of one file takes; less memory reads slower.
inline constexpr std::size_t LARGE_BUFFER = std::size_t{1} << 20;
inline constexpr std::size_t SMALL_BUFFER = std::size_t{8} << 10;

class LogReader
{
public:
    /// A file that cannot be opened has no lines, and `notes` says why. It is opened when it is first read.
    explicit LogReader(std::filesystem::path path, std::size_t bufferSize = LARGE_BUFFER);

    /// The next whole line of the log; false at the end of what there is. A file that grows has more later.
    bool next(LogLine& line);

    /// Gives out what stands behind the last line end as a line: the file will not grow.
    bool last(LogLine& line);

    /// Looks whether the file has grown, or shrunk, which begins it anew. True when there is something to read.
    bool refresh();

    /// Lets go of the file and of the memory for it. There are no more lines.
    void close();

    const std::filesystem::path& path() const { return path_; }
    const ReadingNotes& notes() const { return notes_; }

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    void open();
    bool fill();
    bool nextRaw(std::string_view& raw);
    bool take(std::string_view raw, LogLine& line);

    std::filesystem::path path_;
    std::size_t bufferSize_; ///< Grows for a long line.
    bool isNew_ = true;      ///< It has not been opened yet.
    std::unique_ptr<std::FILE, Close> file_;
    std::uintmax_t place_ = 0; ///< In the file.
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    bool skipping_ = false; ///< The rest of an overlong line is being passed over.
    Milliseconds lastTime_ = 0;
    ReadingNotes notes_;
};

} // namespace velkor::trace
