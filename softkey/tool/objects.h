// What the commands about key pairs and certificates share: the options that put an object on a key, the storing, and
// the writing of what comes off it.
#pragma once

#include "tool/secret_input.h"
#include "tool/session.h"

#include "store/object_store.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace softkey
{

/// What the options of an object ask for.
struct ObjectRequest {
    ByteVector objectId;
    std::string label;
    KeyUsage usage{};
};

/// Options that put an object on a key.
struct ObjectOptions {
    std::string serialNumber;
    std::string label;
    std::string objectId;
    std::string usage = "all";
    bool oaepOnly = false;
    PinSource pin{"pin", "user PIN"};

    void addTo(CLI::App& command);
    void addUsageTo(CLI::App& command);

    /// Throws BadArgument for what no object can have.
    ObjectRequest checked() const;
    /// The same for a key pair of that kind.
    ObjectRequest checkedFor(const KeyKindTraits& traits) const;
};

/// Throws BadArgument for a file that cannot be read.
ByteVector contentOf(const std::string& file);

/// Throws the statuses of `SoftKey::requireUser`.
void checkPin(const Session& session, SoftKey& device, const Pin& pin);

/// Nothing when the device holds what is no certificate.
std::optional<CertificateDetails> detailsOf(const VelkorCertificate& certificate);
/// The key pair that a certificate is for; null when the key does not hold it.
const VelkorKeyPair* keyPairOf(const VelkorCertificate& certificate, const Contents& contents);

/// What the request leaves open is taken from the key pair that the certificate belongs to. Its number and identifier
/// are filled.
VelkorCertificate storeCertificate(SoftKey& device, const Pin& pin, ByteVector der, const ObjectRequest& request);

/// The object of a list with that number; throws NoSuchObject.
template <class Records>
const typename Records::value_type& numbered(const Records& records, std::uint32_t number)
{
    for (const auto& record : records) {
        if (record.id == number)
            return record;
    }
    throw Refusal(SoftkeyStatus::NoSuchObject,
                  "number " + std::to_string(number) + " (velkor-softkey info shows the numbers)");
}

/// Before long work: throws a Failure when that file can be seen to be none that may be written. An empty name is none.
void requireWritable(const std::string& file);
/// To the file, or to standard output when its name is empty. Throws a Failure.
void writeOutput(const std::string& file, std::string_view content);

/// What an OpenSSL function writes as PEM: `write` is given a BIO and says whether it succeeded.
template <class Write>
std::string pemText(Write write)
{
    const auto out = requireObject<BioOwner>(BIO_new(BIO_s_mem()));
    require(write(out.get()));
    char* text = nullptr;
    const long size = BIO_get_mem_data(out.get(), &text);
    return {text, static_cast<std::size_t>(size)};
}

/// What an i2d function of OpenSSL makes of an object.
template <class Encode, class Object>
std::string derText(Encode encode, const Object* object)
{
    unsigned char* der = nullptr;
    const int size = encode(object, &der);
    const OpenSslBytes owner(der);
    require(size > 0);
    return {der, der + size};
}

} // namespace softkey
