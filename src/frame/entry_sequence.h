// The sequence that every supported entry point runs before its own work: entry line, initialisation test, session
// lookup, and what the session has to be in the middle of; and the boundary behind which no exception passes.
//
// Each `enter` function takes the entry point's name, what it checks, the function that does the work, and its
// arguments.
#pragma once

#include "cryptoki.h"
#include "frame/module_state.h"
#include "log/exceptions.h"
#include "log/log.h"
#include "platform/platform.h"

namespace velkor
{

/// What an entry point that begins an operation asks of the session.
struct InitRule {
    bool inAnyState;     ///< Otherwise a public read-only session is refused.
    bool replacesDigest; ///< Otherwise nothing at all may be in progress.
};

/// CKR_OK when the session may begin an operation. Changes nothing.
CK_RV checkInit(const SessionRecord& session, InitRule init, const char* name);

/// CKR_OK when `operation` is in progress. Changes nothing.
CK_RV checkOperation(const SessionRecord& session, ActiveOperation operation, const char* name);

/// Does the work and turns any exception into a return code.
template <typename Work, typename... Arguments>
CK_RV guarded(const char* name, const Work& work, const Arguments&... arguments) noexcept
{
    try {
        return work(arguments...);
    } catch (...) {
        return codeOfCurrentException(name);
    }
}

/// Entry line, initialised or not.
template <typename Work, typename... Arguments>
CK_RV enterAlways(const char* name, const Work& work, const Arguments&... arguments) noexcept
{
    const platform::NoCancellation call;
    const platform::CleanStack stack;
    logDebug(name);
    return guarded(name, work, arguments...);
}

/// Entry line and initialisation test.
template <typename Work, typename... Arguments>
CK_RV enter(const char* name, const Work& work, const Arguments&... arguments) noexcept
{
    return enterAlways(name, [&]() -> CK_RV {
        if (moduleState().libraryInstance == nullptr)
            return refuse(CKR_CRYPTOKI_NOT_INITIALIZED, name, ": not initialized");
        return work(arguments...);
    });
}

/// Entry line, initialisation test and session lookup; the session is the first argument of the work.
template <typename Work, typename... Arguments>
CK_RV enterSession(const char* name, CK_SESSION_HANDLE hSession, const Work& work,
                   const Arguments&... arguments) noexcept
{
    return enter(name, [&]() -> CK_RV {
        const auto session = findSession(hSession);
        if (!session)
            return refuse(CKR_SESSION_HANDLE_INVALID, name, ": invalid hSession=", hSession);
        return work(*session, arguments...);
    });
}

/// As `enterSession`, but its refusals write no line.
template <typename Work, typename... Arguments>
CK_RV enterSessionSilently(const char* name, CK_SESSION_HANDLE hSession, const Work& work,
                           const Arguments&... arguments) noexcept
{
    return enterAlways(name, [&]() -> CK_RV {
        if (moduleState().libraryInstance == nullptr)
            return CKR_CRYPTOKI_NOT_INITIALIZED;
        const auto session = findSession(hSession);
        return session ? work(*session, arguments...) : CKR_SESSION_HANDLE_INVALID;
    });
}

/// As `enterSession`, for entry points that begin an operation.
template <typename Work, typename... Arguments>
CK_RV enterInit(const char* name, CK_SESSION_HANDLE hSession, InitRule init, const Work& work,
                const Arguments&... arguments) noexcept
{
    return enterSession(name, hSession, [&](SessionRecord& session) -> CK_RV {
        const CK_RV result = checkInit(session, init, name);
        return result == CKR_OK ? work(session, arguments...) : result;
    });
}

/// As `enterSession`, for entry points that go on with an operation or end it.
template <typename Work, typename... Arguments>
CK_RV enterOperation(const char* name, CK_SESSION_HANDLE hSession, ActiveOperation operation, const Work& work,
                     const Arguments&... arguments) noexcept
{
    return enterSession(name, hSession, [&](SessionRecord& session) -> CK_RV {
        const CK_RV result = checkOperation(session, operation, name);
        return result == CKR_OK ? work(session, arguments...) : result;
    });
}

} // namespace velkor
