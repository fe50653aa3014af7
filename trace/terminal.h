// What the program asks of the operating system, beside what the module's platform has: whether the output is a
// terminal, how wide that is, a pager, and whose files are.
#pragma once

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace velkor::trace
{

bool isTerminal(std::FILE* file);

/// Columns of the terminal on standard output; 0 where it does not tell. COLUMNS wins.
int terminalWidth();

/// What COLUMNS says; 0 where it says nothing.
inline int columnsOfEnvironment()
{
    const char* text = std::getenv("COLUMNS");
    int columns = 0;
    if (text != nullptr)
        std::from_chars(text, text + std::strlen(text), columns);
    return columns;
}

/// Whether colours are wanted: on a terminal that can show them, unless NO_COLOR is set.
bool wantsColours();

/// Whether a file belongs to another user than its folder, into which nobody else may write. There are no such files
/// on Windows, where rights do not follow from who a file belongs to.
bool isOfAnotherUser(const std::filesystem::path& file);

/// Standard output, through a pager where it is a terminal: the program of PAGER, else less, as git takes them.
class PagedOutput
{
public:
    explicit PagedOutput(bool wanted);
    ~PagedOutput(); // NOLINT(performance-trivially-destructible): not where there is a pager.
    PagedOutput(const PagedOutput&) = delete;
    PagedOutput& operator=(const PagedOutput&) = delete;

    std::FILE* file() const { return pager_ != nullptr ? pager_ : stdout; }

private:
    std::FILE* pager_ = nullptr;
};

} // namespace velkor::trace
