// velkor-trace: says what happened in the module's log, in words.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "describe.h"
#include "filter.h"
#include "html.h"
#include "output.h"
#include "redaction.h"
#include "sources.h"
#include "summary.h"
#include "terminal.h"

namespace
{

using namespace velkor::trace;

constexpr std::filesystem::perms OWNER_ALONE = std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;

/// What is written at once where nobody watches.
constexpr std::size_t OUTPUT_BUFFER = std::size_t{64} << 10;

enum class ExitCode : int { Done = 0, Failed = 1, Usage = 2, NothingRead = 3 };

struct Options {
    std::vector<std::string> files;
    Filter filter;
    std::string since;
    std::string slow;
    bool json = false;
    bool redact = false;
    bool noRedact = false; ///< Of pages, which are redacted otherwise.
    bool noPager = false;
    bool follow = false;
    std::string html;
};

/// A wrong use that CLI11 does not know of.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The logs that were asked for; today's where none was.
std::vector<std::filesystem::path> chosenLogs(const Options& options)
{
    if (options.files.empty())
        return todaysLogs(logFolder());
    std::vector<std::filesystem::path> logs;
    for (const std::string& file : options.files) {
        std::error_code error;
        if (!std::filesystem::is_directory(file, error)) {
            logs.emplace_back(file);
            continue;
        }
        [[maybe_unused]] const std::filesystem::directory_iterator opened(file, error);
        if (error)
            std::fprintf(stderr, "velkor-trace: %s: it cannot be read: %s\n", file.c_str(), error.message().c_str());
        const auto inside = todaysLogs(file);
        logs.insert(logs.end(), inside.begin(), inside.end());
    }
    return logs;
}

void readTimes(Options& options)
{
    if (!options.since.empty() && !(options.filter.since = timeOfDay(options.since)))
        throw UsageError("--since: a time of the day is wanted, as 10:30 or 10:30:15");
    if (!options.slow.empty() && !(options.filter.slow = durationOf(options.slow)))
        throw UsageError("--slow: a duration is wanted, as 200ms or 1.5s");
}

/// Tells what was met beside calls. Gives whether anything could be read.
bool tellNotes(const std::vector<std::unique_ptr<Source>>& sources)
{
    bool anyRead = false;
    for (const auto& source : sources) {
        anyRead |= source->reader().notes().error.empty();
        for (const std::string& note : notesInWords(*source))
            std::fprintf(stderr, "velkor-trace: %s: %s\n", source->reader().path().string().c_str(), note.c_str());
    }
    return anyRead;
}

ExitCode tellNoLogs(const Options& options)
{
    const std::string place = options.files.empty() ? logFolder().string() : options.files.front();
    std::error_code error;
    [[maybe_unused]] const std::filesystem::directory_iterator opened(place, error);
    const std::string reason = error ? ": " + error.message() : "";
    std::fprintf(stderr, "velkor-trace: there are no logs of today in %s%s\n", place.c_str(), reason.c_str());
    return ExitCode::NothingRead;
}

/// A log that is followed.
struct FollowedLog {
    std::unique_ptr<Source> source;
    std::chrono::steady_clock::time_point lastCall;
    std::vector<std::string> notes;
    bool isQuiet = false; ///< Nothing has come for so long that no call is in progress.
};

/// Where calls go, and how.
struct Printer {
    Options& options;
    TableStyle style;
    std::FILE* file;
    std::optional<Milliseconds> day = std::nullopt; ///< Of the last call.

    void printHeader() const
    {
        if (!options.json)
            std::fputs(tableHeader(style).c_str(), file);
    }

    /// Prints a call if it is wanted, and the day in between when it is another one. False when nobody reads any more.
    bool print(Call& call)
    {
        if (!options.filter.wants(call))
            return true;
        if (options.redact)
            redact(call);
        if (options.json)
            return write(jsonLine(call));
        if (day.value_or(call.start / DAY) != call.start / DAY)
            std::fprintf(file, "%s\n", dateText(call.start).c_str());
        day = call.start / DAY;
        return write(tableRow(call, style));
    }

    bool write(const std::string& text) const { return std::fwrite(text.data(), 1, text.size(), file) == text.size(); }
};

/// Prints what a log has had since the last look. False when nobody reads any more.
bool followLog(FollowedLog& log, Printer& printer)
{
    using namespace std::chrono_literals;
    const auto now = std::chrono::steady_clock::now();
    log.source->refresh();
    Call call;
    for (log.isQuiet = false; true; log.isQuiet = true) {
        while (log.source->next(call, true)) {
            log.lastCall = now;
            if (!printer.print(call))
                return false;
        }
        // What was refused is over; what is at work may take long.
        const auto patience = log.source->builder().isRefused() ? 300ms : 10s;
        if (log.isQuiet || now - log.lastCall < patience)
            break;
        log.source->finish();
    }
    if (const auto notes = notesInWords(*log.source); notes != log.notes) {
        log.notes = notes;
        for (const std::string& note : notes)
            std::fprintf(stderr, "velkor-trace: %s: %s\n", log.source->reader().path().string().c_str(), note.c_str());
    }
    return std::fflush(stdout) == 0;
}

/// Shows calls as they come, until it is interrupted: those of logs that appear too, and of the next day's.
ExitCode follow(Options& options)
{
    readTimes(options);
    Printer printer{options, {isTerminal(stdout) ? terminalWidth() : 0, wantsColours(), true}, stdout};
    printer.printHeader();
    std::map<std::filesystem::path, FollowedLog> logs;
    while (true) {
        const auto chosen = chosenLogs(options);
        for (const auto& path : chosen) {
            FollowedLog& log = logs[path];
            if (!log.source)
                log = {std::make_unique<Source>(path, SMALL_BUFFER), std::chrono::steady_clock::now(), {}};
        }
        for (auto& [path, log] : logs) {
            if (!followLog(log, printer))
                return ExitCode::Done;
        }
        // Yesterday's, once their last calls have ended.
        std::erase_if(logs, [&](const auto& each) {
            return each.second.isQuiet && std::ranges::find(chosen, each.first) == chosen.end();
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

ExitCode show(Options& options)
{
    readTimes(options);
    const auto logs = chosenLogs(options);
    if (logs.empty())
        return tellNoLogs(options);
    MergedCalls calls(logs);
    const TableStyle style = {isTerminal(stdout) ? terminalWidth() : 0, wantsColours(), logs.size() > 1};
    {
        const PagedOutput output(!options.noPager && !options.json);
        if (!isTerminal(output.file()))
            std::setvbuf(output.file(), nullptr, _IOFBF, OUTPUT_BUFFER);
        Printer printer{options, style, output.file()};
        printer.printHeader();
        for (Call call; calls.next(call);) {
            if (!printer.print(call))
                break; // The reader has seen enough.
        }
    }
    return tellNotes(calls.sources()) ? ExitCode::Done : ExitCode::NothingRead;
}

/// Without redaction by its path, else by its program.
void tellUnwritable(Summary& summary, const std::vector<std::filesystem::path>& logs, bool redacted)
{
    for (const auto& log : logs) {
        if (const std::string why = whyUnwritable(log); !why.empty())
            summary.addUnwritable(redacted ? programOf(log) : log.string(), why);
    }
}

ExitCode summarize(Options& options)
{
    readTimes(options);
    const auto logs = chosenLogs(options);
    if (logs.empty())
        return tellNoLogs(options);
    MergedCalls calls(logs);
    Summary summary;
    tellUnwritable(summary, logs, options.redact);
    for (Call call; calls.next(call);) {
        if (!options.filter.wants(call)) {
            summary.follow(call);
            continue;
        }
        if (options.redact)
            redact(call);
        summary.add(call);
    }
    {
        const PagedOutput output(!options.noPager && !options.json);
        std::fputs((options.json ? jsonLine(summary.json()) : summary.text()).c_str(), output.file());
    }
    return tellNotes(calls.sources()) ? ExitCode::Done : ExitCode::NothingRead;
}

void refuseToOverwriteLogs(const std::filesystem::path& page, const std::vector<std::filesystem::path>& logs)
{
    for (const std::filesystem::path& log : logs) {
        std::error_code different;
        if (std::filesystem::equivalent(page, log, different))
            throw UsageError("--html: " + page.string() + " is a log");
    }
}

ExitCode writePage(Options& options)
{
    readTimes(options);
    const auto logs = chosenLogs(options);
    if (logs.empty())
        return tellNoLogs(options);
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    refuseToOverwriteLogs(options.html, logs);
    const std::unique_ptr<std::FILE, Close> file(std::fopen(options.html.c_str(), "wb"));
    if (!file)
        throw std::runtime_error("cannot write " + options.html);
    std::error_code unsupported;
    if (options.noRedact) // Like the log itself.
        std::filesystem::permissions(options.html, OWNER_ALONE, unsupported);
    HtmlPage page(file.get());
    MergedCalls calls(logs);
    Summary summary;
    tellUnwritable(summary, logs, !options.noRedact);
    for (Call call; calls.next(call);) {
        if (!options.filter.wants(call)) {
            summary.follow(call);
            continue;
        }
        if (!options.noRedact)
            redact(call);
        summary.add(call);
        page.add(call);
    }
    if (!page.finish(summary))
        throw std::runtime_error("cannot write " + options.html);
    return tellNotes(calls.sources()) ? ExitCode::Done : ExitCode::NothingRead;
}

ExitCode explainQuestion(const std::vector<std::string>& words)
{
    std::string question;
    for (const std::string& word : words)
        question += (question.empty() ? "" : " ") + word;
    const std::string page = explain(question);
    if (page.empty()) {
        std::fprintf(stderr, "velkor-trace: nothing is known of \"%s\"\n", printable(question).c_str());
        return ExitCode::NothingRead;
    }
    std::fputs(page.c_str(), stdout);
    return ExitCode::Done;
}

void addOptions(CLI::App& app, Options& options)
{
    app.add_option("FILE", options.files, "Logs, or folders of programs (default: today's of this user's programs)");
    app.add_flag("--errors", options.filter.errors, "Only calls that were refused or have an error line");
    app.add_option("--since", options.since, "Only calls from this time of the day on")->type_name("HH:MM");
    app.add_option("--call", options.filter.function, "Only calls of this function")->type_name("NAME");
    app.add_option("--session", options.filter.session, "Only calls whose lines name this session")->type_name("N");
    app.add_option("--slow", options.slow, "Only calls that took at least this long")->type_name("TIME");
    app.add_flag("--json", options.json, "Print JSON, one object a call");
    app.add_flag("--redact", options.redact, "Hide hashes, inputs, identifiers, labels and paths");
    app.add_flag("--no-redact", options.noRedact, "Show them on a page too");
    app.add_option("--html", options.html, "Write one page for a browser, redacted unless told otherwise")
        ->type_name("FILE");
    app.add_flag("--follow", options.follow, "Show calls as they come, of logs that appear too");
    app.add_flag("--no-pager", options.noPager, "Do not use a pager");
}

ExitCode run(CLI::App& app, int argc, char** argv)
{
    Options options;
    std::vector<std::string> question;
    addOptions(app, options);
    CLI::App* explaining = app.add_subcommand("explain", "Say what a line, a code, a number or a status means");
    explaining->add_option("WHAT", question, "The line, CKR_..., 0x50000001, status 313, C_...")->required();
    CLI::App* summary = app.add_subcommand("summary", "Say what happened in all, and what is most likely wrong");
    summary->add_option("FILE", options.files, "Logs, or folders of programs");
    summary->fallthrough(); // The options may also follow the command.
    try {
        app.parse(argc, argv);
        if (explaining->parsed())
            return explainQuestion(question);
        if (!options.html.empty())
            return writePage(options);
        if (options.follow)
            return follow(options);
        return summary->parsed() ? summarize(options) : show(options);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0)
            return static_cast<ExitCode>(app.exit(error)); // Help or version.
        throw UsageError(error.what());
    }
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Says what happened in the log of the Velkor module.", "velkor-trace");
    app.set_version_flag("--version", "velkor-trace " VELKOR_VERSION, "Print the version and exit");
    try {
        return static_cast<int>(run(app, argc, argv));
    } catch (const UsageError& error) {
        std::fprintf(stderr, "velkor-trace: %s\n", error.what());
        return static_cast<int>(ExitCode::Usage);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "velkor-trace: %s\n", error.what());
        return static_cast<int>(ExitCode::Failed);
    }
}
