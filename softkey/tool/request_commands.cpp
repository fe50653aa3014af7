// Commands that have a key pair sign for itself: csr, self-sign.
#include "tool/activity.h"
#include "tool/names.h"
#include "tool/objects.h"

#include "crypto/key_kinds.h"
#include "store/opened_key.h"
#include "store/pin_policy.h"

#include <array>
#include <openssl/pem.h>

namespace softkey
{
namespace
{

using Request = Owned<X509_REQ, X509_REQ_free>;
using Extension = Owned<X509_EXTENSION, X509_EXTENSION_free>;
using Number = Owned<BIGNUM, BN_free>;

void releaseExtensions(STACK_OF(X509_EXTENSION) * extensions)
{
    sk_X509_EXTENSION_pop_free(extensions, X509_EXTENSION_free);
}
using Extensions = Owned<STACK_OF(X509_EXTENSION), releaseExtensions>;

constexpr int DAYS_MAX = 36500;

struct RequestOptions {
    std::string serialNumber;
    std::uint32_t number = 0;
    std::string subject;
    std::vector<std::string> names;
    int days = 365;
    std::string label;
    std::string file;
    PinSource pin{"pin", "user PIN"};

    void addTo(CLI::App& command, const char* output)
    {
        addSerialNumber(command, serialNumber);
        command.add_option("number", number, "Number of the key pair, as info shows it")->required();
        command.add_option("--subject", subject, "Whose key it is: CN=Ann,O=Example or /O=Example/CN=Ann")->required();
        command.add_option("--name", names, "Another name: a host, an address, a mail address, a URI; may be repeated")
            ->type_name("NAME")
            ->allow_extra_args(false);
        command.add_option("--out", file, output)->type_name("FILE");
        pin.addTo(command);
    }
};

/// A key pair that is to sign, and the names that it signs for.
struct Signer {
    std::shared_ptr<SoftKey> device;
    VelkorKeyPair record;
    DistinguishedName subject;
    AlternativeNames names;

    const KeyKindTraits& traits() const { return traitsOf(record.keyKind); }

    /// SHA-256, with the larger curves the hash of their strength.
    const EVP_MD* digest() const
    {
        std::size_t size = 32;
        if (!traits().isRsa() && traits().bits > 256)
            size = traits().bits > 384 ? 64 : 48;
        return CryptoContext::get().digestOfSize(size)->algorithm;
    }

    EvpKey openedBy(const Session& session, const Pin& pin) const
    {
        const Activity activity(session, "checking the PIN");
        const SecretBuffer masterKey = softkey::checkPin(device->file(), PinRole::User, pin).masterKey;
        const std::string serialNumber = device->contents()->device.serialNumber;
        EvpKey key;
        device->file().read([&](Database& database) { key = openedKey(database, record, masterKey, serialNumber); });
        return key;
    }
};

/// Everything that can be refused without the PIN is.
Signer signerOf(Session& session, const RequestOptions& options)
{
    requireWritable(options.file);
    DistinguishedName subject = nameFrom(options.subject);
    AlternativeNames names = alternativeNamesFrom(options.names);
    std::shared_ptr<SoftKey> device = session.pluggedKey(options.serialNumber);
    const VelkorKeyPair record = numbered(device->contents()->keyPairs, options.number);
    if ((record.usageFlags & USAGE_SIGN_VERIFY) == 0)
        throw Refusal(SoftkeyStatus::UsageNotPermitted, "key pair " + std::to_string(record.id) + " does not sign");
    return {std::move(device), record, std::move(subject), std::move(names)};
}

std::string requestPem(const Signer& signer, EVP_PKEY* key)
{
    const auto request = requireObject<Request>(X509_REQ_new_ex(CryptoContext::get().library(), nullptr));
    require(X509_REQ_set_version(request.get(), X509_REQ_VERSION_1) == 1 &&
            X509_REQ_set_subject_name(request.get(), signer.subject.get()) == 1 &&
            X509_REQ_set_pubkey(request.get(), key) == 1);
    if (signer.names) {
        const auto extensions = requireObject<Extensions>(sk_X509_EXTENSION_new_null());
        auto extension = requireObject<Extension>(X509V3_EXT_i2d(NID_subject_alt_name, 0, signer.names.get()));
        require(sk_X509_EXTENSION_push(extensions.get(), extension.get()) > 0);
        static_cast<void>(extension.release()); // The list has it.
        require(X509_REQ_add_extensions(request.get(), extensions.get()) == 1);
    }
    require(X509_REQ_sign(request.get(), key, signer.digest()) > 0);
    return pemText([&](BIO* out) { return PEM_write_bio_X509_REQ(out, request.get()) == 1; });
}

void writeRequest(Session& session, const RequestOptions& options)
{
    const Signer signer = signerOf(session, options);
    const Pin pin = options.pin.read();
    writeOutput(options.file, requestPem(signer, signer.openedBy(session, pin).get()));
}

void addCsr(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("csr", "Request a certificate for a key pair (PKCS #10, as PEM)");
    const auto options = std::make_shared<RequestOptions>();
    options->addTo(*command, "File to write (default: standard output)");
    command->callback([&session, options] { writeRequest(session, *options); });
}

/// A number that no other certificate has; positive, as the standard wants it.
void setRandomNumber(X509* certificate)
{
    std::array<unsigned char, 16> bytes{};
    randomBytes(bytes);
    bytes[0] = static_cast<unsigned char>((bytes[0] & 0x3f) | 0x40);
    const auto number = requireObject<Number>(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
    require(BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr);
}

void addExtension(X509* certificate, int kind, const std::string& value)
{
    X509V3_CTX context{}; // Without a configuration to look into.
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const auto extension = requireObject<Extension>(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    require(X509_add_ext(certificate, extension.get(), -1) == 1);
}

/// It is for its owner and issues no others.
void addExtensions(X509* certificate, const Signer& signer)
{
    const bool decrypts = signer.traits().isRsa() && (signer.record.usageFlags & USAGE_DECRYPT_ENCRYPT) != 0;
    addExtension(certificate, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(certificate, NID_key_usage,
                 std::string("critical,digitalSignature") + (decrypts ? ",keyEncipherment" : ""));
    addExtension(certificate, NID_subject_key_identifier, "hash");
    if (signer.names)
        require(X509_add1_ext_i2d(certificate, NID_subject_alt_name, signer.names.get(), 0, X509V3_ADD_APPEND) == 1);
}

Certificate selfSigned(const Signer& signer, EVP_PKEY* key, int days)
{
    auto certificate = requireObject<Certificate>(X509_new_ex(CryptoContext::get().library(), nullptr));
    X509* const made = certificate.get();
    require(X509_set_version(made, X509_VERSION_3) == 1 && X509_set_subject_name(made, signer.subject.get()) == 1 &&
            X509_set_issuer_name(made, signer.subject.get()) == 1 && X509_set_pubkey(made, key) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(made), 0) != nullptr &&
            X509_time_adj_ex(X509_getm_notAfter(made), days, 0, nullptr) != nullptr);
    setRandomNumber(made);
    addExtensions(made, signer);
    require(X509_sign(made, key, signer.digest()) > 0);
    return certificate;
}

void selfSign(Session& session, const RequestOptions& options)
{
    if (options.label.size() > LABEL_CAPACITY)
        throw Refusal(SoftkeyStatus::BadArgument, "a label has up to 128 bytes");
    const Signer signer = signerOf(session, options);
    const Pin pin = options.pin.read();
    const Certificate made = selfSigned(signer, signer.openedBy(session, pin).get(), options.days);
    const std::string der = derText(i2d_X509, made.get());
    if (!options.file.empty())
        writeOutput(options.file, pemText([&](BIO* out) { return PEM_write_bio_X509(out, made.get()) == 1; }));
    const VelkorCertificate stored =
        storeCertificate(*signer.device, pin, ByteVector(der.begin(), der.end()), {{}, options.label, {}});
    session.print({{"number", stored.id}, {"identifier", hexText(stored.certificateIdentifier)}},
                  "certificate " + std::to_string(stored.id));
}

void addSelfSign(CLI::App& app, Session& session)
{
    CLI::App* command =
        app.add_subcommand("self-sign", "Put a certificate on a key that a key pair has signed for itself");
    const auto options = std::make_shared<RequestOptions>();
    options->addTo(*command, "File to write it to as well, as PEM");
    command->add_option("--days", options->days, "Days for which it is valid")
        ->check(CLI::Range(1, DAYS_MAX))
        ->capture_default_str();
    command->add_option("--label", options->label, "Label (default: that of its key pair)");
    command->callback([&session, options] { selfSign(session, *options); });
}

} // namespace

void addRequestCommands(CLI::App& app, Session& session)
{
    addCsr(app, session);
    addSelfSign(app, session);
}

} // namespace softkey
