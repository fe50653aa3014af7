// From an object's id to its device record. Nothing is cached: each lookup fetches the device's list anew and copies
// the found record into the one module-wide record of its kind, over what was there.
#pragma once

#include "cryptoki.h"
#include "device/device_service.h"
#include "sessions/session_record.h"

/// The module-wide key pair record; null when the device has no key pair of that id.
VelkorKeyPair* findKeyPair(const SessionRecord& session, CK_ULONG id);

/// The module-wide certificate record; null when the device has no certificate of that id.
VelkorCertificate* findCertificate(const SessionRecord& session, CK_ULONG id);

/// What a module-wide record holds now. A lookup of another thread changes the record, not the copy.
VelkorKeyPair copyOf(const VelkorKeyPair& record);
VelkorCertificate copyOf(const VelkorCertificate& record);
