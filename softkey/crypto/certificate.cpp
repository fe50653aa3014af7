#include "crypto/certificate.h"

#include "crypto/key_kinds.h"
#include "crypto/keys.h"

#include <openssl/asn1.h>
#include <openssl/pem.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

namespace softkey
{
namespace
{

// "CN=Root,O=Example", most specific part first, in UTF-8.
constexpr unsigned long NAME_FORMAT = XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);

using Number = Owned<BIGNUM, BN_free>;

void releaseText(char* text)
{
    OPENSSL_free(text);
}
using OpenSslText = Owned<char, releaseText>;

std::string nameText(const X509_NAME* name)
{
    const auto out = requireObject<BioOwner>(BIO_new(BIO_s_mem()));
    require(X509_NAME_print_ex(out.get(), name, 0, NAME_FORMAT) >= 0);
    char* text = nullptr;
    const long size = BIO_get_mem_data(out.get(), &text);
    return size > 0 ? std::string(text, static_cast<std::size_t>(size)) : std::string();
}

std::string commonName(const X509_NAME* name)
{
    // The last common name of the encoding is the most specific.
    int position = -1;
    for (int next = -1; (next = X509_NAME_get_index_by_NID(name, NID_commonName, next)) >= 0;)
        position = next;
    if (position < 0)
        return {};
    unsigned char* utf8 = nullptr;
    const int size = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, position)));
    const OpenSslBytes owner(utf8);
    return size > 0 ? std::string(utf8, utf8 + size) : std::string();
}

std::string serialNumberText(const X509* certificate)
{
    const auto number = requireObject<Number>(ASN1_INTEGER_to_BN(X509_get0_serialNumber(certificate), nullptr));
    const auto text = requireObject<OpenSslText>(BN_bn2hex(number.get()));
    return text.get();
}

std::string timeText(const ASN1_TIME* time)
{
    std::tm utc{};
    require(ASN1_TIME_to_tm(time, &utc) == 1, SoftkeyStatus::BadCertificate);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02d-%02d %02d:%02d:%02d", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
    return text.data();
}

ByteVector certifiedKey(const X509* certificate)
{
    const EVP_PKEY* key = X509_get0_pubkey(certificate);
    if (key != nullptr && (EVP_PKEY_is_a(key, "RSA") == 1 || EVP_PKEY_is_a(key, "EC") == 1))
        return publicKeyValue(key);
    // A key of no kind that a device holds: its bits as they are.
    const ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(certificate);
    const unsigned char* data = ASN1_STRING_get0_data(bits);
    return {data, data + ASN1_STRING_length(bits)};
}

template <class Encode, class Object>
ByteVector derOf(Encode encode, Object* object)
{
    unsigned char* der = nullptr;
    const int size = encode(object, &der);
    const OpenSslBytes owner(der);
    require(size > 0);
    return {der, der + size};
}

ByteVector derFromPem(Bytes content)
{
    const auto in = requireObject<BioOwner>(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
    for (;;) {
        char* name = nullptr;
        char* header = nullptr;
        unsigned char* data = nullptr;
        long size = 0;
        // The plain reader: it never asks for a pass phrase.
        if (PEM_read_bio(in.get(), &name, &header, &data, &size) != 1)
            return {};
        const OpenSslText nameOwner(name);
        const OpenSslText headerOwner(header);
        const OpenSslBytes dataOwner(data);
        const std::string_view kind(name);
        if (kind == PEM_STRING_X509 || kind == PEM_STRING_X509_OLD)
            return {data, data + size};
    }
}

bool isCertificate(Bytes der)
{
    try {
        parseCertificate(der);
        return true;
    } catch (const Refusal&) {
        return false;
    }
}

} // namespace

Certificate parseCertificate(Bytes der)
{
    X509* certificate = X509_new_ex(CryptoContext::get().library(), nullptr);
    require(certificate != nullptr);
    const unsigned char* position = der.data();
    // On failure d2i_X509 releases the certificate and clears the pointer.
    const bool parsed = d2i_X509(&certificate, &position, static_cast<long>(der.size())) != nullptr;
    Certificate owner(certificate);
    require(parsed && position == der.data() + der.size(), SoftkeyStatus::BadCertificate);
    return owner;
}

CertificateDetails certificateDetails(const X509* certificate)
{
    CertificateDetails details;
    details.serialNumber = serialNumberText(certificate);
    details.subjectCommonName = commonName(X509_get_subject_name(certificate));
    details.issuerCommonName = commonName(X509_get_issuer_name(certificate));
    details.subject = nameText(X509_get_subject_name(certificate));
    details.issuer = nameText(X509_get_issuer_name(certificate));
    details.notBefore = timeText(X509_get0_notBefore(certificate));
    details.notAfter = timeText(X509_get0_notAfter(certificate));
    details.publicKey = certifiedKey(certificate);
    return details;
}

ByteVector subjectDer(const X509* certificate)
{
    return derOf(i2d_X509_NAME, X509_get_subject_name(certificate));
}

ByteVector issuerDer(const X509* certificate)
{
    return derOf(i2d_X509_NAME, X509_get_issuer_name(certificate));
}

ByteVector serialNumberDer(const X509* certificate)
{
    return derOf(i2d_ASN1_INTEGER, X509_get0_serialNumber(certificate));
}

ByteVector certificateFromFileContent(Bytes content)
{
    const ByteVector fromPem = derFromPem(content);
    const Bytes der = fromPem.empty() ? content : Bytes(fromPem);
    return isCertificate(der) ? ByteVector(der.begin(), der.end()) : ByteVector();
}

} // namespace softkey
