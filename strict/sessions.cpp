#include "strict/sessions.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

#include "log/log.h"
#include "objects/handles.h"
#include "strict/device_access.h"
#include "strict/entry_sequence.h"
#include "strict/login.h"
#include "strict/objects.h"
#include "strict/slots.h"

namespace velkor::strict
{
namespace
{

template <typename T>
void append(std::vector<T>& list, std::vector<T>& more)
{
    std::move(more.begin(), more.end(), std::back_inserter(list));
}

bool hasSession(const State& state, const Token& token)
{
    return std::any_of(state.sessions.begin(), state.sessions.end(),
                       [&](const auto& entry) { return &entry.second->token == &token; });
}

/// Takes the sessions that `isMeant` chooses, with their objects. A token's last session takes its login along.
template <typename IsMeant>
RemovedThings takeSessions(State& state, const IsMeant& isMeant)
{
    RemovedThings removed;
    for (auto entry = state.sessions.begin(); entry != state.sessions.end();) {
        if (!isMeant(*entry->second)) {
            ++entry;
            continue;
        }
        takeObjectsOfSession(state, *entry->second, removed);
        removed.sessions.push_back(std::move(entry->second));
        entry = state.sessions.erase(entry);
    }
    for (const auto& session : removed.sessions) {
        if (session->token.user != User::None && !hasSession(state, session->token)) {
            forgetLogin(session->token);
            removed.isLoginGone = true;
        }
    }
    return removed;
}

/// Closes sessions for the host. The PIN of a login that went with them leaves the module too.
template <typename IsMeant>
void close(const IsMeant& isMeant)
{
    State& state = strict::state();
    RemovedThings removed;
    {
        const std::scoped_lock lock(state.lock);
        removed = takeSessions(state, isMeant);
    }
    const std::vector<DoomedPair> doomed = std::move(removed.doomed);
    removed.release();
    destroyPairs(doomed);
    if (removed.isLoginGone)
        withdrawStalePin();
}

/// A session of the SO's token must be able to write.
CK_RV addSession(State& state, Token& token, CK_FLAGS flags, CK_SESSION_HANDLE_PTR phSession)
{
    const bool isReadWrite = (flags & CKF_RW_SESSION) != 0;
    const std::scoped_lock lock(state.lock);
    if (!token.isPresent)
        return refuse(CKR_TOKEN_NOT_PRESENT, "C_OpenSession: no token in slotID=", token.slotID);
    if (!isReadWrite && token.user == User::SecurityOfficer)
        return refuse(CKR_SESSION_READ_WRITE_SO_EXISTS, "C_OpenSession: the SO is logged in, flags=", flags);
    const CK_SESSION_HANDLE handle = ++state.lastSession;
    state.sessions.emplace(handle, std::make_shared<Session>(handle, token, isReadWrite));
    *phSession = handle;
    return CKR_OK;
}

/// Deletes the pair, if it still is the one that the session made.
CK_RV deleteAlone(KeyGate::Stay& stay, const DoomedPair& pair)
{
    CK_RV result = putKeptPinInForce(stay, *pair.token, pair.pin);
    if (result != CKR_OK)
        return result;
    const CK_SESSION_HANDLE session = pair.token->loginSession;
    const PairId id{pair.token, pair.privateKey - PRIVATE_KEY_BASE};
    result = lookUpPair(stay, session, id, pair.identity);
    if (result == CKR_OK)
        result = module().C_DestroyObject(session, pair.privateKey);
    if (result == CKR_OK)
        forgetPair(*pair.token, id.number);
    stay.holds().pair.reset();
    dropKeptPin(stay);
    return result;
}

void destroyPair(KeyGate::Stay& stay, const DoomedPair& pair)
{
    const CK_RV result = deleteAlone(stay, pair);
    if (result != CKR_OK)
        logError("A key pair of a closed session was not deleted : ", result);
}

} // namespace

void RemovedThings::add(RemovedThings other)
{
    append(sessions, other.sessions);
    append(objects, other.objects);
    append(moduleSessions, other.moduleSessions);
    append(doomed, other.doomed);
}

void RemovedThings::release()
{
    for (const CK_SESSION_HANDLE handle : moduleSessions)
        module().C_CloseSession(handle);
    sessions.clear();
    objects.clear();
}

std::shared_ptr<Session> findSession(CK_SESSION_HANDLE hSession)
{
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    const auto found = state.sessions.find(hSession);
    return found != state.sessions.end() ? found->second : nullptr;
}

RemovedThings takeFromRemovedToken(Token& token)
{
    State& state = strict::state();
    RemovedThings removed = takeSessions(state, [&](const Session& session) { return &session.token == &token; });
    removed.doomed.clear(); // They are out of reach.
    takeObjectsOfToken(state, token, removed);
    token.freed.clear();
    token.allFreed = ++token.removals;
    append(removed.moduleSessions, token.idleSessions);
    token.idleSessions.clear();
    return removed;
}

std::vector<DoomedPair> closeEverything()
{
    State& state = strict::state();
    RemovedThings removed;
    {
        const std::scoped_lock lock(state.lock);
        removed = takeSessions(state, [](const Session& /*session*/) { return true; });
        for (const auto& token : state.tokens)
            takeObjectsOfToken(state, *token, removed);
    }
    std::vector<DoomedPair> doomed = std::move(removed.doomed);
    removed.release();
    return doomed;
}

void destroyPairs(const std::vector<DoomedPair>& doomed)
{
    for (const DoomedPair& pair : doomed) {
        KeyGate::Stay stay = state().gate.enterAlone();
        destroyPair(stay, pair);
    }
}

void destroyPairsAtExit() noexcept
{
    constexpr std::chrono::milliseconds PATIENCE{200};
    State& state = strict::state();
    const CallInside call;
    if (!call.isAdmitted())
        return;
    try {
        RemovedThings removed;
        {
            const auto lock = lockInTime(state.lock, PATIENCE);
            if (lock.owns_lock())
                takeSessionPairs(state, removed);
        }
        if (removed.doomed.empty())
            return;
        auto stay = state.gate.enterAlone(PATIENCE);
        for (const DoomedPair& pair : removed.doomed) {
            if (stay)
                destroyPair(*stay, pair);
        }
        if (!stay)
            logError("Key pairs of sessions were not deleted at the end of the process: calls are in progress");
    } catch (...) {
        logError("Key pairs of sessions were not deleted at the end of the process");
    }
}

CK_RV checkStillOpen(const char* name, const Session& session, bool isPrivate)
{
    if (session.token.insertion != session.insertion || !session.token.isPresent)
        return refuse(CKR_DEVICE_REMOVED, "The token was removed meanwhile, slotID=", session.token.slotID);
    if (!state().sessions.contains(session.handle))
        return refuse(CKR_SESSION_CLOSED, name, ": the session has been closed meanwhile");
    if (isPrivate && session.token.user != User::User)
        return refuse(CKR_USER_NOT_LOGGED_IN, "The user has logged out meanwhile, slotID=", session.token.slotID);
    return CKR_OK;
}

CK_STATE stateOf(const Session& session)
{
    const std::scoped_lock lock(state().lock);
    switch (session.token.user) {
    case User::SecurityOfficer:
        return CKS_RW_SO_FUNCTIONS;
    case User::User:
        return session.isReadWrite ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
    default:
        return session.isReadWrite ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
    }
}

CK_RV openSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_SESSION_HANDLE_PTR phSession)
{
    Token* token = nullptr;
    const CK_RV result = findPresentToken("C_OpenSession", slotID, token);
    if (result != CKR_OK)
        return result;
    if ((flags & CKF_SERIAL_SESSION) == 0)
        return refuse(CKR_SESSION_PARALLEL_NOT_SUPPORTED, "C_OpenSession: CKF_SERIAL_SESSION not set, flags=", flags);
    if (phSession == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_OpenSession: phSession is NULL");
    return addSession(state(), *token, flags, phSession);
}

CK_RV closeSession(CK_SESSION_HANDLE hSession)
{
    if (findSession(hSession) == nullptr)
        return refuse(CKR_SESSION_HANDLE_INVALID, "C_CloseSession: invalid hSession=", hSession);
    close([&](const Session& session) { return session.handle == hSession; });
    return CKR_OK;
}

CK_RV closeAllSessions(CK_SLOT_ID slotID)
{
    const Token* token = findSlot(slotID);
    if (token == nullptr)
        return refuse(CKR_SLOT_ID_INVALID, "C_CloseAllSessions: invalid slotID=", slotID);
    close([&](const Session& session) { return &session.token == token; });
    return CKR_OK;
}

CK_RV getSessionInfo(Session& session, CK_SESSION_INFO_PTR pInfo)
{
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetSessionInfo: pInfo is NULL");
    pInfo->slotID = session.token.slotID;
    pInfo->state = stateOf(session);
    pInfo->flags = session.isReadWrite ? CKF_SERIAL_SESSION | CKF_RW_SESSION : CKF_SERIAL_SESSION;
    pInfo->ulDeviceError = 0;
    return CKR_OK;
}

} // namespace velkor::strict
