// Reading X.509 certificates and certificate files.
#pragma once

#include "crypto/openssl.h"
#include "crypto/secret.h"

#include "velkor/device_service.h"

#include <filesystem>
#include <optional>

namespace softkey
{

/// Parses one DER certificate with nothing behind it; throws BadCertificate.
Certificate parseCertificate(Bytes der);

CertificateDetails certificateDetails(const X509* certificate);
ByteVector subjectDer(const X509* certificate);
ByteVector issuerDer(const X509* certificate);
ByteVector serialNumberDer(const X509* certificate);

/// The certificate of a DER or PEM file's content, as DER; empty when there is none.
ByteVector certificateFromFileContent(Bytes content);

/// A regular file's content; nothing when it cannot be read or is larger than a certificate file can be.
std::optional<ByteVector> readSmallFile(const std::filesystem::path& path);
/// The same in memory that is wiped.
std::optional<SecretBytes> readSmallSecretFile(const std::filesystem::path& path);

} // namespace softkey
