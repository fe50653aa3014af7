#include "sessions/session_table.h"

#include <utility>

#include "frame/module_state.h"
#include "log/log.h"

namespace velkor
{
namespace
{

/// Puts a session into the table, logged in when a user is. Gives its handle: the largest open one plus one.
CK_SESSION_HANDLE insertSession(std::shared_ptr<SessionRecord> session)
{
    ModuleState& state = moduleState();
    const std::scoped_lock lock(state.lock);
    if (!state.cachedUserPassword.empty()) // On whichever slot: the login is the module's.
        session->state = session->state == CKS_RO_PUBLIC_SESSION ? CKS_RO_USER_FUNCTIONS : CKS_RW_USER_FUNCTIONS;
    const CK_SESSION_HANDLE handle =
        state.sessionMap.empty() ? SESSION_HANDLE_BASE : state.sessionMap.rbegin()->first + 1;
    state.sessionMap.emplace(handle, std::move(session));
    return handle;
}

} // namespace

CK_RV openSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_SESSION_HANDLE* phSession)
{
    auto token = findSlot(slotID);
    if (!token)
        return refuse(CKR_SLOT_ID_INVALID, "C_OpenSession: invalid slotID=", slotID);
    if ((flags & CKF_SERIAL_SESSION) == 0)
        return refuse(CKR_SESSION_PARALLEL_NOT_SUPPORTED, "C_OpenSession: CKF_SERIAL_SESSION not set, flags=", flags);
    if (phSession == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_OpenSession: phSession is NULL");
    auto session = std::make_shared<SessionRecord>();
    session->state = (flags & CKF_RW_SESSION) != 0 ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
    session->slotID = slotID;
    session->token = std::move(*token);
    *phSession = insertSession(std::move(session));
    logDebug("Opensession  : ", *phSession);
    return CKR_OK;
}

CK_RV closeSession(const SessionRecord& /*session*/, CK_SESSION_HANDLE hSession)
{
    ModuleState& state = moduleState();
    const std::scoped_lock lock(state.lock);
    state.sessionMap.erase(hSession);
    return CKR_OK;
}

CK_RV closeAllSessions(CK_SLOT_ID slotID)
{
    if (!findSlot(slotID))
        return refuse(CKR_SLOT_ID_INVALID, "C_CloseAllSessions: invalid slotID=", slotID);
    ModuleState& state = moduleState();
    {
        const std::scoped_lock lock(state.lock);
        state.sessionMap.clear(); // Those of every slot: the ID is a gate, not a filter.
    }
    logDebug("Close all session");
    return CKR_OK;
}

CK_RV getSessionInfo(const SessionRecord& session, CK_SESSION_INFO* pInfo)
{
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetSessionInfo: pInfo is NULL");
    pInfo->slotID = session.slotID;
    pInfo->state = stateOf(session);
    pInfo->flags = CKF_SERIAL_SESSION;
    if (!isReadOnly(pInfo->state))
        pInfo->flags |= CKF_RW_SESSION;
    pInfo->ulDeviceError = 0;
    return CKR_OK;
}

} // namespace velkor
