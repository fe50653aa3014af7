#include "frame/entry_sequence.h"

#include <exception>
#include <new>

namespace velkor
{
namespace
{

CK_RV refuseCurrentException(const char* name)
{
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return refuse(CKR_HOST_MEMORY, name, ": out of memory");
    } catch (const std::exception& exception) {
        return refuse(CKR_GENERAL_ERROR, name, ": unexpected exception: ", exception.what());
    } catch (...) {
        return refuse(CKR_GENERAL_ERROR, name, ": unexpected exception");
    }
}

} // namespace

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

CK_RV codeOfCurrentException(const char* name) noexcept
{
    try {
        return refuseCurrentException(name);
    } catch (...) {
        return CKR_HOST_MEMORY; // There was no memory left even for the log line.
    }
}

} // namespace velkor
