#include "tool/secret_input.h"

#include "base/status.h"
#include "platform/quiet_terminal.h"
#include "store/pin_policy.h"
#include "tool/session.h"

#include <algorithm>
#include <cstdlib>
#include <optional>

namespace softkey
{
namespace
{

constexpr std::size_t LINE_MAX_SIZE = 256; // Longer than any PIN.

/// Up to the end of the line, byte by byte: what follows belongs to the next PIN.
template <class Read>
Pin readLine(Read read)
{
    SecretBuffer line(LINE_MAX_SIZE);
    std::size_t size = 0;
    for (unsigned char byte = 0; read(byte) && byte != '\n';) {
        if (byte == '\0') // The library takes PINs as texts that end with it.
            throw Refusal(SoftkeyStatus::BadArgument, "a PIN holds no zero byte");
        if (size == line.size())
            throw Refusal(SoftkeyStatus::PinLength);
        line.data()[size++] = byte;
    }
    if (size > 0 && line.data()[size - 1] == '\r') // A line as Windows ends it.
        --size;
    return Pin({reinterpret_cast<const char*>(line.data()), size});
}

bool isVariableName(const std::string& text)
{
    const auto belongs = [](char character) {
        return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
               (character >= '0' && character <= '9') || character == '_';
    };
    return !text.empty() && (text.front() < '0' || text.front() > '9') && std::ranges::all_of(text, belongs);
}

} // namespace

Pin::Pin(std::string_view text) : bytes_(text.size())
{
    std::copy(text.begin(), text.end(), bytes_.data());
}

Pin::operator std::string_view() const
{
    return {reinterpret_cast<const char*>(bytes_.data()), bytes_.size()};
}

void PinSource::addTo(CLI::App& command)
{
    CLI::Option* variable = command.add_option("--" + option_ + "-env", environmentVariable_,
                                               "Environment variable that holds the " + name_);
    variable->type_name("NAME");
    command.add_option("--" + option_ + "-fd", descriptor_, "File descriptor to read the " + name_ + " from, one line")
        ->type_name("N")
        ->check(CLI::NonNegativeNumber)
        ->excludes(variable);
}

Pin PinSource::fromEnvironment() const
{
    if (!isVariableName(environmentVariable_)) // Perhaps a PIN: not to be shown.
        throw Failure(ExitCode::PinRefused, "--" + option_ + "-env takes the name of an environment variable");
    const char* value = std::getenv(environmentVariable_.c_str());
    if (value == nullptr)
        throw Failure(ExitCode::PinRefused, "environment variable " + environmentVariable_ + " is not set");
    return Pin(value);
}

Pin PinSource::fromDescriptor() const
{
    return readLine([this](unsigned char& byte) {
        try {
            return readByte(descriptor_, byte);
        } catch (const Refusal&) {
            throw Failure(ExitCode::PinRefused,
                          "cannot read the " + name_ + " from file descriptor " + std::to_string(descriptor_));
        }
    });
}

Pin PinSource::fromTerminal(const std::string& prompt) const
{
    std::optional<QuietTerminal> terminal;
    try {
        terminal.emplace();
    } catch (const Refusal&) {
        throw Failure(ExitCode::PinRefused,
                      "no terminal to ask for the " + name_ + " on: use --" + option_ + "-env or --" + option_ + "-fd");
    }
    terminal->say(prompt + ": ");
    Pin pin = readLine([&](unsigned char& byte) { return terminal->read(byte); });
    terminal->say("\n");
    return pin;
}

Pin PinSource::readOnce(const std::string& prompt) const
{
    if (!environmentVariable_.empty())
        return fromEnvironment();
    return descriptor_ >= 0 ? fromDescriptor() : fromTerminal(prompt);
}

Pin PinSource::read() const
{
    return readOnce(name_);
}

void PinSource::confirm(const Pin& pin) const
{
    if (!isGiven() && std::string_view(pin) != std::string_view(readOnce(name_ + " again")))
        throw Failure(ExitCode::PinRefused, "the two entries of the " + name_ + " differ; nothing was changed");
}

Pin PinSource::readTwice() const
{
    Pin pin = readOnce(name_);
    confirm(pin);
    return pin;
}

Pin PinSource::readNew() const
{
    Pin pin = readOnce(name_);
    requirePinLength(pin);
    confirm(pin);
    return pin;
}

} // namespace softkey
