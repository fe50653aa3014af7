#include "frame/entry_sequence.h"

namespace velkor
{

CK_RV checkInit(const SessionRecord& session, InitRule init, const char* name)
{
    if (const CK_STATE sessionState = stateOf(session); sessionState == CKS_RO_PUBLIC_SESSION && !init.inAnyState)
        return refuse(CKR_SESSION_HANDLE_INVALID, name, ": invalid session state=", sessionState);
    const bool digestGivesWay = init.replacesDigest && session.activeOperation == ActiveOperation::Digest;
    if (session.activeOperation != ActiveOperation::None && !digestGivesWay)
        return refuse(CKR_OPERATION_ACTIVE, name,
                      ": operation already active, activeOperation=", session.activeOperation);
    return CKR_OK;
}

CK_RV checkOperation(const SessionRecord& session, ActiveOperation operation, const char* name)
{
    if (session.activeOperation != operation)
        return refuse(CKR_OPERATION_NOT_INITIALIZED, name,
                      ": operation not initialized, activeOperation=", session.activeOperation);
    return CKR_OK;
}

} // namespace velkor
