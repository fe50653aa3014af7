// Commands about what is on a key: generate, import-key, import-certificate, export-certificate, delete.
#include "tool/activity.h"
#include "tool/kind_names.h"
#include "tool/secret_input.h"
#include "tool/session.h"

#include "base/small_file.h"
#include "crypto/certificate.h"
#include "crypto/keys.h"
#include "velkor/record_fields.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <openssl/pem.h>

namespace softkey
{
namespace
{

/// What the options of an object ask for.
struct ObjectRequest {
    ByteVector objectId;
    std::string label;
    KeyUsage usage;
};

/// Options that put an object on a key.
struct ObjectOptions {
    std::string serialNumber;
    std::string label;
    std::string objectId;
    std::string usage = "all";
    bool oaepOnly = false;
    PinSource pin{"pin", "user PIN"};

    void addTo(CLI::App& command)
    {
        command.add_option("--label", label, "Label, up to 128 bytes");
        command.add_option("--id", objectId, "Object ID (CKA_ID), in hexadecimal")->type_name("HEX");
        pin.addTo(command);
    }

    void addUsageTo(CLI::App& command)
    {
        command.add_option("--usage", usage, "What the key may do")
            ->check(CLI::IsMember({"sign", "decrypt", "all"}))
            ->capture_default_str();
        command.add_flag("--oaep-only", oaepOnly, "RSA: decrypt OAEP alone, and refuse PKCS #1 v1.5");
    }

    KeyUsage keyUsage() const
    {
        std::uint32_t flags = USAGE_SIGN_VERIFY | USAGE_DECRYPT_ENCRYPT;
        if (usage != "all")
            flags = usage == "sign" ? USAGE_SIGN_VERIFY : USAGE_DECRYPT_ENCRYPT;
        return {flags, oaepOnly ? PaddingsTaken::OaepOnly : PaddingsTaken::All};
    }

    /// Throws BadArgument for what no object can have.
    ObjectRequest checked() const
    {
        if (label.size() > LABEL_CAPACITY)
            throw Refusal(SoftkeyStatus::BadArgument, "a label has up to 128 bytes");
        return {bytesFromHex(objectId), label, keyUsage()};
    }

    /// The same for a key pair of that kind.
    ObjectRequest checkedFor(const KeyKindTraits& traits) const
    {
        if (oaepOnly && !traits.isRsa())
            throw Refusal(SoftkeyStatus::BadArgument, "--oaep-only is for RSA keys");
        return checked();
    }
};

ByteVector contentOf(const std::string& file)
{
    std::optional<ByteVector> content = readSmallFile(file);
    if (!content)
        throw Refusal(SoftkeyStatus::BadArgument, "cannot read " + file);
    return std::move(*content);
}

void checkPin(const Session& session, SoftKey& device, const Pin& pin)
{
    const Activity activity(session, "checking the PIN");
    device.requireUser(pin);
}

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

/// What the options leave open is taken from the key pair that the certificate belongs to.
void fillFromKeyPair(VelkorCertificate& certificate, const Contents& contents)
{
    const ByteVector publicKey = certificateDetails(parseCertificate(certificate.der).get()).publicKey;
    for (const VelkorKeyPair& keyPair : contents.keyPairs) {
        if (!std::ranges::equal(velkor::publicKeyOf(keyPair), publicKey))
            continue;
        if (certificate.objectIdLength == 0) {
            std::ranges::copy(keyPair.objectId, certificate.objectId);
            certificate.objectIdLength = keyPair.objectIdLength;
        }
        if (certificate.label[0] == '\0')
            std::ranges::copy(keyPair.label, certificate.label);
        return;
    }
}

void importCertificate(Session& session, const ObjectOptions& options, const std::string& file)
{
    const ObjectRequest request = options.checked();
    const std::shared_ptr<SoftKey> device = session.pluggedKey(options.serialNumber);
    VelkorCertificate certificate;
    certificate.der = certificateFromFileContent(contentOf(file));
    if (certificate.der.empty())
        throw Refusal(SoftkeyStatus::BadCertificate, file + " holds no certificate");
    certificate.objectIdLength = velkor::copyInto(certificate.objectId, request.objectId);
    velkor::setLabel(certificate, request.label);
    fillFromKeyPair(certificate, *device->contents());
    const Pin pin = options.pin.read();
    checkPin(session, *device, pin);
    device->addCertificate(pin, certificate);
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

/// The object of a list with that number; throws NoSuchObject.
template <class Record>
const Record& numbered(const std::vector<Record>& records, std::uint32_t number)
{
    for (const Record& record : records) {
        if (record.id == number)
            return record;
    }
    throw Refusal(SoftkeyStatus::NoSuchObject, "number " + std::to_string(number));
}

std::string pemOf(const ByteVector& der)
{
    const auto out = requireObject<BioOwner>(BIO_new(BIO_s_mem()));
    require(PEM_write_bio(out.get(), PEM_STRING_X509, "", der.data(), static_cast<long>(der.size())) > 0);
    char* text = nullptr;
    const long size = BIO_get_mem_data(out.get(), &text);
    return {text, static_cast<std::size_t>(size)};
}

struct ExportOptions {
    std::string serialNumber;
    std::uint32_t number = 0;
    bool der = false;
    std::string file;
};

void exportCertificate(Session& session, const ExportOptions& options)
{
    const std::shared_ptr<const Contents> contents = session.key(options.serialNumber)->contents();
    const ByteVector& der = numbered(contents->certificates, options.number).der;
    const std::string content = options.der ? std::string(der.begin(), der.end()) : pemOf(der);
    std::ofstream file;
    if (!options.file.empty())
        file.open(options.file, std::ios::binary);
    std::ostream& out = options.file.empty() ? std::cout : file;
    if (!out.write(content.data(), static_cast<std::streamsize>(content.size())).flush())
        throw notWritten(options.file.empty() ? "standard output" : options.file);
}

void addExportCertificate(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("export-certificate", "Write a certificate to a file or standard output");
    const auto options = std::make_shared<ExportOptions>();
    addSerialNumber(*command, options->serialNumber);
    command->add_option("number", options->number, "Number of the certificate, as info shows it")->required();
    command->add_flag("--der", options->der, "Write DER instead of PEM");
    command->add_option("--out", options->file, "File to write (default: standard output)");
    command->callback([&session, options] { exportCertificate(session, *options); });
}

struct DeleteOptions {
    std::string serialNumber;
    std::uint32_t keyPair = 0;
    std::uint32_t certificate = 0;
    PinSource pin{"pin", "user PIN"};
};

void deleteObject(Session& session, const DeleteOptions& options)
{
    const std::shared_ptr<SoftKey> device = session.pluggedKey(options.serialNumber);
    const std::shared_ptr<const Contents> contents = device->contents();
    const bool isKeyPair = options.keyPair != 0;
    const Identifier wanted =
        std::to_array(isKeyPair ? numbered(contents->keyPairs, options.keyPair).keyIdentifier
                                : numbered(contents->certificates, options.certificate).certificateIdentifier);
    const Pin pin = options.pin.read();
    checkPin(session, *device, pin);
    device->change(pin, [&](Database& database) {
        isKeyPair ? deleteKeyPair(database, wanted) : deleteCertificate(database, wanted);
    });
    session.print({{"serial", options.serialNumber}}, "deleted");
}

void addDelete(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("delete", "Delete a key pair or a certificate");
    const auto options = std::make_shared<DeleteOptions>();
    addSerialNumber(*command, options->serialNumber);
    CLI::Option_group* choice = command->add_option_group("object", "What to delete, by its number");
    choice->add_option("--key", options->keyPair, "Number of a key pair")->check(CLI::PositiveNumber);
    choice->add_option("--certificate", options->certificate, "Number of a certificate")->check(CLI::PositiveNumber);
    choice->require_option(1);
    options->pin.addTo(*command);
    command->callback([&session, options] { deleteObject(session, *options); });
}

} // namespace

void addContentCommands(CLI::App& app, Session& session)
{
    addGenerate(app, session);
    addImportKey(app, session);
    addImportCertificate(app, session);
    addExportCertificate(app, session);
    addDelete(app, session);
}

} // namespace softkey
