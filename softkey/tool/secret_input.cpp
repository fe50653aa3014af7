#include "tool/secret_input.h"

#include "base/status.h"
#include "platform/quiet_terminal.h"

#include <algorithm>
#include <cstdlib>

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
    return Pin({reinterpret_cast<const char*>(line.data()), size});
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

Pin PinSource::readOnce(const std::string& prompt) const
{
    if (!environmentVariable_.empty()) {
        const char* value = std::getenv(environmentVariable_.c_str());
        if (value == nullptr)
            throw Refusal(SoftkeyStatus::PinRequired, "environment variable " + environmentVariable_ + " is not set");
        return Pin(value);
    }
    if (descriptor_ >= 0)
        return readLine([this](unsigned char& byte) { return readByte(descriptor_, byte); });
    const QuietTerminal terminal;
    terminal.say(prompt + ": ");
    Pin pin = readLine([&](unsigned char& byte) { return terminal.read(byte); });
    terminal.say("\n");
    return pin;
}

Pin PinSource::read() const
{
    return readOnce(name_);
}

Pin PinSource::readNew() const
{
    Pin pin = readOnce(name_);
    const bool fromPrompt = environmentVariable_.empty() && descriptor_ < 0;
    if (fromPrompt && std::string_view(pin) != std::string_view(readOnce(name_ + " again")))
        throw Refusal(SoftkeyStatus::PinRequired, "the two entries differ");
    return pin;
}

void warnOfShortPin(std::string_view pin, const char* name)
{
    constexpr std::size_t ENOUGH = 8;
    if (pin.size() < ENOUGH)
        std::fprintf(stderr,
                     "velkor-softkey: warning: the %s is shorter than %zu characters: whoever gets the key's "
                     "file can try them all\n",
                     name, ENOUGH);
}

} // namespace softkey
