// The issuers of a certificate, looked for in a folder of the local disk by their common names.
#pragma once

#include <vector>

#include "velkor/device_service.h"

namespace velkor
{

/// The certificate and its issuers up to a self-signed one, the topmost first; empty when there are no files or an
/// issuer is not among them.
std::vector<VelkorCertificate> issuerChain(const VelkorCertificate& leaf, const CertificateDetails& details);

} // namespace velkor
