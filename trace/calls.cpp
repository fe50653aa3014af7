#include "calls.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "frame/device_status.h"
#include "names.h"

namespace velkor::trace
{
namespace
{

constexpr std::size_t LINES_KEPT = 256;
constexpr std::size_t LINES_EXPECTED = 4;
constexpr std::size_t BYTES_KEPT = std::size_t{128} << 10;
/// Between lines of one refusal, of which the same may also begin the next one.
constexpr Milliseconds AT_ONCE = 5;
/// Between two lines that only follow each other.
constexpr Milliseconds SOON = 1000;

// Made by the build from the module's list of them.
constexpr std::string_view UNSUPPORTED[] = {
#define UNSUPPORTED_FUNCTION(name) #name,
#include "unsupported.inc"
#undef UNSUPPORTED_FUNCTION
};

CK_RV codeOf(const KnownText& known)
{
    switch (known.row->code) {
    case CODE_OF_STATUS:
        return codeOfDeviceStatus(static_cast<int>(numberOf(known.value("status")).value_or(0)));
    case CODE_OF_RETRY_COUNT:
        return known.value("tries") == "0" ? CKR_PIN_LOCKED : CKR_PIN_INCORRECT;
    case CODE_IN_TEXT:
        return static_cast<CK_RV>(numberOf(known.value("code")).value_or(CODE_UNKNOWN));
    default:
        return known.row->code;
    }
}

void setOutcome(Call& call, const KnownText& known)
{
    if (known.row == nullptr)
        return;
    switch (known.row->kind) {
    case TextKind::Refusal:
    case TextKind::QuietRefusal:
        call.outcome = Outcome::Refused;
        call.code = codeOf(known);
        return;
    case TextKind::Warning:
        if (call.outcome == Outcome::NoRefusalSeen)
            call.outcome = Outcome::Warned;
        return;
    default:
        break;
    }
    const auto code = numberOf(known.value("code")); // Of "Login end result", which may be the only word of a refusal.
    if (code && *code != CKR_OK && call.outcome != Outcome::Refused) {
        call.outcome = Outcome::Refused;
        call.code = static_cast<CK_RV>(*code);
    }
}

bool isPerItem(const TextRow& row)
{
    constexpr std::string_view PER_ITEM[] = {"{attribute}",           "{size}",      "{name}",
                                             "imported successfully", "modulusBits", "{keytype}"};
    return std::ranges::any_of(PER_ITEM,
                               [&](std::string_view each) { return row.pattern.find(each) != std::string_view::npos; });
}

/// Whether a call may write lines of this row more than once.
bool mayRepeat(const TextRow& row)
{
    static const PerRow<bool> perItem(isPerItem);
    return row.kind != TextKind::Note || perItem[row];
}

/// The function that a line without an entry line is of; empty when several write it.
std::string_view functionOf(const KnownText& known)
{
    if (!known.function.empty() || known.row == nullptr)
        return known.function;
    const std::string_view functions = known.row->functions;
    return functions.find(' ') == std::string_view::npos ? functions : std::string_view();
}

/// The one function that says with its last line that it did what it was to do, and says nothing of most refusals.
bool endedSilently(const Call& call)
{
    constexpr std::string_view DONE = "C_DeriveKey: done";
    return call.function == "C_DeriveKey" && call.hasEntry && !call.isMixed && call.linesLeftOut == 0 &&
           call.outcome == Outcome::NoRefusalSeen &&
           std::ranges::none_of(call.lines, [&](const CallLine& line) { return line.text.starts_with(DONE); });
}

} // namespace

std::optional<Milliseconds> Call::duration() const
{
    if (!hasEntry)
        return std::nullopt;
    const Milliseconds last = outcome == Outcome::Refused && lines.size() > 1 ? end : next.value_or(end);
    return std::max<Milliseconds>(last - start, 0);
}

const CallLine* Call::refusal() const
{
    const auto isRefusal = [](const CallLine& line) {
        return line.row != nullptr && (line.row->kind == TextKind::Refusal || line.row->kind == TextKind::QuietRefusal);
    };
    const auto last = std::find_if(lines.rbegin(), lines.rend(), isRefusal);
    return last != lines.rend() ? &*last : nullptr;
}

bool isUnsupported(std::string_view function)
{
    return std::ranges::find(UNSUPPORTED, function) != std::end(UNSUPPORTED);
}

void CallBuilder::begin(const LogLine& line, std::string_view function, bool isEntry)
{
    current_.emplace();
    current_->program = program_;
    current_->function = function;
    current_->hasEntry = isEntry;
    current_->start = line.time;
    current_->lines.reserve(LINES_EXPECTED);
}

void CallBuilder::append(Call& call, const LogLine& line)
{
    if (known_.row != nullptr && !mayRepeat(*known_.row) &&
        std::ranges::find(call.lines, known_.row, &CallLine::row) != call.lines.end())
        call.isMixed = true; // Two threads are in this function.
    setOutcome(call, known_);
    const bool isUnknownError = known_.row == nullptr && line.level == Level::Error;
    if (isUnknownError && call.outcome == Outcome::NoRefusalSeen) {
        call.outcome = Outcome::Refused; // As nearly all error lines say.
        call.code = CODE_UNKNOWN;
    }
    call.end = std::max(call.end, line.time);
    if (call.lines.size() >= LINES_KEPT || call.bytes >= BYTES_KEPT) {
        ++call.linesLeftOut;
        return;
    }
    call.lines.push_back({line.time, line.level, std::string(line.text), known_.row, line.number});
    call.bytes += line.text.size();
}

/// A line beside the call in progress.
void CallBuilder::addLone(const LogLine& line, bool isMonitor)
{
    Call lone;
    lone.program = program_;
    lone.function = isMonitor ? std::string_view() : functionOf(known_);
    lone.isMonitor = isMonitor;
    lone.isMixed = !isMonitor;
    lone.start = lone.end = line.time;
    append(lone, line);
    ++notes_.calls;
    notes_.mixed += lone.isMixed ? 1U : 0U;
    if (current_ && meanwhile_.size() < LINES_KEPT)
        meanwhile_.push_back(std::move(lone));
    else
        ready_.push_back(std::move(lone));
}

/// A refusal in more than one line.
bool CallBuilder::continuesRefusal(const LogLine& line) const
{
    if (known_.row == nullptr || current_->lines.empty() || current_->function != "C_Login")
        return false;
    const CallLine& last = current_->lines.back();
    if (last.row == nullptr || !(current_->hasEntry || line.time - last.time <= SOON))
        return false;
    if (known_.row->kind == TextKind::Note)
        return current_->hasEntry && isTextOf(known_, "C_Login");
    const bool countsTries =
        known_.row->code == CODE_OF_RETRY_COUNT && last.row->pattern == "Token password validation failed : {status}";
    const bool isAtOnce = current_->hasEntry || line.time - last.time <= AT_ONCE;
    const bool standsAgainst =
        isAtOnce && known_.row == last.row &&
        (known_.row->code == CKR_SESSION_READ_ONLY_EXISTS || known_.row->code == CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
    return countsTries || standsAgainst;
}

bool CallBuilder::belongs(const LogLine& line) const
{
    if (!current_)
        return false;
    if (current_->outcome == Outcome::Refused)
        return continuesRefusal(line);
    if (!current_->hasEntry && line.level == Level::Error)
        return false;
    return isTextOf(known_, current_->function);
}

void CallBuilder::addText(const LogLine& line)
{
    if (known_.row == nullptr)
        ++notes_.unknownTexts;
    if (belongs(line))
        return append(*current_, line);
    if (current_ && !current_->next)
        current_->next = line.time;
    // The front writes its lines while a call of the module may be open.
    const bool isOfFront = known_.row != nullptr && known_.row->source == TextSource::Strict;
    if (current_ && current_->hasEntry && current_->outcome != Outcome::Refused && !isOfFront) {
        current_->isMixed = true;
        return addLone(line, false);
    }
    complete();
    begin(line, functionOf(known_), false);
    append(*current_, line);
}

void CallBuilder::add(const LogLine& line)
{
    findText(line.text, known_);
    const bool isFunctionAlone = !known_.function.empty() && known_.function.size() == line.text.size();
    const bool isEntry = isFunctionAlone && line.level == Level::Debug;
    if (isEntry)
        known_.row = nullptr;
    if (!isEntry && known_.row != nullptr && known_.row->kind == TextKind::Monitor) {
        if (current_ && !current_->next)
            current_->next = line.time;
        return addLone(line, true);
    }
    if (!isEntry)
        return addText(line);
    if (current_ && !current_->next)
        current_->next = line.time;
    complete();
    begin(line, known_.function, true);
    append(*current_, line);
}

void CallBuilder::complete()
{
    if (!current_)
        return;
    if (current_->hasEntry && current_->lines.size() == 1 && isUnsupported(current_->function)) {
        current_->outcome = Outcome::Refused;
        current_->code = CKR_FUNCTION_NOT_SUPPORTED;
    } else if (endedSilently(*current_)) {
        current_->outcome = Outcome::Silent;
    }
    ++notes_.calls;
    notes_.mixed += current_->isMixed ? 1U : 0U;
    ready_.push_back(std::move(*current_));
    current_.reset();
    std::ranges::move(meanwhile_, std::back_inserter(ready_));
    meanwhile_.clear();
}

void CallBuilder::finish()
{
    complete();
}

bool CallBuilder::take(Call& call)
{
    if (ready_.empty())
        return false;
    call = std::move(ready_.front());
    ready_.pop_front();
    return true;
}

} // namespace velkor::trace
