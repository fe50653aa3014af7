// Where PINs come from: an environment variable, a file descriptor, or a prompt without echo. Never the command line,
// which other users can read.
#pragma once

#include "base/secret.h"

#include <CLI/CLI.hpp>

#include <string>
#include <string_view>

namespace softkey
{

/// A PIN in memory, wiped when it is dropped.
class Pin
{
public:
    explicit Pin(std::string_view text);
    operator std::string_view() const;

private:
    SecretBuffer bytes_;
};

/// One PIN that a command needs, with its two options.
class PinSource
{
public:
    /// `option` without dashes, such as "pin"; `name` as the prompt and the help call it.
    PinSource(std::string option, std::string name) : option_(std::move(option)), name_(std::move(name)) {}

    void addTo(CLI::App& command);
    /// Whether one of the options was used.
    bool isGiven() const { return !environmentVariable_.empty() || descriptor_ >= 0; }
    Pin read() const;
    /// A secret that is being set: a prompt asks twice.
    Pin readTwice() const;
    /// The same of a PIN. Throws PinLength for what cannot become one.
    Pin readNew() const;

private:
    Pin readOnce(const std::string& prompt) const;
    void confirm(const Pin& pin) const;
    Pin fromEnvironment() const;
    Pin fromDescriptor() const;
    Pin fromTerminal(const std::string& prompt) const;

    std::string option_;
    std::string name_;
    std::string environmentVariable_;
    int descriptor_ = -1;
};

} // namespace softkey
