// Signatures with a private key of the device.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

CK_RV signInit(SessionRecord& session, const CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey);
CK_RV sign(SessionRecord& session, const CK_BYTE* pData, CK_ULONG ulDataLen, CK_BYTE* pSignature,
           CK_ULONG* pulSignatureLen);
CK_RV signUpdate(SessionRecord& session, const CK_BYTE* pPart, CK_ULONG ulPartLen);
CK_RV signFinal(SessionRecord& session, CK_BYTE* pSignature, CK_ULONG* pulSignatureLen);

} // namespace velkor
