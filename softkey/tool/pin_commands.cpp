// Commands about PINs: set-pin, unlock.
#include "tool/activity.h"
#include "tool/secret_input.h"
#include "tool/session.h"

namespace softkey
{
namespace
{

struct SetPinOptions {
    std::string serialNumber;
    bool securityOfficer = false;
    bool rekey = false;
    std::optional<std::uint32_t> logN;
    PinSource oldPin{"pin", "present PIN"};
    PinSource newPin{"new-pin", "new PIN"};
    PinSource soPin{"so-pin", "SO PIN"};
};

std::optional<ScryptCost> costOf(const SetPinOptions& options)
{
    if (!options.logN)
        return std::nullopt;
    ScryptCost cost;
    cost.logN = *options.logN;
    return cost;
}

void addSetPin(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("set-pin", "Change the user PIN, or with --so the SO PIN");
    const auto options = std::make_shared<SetPinOptions>();
    addSerialNumber(*command, options->serialNumber);
    CLI::Option* so = command->add_flag("--so", options->securityOfficer, "Change the SO PIN");
    CLI::Option* rekey = command->add_flag(
        "--rekey", options->rekey,
        "Make a new master key as well: older copies open nothing that comes later. Needs the SO PIN too");
    rekey->excludes(so);
    command->add_option("--scrypt-cost", options->logN, "New cost of checking the PIN, as a power of two")
        ->check(CLI::Range(SCRYPT_LOG_N_MIN, SCRYPT_LOG_N_MAX))
        ->excludes(rekey);
    options->oldPin.addTo(*command);
    options->newPin.addTo(*command);
    options->soPin.addTo(*command);
    command->callback([&session, options] {
        const std::shared_ptr<SoftKey> key = session.pluggedKey(options->serialNumber);
        const Pin oldPin = options->oldPin.read();
        const Pin newPin = options->newPin.readNew();
        const PinRole role = options->securityOfficer ? PinRole::SecurityOfficer : PinRole::User;
        const Pin soPin = options->rekey ? options->soPin.read() : Pin("");
        {
            const Activity activity(session, "changing the PIN");
            if (options->rekey)
                key->rekey(oldPin, newPin, soPin);
            else
                key->changePin(role, oldPin, newPin, costOf(*options));
        }
        session.print({{"serial", options->serialNumber}}, "PIN changed");
    });
}

struct UnlockOptions {
    std::string serialNumber;
    PinSource soPin{"so-pin", "SO PIN"};
    PinSource newPin{"new-pin", "new user PIN"};
};

void addUnlock(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("unlock", "Set a new user PIN with the SO PIN; nothing on the key is lost");
    const auto options = std::make_shared<UnlockOptions>();
    addSerialNumber(*command, options->serialNumber);
    options->soPin.addTo(*command);
    options->newPin.addTo(*command);
    command->callback([&session, options] {
        const std::shared_ptr<SoftKey> key = session.pluggedKey(options->serialNumber);
        const Pin soPin = options->soPin.read();
        const Pin newPin = options->newPin.readNew();
        {
            const Activity activity(session, "setting the PIN");
            key->resetUserPin(soPin, newPin);
        }
        session.print({{"serial", options->serialNumber}}, "user PIN set");
    });
}

} // namespace

void addPinCommands(CLI::App& app, Session& session)
{
    addSetPin(app, session);
    addUnlock(app, session);
}

} // namespace softkey
