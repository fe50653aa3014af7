// The 68 entry points in the order of the standard: each names its rule in one line.
#include "cryptoki.h"
#include "strict/derivation.h"
#include "strict/entry_sequence.h"
#include "strict/generation.h"
#include "strict/lifecycle.h"
#include "strict/login.h"
#include "strict/mechanisms.h"
#include "strict/objects.h"
#include "strict/operations.h"
#include "strict/search.h"
#include "strict/sessions.h"
#include "strict/slots.h"

using namespace velkor;
using namespace velkor::strict;

namespace
{

const CK_FUNCTION_LIST functionList = {
    {CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR},
#define EXPORT(name) &(name),
#include "frame/exports.inc"
};

CK_RV getFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList)
{
    if (ppFunctionList == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetFunctionList: ppFunctionList is NULL");
    *ppFunctionList = const_cast<CK_FUNCTION_LIST_PTR>(&functionList);
    return CKR_OK;
}

/// What is left of functions that run beside the host's threads.
CK_RV notParallel(const char* name)
{
    return enter(name, [&] { return refuse(CKR_FUNCTION_NOT_PARALLEL, name, ": no function runs in parallel"); });
}

} // namespace

CK_RV C_Initialize(CK_VOID_PTR pInitArgs)
{
    return enterAlways(__func__, initialize, pInitArgs);
}

CK_RV C_Finalize(CK_VOID_PTR pReserved)
{
    return enterAlways(__func__, finalize, pReserved);
}

CK_RV C_GetInfo(CK_INFO_PTR pInfo)
{
    return enter(__func__, getInfo, pInfo);
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList)
{
    return enterAlways(__func__, getFunctionList, ppFunctionList);
}

CK_RV C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount)
{
    return enter(__func__, getSlotList, tokenPresent, pSlotList, pulCount);
}

CK_RV C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo)
{
    return enter(__func__, getSlotInfo, slotID, pInfo);
}

CK_RV C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo)
{
    return enter(__func__, getTokenInfo, slotID, pInfo);
}

CK_RV C_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList, CK_ULONG_PTR pulCount)
{
    return enter(__func__, getMechanismList, slotID, pMechanismList, pulCount);
}

CK_RV C_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo)
{
    return enter(__func__, getMechanismInfo, slotID, type, pInfo);
}

CK_RV C_InitToken(CK_SLOT_ID /*slotID*/, CK_UTF8CHAR_PTR /*pPin*/, CK_ULONG /*ulPinLen*/, CK_UTF8CHAR_PTR /*pLabel*/)
{
    return unsupported(__func__);
}

CK_RV C_InitPIN(CK_SESSION_HANDLE /*hSession*/, CK_UTF8CHAR_PTR /*pPin*/, CK_ULONG /*ulPinLen*/)
{
    return unsupported(__func__);
}

CK_RV C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen, CK_UTF8CHAR_PTR pNewPin,
               CK_ULONG ulNewLen)
{
    return enterSession(__func__, hSession, setPin, pOldPin, ulOldLen, pNewPin, ulNewLen);
}

CK_RV C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR /*pApplication*/, CK_NOTIFY /*Notify*/,
                    CK_SESSION_HANDLE_PTR phSession)
{
    return enter(__func__, openSession, slotID, flags, phSession);
}

CK_RV C_CloseSession(CK_SESSION_HANDLE hSession)
{
    return enter(__func__, closeSession, hSession);
}

CK_RV C_CloseAllSessions(CK_SLOT_ID slotID)
{
    return enter(__func__, closeAllSessions, slotID);
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo)
{
    return enterSession(__func__, hSession, getSessionInfo, pInfo);
}

CK_RV C_GetOperationState(CK_SESSION_HANDLE /*hSession*/, CK_BYTE_PTR /*pOperationState*/,
                          CK_ULONG_PTR /*pulOperationStateLen*/)
{
    return unsupported(__func__);
}

CK_RV C_SetOperationState(CK_SESSION_HANDLE /*hSession*/, CK_BYTE_PTR /*pOperationState*/,
                          CK_ULONG /*ulOperationStateLen*/, CK_OBJECT_HANDLE /*hEncryptionKey*/,
                          CK_OBJECT_HANDLE /*hAuthenticationKey*/)
{
    return unsupported(__func__);
}

CK_RV C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen)
{
    return enterSession(__func__, hSession, login, userType, pPin, ulPinLen);
}

CK_RV C_Logout(CK_SESSION_HANDLE hSession)
{
    return enterSession(__func__, hSession, logout);
}

CK_RV C_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                     CK_OBJECT_HANDLE_PTR phObject)
{
    return enterSession(__func__, hSession, createObject, pTemplate, ulCount, phObject);
}

CK_RV C_CopyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                   CK_OBJECT_HANDLE_PTR phNewObject)
{
    return enterSession(__func__, hSession, copyObject, hObject, pTemplate, ulCount, phNewObject);
}

CK_RV C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject)
{
    return enterSession(__func__, hSession, destroyObject, hObject);
}

CK_RV C_GetObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize)
{
    return enterSession(__func__, hSession, getObjectSize, hObject, pulSize);
}

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                          CK_ULONG ulCount)
{
    return enterSession(__func__, hSession, getAttributeValue, hObject, pTemplate, ulCount);
}

CK_RV C_SetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                          CK_ULONG ulCount)
{
    return enterSession(__func__, hSession, setAttributeValue, hObject, pTemplate, ulCount);
}

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    return enterSession(__func__, hSession, findObjectsInit, pTemplate, ulCount);
}

CK_RV C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMaxObjectCount,
                    CK_ULONG_PTR pulObjectCount)
{
    return enterSession(__func__, hSession, findObjects, phObject, ulMaxObjectCount, pulObjectCount);
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE hSession)
{
    return enterSession(__func__, hSession, findObjectsFinal);
}

CK_RV C_EncryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    return enterSession(__func__, hSession, encryptInit, pMechanism, hKey);
}

CK_RV C_Encrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pEncryptedData,
                CK_ULONG_PTR pulEncryptedDataLen)
{
    return enterSession(__func__, hSession, encrypt, pData, ulDataLen, Output{pEncryptedData, pulEncryptedDataLen});
}

CK_RV C_EncryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen, CK_BYTE_PTR pEncryptedPart,
                      CK_ULONG_PTR pulEncryptedPartLen)
{
    return enterSession(__func__, hSession, encryptUpdate, pPart, ulPartLen,
                        Output{pEncryptedPart, pulEncryptedPartLen});
}

CK_RV C_EncryptFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastEncryptedPart, CK_ULONG_PTR pulLastEncryptedPartLen)
{
    return enterSession(__func__, hSession, encryptFinal, Output{pLastEncryptedPart, pulLastEncryptedPartLen});
}

CK_RV C_DecryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    return enterSession(__func__, hSession, decryptInit, pMechanism, hKey);
}

CK_RV C_Decrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData, CK_ULONG ulEncryptedDataLen, CK_BYTE_PTR pData,
                CK_ULONG_PTR pulDataLen)
{
    return enterSession(__func__, hSession, decrypt, pEncryptedData, ulEncryptedDataLen, Output{pData, pulDataLen});
}

CK_RV C_DecryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedPart, CK_ULONG ulEncryptedPartLen,
                      CK_BYTE_PTR pPart, CK_ULONG_PTR pulPartLen)
{
    return enterSession(__func__, hSession, decryptUpdate, pEncryptedPart, ulEncryptedPartLen,
                        Output{pPart, pulPartLen});
}

CK_RV C_DecryptFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastPart, CK_ULONG_PTR pulLastPartLen)
{
    return enterSession(__func__, hSession, decryptFinal, Output{pLastPart, pulLastPartLen});
}

CK_RV C_DigestInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism)
{
    return enterSession(__func__, hSession, digestInit, pMechanism);
}

CK_RV C_Digest(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pDigest,
               CK_ULONG_PTR pulDigestLen)
{
    return enterSession(__func__, hSession, digest, pData, ulDataLen, Output{pDigest, pulDigestLen});
}

CK_RV C_DigestUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    return enterSession(__func__, hSession, digestUpdate, pPart, ulPartLen);
}

CK_RV C_DigestKey(CK_SESSION_HANDLE /*hSession*/, CK_OBJECT_HANDLE /*hKey*/)
{
    return unsupported(__func__);
}

CK_RV C_DigestFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen)
{
    return enterSession(__func__, hSession, digestFinal, Output{pDigest, pulDigestLen});
}

CK_RV C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    return enterSession(__func__, hSession, signInit, pMechanism, hKey);
}

CK_RV C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
             CK_ULONG_PTR pulSignatureLen)
{
    return enterSession(__func__, hSession, sign, pData, ulDataLen, Output{pSignature, pulSignatureLen});
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    return enterSession(__func__, hSession, signUpdate, pPart, ulPartLen);
}

CK_RV C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen)
{
    return enterSession(__func__, hSession, signFinal, Output{pSignature, pulSignatureLen});
}

CK_RV C_SignRecoverInit(CK_SESSION_HANDLE /*hSession*/, CK_MECHANISM_PTR /*pMechanism*/, CK_OBJECT_HANDLE /*hKey*/)
{
    return unsupported(__func__);
}

CK_RV C_SignRecover(CK_SESSION_HANDLE /*hSession*/, CK_BYTE_PTR /*pData*/, CK_ULONG /*ulDataLen*/,
                    CK_BYTE_PTR /*pSignature*/, CK_ULONG_PTR /*pulSignatureLen*/)
{
    return unsupported(__func__);
}

CK_RV C_VerifyInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    return enterSession(__func__, hSession, verifyInit, pMechanism, hKey);
}

CK_RV C_Verify(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
               CK_ULONG ulSignatureLen)
{
    return enterSession(__func__, hSession, verify, pData, ulDataLen, pSignature, ulSignatureLen);
}

CK_RV C_VerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    return enterSession(__func__, hSession, verifyUpdate, pPart, ulPartLen);
}

CK_RV C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen)
{
    return enterSession(__func__, hSession, verifyFinal, pSignature, ulSignatureLen);
}

CK_RV C_VerifyRecoverInit(CK_SESSION_HANDLE /*hSession*/, CK_MECHANISM_PTR /*pMechanism*/, CK_OBJECT_HANDLE /*hKey*/)
{
    return unsupported(__func__);
}

CK_RV C_VerifyRecover(CK_SESSION_HANDLE /*hSession*/, CK_BYTE_PTR /*pSignature*/, CK_ULONG /*ulSignatureLen*/,
                      CK_BYTE_PTR /*pData*/, CK_ULONG_PTR /*pulDataLen*/)
{
    return unsupported(__func__);
}

CK_RV C_DigestEncryptUpdate(CK_SESSION_HANDLE /*hSession*/, CK_BYTE_PTR /*pPart*/, CK_ULONG /*ulPartLen*/,
                            CK_BYTE_PTR /*pEncryptedPart*/, CK_ULONG_PTR /*pulEncryptedPartLen*/)
{
    return unsupported(__func__);
}

CK_RV C_DecryptDigestUpdate(CK_SESSION_HANDLE /*hSession*/, CK_BYTE_PTR /*pEncryptedPart*/,
                            CK_ULONG /*ulEncryptedPartLen*/, CK_BYTE_PTR /*pPart*/, CK_ULONG_PTR /*pulPartLen*/)
{
    return unsupported(__func__);
}

CK_RV C_SignEncryptUpdate(CK_SESSION_HANDLE /*hSession*/, CK_BYTE_PTR /*pPart*/, CK_ULONG /*ulPartLen*/,
                          CK_BYTE_PTR /*pEncryptedPart*/, CK_ULONG_PTR /*pulEncryptedPartLen*/)
{
    return unsupported(__func__);
}

CK_RV C_DecryptVerifyUpdate(CK_SESSION_HANDLE /*hSession*/, CK_BYTE_PTR /*pEncryptedPart*/,
                            CK_ULONG /*ulEncryptedPartLen*/, CK_BYTE_PTR /*pPart*/, CK_ULONG_PTR /*pulPartLen*/)
{
    return unsupported(__func__);
}

CK_RV C_GenerateKey(CK_SESSION_HANDLE /*hSession*/, CK_MECHANISM_PTR /*pMechanism*/, CK_ATTRIBUTE_PTR /*pTemplate*/,
                    CK_ULONG /*ulCount*/, CK_OBJECT_HANDLE_PTR /*phKey*/)
{
    return unsupported(__func__);
}

CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_ATTRIBUTE_PTR pPublicKeyTemplate,
                        CK_ULONG ulPublicKeyAttributeCount, CK_ATTRIBUTE_PTR pPrivateKeyTemplate,
                        CK_ULONG ulPrivateKeyAttributeCount, CK_OBJECT_HANDLE_PTR phPublicKey,
                        CK_OBJECT_HANDLE_PTR phPrivateKey)
{
    return enterSession(__func__, hSession, generateKeyPair, pMechanism,
                        GivenTemplate{pPublicKeyTemplate, ulPublicKeyAttributeCount},
                        GivenTemplate{pPrivateKeyTemplate, ulPrivateKeyAttributeCount}, phPublicKey, phPrivateKey);
}

CK_RV C_WrapKey(CK_SESSION_HANDLE /*hSession*/, CK_MECHANISM_PTR /*pMechanism*/, CK_OBJECT_HANDLE /*hWrappingKey*/,
                CK_OBJECT_HANDLE /*hKey*/, CK_BYTE_PTR /*pWrappedKey*/, CK_ULONG_PTR /*pulWrappedKeyLen*/)
{
    return unsupported(__func__);
}

CK_RV C_UnwrapKey(CK_SESSION_HANDLE /*hSession*/, CK_MECHANISM_PTR /*pMechanism*/, CK_OBJECT_HANDLE /*hUnwrappingKey*/,
                  CK_BYTE_PTR /*pWrappedKey*/, CK_ULONG /*ulWrappedKeyLen*/, CK_ATTRIBUTE_PTR /*pTemplate*/,
                  CK_ULONG /*ulAttributeCount*/, CK_OBJECT_HANDLE_PTR /*phKey*/)
{
    return unsupported(__func__);
}

CK_RV C_DeriveKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hBaseKey,
                  CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey)
{
    return enterSession(__func__, hSession, deriveKey, pMechanism, hBaseKey, pTemplate, ulAttributeCount, phKey);
}

CK_RV C_SeedRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR /*pSeed*/, CK_ULONG /*ulSeedLen*/)
{
    return enterSession(__func__, hSession, [](Session& /*session*/) {
        return refuse(CKR_RANDOM_SEED_NOT_SUPPORTED, "C_SeedRandom: not supported");
    });
}

CK_RV C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pRandomData, CK_ULONG ulRandomLen)
{
    return enterSession(__func__, hSession, generateRandom, pRandomData, ulRandomLen);
}

CK_RV C_GetFunctionStatus(CK_SESSION_HANDLE /*hSession*/)
{
    return notParallel(__func__);
}

CK_RV C_CancelFunction(CK_SESSION_HANDLE /*hSession*/)
{
    return notParallel(__func__);
}

CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR pReserved)
{
    return enter(__func__, waitForSlotEvent, flags, pSlot, pReserved);
}
