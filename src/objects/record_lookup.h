// From an object's handle to its device record. Nothing is cached: each lookup fetches the device's list anew. A key
// pair that is found is copied into the one module-wide record, over what was there.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"
#include "velkor/device_service.h"

namespace velkor
{

/// The key pair of an id in the device's list; null when there is none. Valid until this thread's next list of key
/// pairs.
const VelkorKeyPair* findKeyPair(const SessionRecord& session, CK_ULONG id);

/// The certificate of an id in the device's list; null when there is none. Valid until this thread's next list of
/// certificates.
const VelkorCertificate* findCertificate(const SessionRecord& session, CK_ULONG id);

} // namespace velkor
