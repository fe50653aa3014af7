// Puts the lines of a log together to calls.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "log_reader.h"
#include "texts.h"

namespace velkor::trace
{

/// How a call ended, as far as the log tells.
enum class Outcome {
    NoRefusalSeen,
    Warned,  ///< An error line that is no refusal.
    Refused, ///< With `code`.
    Silent,  ///< It did not come to its end, and no line says why.
};

struct CallLine {
    Milliseconds time = 0;
    Level level = Level::Other;
    std::string text;
    const TextRow* row = nullptr; ///< Null: the text is in no table.
    std::uint64_t number = 0;
};

struct Call {
    std::string_view program;  ///< Name of the folder or the file.
    std::string_view function; ///< Of the table of exports; empty where the lines do not tell it.
    bool hasEntry = false;     ///< Its entry line was logged.
    bool isMonitor = false;    ///< Lines of the thread that watches the devices; no call.
    bool isMixed = false;      ///< Lines of several threads are mixed here: some may belong to another call.
    Outcome outcome = Outcome::NoRefusalSeen;
    CK_RV code = CKR_OK;
    Milliseconds start = 0;
    Milliseconds end = 0;             ///< Of its own last line.
    std::optional<Milliseconds> next; ///< When the next line of another call came.
    std::vector<CallLine> lines;      ///< With the entry line; the first ones of very many.
    std::uint64_t linesLeftOut = 0;
    std::size_t bytes = 0; ///< Of the lines that are kept.

    /// Until the next line, or until its own last one where it was refused or nothing follows; nothing where the entry
    /// line is not there.
    std::optional<Milliseconds> duration() const;
    /// The line that says why it was refused; null when it was not.
    const CallLine* refusal() const;
};

/// What was met in all calls of a file.
struct CallNotes {
    std::uint64_t calls = 0;
    std::uint64_t mixed = 0;
    std::uint64_t unknownTexts = 0;
};

/// Whether the module exports the function and does nothing but refuse it.
bool isUnsupported(std::string_view function);

/// Assembles the calls of one file.
class CallBuilder
{
public:
    explicit CallBuilder(std::string program) : program_(std::move(program)) {}

    void add(const LogLine& line);
    /// Ends the call in progress.
    void finish();
    /// Whether the call in progress has been refused, so that it is as good as complete.
    bool isRefused() const { return current_ && current_->outcome == Outcome::Refused; }
    /// A call that is complete; false when there is none yet.
    bool take(Call& call);

    const CallNotes& notes() const { return notes_; }
    const std::string& program() const { return program_; }

private:
    void begin(const LogLine& line, std::string_view function, bool isEntry);
    void append(Call& call, const LogLine& line);
    void addLone(const LogLine& line, bool isMonitor);
    bool belongs(const LogLine& line) const;
    bool continuesRefusal(const LogLine& line) const;
    void addText(const LogLine& line);
    void complete();

    std::string program_;
    std::optional<Call> current_;
    std::deque<Call> ready_;
    std::vector<Call> meanwhile_; ///< Lines beside the call in progress, which is given out before them.
    KnownText known_;
    CallNotes notes_;
};

} // namespace velkor::trace
