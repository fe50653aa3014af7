#include "platform/quiet_terminal.h"

#include "base/secret.h"
#include "base/status.h"

#include <algorithm>
#include <atomic>
#include <io.h>
#include <windows.h>

namespace softkey
{

bool isTerminal(int descriptor)
{
    // Not by the C runtime, to which every device is one.
    DWORD mode = 0;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): so the C runtime gives them.
    return GetConsoleMode(reinterpret_cast<HANDLE>(_get_osfhandle(descriptor)), &mode) != 0;
}

bool readByte(int descriptor, unsigned char& byte)
{
    const int count = _read(descriptor, &byte, 1);
    if (count < 0)
        throw Refusal(SoftkeyStatus::PinRequired, "the PIN cannot be read");
    return count > 0;
}

constexpr std::size_t LINE_MAX_SIZE = 256; // In characters; what is longer comes in pieces.

struct QuietTerminal::State {
    HANDLE input = INVALID_HANDLE_VALUE;
    HANDLE output = INVALID_HANDLE_VALUE;
    SecretBuffer line{4 * LINE_MAX_SIZE}; ///< What was typed, as UTF-8.
    std::size_t next = 0;
    std::size_t end = 0;
};

namespace
{

// Of the console, for the handler: it runs in a thread of its own while the program is ended.
std::atomic<HANDLE> quietInput{nullptr};
std::atomic<DWORD> modeBefore{0};

BOOL WINAPI restoreEcho(DWORD)
{
    SetConsoleMode(quietInput, modeBefore);
    return FALSE; // What ends the program comes next.
}

HANDLE openConsole(const wchar_t* name)
{
    return CreateFileW(name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                       0, nullptr);
}

} // namespace

QuietTerminal::QuietTerminal() : state_(std::make_unique<State>())
{
    state_->input = openConsole(L"CONIN$");
    DWORD mode = 0;
    if (GetConsoleMode(state_->input, &mode) == 0)
        throw Refusal(SoftkeyStatus::PinRequired, "there is no terminal to ask on");
    state_->output = openConsole(L"CONOUT$");
    quietInput = state_->input;
    modeBefore = mode;
    SetConsoleCtrlHandler(restoreEcho, TRUE);
    FlushConsoleInputBuffer(state_->input);
    SetConsoleMode(state_->input, (mode | ENABLE_LINE_INPUT | ENABLE_PROCESSED_INPUT) & ~DWORD{ENABLE_ECHO_INPUT});
}

QuietTerminal::~QuietTerminal()
{
    SetConsoleMode(state_->input, modeBefore);
    SetConsoleCtrlHandler(restoreEcho, FALSE);
    CloseHandle(state_->input);
    CloseHandle(state_->output);
}

void QuietTerminal::say(std::string_view text) const
{
    DWORD written = 0;
    WriteFile(state_->output, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

bool QuietTerminal::read(unsigned char& byte) const
{
    State& state = *state_;
    if (state.next == state.end) {
        SecretBuffer typed(LINE_MAX_SIZE * sizeof(wchar_t));
        auto* characters = reinterpret_cast<wchar_t*>(typed.data());
        DWORD count = 0;
        // Nothing comes when Ctrl-C is pressed; the program ends then, or will soon.
        if (ReadConsoleW(state.input, characters, static_cast<DWORD>(LINE_MAX_SIZE), &count, nullptr) == 0 ||
            count == 0)
            throw Refusal(SoftkeyStatus::PinRequired, "interrupted");
        // The line ends with CR and LF, like no PIN.
        const auto last = std::remove(characters, characters + count, L'\r');
        state.end = static_cast<std::size_t>(WideCharToMultiByte(
            CP_UTF8, 0, characters, static_cast<int>(last - characters), reinterpret_cast<char*>(state.line.data()),
            static_cast<int>(state.line.size()), nullptr, nullptr));
        state.next = 0;
    }
    if (state.next == state.end)
        return false;
    byte = state.line.data()[state.next++];
    return true;
}

} // namespace softkey
