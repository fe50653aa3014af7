// Statuses of the software key: everything that an operation can answer, and the exception that carries one from where
// it is found to the boundary of the library. `status_rows.h` is the list; docs/softkey.md says what each means.
#pragma once

#include "base/status_rows.h"

#include <exception>
#include <span>
#include <string>

namespace softkey
{

enum class SoftkeyStatus : int {
#define NUMBERED(name, number, text, exitCode) name = (number),
    SOFTKEY_STATUSES(NUMBERED)
#undef NUMBERED
};

/// Exit codes of the tool; its manual page lists them.
enum class ExitCode : int {
    Done = 0,
    Failed = 1,
    Usage = 2,
    PinRefused = 3,
    PinLocked = 4,
    NotFound = 5,
    Exists = 6,
    KeyFileUnusable = 7,
    BadInput = 8,
    NotWritten = 9,
};

struct StatusRow {
    SoftkeyStatus status;
    ExitCode exitCode;
    const char* name;
    const char* text; ///< One line that says what it means.
};
std::span<const StatusRow> statusRows() noexcept;
const StatusRow& rowOf(SoftkeyStatus status) noexcept;

/// Ends an operation with a status. The text never holds PINs, keys or plaintext.
class Refusal : public std::exception
{
public:
    explicit Refusal(SoftkeyStatus status, const std::string& detail = {});

    /// A refused PIN, with the tries left after it.
    static Refusal ofPin(SoftkeyStatus status, int triesLeft);

    SoftkeyStatus status() const noexcept { return status_; }
    int triesLeft() const noexcept { return triesLeft_; } ///< TRIES_UNKNOWN unless a PIN was refused.
    const char* what() const noexcept override { return text_.c_str(); }

    static constexpr int TRIES_UNKNOWN = -1;

private:
    SoftkeyStatus status_;
    int triesLeft_ = TRIES_UNKNOWN;
    std::string text_;
};

/// Goes on after a success; throws `status` for a failure, which by default is one of OpenSSL.
inline void require(bool success, SoftkeyStatus status = SoftkeyStatus::CryptoFailed)
{
    if (!success)
        throw Refusal(status);
}

} // namespace softkey
