#include "crypto/encryption.h"

#include <algorithm>
#include <array>

#include "crypto/key_selection.h"
#include "crypto/library_buffer.h"
#include "crypto/operation.h"
#include "frame/module_state.h"
#include "log/log.h"
#include "mechanisms/token_policy.h"
#include "util/attributes.h"
#include "util/bytes.h"
#include "util/der.h"
#include "velkor/device_service.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

CK_RV checkMechanism(const CK_MECHANISM* pMechanism, const char* name)
{
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, name, ": pMechanism is NULL");
    const CK_MECHANISM_TYPE type = pMechanism->mechanism;
    if (type != CKM_RSA_PKCS && type != CKM_RSA_PKCS_OAEP)
        return refuse(CKR_MECHANISM_INVALID, name, ": unsupported mechanism=", type);
    return CKR_OK;
}

/// The parameters of OAEP are not looked at: the device has its own.
CK_RV checkEncryption(const SessionRecord& session, const CK_MECHANISM& mechanism)
{
    const CK_MECHANISM_TYPE type = mechanism.mechanism;
    if (type == CKM_RSA_PKCS && hasParameter(mechanism))
        return refuse(CKR_MECHANISM_PARAM_INVALID, "C_EncryptInit: mechanism param invalid for mechanism=", type);
    if (type == CKM_RSA_PKCS_OAEP && !isFirmwareRecent(session.token))
        return refuse(CKR_MECHANISM_INVALID, "C_EncryptInit: CKM_RSA_PKCS_OAEP not supported on firmware ",
                      session.token.firmwareVersion);
    return CKR_OK;
}

CK_RV checkDecryption(const SessionRecord& session, const CK_MECHANISM& mechanism)
{
    if (mechanism.mechanism == CKM_RSA_PKCS && hasParameter(mechanism))
        return refuse(CKR_MECHANISM_PARAM_INVALID, "C_DecryptInit: mechanism param invalid for CKM_RSA_PKCS");
    if (mechanism.mechanism == CKM_RSA_PKCS_OAEP && !isFirmwareRecent(session.token))
        return refuse(CKR_MECHANISM_INVALID, "CKM_RSA_PKCS_OAEP not supported on firmware ",
                      session.token.firmwareVersion);
    return CKR_OK;
}

/// Begins the operation. From a digest it goes to a state that no call accepts.
CK_RV beginCipher(SessionRecord& session, const char* name, ActiveOperation fromNone, ActiveOperation fromDigest)
{
    if (session.activeOperation == ActiveOperation::None)
        session.activeOperation = fromNone;
    else if (session.activeOperation == ActiveOperation::Digest)
        session.activeOperation = fromDigest;
    else
        return refuse(CKR_FUNCTION_FAILED, name, ": unexpected activeOperation=", session.activeOperation);
    wipe(session.resultBuffer);
    return CKR_OK;
}

EncryptionType encryptionTypeOf(std::uint32_t keyKind)
{
    switch (keyKind) {
    case KEY_KIND_RSA_1024:
        return EncryptionType::Rsa1024;
    case KEY_KIND_RSA_3072:
        return EncryptionType::Rsa3072;
    case KEY_KIND_RSA_4096:
        return EncryptionType::Rsa4096;
    default:
        return EncryptionType::Rsa2048;
    }
}

/// Has the library encrypt into `resultBuffer`.
CK_RV encryptData(SessionRecord& session, const CK_BYTE* pData, CK_ULONG ulDataLen)
{
    const VelkorKeyPair keyPair = keyPairInUse(session);
    const OwnedBytes publicKey = rsaSubjectPublicKeyInfo(publicKeyOf(keyPair));
    const PaddingMode padding = session.cipherMechanism == CKM_RSA_PKCS_OAEP ? PaddingMode::Oaep : PaddingMode::Pkcs1;
    std::array<unsigned char, CIPHERTEXT_CAPACITY> ciphertext{};
    int length = 0;
    const int status =
        velkor_encrypt(encryptionTypeOf(keyPair.keyKind), padding, pData, deviceLength(ulDataLen), ciphertext.data(),
                       &length, publicKey.data(), deviceLength(publicKey.size()), moduleState().libraryInstance);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "Encrypt data failed : ", status);
    session.resultBuffer.assign(ciphertext.begin(), ciphertext.begin() + std::clamp(length, 0, CIPHERTEXT_CAPACITY));
    return CKR_OK;
}

/// Has the device decrypt into `resultBuffer`. It is not told the padding.
CK_RV decryptData(SessionRecord& session, const CK_BYTE* pEncryptedData, CK_ULONG ulEncryptedDataLen)
{
    const VelkorKeyPair keyPair = keyPairInUse(session);
    LibraryBuffer plaintext;
    const int status = velkor_decrypt(session.deviceId(), keyPair.keyIdentifier, cachedPassword().c_str(),
                                      pEncryptedData, deviceLength(ulEncryptedDataLen), &plaintext.bytes,
                                      &plaintext.length, keyPair.deviceFlag, moduleState().libraryInstance);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "Dacrypt data failed : ", status);
    session.resultBuffer.assign(plaintext.span().begin(), plaintext.span().end());
    return CKR_OK;
}

} // namespace

CK_RV encryptInit(SessionRecord& session, const CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey)
{
    CK_RV result = checkMechanism(pMechanism, "C_EncryptInit");
    if (result == CKR_OK)
        result = checkEncryption(session, *pMechanism);
    if (result != CKR_OK)
        return result;
    const CK_MECHANISM_TYPE type = pMechanism->mechanism;
    result = selectKey(session, type == CKM_RSA_PKCS ? KeyUse::EncryptPkcs : KeyUse::EncryptOaep, hKey);
    if (result != CKR_OK)
        return result;
    session.cipherMechanism = type;
    return beginCipher(session, "C_EncryptInit", ActiveOperation::Encrypt, ActiveOperation::DigestEncrypt);
}

CK_RV encrypt(SessionRecord& session, const CK_BYTE* pData, CK_ULONG ulDataLen, CK_BYTE* pEncryptedData,
              CK_ULONG* pulEncryptedDataLen)
{
    if (pData == nullptr || ulDataLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_Encrypt: pData is NULL or ulDataLen<=0, ulDataLen=", ulDataLen);
    if (pulEncryptedDataLen == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Encrypt: pulEncryptedDataLen is NULL");
    const CK_RV result = deliver(session, "C_Encrypt", session.resultBuffer, pEncryptedData, pulEncryptedDataLen, [&] {
        return endIfFailed(session, [&] { return encryptData(session, pData, ulDataLen); });
    });
    if (session.activeOperation == ActiveOperation::None)
        session.cipherMechanism = 0;
    return result;
}

CK_RV decryptInit(SessionRecord& session, const CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey)
{
    CK_RV result = checkMechanism(pMechanism, "C_DecryptInit");
    if (result == CKR_OK)
        result = checkDecryption(session, *pMechanism);
    if (result != CKR_OK)
        return result;
    const CK_MECHANISM_TYPE type = pMechanism->mechanism;
    result = selectKey(session, type == CKM_RSA_PKCS ? KeyUse::DecryptPkcs : KeyUse::DecryptOaep, hKey);
    if (result != CKR_OK)
        return result;
    return beginCipher(session, "C_DecryptInit", ActiveOperation::Decrypt, ActiveOperation::DigestDecrypt);
}

CK_RV decrypt(SessionRecord& session, const CK_BYTE* pEncryptedData, CK_ULONG ulEncryptedDataLen, CK_BYTE* pData,
              CK_ULONG* pulDataLen)
{
    if (pEncryptedData == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Decrypt: pEncryptedData is NULL");
    if (ulEncryptedDataLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_Decrypt: ulEncryptedDataLen<=0, ulEncryptedDataLen=", ulEncryptedDataLen);
    if (pulDataLen == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Decrypt: pulDataLen is NULL");
    // Unlike a failed encryption, a failed decryption leaves the operation active.
    return deliver(session, "C_Decrypt", session.resultBuffer, pData, pulDataLen,
                   [&] { return decryptData(session, pEncryptedData, ulEncryptedDataLen); });
}

} // namespace velkor
