// Commands about what is on a key: generate, import-key, import-certificate, export-certificate, delete.
#include "platform/quiet_terminal.h"
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

    std::string checkedLabel() const
    {
        if (label.size() > LABEL_CAPACITY)
            throw Refusal(SoftkeyStatus::BadArgument, "a label has up to 128 bytes");
        return label;
    }
};

ByteVector contentOf(const std::string& file)
{
    std::optional<ByteVector> content = readSmallFile(file);
    if (!content)
        throw Refusal(SoftkeyStatus::BadArgument, "cannot read " + file);
    return std::move(*content);
}

void storeKey(Session& session, const ObjectOptions& options, SoftKey& device, const Pin& pin, const EVP_PKEY* key)
{
    const ByteVector objectId = bytesFromHex(options.objectId);
    const std::string label = options.checkedLabel();
    const VelkorKeyPair stored = device.addKeyPair(pin, key, {objectId, label}, options.keyUsage());
    const char* kind = traitsOf(stored.keyKind).name;
    session.print({{"number", stored.id}, {"kind", kind}, {"identifier", hexText(stored.keyIdentifier)}},
                  "key pair " + std::to_string(stored.id) + "  " + kind);
}

/// Dots on a terminal, since a large RSA key takes its time.
EvpKey generateWithProgress(const KeyKindTraits& traits)
{
    if (!isTerminal(STANDARD_ERROR) || !traits.isRsa())
        return generateKey(traits);
    std::cerr << "generating " << traits.name << ' ';
    EvpKey key = generateKey(traits, [] { std::cerr << '.'; });
    std::cerr << '\n';
    return key;
}

void addGenerate(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("generate", "Generate a key pair");
    const auto options = std::make_shared<ObjectOptions>();
    const auto kind = std::make_shared<std::string>();
    addSerialNumber(*command, options->serialNumber);
    std::vector<std::string> kinds;
    for (const KeyKindTraits& traits : keyKinds())
        kinds.emplace_back(traits.name);
    command->add_option("kind", *kind, "Kind of the key pair")->required()->check(CLI::IsMember(kinds));
    options->addTo(*command);
    options->addUsageTo(*command);
    command->callback([&session, options, kind] {
        const std::shared_ptr<SoftKey> device = session.pluggedKey(options->serialNumber);
        const Pin pin = options->pin.read();
        device->requireUser(pin);
        const EvpKey key = generateWithProgress(*keyKindNamed(*kind));
        storeKey(session, *options, *device, pin, key.get());
    });
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

void addImportKey(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("import-key", "Put a private key from a file on a key");
    const auto options = std::make_shared<ObjectOptions>();
    const auto file = std::make_shared<std::string>();
    addSerialNumber(*command, options->serialNumber);
    command->add_option("file", *file, "RSA or EC private key, PEM or DER, not encrypted")->required();
    options->addTo(*command);
    options->addUsageTo(*command);
    command->callback([&session, options, file] {
        const std::shared_ptr<SoftKey> device = session.pluggedKey(options->serialNumber);
        const EvpKey key = readKeyFile(*file);
        storeKey(session, *options, *device, options->pin.read(), key.get());
    });
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
    const std::shared_ptr<SoftKey> device = session.pluggedKey(options.serialNumber);
    VelkorCertificate certificate;
    certificate.der = certificateFromFileContent(contentOf(file));
    if (certificate.der.empty())
        throw Refusal(SoftkeyStatus::BadCertificate, file + " holds no certificate");
    const ByteVector objectId = bytesFromHex(options.objectId);
    certificate.objectIdLength = velkor::copyInto(certificate.objectId, objectId);
    velkor::setLabel(certificate, options.checkedLabel());
    fillFromKeyPair(certificate, *device->contents());
    device->addCertificate(options.pin.read(), certificate);
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
        throw WriteFailure(options.file.empty() ? "standard output" : options.file);
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
    if (options.keyPair != 0) {
        const Identifier wanted = std::to_array(numbered(contents->keyPairs, options.keyPair).keyIdentifier);
        device->change(options.pin.read(), [&](Database& database) { deleteKeyPair(database, wanted); });
    } else {
        const auto& record = numbered(contents->certificates, options.certificate);
        const Identifier wanted = std::to_array(record.certificateIdentifier);
        device->change(options.pin.read(), [&](Database& database) { deleteCertificate(database, wanted); });
    }
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
