// The supported entry points in the order of the standard: each names itself, runs the entry sequence and calls the
// subsystem that does the work.
#include "crypto/derivation.h"
#include "crypto/digest.h"
#include "crypto/encryption.h"
#include "crypto/key_generation.h"
#include "crypto/random.h"
#include "crypto/signing.h"
#include "crypto/verification.h"
#include "cryptoki.h"
#include "frame/entry_sequence.h"
#include "frame/lifecycle.h"
#include "objects/attribute_access.h"
#include "objects/object_deletion.h"
#include "objects/object_import.h"
#include "objects/object_search.h"
#include "sessions/login.h"
#include "sessions/session_table.h"
#include "slots/device_monitor.h"
#include "slots/mechanism_list.h"
#include "slots/slot_table.h"

namespace velkor
{
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

} // namespace
} // namespace velkor

using namespace velkor;

// What a host passes is ignored. The strict front passes this function itself.
CK_RV C_Initialize(CK_VOID_PTR pInitArgs)
{
    CK_RV result = guarded(__func__, chooseOutput, pInitArgs == reinterpret_cast<void*>(&C_Initialize));
    if (result == CKR_OK)
        result = enterAlways(__func__, createLibraryInstance);
    if (result != CKR_OK)
        return result;
    startDeviceMonitor(); // Not guarded: a thread that cannot be created reaches the host as std::system_error.
    return guarded(__func__, reportStart);
}

CK_RV C_Finalize(CK_VOID_PTR /*pReserved*/)
{
    return enter(__func__, finalize);
}

CK_RV C_GetInfo(CK_INFO_PTR pInfo)
{
    return enter(__func__, getInfo, pInfo);
}

// Works before C_Initialize.
CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList)
{
    return enterAlways(__func__, getFunctionList, ppFunctionList);
}

CK_RV C_GetSlotList(CK_BBOOL /*tokenPresent*/, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount)
{
    return enter(__func__, getSlotList, pSlotList, pulCount);
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
    return enterSession(__func__, hSession, closeSession, hSession);
}

CK_RV C_CloseAllSessions(CK_SLOT_ID slotID)
{
    return enter(__func__, closeAllSessions, slotID);
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo)
{
    return enterSession(__func__, hSession, getSessionInfo, pInfo);
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

CK_RV C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject)
{
    return enter(__func__, destroyObject, hSession, hObject); // Which refuses a session in words of its own.
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
    return enterOperation(__func__, hSession, ActiveOperation::Find, findObjects, phObject, ulMaxObjectCount,
                          pulObjectCount);
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE hSession)
{
    return enterOperation(__func__, hSession, ActiveOperation::Find, findObjectsFinal);
}

CK_RV C_EncryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    return enterInit(__func__, hSession, {.inAnyState = true, .replacesDigest = true}, encryptInit, pMechanism, hKey);
}

CK_RV C_Encrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pEncryptedData,
                CK_ULONG_PTR pulEncryptedDataLen)
{
    return enterOperation(__func__, hSession, ActiveOperation::Encrypt, encrypt, pData, ulDataLen, pEncryptedData,
                          pulEncryptedDataLen);
}

CK_RV C_DecryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    return enterInit(__func__, hSession, {.inAnyState = false, .replacesDigest = true}, decryptInit, pMechanism, hKey);
}

CK_RV C_Decrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData, CK_ULONG ulEncryptedDataLen, CK_BYTE_PTR pData,
                CK_ULONG_PTR pulDataLen)
{
    return enterOperation(__func__, hSession, ActiveOperation::Decrypt, decrypt, pEncryptedData, ulEncryptedDataLen,
                          pData, pulDataLen);
}

CK_RV C_DigestInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism)
{
    return enterInit(__func__, hSession, {.inAnyState = false, .replacesDigest = true}, digestInit, pMechanism);
}

CK_RV C_Digest(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pDigest,
               CK_ULONG_PTR pulDigestLen)
{
    return enterOperation(__func__, hSession, ActiveOperation::Digest, digest, pData, ulDataLen, pDigest, pulDigestLen);
}

CK_RV C_DigestUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    return enterOperation(__func__, hSession, ActiveOperation::Digest, digestUpdate, pPart, ulPartLen);
}

CK_RV C_DigestFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen)
{
    return enterOperation(__func__, hSession, ActiveOperation::Digest, digestFinal, pDigest, pulDigestLen);
}

CK_RV C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    return enterInit(__func__, hSession, {.inAnyState = false, .replacesDigest = false}, signInit, pMechanism, hKey);
}

CK_RV C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
             CK_ULONG_PTR pulSignatureLen)
{
    return enterOperation(__func__, hSession, ActiveOperation::Sign, sign, pData, ulDataLen, pSignature,
                          pulSignatureLen);
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    return enterOperation(__func__, hSession, ActiveOperation::Sign, signUpdate, pPart, ulPartLen);
}

CK_RV C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen)
{
    return enterOperation(__func__, hSession, ActiveOperation::Sign, signFinal, pSignature, pulSignatureLen);
}

CK_RV C_VerifyInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    return enterInit(__func__, hSession, {.inAnyState = true, .replacesDigest = true}, verifyInit, pMechanism, hKey);
}

CK_RV C_Verify(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
               CK_ULONG ulSignatureLen)
{
    return enterOperation(__func__, hSession, ActiveOperation::Verify, verify, pData, ulDataLen, pSignature,
                          ulSignatureLen);
}

CK_RV C_VerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    return enterOperation(__func__, hSession, ActiveOperation::Verify, verifyUpdate, pPart, ulPartLen);
}

CK_RV C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen)
{
    return enterOperation(__func__, hSession, ActiveOperation::Verify, verifyFinal, pSignature, ulSignatureLen);
}

CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_ATTRIBUTE_PTR pPublicKeyTemplate,
                        CK_ULONG ulPublicKeyAttributeCount, CK_ATTRIBUTE_PTR pPrivateKeyTemplate,
                        CK_ULONG ulPrivateKeyAttributeCount, CK_OBJECT_HANDLE_PTR phPublicKey,
                        CK_OBJECT_HANDLE_PTR phPrivateKey)
{
    const KeyPairRequest request = {pMechanism,          pPublicKeyTemplate,         ulPublicKeyAttributeCount,
                                    pPrivateKeyTemplate, ulPrivateKeyAttributeCount, phPublicKey,
                                    phPrivateKey};
    return enterSession(__func__, hSession, generateKeyPair, request);
}

CK_RV C_DeriveKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hBaseKey,
                  CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey)
{
    return enterSessionSilently(__func__, hSession, deriveKey, pMechanism, hBaseKey, pTemplate, ulAttributeCount,
                                phKey);
}

CK_RV C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pRandomData, CK_ULONG ulRandomLen)
{
    return enterSession(__func__, hSession, generateRandom, pRandomData, ulRandomLen);
}

CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR /*pReserved*/)
{
    return enter(__func__, waitForSlotEvent, flags, pSlot);
}
