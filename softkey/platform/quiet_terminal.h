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

/// The next byte of the C runtime's descriptor; false at its end. Throws PinRequired when reading fails.
bool readByte(int descriptor, unsigned char& byte);

/// What would end the program ends the reading, and never leaves the terminal silent.
class QuietTerminal
{
public:
    /// Throws PinRequired when there is no terminal.
    QuietTerminal();
    ~QuietTerminal();
    QuietTerminal(const QuietTerminal&) = delete;
    QuietTerminal& operator=(const QuietTerminal&) = delete;

    void say(std::string_view text) const;
    /// The next byte of what is typed, in UTF-8 on Windows; false at its end. Throws PinRequired when reading fails or
    /// is interrupted.
    bool read(unsigned char& byte) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace softkey
