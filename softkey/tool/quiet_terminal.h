// The terminal that the user sits at, with its echo off: where a PIN is asked for.
#pragma once

#include <memory>
#include <string_view>

namespace softkey
{

inline constexpr int STANDARD_INPUT = 0;
inline constexpr int STANDARD_ERROR = 2;

/// Whether the C runtime's descriptor is a terminal.
bool isTerminal(int descriptor);

/// Signals that would end the program wait until the echo is back, so that none of them leaves the terminal silent;
/// the first of them ends the reading.
class QuietTerminal
{
public:
    /// Throws PinRequired when there is no terminal.
    QuietTerminal();
    ~QuietTerminal();
    QuietTerminal(const QuietTerminal&) = delete;
    QuietTerminal& operator=(const QuietTerminal&) = delete;

    void say(std::string_view text) const;
    /// What is typed is read from it, byte by byte.
    int descriptor() const;
    /// Waits until input, or its end, can be read. Throws PinRequired when a signal came.
    void awaitInput() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace softkey
