#include "log_reader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

namespace velkor::trace
{
namespace
{

constexpr std::size_t LINE_CAPACITY = std::size_t{64} << 10;
constexpr Milliseconds SECOND = 1000;
// Months of 31 days, and none before the first, keep times in order, which is all that is asked of them.
constexpr int DAYS_OF_MONTH = 31;
constexpr int DAYS_OF_YEAR = 13 * DAYS_OF_MONTH;

// "15/11::13:46:27:123-> ->DEBUG ::=>": what stands at every place; digits are marked by a zero.
constexpr std::string_view SHAPE = "00/00::00:00:00:000-> ->";
constexpr std::size_t TAG_SIZE = 10;
constexpr std::size_t PREFIX_SIZE = SHAPE.size() + TAG_SIZE;

struct Tag {
    std::string_view text;
    Level level;
};

constexpr Tag TAGS[] = {
    {"DEBUG ::=>", Level::Debug},
    {"ERROR ::=>", Level::Error},
    {"EXCEP ::=>", Level::Other},
    {"INFO  ::=>", Level::Other},
};

/// How far a byte may lie above the one that stands in its place.
constexpr std::array<unsigned char, SHAPE.size()> mostAboveShape()
{
    std::array<unsigned char, SHAPE.size()> most{};
    for (std::size_t place = 0; place < SHAPE.size(); ++place)
        most[place] = SHAPE[place] == '0' ? 9 : 0;
    return most;
}

bool hasShape(std::string_view whole)
{
    static constexpr auto MOST = mostAboveShape();
    unsigned char odd = 0; // Without a branch for each place.
    for (std::size_t place = 0; place < SHAPE.size(); ++place) {
        const auto above = static_cast<unsigned char>(whole[place] - SHAPE[place]);
        odd |= static_cast<unsigned char>(above > MOST[place] ? 1 : 0);
    }
    return odd == 0;
}

int twoDigits(std::string_view whole, std::size_t place)
{
    return (whole[place] - '0') * 10 + (whole[place + 1] - '0');
}

Milliseconds timeOf(std::string_view whole, int month, int day)
{
    const int milliseconds = twoDigits(whole, 16) * 10 + (whole[18] - '0');
    const int seconds = (twoDigits(whole, 7) * 60 + twoDigits(whole, 10)) * 60 + twoDigits(whole, 13);
    return (month * Milliseconds{DAYS_OF_MONTH} + day - 1) * DAY + seconds * SECOND + milliseconds;
}

/// Where another line begins behind the beginning of one that was cut; npos when none does.
std::size_t innerLine(std::string_view whole)
{
    constexpr std::string_view ARROW = "-> ->";
    constexpr std::size_t BEFORE = SHAPE.size() - ARROW.size();
    if (whole.size() <= PREFIX_SIZE)
        return std::string_view::npos;
    for (std::size_t arrow = whole.find(ARROW, BEFORE + 1); arrow != std::string_view::npos;
         arrow = whole.find(ARROW, arrow + 1)) {
        const std::size_t start = arrow - BEFORE;
        LogLine ignored;
        if (parseLine(whole.substr(start), ignored))
            return start;
    }
    return std::string_view::npos;
}

/// Whether two bytes begin no character: one in too many bytes, half of a pair, beyond the last, or a control that
/// terminals obey as they obey ESC.
bool beginNoCharacter(unsigned char first, unsigned char second)
{
    return (first == 0xC2 && second < 0xA0) || (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
           (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
}

/// Bytes of the UTF-8 sequence at the beginning of the text; 0 when it is none.
std::size_t sequenceLength(std::string_view bytes)
{
    const auto first = static_cast<unsigned char>(bytes.front());
    const std::size_t length = first >= 0xF0 && first < 0xF5 ? 4 : first >= 0xE0 ? 3 : first >= 0xC2 ? 2 : 0;
    if (length == 0 || first >= 0xF5 || bytes.size() < length ||
        beginNoCharacter(first, static_cast<unsigned char>(bytes[1])))
        return 0;
    for (std::size_t place = 1; place < length; ++place) {
        if ((static_cast<unsigned char>(bytes[place]) & 0xC0) != 0x80)
            return 0;
    }
    return length;
}

/// Writes as many digits of a number as there is place for.
void putNumber(std::string& text, std::size_t place, std::size_t digits, Milliseconds number)
{
    for (std::size_t digit = place + digits; digit > place; number /= 10)
        text[--digit] = static_cast<char>('0' + number % 10);
}

} // namespace

std::string clockText(Milliseconds time)
{
    const Milliseconds ofDay = (time % DAY + DAY) % DAY;
    std::string text = "00:00:00.000";
    putNumber(text, 0, 2, ofDay / (3600 * SECOND));
    putNumber(text, 3, 2, ofDay / (60 * SECOND) % 60);
    putNumber(text, 6, 2, ofDay / SECOND % 60);
    putNumber(text, 9, 3, ofDay % SECOND);
    return text;
}

Milliseconds timeOfYear(int year)
{
    return Milliseconds{year} * DAYS_OF_YEAR * DAY;
}

std::string dateText(Milliseconds time)
{
    const auto days = static_cast<int>(time / DAY);
    const int year = days / DAYS_OF_YEAR;
    const int ofYear = days % DAYS_OF_YEAR;
    std::string text = year != 0 ? "0000-00-00" : "00-00";
    if (year != 0)
        putNumber(text, 0, 4, year);
    putNumber(text, text.size() - 5, 2, ofYear / DAYS_OF_MONTH);
    putNumber(text, text.size() - 2, 2, ofYear % DAYS_OF_MONTH + 1);
    return text;
}

bool parseLine(std::string_view whole, LogLine& line)
{
    if (whole.size() < PREFIX_SIZE || !hasShape(whole))
        return false;
    const auto* const tag = std::ranges::find(TAGS, whole.substr(SHAPE.size(), TAG_SIZE), &Tag::text);
    if (tag == std::end(TAGS))
        return false;
    line.day = twoDigits(whole, 0);
    line.month = twoDigits(whole, 3);
    line.time = timeOf(whole, line.month, line.day);
    line.level = tag->level;
    line.text = whole.substr(PREFIX_SIZE);
    return true;
}

bool isText(std::string_view bytes)
{
    // Most lines are plain: one pass without a branch for each byte.
    unsigned char odd = 0;
    for (const char each : bytes) {
        const auto byte = static_cast<unsigned char>(each);
        odd |=
            static_cast<unsigned char>((byte & 0x80) | (byte < 0x20 && byte != '\t' ? 1 : 0) | (byte == 0x7F ? 1 : 0));
    }
    if (odd == 0)
        return true;
    while (!bytes.empty()) {
        const auto byte = static_cast<unsigned char>(bytes.front());
        const bool isPlain = (byte >= 0x20 && byte < 0x7F) || byte == '\t';
        const std::size_t length = isPlain ? 1 : sequenceLength(bytes);
        if (length == 0)
            return false;
        bytes.remove_prefix(length);
    }
    return true;
}

std::optional<Milliseconds> firstTime(const std::filesystem::path& path)
{
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        return std::nullopt; // What a pipe gives is gone then.
    std::ifstream file(path, std::ios::binary);
    std::string beginning(SMALL_BUFFER, '\0');
    file.read(beginning.data(), static_cast<std::streamsize>(beginning.size()));
    beginning.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
    std::istringstream lines(beginning);
    LogLine line;
    for (std::string each; std::getline(lines, each);) {
        if (parseLine(each, line))
            return line.time;
    }
    return std::nullopt;
}

LogReader::LogReader(std::filesystem::path path, std::size_t bufferSize)
    : path_(std::move(path)), bufferSize_(bufferSize)
{
}

void LogReader::open()
{
    isNew_ = false;
    file_.reset();
    place_ = 0;
    begin_ = end_ = 0;
    skipping_ = false;
    std::error_code error;
    const auto status = std::filesystem::status(path_, error);
    if (!error && std::filesystem::is_directory(status))
        error = std::make_error_code(std::errc::is_a_directory);
    else if (!error)
        file_.reset(std::fopen(path_.string().c_str(), "rb"));
    if (!error && !file_)
        error = std::error_code(errno, std::generic_category());
    if (file_)
        std::setvbuf(file_.get(), nullptr, _IONBF, 0);
    notes_.error = error ? error.message() : "";
}

void LogReader::close()
{
    file_.reset();
    isNew_ = false;
    buffer_ = {};
    begin_ = end_ = 0;
}

bool LogReader::fill()
{
    if (isNew_)
        open();
    if (!file_)
        return false;
    end_ -= begin_;
    if (end_ == bufferSize_)
        bufferSize_ *= 2;
    if (begin_ != 0)
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_);
    begin_ = 0;
    buffer_.resize(bufferSize_);
    const std::size_t count = std::fread(buffer_.data() + end_, 1, buffer_.size() - end_, file_.get());
    if (count == 0 && std::ferror(file_.get()) != 0 && notes_.error.empty())
        notes_.error = std::generic_category().message(errno);
    end_ += count;
    place_ += count;
    notes_.bytes += count;
    return count != 0;
}

/// The next line up to its end, which is left out. The end of an overlong one is passed over.
bool LogReader::nextRaw(std::string_view& raw)
{
    std::size_t searched = 0;
    while (true) {
        const char* start = buffer_.data() + begin_;
        const std::size_t size = end_ - begin_;
        const auto* found =
            size > searched ? static_cast<const char*>(std::memchr(start + searched, '\n', size - searched)) : nullptr;
        if (found != nullptr) {
            raw = {start, static_cast<std::size_t>(found - start)};
            begin_ += raw.size() + 1;
            if (!std::exchange(skipping_, false))
                return true;
            searched = 0;
            continue;
        }
        if (size > LINE_CAPACITY) {
            raw = {start, size};
            begin_ = end_;
            searched = 0;
            if (!std::exchange(skipping_, true)) {
                ++notes_.overlong;
                return true;
            }
            continue;
        }
        searched = size;
        if (!fill())
            return false;
    }
}

bool LogReader::take(std::string_view raw, LogLine& line)
{
    ++notes_.lines;
    if (raw.ends_with('\r')) {
        raw.remove_suffix(1);
        notes_.carriageReturns = true;
    }
    raw = raw.substr(0, LINE_CAPACITY);
    if (!isText(raw))
        ++notes_.wrongBytes;
    const bool isWhole = parseLine(raw, line);
    if (const std::size_t inner = innerLine(raw); inner != std::string_view::npos) {
        ++notes_.cut;
        parseLine(raw.substr(inner), line);
    } else if (!isWhole) {
        // What begins as a line does was cut; all else is of somebody else.
        const bool begins = raw.size() >= 7 && raw[2] == '/' && raw.substr(5, 2) == "::";
        ++(begins ? notes_.cut : notes_.foreign);
        return false;
    }
    line.number = notes_.lines;
    if (line.time + SECOND <= lastTime_)
        ++notes_.backwards;
    lastTime_ = line.time;
    return true;
}

bool LogReader::next(LogLine& line)
{
    std::string_view raw;
    while (nextRaw(raw)) {
        if (!raw.empty() && take(raw, line))
            return true;
    }
    return false;
}

bool LogReader::last(LogLine& line)
{
    const std::string_view raw(buffer_.data() + begin_, end_ - begin_);
    begin_ = end_;
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path_, error);
    notes_.shrunk += !error && size < place_ ? 1U : 0U;
    if (raw.empty() || std::exchange(skipping_, false))
        return false;
    ++notes_.cut;
    const std::uint64_t cut = notes_.cut;
    const bool isWhole = take(raw, line);
    notes_.cut = cut; // Counted once.
    return isWhole;
}

bool LogReader::refresh()
{
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path_, error);
    if (!file_ || error) {
        open();
        return static_cast<bool>(file_);
    }
    if (size < place_) {
        ++notes_.shrunk;
        open(); // Anew: another file may have taken its place.
    } else {
        std::clearerr(file_.get());
        std::fseek(file_.get(), 0, SEEK_CUR); // Or the C runtime of Windows stays at the end.
    }
    return static_cast<bool>(file_);
}

} // namespace velkor::trace
