#include "store/authenticity.h"

#include "velkor/record_fields.h"

#include <string_view>

namespace softkey
{
namespace
{

/// Fields one behind the other, each with its length: two different contents never look alike.
class Writing
{
public:
    Writing& field(Bytes bytes)
    {
        number(bytes.size());
        text_.insert(text_.end(), bytes.begin(), bytes.end());
        return *this;
    }
    Writing& field(std::string_view text) { return field(bytesOf(text)); }
    Writing& number(std::uint64_t value)
    {
        for (int shift = 56; shift >= 0; shift -= 8)
            text_.push_back(static_cast<unsigned char>(value >> shift));
        return *this;
    }
    Bytes bytes() const { return text_; }

private:
    ByteVector text_;
};

/// What is under the code. Former files have none of the states of their PINs there.
enum class Extent { WithoutPins, Whole };

Writing writingOf(const Contents& contents, Extent extent)
{
    Writing writing;
    const DeviceRecord& device = contents.device;
    writing.field(device.serialNumber).field(device.label).field(device.model).field(device.firmwareVersion);
    writing.number(contents.keyPairs.size());
    for (const VelkorKeyPair& keyPair : contents.keyPairs) {
        writing.number(keyPair.id).field(Bytes(keyPair.keyIdentifier)).number(keyPair.keyKind);
        writing.field(velkor::objectIdOf(keyPair)).field(velkor::storedLabelOf(keyPair));
        writing.field(velkor::publicKeyOf(keyPair)).number(keyPair.usageFlags).number(keyPair.deviceFlag ? 1 : 0);
    }
    writing.number(contents.certificates.size());
    for (const VelkorCertificate& certificate : contents.certificates) {
        writing.number(certificate.id).field(Bytes(certificate.certificateIdentifier));
        writing.field(velkor::objectIdOf(certificate)).field(velkor::storedLabelOf(certificate));
        writing.field(Bytes(certificate.der));
    }
    if (extent == Extent::Whole) {
        for (const PinRecord* pin : {&contents.userPin, &contents.soPin})
            writing.number(pin->changed ? 1 : 0).number(static_cast<std::uint64_t>(pin->triesMax));
    }
    return writing;
}

SecretBuffer codeOf(const Contents& contents, Bytes masterKey, Extent extent)
{
    // The master key itself seals private keys.
    return keyedCode(keyedCode(masterKey, "velkor-softkey contents"), writingOf(contents, extent).bytes());
}

bool haveCode(const Contents& contents, Bytes masterKey, Extent extent)
{
    const SecretBuffer code = codeOf(contents, masterKey, extent);
    return contents.authenticator.size() == code.size() &&
           CRYPTO_memcmp(contents.authenticator.data(), code.data(), code.size()) == 0;
}

} // namespace

bool areAuthentic(const Contents& contents, Bytes masterKey)
{
    return haveCode(contents, masterKey, Extent::Whole) || haveFormerCode(contents, masterKey);
}

bool haveFormerCode(const Contents& contents, Bytes masterKey)
{
    return haveCode(contents, masterKey, Extent::WithoutPins);
}

void authenticate(Database& database, Bytes masterKey)
{
    const SecretBuffer code = codeOf(readContents(database), masterKey, Extent::Whole);
    Statement(database, "UPDATE device SET authenticator = ?").bind(Bytes(code)).run();
}

} // namespace softkey
