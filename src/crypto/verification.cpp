#include "crypto/verification.h"

#include <utility>

#include "crypto/key_selection.h"
#include "crypto/operation.h"
#include "frame/module_state.h"
#include "log/log.h"
#include "mechanisms/key_kinds.h"
#include "mechanisms/mechanism_table.h"
#include "mechanisms/token_policy.h"
#include "util/bytes.h"
#include "util/der.h"
#include "velkor/device_service.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

constexpr HashFailureTexts VERIFY_HASH_FAILURES = {
    "C_Verify: initHash failed ret=", "C_Verify: updateHash failed ret=", "C_Verify: finalHash failed ret="};
constexpr HashFailureTexts VERIFY_PART_FAILURES = {"C_VerifyUpdate: initHash failed ",
                                                   "C_VerifyUpdate: updateHash failed ", nullptr};

bool isBareModulus(const VelkorKeyPair& keyPair)
{
    const Bytes stored = publicKeyOf(keyPair);
    return keyKindInfo(keyPair.keyKind).keyType != CKK_EC && !stored.empty() && stored.front() != DER_TAG_SEQUENCE;
}

/// Asks the device for its verdict; gives its status.
int verifyHash(const SessionRecord& session, const VelkorKeyPair& keyPair, Bytes hash, Bytes publicKey,
               const CK_BYTE* pSignature, CK_ULONG ulSignatureLen, bool isPss)
{
    return velkor_verifySignatureHash(keyPair.keyKind, session.deviceId(), hash.data(), deviceLength(hash.size()),
                                      publicKey.data(), deviceLength(publicKey.size()), pSignature,
                                      deviceLength(ulSignatureLen), moduleState().libraryInstance, isPss);
}

CK_RV verifyData(const SessionRecord& session, const MechanismRow& row, const CK_BYTE* pData, CK_ULONG ulDataLen,
                 const CK_BYTE* pSignature, CK_ULONG ulSignatureLen)
{
    Bytes input(pData, ulDataLen);
    SecretBytes hash;
    if (row.family == SignatureFamily::Hash) {
        const CK_RV result = hashData(session, row.hash, pData, ulDataLen, VERIFY_HASH_FAILURES, hash);
        if (result != CKR_OK)
            return result;
        input = hash;
    }
    const VelkorKeyPair keyPair = keyPairInUse(session);
    Bytes publicKey = publicKeyOf(keyPair);
    OwnedBytes wrapped;
    if (isBareModulus(keyPair)) {
        logDebug("Public key is not der need to convert to the der");
        wrapped = rsaSubjectPublicKeyInfo(publicKey);
        publicKey = wrapped;
    } else {
        logDebug("Public key passed as-is");
    }
    const int status = verifyHash(session, keyPair, input, publicKey, pSignature, ulSignatureLen, session.isPss);
    if (status != 0) // Whatever its cause.
        return refuse(CKR_SIGNATURE_INVALID, "Verify signature failed : ", status);
    return CKR_OK;
}

/// Unlike the single-part way: the public key as it is stored, and never as PSS.
CK_RV verifyGathered(SessionRecord& session, const CK_BYTE* pSignature, CK_ULONG ulSignatureLen)
{
    SecretBytes hash = std::exchange(session.hashBuffer, {});
    if (findSignatureMechanism(session.mechanism)->multiPartVerifyHash != NO_HASH) {
        const int status = finishHash(std::exchange(session.hashContext, nullptr), HASH_CAPACITY, hash);
        if (status != 0)
            return refuse(CKR_FUNCTION_FAILED, "C_VerifyFinal: finalHash failed ", status);
    }
    const VelkorKeyPair keyPair = keyPairInUse(session);
    const int status = verifyHash(session, keyPair, hash, publicKeyOf(keyPair), pSignature, ulSignatureLen, false);
    if (status != 0)
        return refuse(CKR_SIGNATURE_INVALID, "C_VerifyFinal: verify failed ", status);
    return CKR_OK;
}

} // namespace

CK_RV verifyInit(SessionRecord& session, const CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey)
{
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_VerifyInit: pMechanism is NULL");
    const CK_MECHANISM_TYPE type = pMechanism->mechanism;
    const MechanismRow* row = findSignatureMechanism(type);
    if (row == nullptr)
        return refuse(CKR_MECHANISM_INVALID, "C_VerifyInit: unsupported mechanism=", type);
    const CK_RV result = selectKey(session, KeyUse::Verify, hKey);
    if (result != CKR_OK)
        return result;
    if (row->isPss && !isFirmwareRecent(session.token))
        return refuse(CKR_MECHANISM_INVALID, "C_VerifyInit: CKM_RSA_PKCS_PSS not supported on firmware ",
                      session.token.firmwareVersion);
    session.mechanism = type;
    session.isPss = row->isPss;
    session.activeOperation = ActiveOperation::Verify;
    return CKR_OK;
}

CK_RV verify(SessionRecord& session, const CK_BYTE* pData, CK_ULONG ulDataLen, const CK_BYTE* pSignature,
             CK_ULONG ulSignatureLen)
{
    if (pData == nullptr || pSignature == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Verify: pData or pSignature is NULL");
    if (ulDataLen == 0 || ulSignatureLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_Verify: ulDataLen or ulSignatureLen <= 0, ulDataLen=", ulDataLen,
                      " ulSignatureLen=", ulSignatureLen);
    session.activeOperation = ActiveOperation::None; // Whatever the verdict.
    const MechanismRow* row = findSignatureMechanism(session.mechanism);
    if (row == nullptr)
        return CKR_MECHANISM_INVALID;
    return verifyData(session, *row, pData, ulDataLen, pSignature, ulSignatureLen);
}

CK_RV verifyUpdate(SessionRecord& session, const CK_BYTE* pPart, CK_ULONG ulPartLen)
{
    if (pPart == nullptr || ulPartLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_VerifyUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
    const int hashAlgorithm = findSignatureMechanism(session.mechanism)->multiPartVerifyHash;
    if (hashAlgorithm == NO_HASH) {
        session.hashBuffer.insert(session.hashBuffer.end(), pPart, pPart + ulPartLen);
        return CKR_OK;
    }
    return endIfFailed(session,
                       [&] { return hashPart(session, hashAlgorithm, pPart, ulPartLen, VERIFY_PART_FAILURES); });
}

CK_RV verifyFinal(SessionRecord& session, const CK_BYTE* pSignature, CK_ULONG ulSignatureLen)
{
    if (pSignature == nullptr || ulSignatureLen == 0)
        return refuse(CKR_ARGUMENTS_BAD,
                      "C_VerifyFinal: pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=", ulSignatureLen);
    session.activeOperation = ActiveOperation::None; // Whatever the verdict.
    return verifyGathered(session, pSignature, ulSignatureLen);
}

} // namespace velkor
