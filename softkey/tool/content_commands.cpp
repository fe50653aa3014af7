// Commands about what is on a key: generate, import-key, import-certificate, relabel, delete.
#include "tool/activity.h"
#include "tool/kind_names.h"
#include "tool/objects.h"

#include "base/small_file.h"
#include "crypto/certificate.h"
#include "crypto/keys.h"
#include "store/device_label.h"
#include "store/key_settings.h"

namespace softkey
{
namespace
{

/// Of a user whose PIN was checked.
void storeKey(const Session& session, const ObjectRequest& request, SoftKey& device, const Pin& pin,
              const EVP_PKEY* key)
{
    const VelkorKeyPair stored = device.addKeyPair(pin, key, {request.objectId, request.label}, request.usage);
    const char* kind = traitsOf(stored.keyKind).name;
    session.print({{"number", stored.id}, {"kind", kind}, {"identifier", hexText(stored.keyIdentifier)}},
                  "key pair " + std::to_string(stored.id) + "  " + kind);
}

void generate(Session& session, const ObjectOptions& options, const KeyKindTraits& traits)
{
    const ObjectRequest request = options.checkedFor(traits);
    const std::shared_ptr<SoftKey> device = session.pluggedKey(options.serialNumber);
    const Pin pin = options.pin.read();
    checkPin(session, *device, pin);
    EvpKey key;
    {
        const Activity activity(session, std::string("generating ") + traits.name);
        key = generateKey(traits);
    }
    storeKey(session, request, *device, pin, key.get());
}

void addGenerate(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("generate", "Generate a key pair");
    const auto options = std::make_shared<ObjectOptions>();
    const auto kind = std::make_shared<std::string>();
    addSerialNumber(*command, options->serialNumber);
    const auto isKind = [](const std::string& name) {
        return keyKindCalled(name) != nullptr ? std::string() : name + " is none of " + keyKindNames();
    };
    command->add_option("kind", *kind, "Kind of the key pair: " + keyKindNames() + "; case does not count")
        ->required()
        ->type_name("KIND")
        ->check(CLI::Validator(isKind, ""));
    options->addTo(*command);
    options->addUsageTo(*command);
    command->callback([&session, options, kind] { generate(session, *options, *keyKindCalled(*kind)); });
}

EvpKey readKeyFile(const std::string& file)
{
    const std::optional<SecretBuffer> content = readSmallSecretFile(file);
    if (!content)
        throw Refusal(SoftkeyStatus::BadArgument, "cannot read " + file);
    EvpKey key = privateKeyFromFileContent(*content);
    if (!key)
        throw Refusal(SoftkeyStatus::BadPrivateKey, file + " holds no unencrypted private key");
    if (keyKindOf(key.get()) == nullptr)
        throw Refusal(SoftkeyStatus::BadPrivateKey, file + " holds a key of a kind or size that is not supported");
    checkPrivateKey(key.get());
    return key;
}

void importKey(Session& session, const ObjectOptions& options, const std::string& file)
{
    const std::shared_ptr<SoftKey> device = session.pluggedKey(options.serialNumber);
    const EvpKey key = readKeyFile(file);
    const ObjectRequest request = options.checkedFor(*keyKindOf(key.get()));
    const Pin pin = options.pin.read();
    checkPin(session, *device, pin);
    storeKey(session, request, *device, pin, key.get());
}

void addImportKey(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("import-key", "Put a private key from a file on a key");
    const auto options = std::make_shared<ObjectOptions>();
    const auto file = std::make_shared<std::string>();
    addSerialNumber(*command, options->serialNumber);
    command->add_option("file", *file, "RSA or EC private key, PEM or DER, not encrypted")->required();
    options->addTo(*command);
    options->addUsageTo(*command);
    command->callback([&session, options, file] { importKey(session, *options, *file); });
}

void importCertificate(Session& session, const ObjectOptions& options, const std::string& file)
{
    const ObjectRequest request = options.checked();
    const std::shared_ptr<SoftKey> device = session.pluggedKey(options.serialNumber);
    ByteVector der = certificateFromFileContent(contentOf(file));
    if (der.empty())
        throw Refusal(SoftkeyStatus::BadCertificate, file + " holds no certificate");
    const Pin pin = options.pin.read();
    checkPin(session, *device, pin);
    const VelkorCertificate certificate = storeCertificate(*device, pin, std::move(der), request);
    session.print({{"number", certificate.id}, {"identifier", hexText(certificate.certificateIdentifier)}},
                  "certificate " + std::to_string(certificate.id));
}

void addImportCertificate(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand(
        "import-certificate", "Put a certificate on a key; by default with the object ID and label of its key pair");
    const auto options = std::make_shared<ObjectOptions>();
    const auto file = std::make_shared<std::string>();
    addSerialNumber(*command, options->serialNumber);
    command->add_option("file", *file, "Certificate, PEM or DER")->required();
    options->addTo(*command);
    command->callback([&session, options, file] { importCertificate(session, *options, *file); });
}

/// Which object of a key is meant.
struct ObjectChoice {
    std::uint32_t keyPair = 0;
    std::uint32_t certificate = 0;

    CLI::Option_group* addTo(CLI::App& command, const char* description)
    {
        CLI::Option_group* choice = command.add_option_group("object", description);
        choice->add_option("--key", keyPair, "Number of a key pair")->check(CLI::PositiveNumber);
        choice->add_option("--certificate", certificate, "Number of a certificate")->check(CLI::PositiveNumber);
        return choice;
    }
    bool isKeyPair() const { return keyPair != 0; }
    bool isObject() const { return keyPair != 0 || certificate != 0; }
    /// Throws NoSuchObject.
    Identifier identifierIn(const Contents& contents) const
    {
        return std::to_array(isKeyPair() ? numbered(contents.keyPairs, keyPair).keyIdentifier
                                         : numbered(contents.certificates, certificate).certificateIdentifier);
    }
};

struct RelabelOptions {
    std::string serialNumber;
    ObjectChoice choice;
    std::optional<std::string> label;
    std::string objectId;
    PinSource pin{"pin", "user PIN"};
};

/// Throws BadArgument for a label or an ID that the chosen one cannot have.
void requireSensible(const RelabelOptions& options)
{
    const auto demand = [](bool fulfilled, const char* what) {
        if (!fulfilled)
            throw Refusal(SoftkeyStatus::BadArgument, what);
    };
    demand(options.label || !options.objectId.empty(), "nothing to change: use --label or --id");
    if (options.choice.isObject()) {
        const std::string label = options.label.value_or("unchanged");
        demand(!label.empty() && label.size() <= LABEL_CAPACITY, "a label has 1 to 128 bytes");
        return;
    }
    demand(options.objectId.empty(), "--id is for --key or --certificate");
    KeySettings settings;
    settings.serialNumber = randomSerialNumber();
    settings.label = *options.label;
    requireAcceptable(settings);
}

void relabel(Session& session, const RelabelOptions& options)
{
    requireSensible(options);
    const ByteVector objectId = bytesFromHex(options.objectId);
    const std::string label = options.label.value_or("");
    const std::shared_ptr<SoftKey> device = session.pluggedKey(options.serialNumber);
    const ObjectChoice& choice = options.choice;
    const Identifier wanted = choice.isObject() ? choice.identifierIn(*device->contents()) : Identifier{};
    const Pin pin = options.pin.read();
    checkPin(session, *device, pin);
    device->change(pin, [&](Database& database) {
        if (!choice.isObject())
            updateDeviceLabel(database, label);
        else if (choice.isKeyPair())
            updateKeyPair(database, wanted, {objectId, label});
        else
            updateCertificate(database, wanted, {objectId, label});
    });
    session.print({{"serial", options.serialNumber}}, "changed");
}

void addRelabel(CLI::App& app, Session& session)
{
    CLI::App* command =
        app.add_subcommand("relabel", "Change the label of a key, or the label and ID of something on it");
    const auto options = std::make_shared<RelabelOptions>();
    addSerialNumber(*command, options->serialNumber);
    options->choice.addTo(*command, "What to change, by its number (default: the key itself)")->require_option(0, 1);
    command->add_option("--label", options->label, "New label");
    command->add_option("--id", options->objectId, "New object ID (CKA_ID), in hexadecimal")->type_name("HEX");
    options->pin.addTo(*command);
    command->callback([&session, options] { relabel(session, *options); });
}

struct DeleteOptions {
    std::string serialNumber;
    ObjectChoice choice;
    PinSource pin{"pin", "user PIN"};
};

void deleteObject(Session& session, const DeleteOptions& options)
{
    const std::shared_ptr<SoftKey> device = session.pluggedKey(options.serialNumber);
    const Identifier wanted = options.choice.identifierIn(*device->contents());
    const Pin pin = options.pin.read();
    checkPin(session, *device, pin);
    device->change(pin, [&](Database& database) {
        if (options.choice.isKeyPair())
            deleteKeyPair(database, wanted);
        else
            deleteCertificate(database, wanted);
    });
    session.print({{"serial", options.serialNumber}}, "deleted");
}

void addDelete(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("delete", "Delete a key pair or a certificate");
    const auto options = std::make_shared<DeleteOptions>();
    addSerialNumber(*command, options->serialNumber);
    options->choice.addTo(*command, "What to delete, by its number")->require_option(1);
    options->pin.addTo(*command);
    command->callback([&session, options] { deleteObject(session, *options); });
}

} // namespace

void addContentCommands(CLI::App& app, Session& session)
{
    addGenerate(app, session);
    addImportKey(app, session);
    addImportCertificate(app, session);
    addRelabel(app, session);
    addDelete(app, session);
}

} // namespace softkey
