// The sequence that every supported entry point runs before its own work: entry line, initialisation test, session
// lookup; and the boundary behind which no exception passes.
#pragma once

#include "cryptoki.h"
#include "frame/module_state.h"
#include "log/log.h"

namespace velkor
{

/// Return code for the exception being handled; logs it under the entry point's name.
CK_RV codeOfCurrentException(const char* name) noexcept;

/// Runs `work` and turns any exception into a return code.
template <typename Work>
CK_RV guarded(const char* name, const Work& work) noexcept
{
    try {
        return work();
    } catch (...) {
        return codeOfCurrentException(name);
    }
}

/// Writes the entry line, then runs `work`, initialised or not.
template <typename Work>
CK_RV enterAlways(const char* name, const Work& work) noexcept
{
    return guarded(name, [&] {
        logDebug(name);
        return work();
    });
}

/// Entry line and initialisation test, then `work`.
template <typename Work>
CK_RV enter(const char* name, const Work& work) noexcept
{
    return enterAlways(name, [&]() -> CK_RV {
        if (moduleState().libraryInstance == nullptr)
            return refuse(CKR_CRYPTOKI_NOT_INITIALIZED, name, ": not initialized");
        return work();
    });
}

/// Entry line, initialisation test and session lookup, then `work` with the session.
template <typename Work>
CK_RV enterSession(const char* name, CK_SESSION_HANDLE hSession, const Work& work) noexcept
{
    return enter(name, [&]() -> CK_RV {
        const auto session = findSession(hSession);
        if (!session)
            return refuse(CKR_SESSION_HANDLE_INVALID, name, ": invalid hSession=", hSession);
        return work(*session);
    });
}

/// As `enterSession`, but its refusals write no line.
template <typename Work>
CK_RV enterSessionSilently(const char* name, CK_SESSION_HANDLE hSession, const Work& work) noexcept
{
    return enterAlways(name, [&]() -> CK_RV {
        if (moduleState().libraryInstance == nullptr)
            return CKR_CRYPTOKI_NOT_INITIALIZED;
        const auto session = findSession(hSession);
        return session ? work(*session) : CKR_SESSION_HANDLE_INVALID;
    });
}

} // namespace velkor
