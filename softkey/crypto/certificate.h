// Reading X.509 certificates, and what certificate files hold.
#pragma once

#include "crypto/openssl.h"
#include "velkor/device_service.h"

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

} // namespace softkey
