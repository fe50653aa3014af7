#include "crypto/digest.h"

#include "crypto/operation.h"
#include "frame/module_state.h"
#include "log/log.h"
#include "mechanisms/mechanism_table.h"
#include "velkor/device_service.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

/// Finishes the digest into `hashBuffer`. A failure leaves the digest active.
CK_RV finishDigest(SessionRecord& session)
{
    const int status = finishHash(session.hashContext, 0, session.hashBuffer);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "Final hash data in diget failed : ", status);
    return CKR_OK;
}

CK_RV digestWholeData(SessionRecord& session, const CK_BYTE* pData, CK_ULONG ulDataLen)
{
    const int status =
        velkor_updateHash(session.hashContext, pData, deviceLength(ulDataLen), moduleState().libraryInstance);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "Update hash data in diget failed : ", status);
    return finishDigest(session);
}

} // namespace

CK_RV digestInit(SessionRecord& session, const CK_MECHANISM* pMechanism)
{
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_DigestInit mechanism pointer in NULL");
    const MechanismRow* row = findMechanism(pMechanism->mechanism);
    if (row == nullptr || (row->flags & CKF_DIGEST) == 0)
        return refuse(CKR_MECHANISM_INVALID, "C_DigestInit mechanism not supported");
    // A context left from an earlier digest is dropped: the library has no call to release it.
    const int status =
        velkor_initHash(session.deviceId(), row->hash, &session.hashContext, moduleState().libraryInstance);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "Init hash in diges init failed : ", status);
    wipe(session.hashBuffer);
    session.activeOperation = ActiveOperation::Digest;
    return CKR_OK;
}

CK_RV digest(SessionRecord& session, const CK_BYTE* pData, CK_ULONG ulDataLen, CK_BYTE* pDigest, CK_ULONG* pulDigestLen)
{
    if (pData == nullptr || ulDataLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_Digest: pData is NULL or ulDataLen<=0, ulDataLen=", ulDataLen);
    if (pulDigestLen == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Digest: pulDigestLen is NULL");
    const CK_RV result = deliver(session, "C_Digest", session.hashBuffer, pDigest, pulDigestLen,
                                 [&] { return digestWholeData(session, pData, ulDataLen); });
    if (result == CKR_OK)
        logDebug("C_Digest Success");
    return result;
}

CK_RV digestUpdate(SessionRecord& session, const CK_BYTE* pPart, CK_ULONG ulPartLen)
{
    if (pPart == nullptr || ulPartLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_DigestUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
    const int status =
        velkor_updateHash(session.hashContext, pPart, deviceLength(ulPartLen), moduleState().libraryInstance);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "Update hash data in digest update failed : ", status);
    return CKR_OK;
}

CK_RV digestFinal(SessionRecord& session, CK_BYTE* pDigest, CK_ULONG* pulDigestLen)
{
    if (pulDigestLen == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_DigestFinal: pulDigestLen is NULL");
    const CK_RV result = deliver(session, "C_DigestFinal", session.hashBuffer, pDigest, pulDigestLen,
                                 [&] { return finishDigest(session); });
    if (result == CKR_OK)
        logDebug("C_DigestFinal Success");
    return result;
}

} // namespace velkor
