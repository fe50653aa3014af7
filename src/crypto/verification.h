// Verification of signatures against the public half of a key pair on the device.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

CK_RV verifyInit(SessionRecord& session, const CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey);
CK_RV verify(SessionRecord& session, const CK_BYTE* pData, CK_ULONG ulDataLen, const CK_BYTE* pSignature,
             CK_ULONG ulSignatureLen);
CK_RV verifyUpdate(SessionRecord& session, const CK_BYTE* pPart, CK_ULONG ulPartLen);
CK_RV verifyFinal(SessionRecord& session, const CK_BYTE* pSignature, CK_ULONG ulSignatureLen);

} // namespace velkor
