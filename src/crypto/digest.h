// Message digests, computed by the device library.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

CK_RV digestInit(SessionRecord& session, const CK_MECHANISM* pMechanism);
CK_RV digest(SessionRecord& session, const CK_BYTE* pData, CK_ULONG ulDataLen, CK_BYTE* pDigest,
             CK_ULONG* pulDigestLen);
CK_RV digestUpdate(SessionRecord& session, const CK_BYTE* pPart, CK_ULONG ulPartLen);
CK_RV digestFinal(SessionRecord& session, CK_BYTE* pDigest, CK_ULONG* pulDigestLen);

} // namespace velkor
