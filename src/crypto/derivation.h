// ECDH key derivation. Derived keys stay in the module, under handles of their own, until it is unloaded.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

CK_RV deriveKey(const SessionRecord& session, const CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hBaseKey,
                const CK_ATTRIBUTE* pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE* phKey);

} // namespace velkor
