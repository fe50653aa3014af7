#include "tool/objects.h"

#include "base/small_file.h"
#include "crypto/certificate.h"
#include "tool/activity.h"
#include "tool/system_view.h"
#include "velkor/record_fields.h"

#include <algorithm>
#include <fstream>
#include <iostream>

namespace softkey
{
namespace
{

void fillFromKeyPair(VelkorCertificate& certificate, const Contents& contents)
{
    const VelkorKeyPair* keyPair = keyPairOf(certificate, contents);
    if (keyPair == nullptr)
        return;
    if (certificate.objectIdLength == 0) {
        std::ranges::copy(keyPair->objectId, certificate.objectId);
        certificate.objectIdLength = keyPair->objectIdLength;
    }
    if (certificate.label[0] == '\0')
        std::ranges::copy(keyPair->label, certificate.label);
}

} // namespace

void ObjectOptions::addTo(CLI::App& command)
{
    command.add_option("--label", label, "Label, up to 128 bytes");
    command.add_option("--id", objectId, "Object ID (CKA_ID), in hexadecimal")->type_name("HEX");
    pin.addTo(command);
}

void ObjectOptions::addUsageTo(CLI::App& command)
{
    command.add_option("--usage", usage, "What the key may do")
        ->check(CLI::IsMember({"sign", "decrypt", "all"}))
        ->capture_default_str();
    command.add_flag("--oaep-only", oaepOnly, "RSA: decrypt OAEP alone, and refuse PKCS #1 v1.5");
}

ObjectRequest ObjectOptions::checked() const
{
    if (label.size() > LABEL_CAPACITY)
        throw Refusal(SoftkeyStatus::BadArgument, "a label has up to 128 bytes");
    std::uint32_t flags = USAGE_SIGN_VERIFY | USAGE_DECRYPT_ENCRYPT;
    if (usage != "all")
        flags = usage == "sign" ? USAGE_SIGN_VERIFY : USAGE_DECRYPT_ENCRYPT;
    return {bytesFromHex(objectId), label, {flags, oaepOnly ? PaddingsTaken::OaepOnly : PaddingsTaken::All}};
}

ObjectRequest ObjectOptions::checkedFor(const KeyKindTraits& traits) const
{
    if (oaepOnly && !traits.isRsa())
        throw Refusal(SoftkeyStatus::BadArgument, "--oaep-only is for RSA keys");
    return checked();
}

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

std::optional<CertificateDetails> detailsOf(const VelkorCertificate& certificate)
{
    try {
        return certificateDetails(parseCertificate(certificate.der).get());
    } catch (const Refusal&) {
        return std::nullopt;
    }
}

const VelkorKeyPair* keyPairOf(const VelkorCertificate& certificate, const Contents& contents)
{
    const std::optional<CertificateDetails> details = detailsOf(certificate);
    for (const VelkorKeyPair& keyPair : contents.keyPairs) {
        if (details && velkor::sameBytes(velkor::publicKeyOf(keyPair), details->publicKey))
            return &keyPair;
    }
    return nullptr;
}

VelkorCertificate storeCertificate(SoftKey& device, const Pin& pin, ByteVector der, const ObjectRequest& request)
{
    VelkorCertificate certificate;
    certificate.der = std::move(der);
    certificate.objectIdLength = velkor::copyInto(certificate.objectId, request.objectId);
    velkor::setLabel(certificate, request.label);
    fillFromKeyPair(certificate, *device.contents());
    device.addCertificate(pin, certificate);
    return certificate;
}

void requireWritable(const std::string& file)
{
    if (file.empty())
        return;
    std::error_code failure;
    const std::filesystem::path path = std::filesystem::absolute(file);
    const bool isThere = std::filesystem::exists(path, failure);
    if (!std::filesystem::is_directory(path.parent_path(), failure) ||
        (isThere && (std::filesystem::is_directory(path, failure) || !mayWrite(path))))
        throw notWritten(file);
}

void writeOutput(const std::string& file, std::string_view content)
{
    std::ofstream out;
    if (!file.empty())
        out.open(file, std::ios::binary);
    std::ostream& chosen = file.empty() ? std::cout : out;
    if (!chosen.write(content.data(), static_cast<std::streamsize>(content.size())).flush())
        throw notWritten(file.empty() ? "standard output" : file);
}

} // namespace softkey
