// The sequence that every entry point runs before its own work: initialisation test, session lookup; and the boundary
// behind which no exception passes.
//
// Each `enter` function takes the entry point's name, what it checks, the function that does the work, and its
// arguments.
#pragma once

#include "cryptoki.h"
#include "log/exceptions.h"
#include "log/log.h"
#include "platform/platform.h"
#include "strict/sessions.h"
#include "strict/state.h"

namespace velkor::strict
{

/// Counts a call that is inside, as long as the front runs: C_Finalize lets the module end when there is none.
class CallInside
{
public:
    CallInside() : state_(state())
    {
        ++state_.callsInside;
        isAdmitted_ = state_.phase == Phase::Running;
    }
    ~CallInside() { --state_.callsInside; }
    CallInside(const CallInside&) = delete;
    CallInside& operator=(const CallInside&) = delete;

    bool isAdmitted() const { return isAdmitted_; }

private:
    State& state_;
    bool isAdmitted_;
};

/// Does the work, initialised or not, and turns any exception into a return code.
template <typename Work, typename... Arguments>
CK_RV enterAlways(const char* name, const Work& work, const Arguments&... arguments) noexcept
{
    const platform::NoCancellation call;
    const platform::CleanStack stack;
    try {
        return work(arguments...);
    } catch (...) {
        return codeOfCurrentException(name);
    }
}

/// Initialisation test, then the work.
template <typename Work, typename... Arguments>
CK_RV enter(const char* name, const Work& work, const Arguments&... arguments) noexcept
{
    return enterAlways(name, [&]() -> CK_RV {
        const CallInside call;
        if (!call.isAdmitted())
            return refuse(CKR_CRYPTOKI_NOT_INITIALIZED, name, ": not initialized");
        return work(arguments...);
    });
}

/// Initialisation test and session lookup; the session, which no other call uses meanwhile, is the first argument of
/// the work.
template <typename Work, typename... Arguments>
CK_RV enterSession(const char* name, CK_SESSION_HANDLE hSession, const Work& work,
                   const Arguments&... arguments) noexcept
{
    return enter(name, [&]() -> CK_RV {
        const auto session = findSession(hSession);
        if (!session)
            return refuse(CKR_SESSION_HANDLE_INVALID, name, ": invalid hSession=", hSession);
        const std::scoped_lock use(session->use);
        return work(*session, arguments...);
    });
}

/// What the front does not do.
inline CK_RV unsupported(const char* name) noexcept
{
    return enter(name, [&] { return refuse(CKR_FUNCTION_NOT_SUPPORTED, name, ": not supported"); });
}

} // namespace velkor::strict
