// Commands that write what is on a key and no secret: public-key, export-certificate.
#include "tool/key_material.h"
#include "tool/objects.h"

#include "crypto/public_key.h"
#include "velkor/record_fields.h"

#include <openssl/pem.h>

namespace softkey
{
namespace
{

struct ExportOptions {
    std::string serialNumber;
    std::uint32_t number = 0;
    std::string format = "pem";
    bool der = false;
    std::string file;
    PinSource passPhrase{"passphrase", "pass phrase of the PKCS #12 file"};

    void addTo(CLI::App& command, const char* object, const std::vector<std::string>& formats)
    {
        addSerialNumber(command, serialNumber);
        command.add_option("number", number, std::string("Number of the ") + object + ", as info shows it")->required();
        CLI::Option* chosen = command.add_option("--format", format, "Form of the output")
                                  ->transform(CLI::IsMember(formats, CLI::ignore_case))
                                  ->capture_default_str();
        command.add_flag("--der", der, "The same as --format der")->excludes(chosen);
        command.add_option("--out", file, "File to write (default: standard output)")->type_name("FILE");
    }

    bool isWanted(std::string_view name) const { return name == (der ? "der" : format); }
};

/// A public key as OpenSSH writes it: fields one behind the other, each with its length.
class SshKey
{
public:
    void add(Bytes field)
    {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes_.push_back(static_cast<unsigned char>(field.size() >> shift));
        bytes_.insert(bytes_.end(), field.begin(), field.end());
    }
    void add(std::string_view text) { add(bytesOf(text)); }
    /// Of a number without leading zeros, whose highest bit must not look like a sign.
    void addNumber(Bytes magnitude)
    {
        ByteVector number(magnitude.begin(), magnitude.end());
        if (!number.empty() && number.front() >= 0x80)
            number.insert(number.begin(), 0);
        add(Bytes(number));
    }

    std::string base64() const
    {
        std::string text(4 * ((bytes_.size() + 2) / 3) + 1, '\0'); // And the zero that OpenSSL writes.
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes_.data(), static_cast<int>(bytes_.size()));
        text.pop_back();
        return text;
    }

private:
    ByteVector bytes_;
};

/// One line of an authorized_keys file.
std::string opensshLine(const VelkorKeyPair& keyPair, const std::string& comment)
{
    constexpr unsigned char EXPONENT[] = {1, 0, 1};
    const KeyKindTraits& traits = traitsOf(keyPair.keyKind);
    const std::string curve = "nistp" + std::to_string(traits.bits);
    const std::string type = traits.isRsa() ? "ssh-rsa" : "ecdsa-sha2-" + curve;
    SshKey key;
    key.add(type);
    if (traits.isRsa()) {
        key.addNumber(EXPONENT);
        key.addNumber(velkor::publicKeyOf(keyPair));
    } else {
        key.add(curve);
        key.add(velkor::publicKeyOf(keyPair));
    }
    return type + ' ' + key.base64() + (comment.empty() ? "" : ' ' + comment) + '\n';
}

void exportPublicKey(Session& session, const ExportOptions& options)
{
    const std::shared_ptr<const Contents> contents = session.key(options.serialNumber)->contents();
    const VelkorKeyPair& keyPair = numbered(contents->keyPairs, options.number);
    if (options.isWanted("openssh"))
        return writeOutput(options.file, opensshLine(keyPair, printable(velkor::storedLabelOf(keyPair))));
    const EvpKey key = publicKeyFrom(traitsOf(keyPair.keyKind), velkor::publicKeyOf(keyPair));
    const auto writePem = [&](BIO* out) { return PEM_write_bio_PUBKEY(out, key.get()) == 1; };
    writeOutput(options.file, options.isWanted("der") ? derText(i2d_PUBKEY, key.get()) : pemText(writePem));
}

void addPublicKey(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("public-key", "Write a public key to a file or standard output");
    const auto options = std::make_shared<ExportOptions>();
    options->addTo(*command, "key pair", {"pem", "der", "openssh"});
    command->callback([&session, options] { exportPublicKey(session, *options); });
}

void exportCertificate(Session& session, const ExportOptions& options)
{
    const std::shared_ptr<const Contents> contents = session.key(options.serialNumber)->contents();
    const ByteVector& der = numbered(contents->certificates, options.number).der;
    if (options.isWanted("pkcs12")) {
        requireWritable(options.file);
        return writeOutput(options.file, pkcs12With(der, options.passPhrase.readTwice()));
    }
    const auto writePem = [&](BIO* out) {
        return PEM_write_bio(out, PEM_STRING_X509, "", der.data(), static_cast<long>(der.size())) > 0;
    };
    writeOutput(options.file, options.isWanted("der") ? std::string(der.begin(), der.end()) : pemText(writePem));
}

void addExportCertificate(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("export-certificate", "Write a certificate to a file or standard output");
    const auto options = std::make_shared<ExportOptions>();
    options->addTo(*command, "certificate", {"pem", "der", "pkcs12"});
    options->passPhrase.addTo(*command);
    command->callback([&session, options] { exportCertificate(session, *options); });
}

} // namespace

void addExportCommands(CLI::App& app, Session& session)
{
    addPublicKey(app, session);
    addExportCertificate(app, session);
}

} // namespace softkey
