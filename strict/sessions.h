// Sessions of the host: which there are, and what goes with them when they close.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "cryptoki.h"
#include "strict/operations.h"
#include "strict/search.h"
#include "strict/state.h"

namespace velkor::strict
{

struct Session {
    /// Under State::lock.
    Session(CK_SESSION_HANDLE newHandle, Token& itsToken, bool mayWrite)
        : handle(newHandle), token(itsToken), insertion(itsToken.insertion), isReadWrite(mayWrite)
    {
    }

    const CK_SESSION_HANDLE handle;
    Token& token;
    const unsigned long insertion; ///< That of its token.
    const bool isReadWrite;
    std::mutex use; ///< Held by the call that uses the session; guards its operations.
    Operations operations;
};

/// A key pair on a token that is deleted with its session, and the PIN that this takes.
struct DoomedPair {
    Token* token = nullptr;
    CK_OBJECT_HANDLE privateKey = 0;
    SecretBytes identity;
    KeptPin pin;
};

/// What has been taken out of the front's tables under its lock, and is released outside of it.
struct RemovedThings {
    std::vector<std::shared_ptr<Session>> sessions;
    std::vector<std::shared_ptr<Object>> objects;
    std::vector<CK_SESSION_HANDLE> moduleSessions;
    std::vector<DoomedPair> doomed;
    bool isLoginGone = false; ///< Somebody has been logged out by it.

    void add(RemovedThings other);
    void release();
};

/// Null when there is no such session.
std::shared_ptr<Session> findSession(CK_SESSION_HANDLE hSession);

/// Takes sessions, login and objects of a token that has gone. Under State::lock.
RemovedThings takeFromRemovedToken(Token& token);

/// Closes all sessions of all tokens. Gives the key pairs that are to be deleted with them.
std::vector<DoomedPair> closeEverything();

/// Deletes key pairs of closed sessions; a failure is told in the log.
void destroyPairs(const std::vector<DoomedPair>& doomed);

/// Deletes what a host leaves that ends without C_Finalize, unless calls of other threads are in the way for too long.
void destroyPairsAtExit() noexcept;

/// Whether a call may still give the session an object, and a private one to its user. Under State::lock.
CK_RV checkStillOpen(const char* name, const Session& session, bool isPrivate);

/// Of a session, from its token's login.
CK_STATE stateOf(const Session& session);

CK_RV openSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_SESSION_HANDLE_PTR phSession);
CK_RV closeSession(CK_SESSION_HANDLE hSession);
CK_RV closeAllSessions(CK_SLOT_ID slotID);
CK_RV getSessionInfo(Session& session, CK_SESSION_INFO_PTR pInfo);

} // namespace velkor::strict
