#include "tool/key_material.h"

#include "crypto/certificate.h"
#include "crypto/keys.h"
#include "tool/objects.h"

#include <algorithm>
#include <openssl/decoder.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>

namespace softkey
{
namespace
{

using Decoder = Owned<OSSL_DECODER_CTX, OSSL_DECODER_CTX_free>;
using Pkcs12 = Owned<PKCS12, PKCS12_free>;

void releaseCertificates(STACK_OF(X509) * certificates)
{
    sk_X509_pop_free(certificates, X509_free);
}
using Certificates = Owned<STACK_OF(X509), releaseCertificates>;

void releaseText(char* text)
{
    OPENSSL_free(text);
}
using OpenSslText = Owned<char, releaseText>;

[[noreturn]] void refusePassPhrase()
{
    throw Failure(ExitCode::BadInput, "the file cannot be decrypted: the pass phrase is not right, or the way in which "
                                      "it is encrypted is not taken");
}

BioOwner reading(Bytes content)
{
    return requireObject<BioOwner>(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
}

/// What OpenSSL is told when it wants a pass phrase.
struct PassPhrase {
    std::optional<std::string_view> text;
    bool wasWanted = false;

    static int give(char* buffer, int capacity, int, void* self)
    {
        auto* const passPhrase = static_cast<PassPhrase*>(self);
        passPhrase->wasWanted = true;
        if (!passPhrase->text || passPhrase->text->size() > static_cast<std::size_t>(capacity))
            return -1;
        std::ranges::copy(*passPhrase->text, buffer);
        return static_cast<int>(passPhrase->text->size());
    }
};

EvpKey keyFromDer(Bytes content, PassPhrase& passPhrase)
{
    EVP_PKEY* key = nullptr;
    const auto decoder = requireObject<Decoder>(OSSL_DECODER_CTX_new_for_pkey(
        &key, "DER", nullptr, nullptr, EVP_PKEY_KEYPAIR, CryptoContext::get().library(), nullptr));
    OSSL_DECODER_CTX_set_pem_password_cb(decoder.get(), PassPhrase::give, &passPhrase);
    const unsigned char* position = content.data();
    std::size_t left = content.size();
    OSSL_DECODER_from_data(decoder.get(), &position, &left);
    return EvpKey(key);
}

/// The file from its first private key in PEM on, or all of it: OpenSSL trips over certificates before the key.
Bytes fromPrivateKeyOn(Bytes content)
{
    constexpr std::string_view BEGIN = "-----BEGIN ";
    const std::string_view text(reinterpret_cast<const char*>(content.data()), content.size());
    for (std::size_t at = text.find(BEGIN); at != std::string_view::npos; at = text.find(BEGIN, at + 1)) {
        const std::string_view line = text.substr(at, text.find('\n', at) - at);
        if (line.find("PRIVATE KEY-----") != std::string_view::npos)
            return content.subspan(at);
    }
    return content;
}

/// The first private key of a file in any form but PKCS #12; null when there is none, or it cannot be decrypted.
EvpKey decodedKey(Bytes content, PassPhrase& passPhrase)
{
    const BioOwner in = reading(fromPrivateKeyOn(content));
    EvpKey key(PEM_read_bio_PrivateKey_ex(in.get(), nullptr, PassPhrase::give, &passPhrase,
                                          CryptoContext::get().library(), nullptr));
    return key || passPhrase.wasWanted ? std::move(key) : keyFromDer(content, passPhrase);
}

EvpKey plainOrDecryptedKey(Bytes content, const AskPassPhrase& ask)
{
    PassPhrase passPhrase;
    EvpKey key = decodedKey(content, passPhrase);
    if (key || !passPhrase.wasWanted)
        return key;
    passPhrase = {ask(), false};
    key = decodedKey(content, passPhrase);
    if (!key)
        refusePassPhrase();
    return key;
}

/// All certificates of a PEM file, or the one of a DER file.
std::vector<ByteVector> certificatesOf(Bytes content)
{
    std::vector<ByteVector> certificates;
    const BioOwner in = reading(content);
    for (;;) {
        char* name = nullptr;
        char* header = nullptr;
        unsigned char* data = nullptr;
        long size = 0;
        if (PEM_read_bio(in.get(), &name, &header, &data, &size) != 1)
            break;
        const OpenSslText nameOwner(name);
        const OpenSslText headerOwner(header);
        const OpenSslBytes dataOwner(data);
        if (std::string_view(name) == PEM_STRING_X509)
            certificates.push_back(certificateFromFileContent(Bytes(data, static_cast<std::size_t>(size))));
    }
    if (certificates.empty())
        certificates.push_back(certificateFromFileContent(content));
    std::erase_if(certificates, [](const ByteVector& der) { return der.empty(); });
    return certificates;
}

Pkcs12 pkcs12From(Bytes content)
{
    const unsigned char* position = content.data();
    return Pkcs12(d2i_PKCS12(nullptr, &position, static_cast<long>(content.size())));
}

/// The text with the zero behind it that OpenSSL wants, in memory that is wiped.
SecretBuffer withZero(std::string_view text)
{
    SecretBuffer buffer(text.size() + 1);
    std::ranges::copy(text, buffer.data());
    return buffer;
}

ByteVector derOf(const X509* certificate)
{
    const std::string der = derText(i2d_X509, certificate);
    return {der.begin(), der.end()};
}

/// Nothing when the file does not open by that pass phrase.
std::optional<KeyMaterial> openedPkcs12(PKCS12* file, std::string_view text)
{
    const SecretBuffer passPhrase = withZero(text);
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    STACK_OF(X509)* others = nullptr;
    const bool isOpen =
        PKCS12_parse(file, reinterpret_cast<const char*>(passPhrase.data()), &key, &certificate, &others) == 1;
    const EvpKey keyOwner(key);
    const Certificate certificateOwner(certificate);
    const Certificates othersOwner(others);
    if (!isOpen)
        return std::nullopt;
    KeyMaterial material;
    if (key != nullptr) // Anew, in the library context of the software key.
        material.key = decodePrivateKey(encodePrivateKey(key));
    if (certificate != nullptr)
        material.certificates.push_back(derOf(certificate));
    for (int place = 0; place < sk_X509_num(others); ++place)
        material.certificates.push_back(derOf(sk_X509_value(others, place)));
    return material;
}

} // namespace

KeyMaterial keyMaterialOf(Bytes content, const AskPassPhrase& ask)
{
    if (const Pkcs12 file = pkcs12From(content)) {
        std::optional<KeyMaterial> opened = openedPkcs12(file.get(), "");
        if (!opened)
            opened = openedPkcs12(file.get(), ask());
        if (!opened)
            refusePassPhrase();
        return std::move(*opened);
    }
    KeyMaterial material;
    if (!content.empty())
        material = {plainOrDecryptedKey(content, ask), certificatesOf(content)};
    if (!material.key && material.certificates.empty())
        throw Refusal(SoftkeyStatus::BadPrivateKey, "the file holds neither a private key nor a certificate");
    return material;
}

std::string pkcs12With(Bytes certificate, std::string_view passPhrase)
{
    const Certificate parsed = parseCertificate(certificate);
    const SecretBuffer text = withZero(passPhrase);
    const auto file = requireObject<Pkcs12>(
        PKCS12_create_ex(reinterpret_cast<const char*>(text.data()), nullptr, nullptr, parsed.get(), nullptr, 0, 0,
                         PKCS12_DEFAULT_ITER, PKCS12_DEFAULT_ITER, 0, CryptoContext::get().library(), nullptr));
    return derText(i2d_PKCS12, file.get());
}

} // namespace softkey
