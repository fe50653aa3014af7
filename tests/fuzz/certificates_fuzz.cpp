// Everything that reads DER or PEM from outside: certificates, keys, points and signatures. The first byte chooses who
// reads the rest.
#include <algorithm>
#include <array>
#include <iterator>
#include <span>
#include <vector>

#include "base/status.h"
#include "crypto/certificate.h"
#include "crypto/ecdsa_form.h"
#include "crypto/keys.h"
#include "crypto/public_key.h"
#include "expect.h"
#include "strict/der.h"
#include "util/der.h"

namespace
{

using Bytes = std::span<const unsigned char>;

bool isSame(Bytes left, Bytes right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

void readCertificate(Bytes input)
{
    const softkey::Certificate certificate = softkey::parseCertificate(input);
    softkey::certificateDetails(certificate.get());
    softkey::subjectDer(certificate.get());
    softkey::issuerDer(certificate.get());
    softkey::serialNumberDer(certificate.get());
}

void readCertificateFile(Bytes input)
{
    const softkey::ByteVector der = softkey::certificateFromFileContent(input);
    if (!der.empty())
        softkey::parseCertificate(der);
}

void usePrivateKey(const softkey::EvpKey& key)
{
    if (key == nullptr || softkey::keyKindOf(key.get()) == nullptr)
        return;
    softkey::publicKeyValue(key.get());
    const softkey::SecretBuffer encoded = softkey::encodePrivateKey(key.get());
    fuzz::expect(softkey::decodePrivateKey(encoded) != nullptr, "a key that was read can be read again");
}

void readPrivateKey(Bytes input)
{
    usePrivateKey(softkey::decodePrivateKey(input));
}

void readPrivateKeyFile(Bytes input)
{
    usePrivateKey(softkey::privateKeyFromFileContent(input));
}

void readPublicKey(Bytes input)
{
    if (input.empty())
        return;
    const auto kinds = softkey::keyKinds();
    softkey::publicKeyFrom(kinds[input.front() % kinds.size()], input.subspan(1));
}

void verifySignature(Bytes input)
{
    if (input.size() < 200)
        return;
    const auto kinds = softkey::keyKinds();
    const softkey::KeyKindTraits& traits = kinds[input.front() % kinds.size()];
    const Bytes hash = input.subspan(1, 32);
    const Bytes signature = input.subspan(33, std::min(traits.signatureSize(), input.size() - 33));
    softkey::verifySignature(traits, input.subspan(33 + signature.size()), hash, signature, input.front() > 0x7F);
}

void convertSignature(Bytes input)
{
    for (const softkey::KeyKindTraits& traits : softkey::keyKinds()) {
        if (traits.isRsa())
            continue;
        std::vector<unsigned char> fixed(traits.signatureSize());
        softkey::fixedFromDer(input, fixed);
        std::vector<unsigned char> again(fixed.size());
        softkey::fixedFromDer(softkey::derFromFixed(fixed), again);
        fuzz::expect(isSame(fixed, again), "a signature keeps its numbers");
    }
}

void readModulus(Bytes input)
{
    velkor::SecretBytes modulus;
    velkor::SecretBytes exponent;
    velkor::strict::readRsaPublicKey(input, modulus, exponent);
    const velkor::OwnedBytes info = velkor::rsaSubjectPublicKeyInfo(input);
    fuzz::expect(velkor::strict::readRsaPublicKey(info, modulus, exponent), "what was written as a key is one");
    fuzz::expect(isSame(modulus, velkor::strict::withoutLeadingZeros(input)), "a key keeps its modulus");
    fuzz::expect(isSame(exponent, velkor::RSA_PUBLIC_EXPONENT), "a key keeps its exponent");
}

void readPoint(Bytes input)
{
    velkor::strict::barePoint(input);
    const velkor::SecretBytes wrapped = velkor::strict::derOctetString(input);
    constexpr std::array<std::size_t, 3> BARE_SIZES = {65, 97, 133};
    const bool looksBare = std::find(BARE_SIZES.begin(), BARE_SIZES.end(), wrapped.size()) != BARE_SIZES.end();
    fuzz::expect(looksBare || input.empty() || isSame(velkor::strict::barePoint(wrapped), input),
                 "a point comes out of its octet string");
}

constexpr void (*READERS[])(Bytes) = {readCertificate,    readCertificateFile, readPrivateKey,
                                      readPrivateKeyFile, readPublicKey,       verifySignature,
                                      convertSignature,   readModulus,         readPoint};

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argumentCount*/, char*** /*arguments*/)
{
    fuzz::expect(softkey::startOpenSsl(), "OpenSSL starts");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size)
{
    if (size == 0)
        return 0;
    const softkey::ErrorQueueGuard guard;
    try {
        READERS[bytes[0] % std::size(READERS)]({bytes + 1, size - 1});
    } catch (const softkey::Refusal&) {
        return 0;
    }
    return 0;
}
