// Calls as one page for a browser: a timeline by program that can be searched, with nothing from elsewhere.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "calls.h"
#include "summary.h"

namespace velkor::trace
{

class HtmlPage
{
public:
    /// Writes to a file that is open; what cannot be written is told by `finish`.
    explicit HtmlPage(std::FILE* file);

    /// Calls beyond a number that browsers can show are counted only.
    void add(const Call& call);
    /// Ends the page with what the summary says. False when not all of it could be written.
    bool finish(const Summary& summary);

private:
    void write(const std::string& text);

    std::FILE* file_;
    std::uint64_t calls_ = 0;
    bool isWhole_ = true;
};

} // namespace velkor::trace
