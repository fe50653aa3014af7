// RSA encryption with a public key of the device, and decryption with a private one.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

CK_RV encryptInit(SessionRecord& session, const CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey);
CK_RV encrypt(SessionRecord& session, const CK_BYTE* pData, CK_ULONG ulDataLen, CK_BYTE* pEncryptedData,
              CK_ULONG* pulEncryptedDataLen);
CK_RV decryptInit(SessionRecord& session, const CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey);
CK_RV decrypt(SessionRecord& session, const CK_BYTE* pEncryptedData, CK_ULONG ulEncryptedDataLen, CK_BYTE* pData,
              CK_ULONG* pulDataLen);

} // namespace velkor
