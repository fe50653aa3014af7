// Commands about keys as a whole: create, plug, unplug, remove, verify, backup, restore.
#include "platform/quiet_terminal.h"
#include "tool/activity.h"
#include "tool/secret_input.h"
#include "tool/session.h"

#include "store/authenticity.h"
#include "store/backup.h"
#include "store/key_creation.h"
#include "store/schema.h"

#include <iostream>
#include <optional>

namespace softkey
{
namespace
{

using nlohmann::json;

struct CreateOptions {
    KeySettings settings;
    std::optional<std::string> label;
    int triesLeft = -1;
    int soTriesLeft = -1;
    bool initialPin = false;
    bool initialSoPin = false;
    PinSource pin{"pin", "user PIN"};
    PinSource soPin{"so-pin", "SO PIN"};
};

void warnOfShortPin(const Session& session, std::string_view pin, const std::string& name)
{
    constexpr std::size_t ENOUGH = 8;
    if (pin.size() < ENOUGH)
        session.warn("the " + name + " is shorter than " + std::to_string(ENOUGH) +
                     " characters: whoever gets the key's file can try them all");
}

/// The settings with what the options leave open; throws for what no key can be made of.
KeySettings acceptable(const CreateOptions& options)
{
    KeySettings settings = options.settings;
    if (settings.serialNumber.empty())
        settings.serialNumber = randomSerialNumber();
    // Tells one key from another where a host shows labels alone; both together are just as long as a token's label.
    settings.label = options.label.value_or(settings.label + ' ' + settings.serialNumber);
    settings.userPin.triesLeft = options.triesLeft >= 0 ? options.triesLeft : settings.userPin.triesMax;
    settings.soPin.triesLeft = options.soTriesLeft >= 0 ? options.soTriesLeft : settings.soPin.triesMax;
    settings.userPin.changed = !options.initialPin;
    settings.soPin.changed = !options.initialSoPin;
    requireAcceptable(settings);
    return settings;
}

void create(Session& session, const CreateOptions& options)
{
    const KeySettings settings = acceptable(options);
    const std::filesystem::path folder = session.folder();
    const std::filesystem::path path = folder / (settings.serialNumber + std::string(KEY_FILE_SUFFIX));
    require(!std::filesystem::exists(path), SoftkeyStatus::AlreadyExists);
    const Pin pin = options.pin.readNew();
    const Pin soPin = options.soPin.readNew();
    warnOfShortPin(session, pin, "user PIN");
    warnOfShortPin(session, soPin, "SO PIN");
    {
        const Activity activity(session, "making the key");
        createKeyFile(folder, settings, pin, soPin);
    }
    session.print({{"serial", settings.serialNumber}, {"label", settings.label}, {"file", path.string()}},
                  settings.serialNumber);
}

void addCreate(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("create", "Make a new software key and plug it in");
    const auto options = std::make_shared<CreateOptions>();
    KeySettings& settings = options->settings;
    command->add_option("--serial", settings.serialNumber, "Serial number, up to 16 characters (default: random)");
    command->add_option("--label", options->label, "Label (default: " + settings.label + " and the serial number)");
    command->add_option("--model", settings.model, "Model; '1' as third character: not FIPS 140-3")
        ->capture_default_str();
    command->add_option("--firmware", settings.firmwareVersion, "Firmware version")->capture_default_str();
    command->add_option("--tries", settings.userPin.triesMax, "Tries of the user PIN")->capture_default_str();
    command->add_option("--tries-left", options->triesLeft, "Tries that are left of them (default: all)")
        ->check(CLI::NonNegativeNumber);
    command->add_option("--so-tries", settings.soPin.triesMax, "Tries of the SO PIN")->capture_default_str();
    command->add_option("--so-tries-left", options->soTriesLeft, "Tries that are left of them (default: all)")
        ->check(CLI::NonNegativeNumber);
    CLI::Option* initial =
        command->add_flag("--initial-pin", options->initialPin, "The user PIN is to be changed by its owner");
    CLI::Option* soInitial =
        command->add_flag("--initial-so-pin", options->initialSoPin, "The SO PIN is to be changed by its owner");
    // What was not the rule once; scripts may still say it.
    command->add_flag("--pin-changed")->group("")->excludes(initial);
    command->add_flag("--so-pin-changed")->group("")->excludes(soInitial);
    command->add_option("--scrypt-cost", settings.cost.logN, "Cost of checking a PIN, as a power of two")
        ->capture_default_str()
        ->check(CLI::Range(SCRYPT_LOG_N_MIN, SCRYPT_LOG_N_MAX));
    command->add_flag("--bind-to-machine", settings.boundToMachine,
                      "Make the key useless without a secret of this machine, which no backup of the key holds");
    options->pin.addTo(*command);
    options->soPin.addTo(*command);
    command->callback([&session, options] { create(session, *options); });
}

/// A command that takes a serial number and nothing else.
template <class Work>
void addCommandOnKey(CLI::App& app, const char* name, const char* description, Work work)
{
    CLI::App* command = app.add_subcommand(name, description);
    const auto serialNumber = std::make_shared<std::string>();
    addSerialNumber(*command, *serialNumber);
    command->callback([serialNumber, work] { work(*serialNumber); });
}

void confirmRemoval(const std::string& serialNumber)
{
    if (!isTerminal(STANDARD_INPUT))
        throw Refusal(SoftkeyStatus::BadArgument, "removing a key needs --yes");
    std::cerr << "This destroys all keys on it. Type " << serialNumber << " to remove it: ";
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != serialNumber)
        throw Refusal(SoftkeyStatus::BadArgument, "not removed");
}

void remove(Session& session, const std::string& serialNumber, bool confirmed)
{
    const std::filesystem::path path = session.key(serialNumber)->file().path();
    if (!confirmed)
        confirmRemoval(serialNumber);
    session.keys().close(); // Windows does not remove an open file.
    removeKeyFile(path);
    session.print({{"serial", serialNumber}}, serialNumber + " removed");
}

void addRemove(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("remove", "Destroy a key and everything on it");
    const auto serialNumber = std::make_shared<std::string>();
    const auto confirmed = std::make_shared<bool>(false);
    addSerialNumber(*command, *serialNumber);
    command->add_flag("--yes", *confirmed, "Do not ask");
    command->callback([&session, serialNumber, confirmed] { remove(session, *serialNumber, *confirmed); });
}

/// What a look at a key has found, part by part.
class Findings
{
public:
    void add(const std::string& part, bool whole)
    {
        put(part, whole, whole ? "whole" : "damaged or changed by somebody else");
        isDamaged_ = isDamaged_ || !whole;
    }
    /// A part that nothing can be said of, and why.
    void addUnknown(const std::string& part, const std::string& reason)
    {
        put(part, nullptr, reason);
        isUnknown_ = true;
    }
    /// Throws FileDamaged when anything is.
    void print(const Session& session, const std::string& serialNumber) const
    {
        const json whole = isUnknown_ && !isDamaged_ ? json(nullptr) : json(!isDamaged_);
        session.print({{"serial", serialNumber}, {"whole", whole}, {"parts", parts_}},
                      lines_.substr(0, lines_.size() - 1));
        require(!isDamaged_, SoftkeyStatus::FileDamaged);
    }

private:
    void put(const std::string& part, const json& whole, const std::string& text)
    {
        parts_.push_back({{"part", part}, {"whole", whole}});
        lines_.append(part).append(": ").append(text).append("\n");
    }

    json parts_ = json::array();
    std::string lines_;
    bool isDamaged_ = false;
    bool isUnknown_ = false;
};

bool opens(Database& database, const Contents& contents, const VelkorKeyPair& keyPair, Bytes masterKey)
{
    try {
        loadPrivateKey(database, keyPair, masterKey, contents.device.serialNumber);
        return true;
    } catch (const Refusal&) {
        return false;
    }
}

/// Looks at what the file says at one moment. False when its PIN or master key were changed since the PIN was checked.
bool lookInside(KeyFile& file, const CheckedPin& checked, Findings& findings)
{
    bool isSame = false;
    file.read([&](Database& database) {
        const Contents contents = readContents(database);
        isSame = contents.userPin.salt == checked.record.salt;
        if (!isSame)
            return;
        findings.add("contents", areAuthentic(contents, checked.masterKey));
        for (const VelkorKeyPair& keyPair : contents.keyPairs)
            findings.add("key pair " + std::to_string(keyPair.id),
                         opens(database, contents, keyPair, checked.masterKey));
    });
    return isSame;
}

bool isSoundWithoutPin(KeyFile& file)
{
    try {
        file.reload(*file.contents());
        return true;
    } catch (const Refusal& refusal) {
        if (refusal.status() != SoftkeyStatus::FileDamaged)
            throw;
        return false;
    }
}

/// A file of another layout, or one without tables, says no more than that it is damaged.
void addRecords(KeyFile& file, Findings& findings)
{
    try {
        file.read([&](Database& database) {
            if (layoutOf(database) != SCHEMA_VERSION)
                return;
            for (const RecordFinding& finding : lookAtRecords(database))
                findings.add(finding.record, finding.isSound);
        });
    } catch (const Refusal&) {
        return;
    }
}

void verify(Session& session, const std::string& serialNumber, const PinSource& pin)
{
    constexpr const char* INSIDE = "contents and private keys";
    const std::shared_ptr<SoftKey> key = session.key(serialNumber);
    KeyFile& file = key->file();
    Findings findings;
    const bool isSound = isSoundWithoutPin(file);
    findings.add("file", isSound);
    if (!isSound) {
        addRecords(file, findings);
        findings.addUnknown(INSIDE, "cannot be looked at in a damaged file");
    } else if (!pin.isGiven()) {
        findings.addUnknown(INSIDE, "not looked at without the PIN");
    } else {
        const Pin given = pin.read();
        const Activity activity(session, "checking the PIN and the private keys");
        while (!lookInside(file, checkPinAlone(file, PinRole::User, given), findings)) {
        }
    }
    findings.print(session, serialNumber);
}

void addVerify(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("verify", "Look for damage in a key, and with its PIN for edits too");
    const auto serialNumber = std::make_shared<std::string>();
    const auto pin = std::make_shared<PinSource>("pin", "user PIN");
    addSerialNumber(*command, *serialNumber);
    pin->addTo(*command);
    command->callback([&session, serialNumber, pin] { verify(session, *serialNumber, *pin); });
}

void addBackup(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("backup", "Write a copy of a key, which may be in use, to a file");
    const auto serialNumber = std::make_shared<std::string>();
    const auto file = std::make_shared<std::string>();
    addSerialNumber(*command, *serialNumber);
    command->add_option("file", *file, "File to write; it must not exist")->required();
    command->callback([&session, serialNumber, file] {
        try {
            backUp(session.key(*serialNumber)->file(), *file);
        } catch (const Refusal& refusal) {
            if (refusal.status() == SoftkeyStatus::AlreadyExists)
                throw Refusal(SoftkeyStatus::StorageFailed, *file + " exists");
            throw;
        }
        session.print({{"serial", *serialNumber}, {"file", *file}}, *serialNumber + " written to " + *file);
    });
}

void addRestore(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("restore", "Put a key back from its backup");
    const auto file = std::make_shared<std::string>();
    const auto mayReplace = std::make_shared<bool>(false);
    command->add_option("file", *file, "Backup to read")->required();
    command->add_flag("--yes", *mayReplace, "Replace the key with that serial number, if there is one");
    command->callback([&session, file, mayReplace] {
        const std::filesystem::path folder = session.folder();
        session.keys().close(); // Windows replaces no open file.
        const std::string serialNumber = restoreBackup(folder, *file, *mayReplace);
        session.print({{"serial", serialNumber}}, serialNumber + " restored");
    });
}

} // namespace

void addManagementCommands(CLI::App& app, Session& session)
{
    const auto setPlugged = [&session](const std::string& serialNumber, bool plugged) {
        session.key(serialNumber)->file().setPlugged(plugged);
        session.print({{"serial", serialNumber}, {"plugged", plugged}},
                      serialNumber + (plugged ? " plugged" : " unplugged"));
    };
    addCreate(app, session);
    addCommandOnKey(app, "plug", "Plug a key in",
                    [setPlugged](const std::string& serialNumber) { setPlugged(serialNumber, true); });
    addCommandOnKey(app, "unplug", "Unplug a key",
                    [setPlugged](const std::string& serialNumber) { setPlugged(serialNumber, false); });
    addRemove(app, session);
    addVerify(app, session);
    addBackup(app, session);
    addRestore(app, session);
}

} // namespace softkey
