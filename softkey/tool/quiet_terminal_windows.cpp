#include "tool/quiet_terminal.h"

#include "status.h"

#include <atomic>
#include <fcntl.h>
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

struct QuietTerminal::State {
    HANDLE input = INVALID_HANDLE_VALUE;
    HANDLE output = INVALID_HANDLE_VALUE;
    int descriptor = -1; ///< Of the input.
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
    state_->descriptor = _open_osfhandle(reinterpret_cast<std::intptr_t>(state_->input), _O_RDONLY | _O_TEXT);
    quietInput = state_->input;
    modeBefore = mode;
    SetConsoleCtrlHandler(restoreEcho, TRUE);
    SetConsoleMode(state_->input, (mode | ENABLE_LINE_INPUT | ENABLE_PROCESSED_INPUT) & ~DWORD{ENABLE_ECHO_INPUT});
}

QuietTerminal::~QuietTerminal()
{
    SetConsoleMode(state_->input, modeBefore);
    SetConsoleCtrlHandler(restoreEcho, FALSE);
    _close(state_->descriptor); // The handle with it.
    CloseHandle(state_->output);
}

void QuietTerminal::say(std::string_view text) const
{
    DWORD written = 0;
    WriteFile(state_->output, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

int QuietTerminal::descriptor() const
{
    return state_->descriptor;
}

void QuietTerminal::awaitInput() const {} // What would interrupt the reading ends the program.

} // namespace softkey
