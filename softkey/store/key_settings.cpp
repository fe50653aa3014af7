#include "store/key_settings.h"

#include "crypto/openssl.h"

#include <algorithm>
#include <array>

namespace softkey
{
namespace
{

constexpr std::size_t SERIAL_NUMBER_MAX = 16; // The field of a token's information.
constexpr std::size_t LABEL_MAX = 63;         // A slot's description, with its terminating zero.
constexpr std::size_t MODEL_MAX = 15;
constexpr std::size_t FIRMWARE_MAX = 31;
constexpr int TRIES_MAX = 255;

bool isPlainText(std::string_view text, std::size_t sizeMax)
{
    return text.size() <= sizeMax && std::none_of(text.begin(), text.end(), [](char character) {
               const auto byte = static_cast<unsigned char>(character);
               return byte < 0x20 || byte == 0x7f;
           });
}

bool isAcceptable(const PinSettings& pin)
{
    return pin.triesMax >= 1 && pin.triesMax <= TRIES_MAX && pin.triesLeft >= 0 && pin.triesLeft <= pin.triesMax;
}

} // namespace

bool isSerialNumber(std::string_view text)
{
    const auto isAllowed = [](char character) {
        return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
               (character >= '0' && character <= '9') || character == '-' || character == '_' || character == '.';
    };
    return !text.empty() && text.size() <= SERIAL_NUMBER_MAX && text.front() != '.' &&
           std::all_of(text.begin(), text.end(), isAllowed);
}

std::string randomSerialNumber()
{
    std::array<unsigned char, 5> bytes{};
    randomBytes(bytes);
    std::string text = "SK";
    for (const unsigned char byte : bytes) {
        text += "0123456789ABCDEF"[byte >> 4];
        text += "0123456789ABCDEF"[byte & 15];
    }
    return text;
}

void requireAcceptable(const KeySettings& settings)
{
    const auto demand = [](bool fulfilled, const char* what) {
        if (!fulfilled)
            throw Refusal(SoftkeyStatus::BadArgument, what);
    };
    demand(isSerialNumber(settings.serialNumber),
           "a serial number has 1 to 16 letters, digits, '-', '_' and '.', and begins with no '.'");
    demand(isPlainText(settings.label, LABEL_MAX), "a label has up to 63 bytes and no control characters");
    demand(isPlainText(settings.model, MODEL_MAX), "a model has up to 15 bytes and no control characters");
    demand(isPlainText(settings.firmwareVersion, FIRMWARE_MAX),
           "a firmware version has up to 31 bytes and no control characters");
    demand(isAcceptable(settings.userPin), "the user PIN has 1 to 255 tries, and no more left than that");
    demand(isAcceptable(settings.soPin), "the SO PIN has 1 to 255 tries, and no more left than that");
    demand(isAcceptable(settings.cost), "scrypt cost");
}

} // namespace softkey
