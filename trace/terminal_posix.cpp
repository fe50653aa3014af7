#include "terminal.h"

#include <csignal>
#include <cstdlib>
#include <string>

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace velkor::trace
{

bool isTerminal(std::FILE* file)
{
    return isatty(fileno(file)) != 0;
}

int terminalWidth()
{
    if (const int columns = columnsOfEnvironment(); columns > 0)
        return columns;
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

bool isOfAnotherUser(const std::filesystem::path& file)
{
    struct stat own {
    };
    struct stat folder {
    };
    const std::filesystem::path place = std::filesystem::absolute(file).parent_path();
    return lstat(file.c_str(), &own) == 0 && stat(place.c_str(), &folder) == 0 && own.st_uid != folder.st_uid &&
           (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

PagedOutput::PagedOutput(bool wanted)
{
    const char* program = std::getenv("PAGER");
    const std::string command = program != nullptr ? program : "less";
    if (!wanted || !isTerminal(stdout) || command.empty() || command == "cat")
        return;
    setenv("LESS", "FRX", 0); // It ends by itself where all fits on the screen, and shows colours.
    std::signal(SIGPIPE, SIG_IGN);
    // One that the shell does not find is gone without.
    pager_ = popen((command + "\n[ $? -ne 127 ] || exec cat").c_str(), "w"); // NOLINT(cert-env33-c): the user's own.
}

PagedOutput::~PagedOutput()
{
    if (pager_ != nullptr)
        pclose(pager_);
}

} // namespace velkor::trace
