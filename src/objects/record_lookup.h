// From an object's handle to its device record. Nothing is cached: each lookup fetches the device's list anew and
// copies the found record into the one module-wide record of its kind, over what was there.
#pragma once

#include <optional>

#include "cryptoki.h"
#include "sessions/session_record.h"
#include "velkor/device_service.h"

namespace velkor
{

/// The key pair of an id, as a copy that no later lookup changes.
std::optional<VelkorKeyPair> findKeyPair(const SessionRecord& session, CK_ULONG id);

/// The certificate of an id, as a copy that no later lookup changes.
std::optional<VelkorCertificate> findCertificate(const SessionRecord& session, CK_ULONG id);

} // namespace velkor
