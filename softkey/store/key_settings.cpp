#include "store/key_settings.h"

#include "platform/draft.h"
#include "platform/folder_lock.h"
#include "store/pin_policy.h"
#include "store/schema.h"

#include <algorithm>

namespace softkey
{
namespace
{

constexpr std::size_t SERIAL_NUMBER_MAX = 16; // The field of a token's information.
constexpr std::size_t LABEL_MAX = 63;         // A slot's description, with its terminating zero.
constexpr std::size_t MODEL_MAX = 15;
constexpr std::size_t FIRMWARE_MAX = 31;
constexpr int TRIES_MAX = 255;

/// Removes what processes left behind that were killed while they made a key.
void sweepDrafts(const std::filesystem::path& folder)
{
    std::error_code failure;
    std::error_code kept;
    for (std::filesystem::directory_iterator file(folder, failure), end; !failure && file != end;
         file.increment(failure)) {
        const std::filesystem::path& path = file->path();
        if (path.extension() == DRAFT_SUFFIX && path.filename().string().starts_with('.'))
            std::filesystem::remove(path, kept);
    }
}

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

void requireAcceptable(const KeySettings& settings)
{
    const auto demand = [](bool fulfilled, const char* what) {
        if (!fulfilled)
            throw Refusal(SoftkeyStatus::BadArgument, what);
    };
    demand(isSerialNumber(settings.serialNumber), "serial number");
    demand(isPlainText(settings.label, LABEL_MAX), "label");
    demand(isPlainText(settings.model, MODEL_MAX), "model");
    demand(isPlainText(settings.firmwareVersion, FIRMWARE_MAX), "firmware version");
    demand(isAcceptable(settings.userPin), "tries of the user PIN");
    demand(isAcceptable(settings.soPin), "tries of the SO PIN");
    demand(isAcceptable(settings.cost), "scrypt cost");
}

void insertDevice(Database& database, const KeySettings& settings)
{
    Statement(database, "INSERT INTO device (only_row, serial_number, label, model, firmware_version, plugged) "
                        "VALUES (1, ?, ?, ?, ?, 1)")
        .bind(std::string_view(settings.serialNumber))
        .bind(std::string_view(settings.label))
        .bind(std::string_view(settings.model))
        .bind(std::string_view(settings.firmwareVersion))
        .run();
}

PinRecord wrappedPin(PinRole role, const PinSettings& settings, const KeySettings& key, std::string_view pin,
                     Bytes masterKey)
{
    PinRecord record;
    record.role = role;
    record.changed = settings.changed;
    record.triesMax = settings.triesMax;
    record.triesLeft = settings.triesLeft;
    record.cost = key.cost;
    wrapMasterKey(record, pin, masterKey, key.serialNumber);
    return record;
}

} // namespace

void removeKeyFile(const std::filesystem::path& path)
{
    const FolderLock lock(path.parent_path());
    sweepDrafts(path.parent_path());
    takeAway(path);
}

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

void createKeyFile(const std::filesystem::path& folder, const KeySettings& settings, std::string_view userPin,
                   std::string_view soPin)
{
    requireAcceptable(settings);
    requirePinLength(userPin);
    requirePinLength(soPin);
    SecretBytes masterKey(SEALING_KEY_SIZE);
    randomBytes({masterKey.data(), masterKey.size()});
    // Whoever makes or removes a key holds the lock: a draft that is there belongs to nobody any more.
    const FolderLock lock(folder);
    sweepDrafts(folder);
    const Draft draft(folder / ("." + settings.serialNumber + "." + randomSerialNumber() + std::string(DRAFT_SUFFIX)));
    {
        Database database(draft.path(), Database::Mode::Existing);
        // Nobody else sees the draft: it needs no journal and is synchronised once, as a whole.
        database.execute("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF;");
        Transaction transaction(database, Transaction::Kind::Write);
        createSchema(database);
        insertDevice(database, settings);
        insertPin(database, wrappedPin(PinRole::User, settings.userPin, settings, userPin, masterKey));
        insertPin(database, wrappedPin(PinRole::SecurityOfficer, settings.soPin, settings, soPin, masterKey));
        transaction.commit();
    }
    draft.publish(folder / (settings.serialNumber + std::string(KEY_FILE_SUFFIX)));
}

} // namespace softkey
