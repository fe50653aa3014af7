// Import of certificates, with their issuers where those are on disk, and of RSA private keys.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

CK_RV createObject(const SessionRecord& session, const CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount,
                   CK_OBJECT_HANDLE* phObject);

} // namespace velkor
