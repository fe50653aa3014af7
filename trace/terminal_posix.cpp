#include "terminal.h"

#include <csignal>
#include <cstdlib>
#include <string>

#include <sys/ioctl.h>
#include <unistd.h>

namespace velkor::trace
{

bool isTerminal(std::FILE* file)
{
    return isatty(fileno(file)) != 0;
}

int terminalWidth()
{
    if (const char* columns = std::getenv("COLUMNS"); columns != nullptr && std::atoi(columns) > 0)
        return std::atoi(columns);
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

bool wantsColours()
{
    const char* terminal = std::getenv("TERM");
    const char* refused = std::getenv("NO_COLOR");
    const bool isRefused = refused != nullptr && *refused != '\0';
    return !isRefused && terminal != nullptr && std::string(terminal) != "dumb" && isTerminal(stdout);
}

PagedOutput::PagedOutput(bool wanted)
{
    const char* program = std::getenv("PAGER");
    const std::string command = program != nullptr ? program : "less";
    if (!wanted || !isTerminal(stdout) || command.empty() || command == "cat")
        return;
    setenv("LESS", "FRX", 0); // It ends by itself where all fits on the screen, and shows colours.
    std::signal(SIGPIPE, SIG_IGN);
    pager_ = popen(command.c_str(), "w");
}

PagedOutput::~PagedOutput()
{
    if (pager_ != nullptr)
        pclose(pager_);
}

} // namespace velkor::trace
