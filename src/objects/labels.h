// Labels of objects, computed from certificates where the device holds none.
#pragma once

#include <string>
#include <string_view>

#include "sessions/session_record.h"
#include "velkor/device_service.h"

namespace velkor
{

/// The label that a parsed certificate gives: subject and issuer, at most 128 bytes.
std::string computedLabel(const CertificateDetails& details);

/// Stores a label on the device if a user is logged in; nothing is made of a failure.
void storeLabel(const SessionRecord& session, const VelkorKeyPair& keyPair, const std::string& label);

/// An object's label, valid as long as its record.
struct Label {
    std::string_view stored;
    std::string computed; ///< Where none is stored.

    std::string_view text() const { return stored.empty() ? std::string_view(computed) : stored; }
};

/// The stored label, or one computed from the certificate; empty when it cannot be parsed. Never written back.
Label labelOf(const VelkorCertificate& certificate);

/// The stored label, or one computed from the first certificate of the same public key, which is then stored on the
/// device if a user is logged in; empty when there is no such certificate.
Label labelOf(const SessionRecord& session, const VelkorKeyPair& keyPair);

} // namespace velkor
