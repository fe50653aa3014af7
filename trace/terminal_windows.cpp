#include "terminal.h"

#include <cstdlib>

#include <io.h>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace velkor::trace
{

bool isTerminal(std::FILE* file)
{
    return _isatty(_fileno(file)) != 0;
}

int terminalWidth()
{
    if (const int columns = columnsOfEnvironment(); columns > 0)
        return columns;
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info) == 0)
        return 0;
    return info.srWindow.Right - info.srWindow.Left + 1;
}

bool wantsColours()
{
    const char* refused = std::getenv("NO_COLOR");
    HANDLE console = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if ((refused != nullptr && *refused != '\0') || GetConsoleMode(console, &mode) == 0)
        return false;
    SetConsoleOutputCP(CP_UTF8);
    return SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

bool isOfAnotherUser(const std::filesystem::path& /*file*/)
{
    return false;
}

PagedOutput::PagedOutput(bool /*wanted*/) {} // There is none that could be counted on.

PagedOutput::~PagedOutput() = default;

} // namespace velkor::trace
