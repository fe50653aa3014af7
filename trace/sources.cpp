#include "sources.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>
#include <system_error>
#include <tuple>

#include "platform/platform.h"
#include "terminal.h"

namespace velkor::trace
{
namespace
{

namespace fs = std::filesystem;

constexpr std::string_view SHAPE_OF_NAME = "0000-00-00.LOG";

bool isNamedByModule(const std::string& name)
{
    if (name.size() != SHAPE_OF_NAME.size())
        return false;
    for (std::size_t place = 0; place < name.size(); ++place) {
        const char each = name[place];
        if (SHAPE_OF_NAME[place] == '0' ? each < '0' || each > '9' : each != SHAPE_OF_NAME[place])
            return false;
    }
    return true;
}

Milliseconds yearOf(const fs::path& log)
{
    const std::string name = log.filename().string();
    return isNamedByModule(name) ? timeOfYear(std::stoi(name.substr(0, 4))) : 0;
}

void note(std::vector<std::string>& notes, std::uint64_t count, const char* one, const char* many)
{
    if (count != 0)
        notes.push_back(std::to_string(count) + " " + (count == 1 ? one : many));
}

} // namespace

fs::path logFolder()
{
    const std::string folder = platform::temporaryFolder();
    return folder.empty() ? fs::path() : fs::path(folder) / "Brenmoor";
}

std::string todaysName()
{
    const platform::LocalTime now = platform::localTime();
    std::array<char, 80> name{};
    std::snprintf(name.data(), name.size(), "%04d-%02d-%02d.LOG", now.year, now.month, now.day);
    return name.data();
}

std::vector<fs::path> todaysLogs(const fs::path& folder)
{
    std::vector<fs::path> logs;
    std::error_code error;
    for (fs::directory_iterator each(folder, error), end; !error && each != end; each.increment(error)) {
        const fs::path log = each->path() / todaysName();
        std::error_code unreadable;
        std::error_code unresolved;
        const bool isThere = fs::exists(fs::symlink_status(log, unreadable));
        const fs::file_status status = fs::status(log, unresolved);
        // Reading from a pipe would wait for ever.
        const bool mayWait = fs::exists(status) && !fs::is_regular_file(status) && !fs::is_directory(status);
        if ((isThere && !mayWait) || unreadable == std::errc::permission_denied)
            logs.push_back(log); // One that cannot be opened is told of.
    }
    std::ranges::sort(logs);
    return logs;
}

std::string programOf(const fs::path& log)
{
    const std::string name = log.filename().string();
    const std::string folder = fs::absolute(log).parent_path().filename().string();
    return isNamedByModule(name) && !folder.empty() ? folder : name;
}

std::string whyUnwritable(const fs::path& log)
{
    std::error_code error;
    const fs::file_status status = fs::symlink_status(log, error);
    if (fs::is_symlink(status))
        return "a link stands in its place";
    if (fs::is_directory(status))
        return "a folder stands in its place";
    if (fs::exists(status) && !fs::is_regular_file(status))
        return "it is no regular file";
    constexpr auto WRITABLE = fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write;
    if (fs::exists(status) && (status.permissions() & WRITABLE) == fs::perms::none)
        return "nobody may write to it";
    // Elsewhere it may be a copy that somebody keeps.
    if (isNamedByModule(log.filename().string()) && isOfAnotherUser(log))
        return "it belongs to another user than its folder";
    return {};
}

Source::Source(const fs::path& log, std::size_t bufferSize)
    : reader_(log, bufferSize), builder_(programOf(log)), year_(yearOf(log))
{
}

Milliseconds Source::firstTime() const
{
    const auto time = trace::firstTime(reader_.path());
    return time ? *time + year_ : std::numeric_limits<Milliseconds>::min();
}

bool Source::add(LogLine& line)
{
    line.time += year_;
    builder_.add(line);
    return true;
}

bool Source::next(Call& call, bool isGrowing)
{
    LogLine line;
    while (!builder_.take(call)) {
        if (reader_.next(line)) {
            add(line);
            continue;
        }
        if (isGrowing || ended_)
            return false;
        ended_ = true;
        if (reader_.last(line))
            add(line);
        builder_.finish();
    }
    return true;
}

MergedCalls::MergedCalls(const std::vector<fs::path>& logs)
{
    constexpr std::size_t BUFFERS_TOGETHER = std::size_t{16} << 20;
    const std::size_t share = BUFFERS_TOGETHER / std::max<std::size_t>(logs.size(), 1);
    for (const fs::path& log : logs) {
        sources_.push_back(std::make_unique<Source>(log, std::clamp(share, SMALL_BUFFER, LARGE_BUFFER)));
        waiting_.push_back({sources_.back()->firstTime(), waiting_.size()});
    }
    std::ranges::sort(waiting_, [](const Waiting& left, const Waiting& right) {
        return std::tie(left.start, left.number) > std::tie(right.start, right.number);
    });
}

std::vector<MergedCalls::Open>::iterator MergedCalls::earliest()
{
    return std::ranges::min_element(open_, [](const Open& left, const Open& right) {
        return std::tie(left.head.start, left.number) < std::tie(right.head.start, right.number);
    });
}

void MergedCalls::openThoseDue()
{
    for (auto first = earliest();
         !waiting_.empty() && (first == open_.end() || waiting_.back().start <= first->head.start);
         first = earliest()) {
        const std::size_t number = waiting_.back().number;
        waiting_.pop_back();
        Call head;
        if (sources_[number]->next(head, false))
            open_.push_back({number, std::move(head)});
        else
            sources_[number]->close();
    }
}

bool MergedCalls::next(Call& call)
{
    if (!waiting_.empty())
        openThoseDue();
    const auto first = earliest();
    if (first == open_.end())
        return false;
    call = std::move(first->head);
    if (!sources_[first->number]->next(first->head, false)) {
        sources_[first->number]->close();
        open_.erase(first);
    }
    return true;
}

std::vector<std::string> notesInWords(const Source& source)
{
    const ReadingNotes& reading = source.reader().notes();
    std::vector<std::string> notes;
    if (!reading.error.empty())
        notes.push_back("it cannot be read: " + reading.error);
    note(notes, reading.cut, "line was cut", "lines were cut");
    note(notes, reading.foreign, "line is none of the log's", "lines are none of the log's");
    note(notes, reading.overlong, "line is too long to be shown whole", "lines are too long to be shown whole");
    note(notes, reading.wrongBytes, "line has bytes that are no text", "lines have bytes that are no text");
    note(notes, reading.backwards, "line is older than the one before", "lines are older than the one before");
    if (reading.carriageReturns)
        notes.emplace_back("its lines end as on Windows");
    note(notes, reading.shrunk, "time the file became shorter", "times the file became shorter");
    note(notes, source.builder().notes().unknownTexts, "text is unknown to this version",
         "texts are unknown to this version");
    note(notes, source.builder().notes().mixed, "call has lines of several threads mixed",
         "calls have lines of several threads mixed");
    if (const std::string why = whyUnwritable(source.reader().path()); !why.empty())
        notes.push_back("the module cannot write it: " + why);
    return notes;
}

} // namespace velkor::trace
