// The command import: puts what a file of another program holds on a key.
#include "tool/key_material.h"
#include "tool/objects.h"

#include "base/small_file.h"
#include "crypto/key_kinds.h"
#include "crypto/keys.h"
#include "velkor/record_fields.h"

namespace softkey
{
namespace
{

using nlohmann::json;

struct ImportOptions {
    ObjectOptions object;
    PinSource passPhrase{"passphrase", "pass phrase of the file"};
    std::string file;
};

/// Throws BadPrivateKey for a key that a software key cannot hold.
void requireUsable(const EVP_PKEY* key, const std::string& file)
{
    if (keyKindOf(key) == nullptr)
        throw Refusal(SoftkeyStatus::BadPrivateKey, file + " holds a key of a kind or size that is not supported");
    checkPrivateKey(key);
}

KeyMaterial readMaterial(const ImportOptions& options)
{
    const std::optional<SecretBuffer> content = readSmallSecretFile(options.file);
    if (!content)
        throw Refusal(SoftkeyStatus::BadArgument, "cannot read " + options.file);
    std::optional<Pin> passPhrase;
    KeyMaterial material = keyMaterialOf(*content, [&]() -> std::string_view {
        if (!passPhrase)
            passPhrase = options.passPhrase.read();
        return *passPhrase;
    });
    if (material.key)
        requireUsable(material.key.get(), options.file);
    return material;
}

/// Puts everything on the device; what the options say goes to the key pair and the first certificate alone.
class Import
{
public:
    Import(SoftKey& device, const Pin& pin) : device_(device), pin_(pin) {}

    void add(const EVP_PKEY* key, const ObjectRequest& request)
    {
        const VelkorKeyPair stored = device_.addKeyPair(pin_, key, {request.objectId, request.label}, request.usage);
        const char* kind = traitsOf(stored.keyKind).name;
        result_["keyPair"] = {{"number", stored.id}, {"kind", kind}, {"identifier", hexText(stored.keyIdentifier)}};
        say("key pair " + std::to_string(stored.id) + "  " + kind);
    }

    void add(const ByteVector& certificate, const ObjectRequest& request)
    {
        const VelkorCertificate stored = storeCertificate(device_, pin_, certificate, request);
        result_["certificates"].push_back(
            {{"number", stored.id}, {"identifier", hexText(stored.certificateIdentifier)}});
        say("certificate " + std::to_string(stored.id));
    }

    void print(const Session& session) const { session.print(result_, lines_); }

private:
    void say(const std::string& line) { lines_ += (lines_.empty() ? "" : "\n") + line; }

    SoftKey& device_;
    const Pin& pin_;
    json result_ = {{"certificates", json::array()}};
    std::string lines_;
};

void importFile(Session& session, const ImportOptions& options)
{
    const ObjectOptions& object = options.object;
    ObjectRequest request = object.checked();
    const std::shared_ptr<SoftKey> device = session.pluggedKey(object.serialNumber);
    const KeyMaterial material = readMaterial(options);
    if (material.key)
        request = object.checkedFor(*keyKindOf(material.key.get()));
    const Pin pin = object.pin.read();
    checkPin(session, *device, pin);
    Import stored(*device, pin);
    if (material.key)
        stored.add(material.key.get(), request);
    for (const ByteVector& certificate : material.certificates) {
        stored.add(certificate, request);
        request = {}; // The others belong to issuers.
    }
    stored.print(session);
}

} // namespace

void addImportCommands(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand(
        "import", "Put the private key and the certificates of a file on a key: PEM, encrypted PEM, DER or PKCS #12");
    const auto options = std::make_shared<ImportOptions>();
    addSerialNumber(*command, options->object.serialNumber);
    command->add_option("file", options->file, "RSA or EC private key, certificates, or both")->required();
    options->object.addTo(*command);
    options->object.addUsageTo(*command);
    options->passPhrase.addTo(*command);
    command->callback([&session, options] { importFile(session, *options); });
}

} // namespace softkey
