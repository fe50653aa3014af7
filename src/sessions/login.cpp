#include "sessions/login.h"

#include <utility>
#include <vector>

#include "frame/module_state.h"
#include "log/log.h"
#include "util/secret.h"
#include "velkor/device_service.h"

namespace velkor
{
namespace
{

/// What a login does to a session of the token, by the session's state.
struct Transition {
    CK_STATE next;
    CK_RV result = CKR_OK; ///< Becomes the call's result when it is not CKR_OK.
    const char* error = nullptr;
};

constexpr const char* READ_ONLY_EXISTS = "C_Login: read-only session exists, cannot log in as SO";
constexpr const char* SO_LOGGED_IN = "C_Login: SO already logged in on another session";

constexpr Transition USER_LOGIN[] = {
    {CKS_RO_USER_FUNCTIONS},
    {CKS_RO_USER_FUNCTIONS},
    {CKS_RW_USER_FUNCTIONS},
    {CKS_RW_USER_FUNCTIONS},
    {CKS_RW_SO_FUNCTIONS, CKR_USER_ANOTHER_ALREADY_LOGGED_IN, SO_LOGGED_IN},
};

constexpr Transition SO_LOGIN[] = {
    {CKS_RO_PUBLIC_SESSION, CKR_SESSION_READ_ONLY_EXISTS, READ_ONLY_EXISTS},
    {CKS_RO_USER_FUNCTIONS, CKR_SESSION_READ_ONLY_EXISTS, READ_ONLY_EXISTS},
    {CKS_RW_SO_FUNCTIONS},
    {CKS_RW_SO_FUNCTIONS},
    {CKS_RW_SO_FUNCTIONS, CKR_USER_ALREADY_LOGGED_IN},
};

constexpr Transition LOGOUT[] = {
    {CKS_RO_PUBLIC_SESSION}, {CKS_RO_PUBLIC_SESSION}, {CKS_RW_PUBLIC_SESSION},
    {CKS_RW_PUBLIC_SESSION}, {CKS_RW_PUBLIC_SESSION},
};

bool isPinLengthAccepted(CK_ULONG length)
{
    return length >= PIN_LENGTH_MIN && length <= PIN_LENGTH_MAX;
}

bool isCachedPin(const SecretText& pin)
{
    ModuleState& state = moduleState();
    const std::scoped_lock lock(state.lock);
    return state.cachedUserPassword == pin;
}

CK_RV validatePin(const SessionRecord& session, const SecretText& pin, int deviceUserType)
{
    int retryCount = 0;
    const int status = velkor_validatePassword(session.deviceId(), pin.c_str(), deviceUserType, &retryCount,
                                               moduleState().libraryInstance);
    if (status == 0)
        return CKR_OK;
    logError("Token password validation failed : ", status);
    if (status == STATUS_CHECK_NOT_POSSIBLE)
        return CKR_FUNCTION_FAILED;
    return refuse(retryCount != 0 ? CKR_PIN_INCORRECT : CKR_PIN_LOCKED,
                  "Token password validation failed, retry count : ", retryCount);
}

/// Moves every session of the token, in handle order, and never stops early. Gives the transitions taken.
template <std::size_t States>
std::vector<Transition> moveSessionsOfSameToken(const SessionRecord& session, const Transition (&transitions)[States])
{
    std::vector<Transition> taken;
    taken.reserve(moduleState().sessionMap.size()); // Nothing fails half-way.
    for (const auto& [handle, each] : moduleState().sessionMap) {
        if (each->token.serialNumber != session.token.serialNumber)
            continue;
        taken.push_back(transitions[each->state]);
        each->state = taken.back().next;
    }
    return taken;
}

std::vector<Transition> raiseSessions(const SessionRecord& session, CK_USER_TYPE userType)
{
    const std::scoped_lock lock(moduleState().lock);
    return userType == CKU_USER ? moveSessionsOfSameToken(session, USER_LOGIN)
                                : moveSessionsOfSameToken(session, SO_LOGIN);
}

void cachePin(SecretText pin)
{
    ModuleState& state = moduleState();
    const std::scoped_lock lock(state.lock);
    state.cachedUserPassword = std::move(pin);
}

/// The states change even where a session makes the result an error; the last such session decides.
CK_RV finishLogin(const SessionRecord& session, CK_USER_TYPE userType)
{
    logDebug("Login state : ", stateOf(session));
    CK_RV result = CKR_OK;
    for (const Transition& transition : raiseSessions(session, userType)) {
        if (transition.error != nullptr)
            logError(transition.error);
        if (transition.result != CKR_OK)
            result = transition.result;
    }
    logDebug("Login end result : ", result);
    return result;
}

} // namespace

CK_RV setPin(const SessionRecord& session, const CK_UTF8CHAR* pOldPin, CK_ULONG ulOldLen, const CK_UTF8CHAR* pNewPin,
             CK_ULONG ulNewLen)
{
    const CK_STATE sessionState = stateOf(session);
    if (isReadOnly(sessionState))
        return refuse(CKR_SESSION_READ_ONLY, "C_SetPIN: session is read-only, state=", sessionState);
    if (pOldPin == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_SetPIN: pOldPin is NULL");
    if (!isPinLengthAccepted(ulOldLen))
        return refuse(CKR_PIN_LEN_RANGE, "C_SetPIN: old pin length out of range, ulOldLen=", ulOldLen);
    if (pNewPin == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_SetPIN: pNewPin is NULL");
    if (!isPinLengthAccepted(ulNewLen))
        return refuse(CKR_PIN_LEN_RANGE, "C_SetPIN: new pin length out of range, ulNewLen=", ulNewLen);
    ModuleState& state = moduleState();
    const SecretText oldPin(pOldPin, ulOldLen);
    SecretText newPin(pNewPin, ulNewLen);
    int failureCount = 0;
    if (!velkor_changeUserPassword(session.deviceId(), oldPin.c_str(), newPin.c_str(), &failureCount, false, false,
                                   state.libraryInstance))
        return refuse(CKR_FUNCTION_FAILED, "C_SetPIN: velkor_changeUserPassword failed, failureCount=", failureCount);
    const std::scoped_lock lock(state.lock);
    if (!state.cachedUserPassword.empty())
        state.cachedUserPassword = std::move(newPin);
    return CKR_OK;
}

CK_RV login(const SessionRecord& session, CK_USER_TYPE userType, const CK_UTF8CHAR* pPin, CK_ULONG ulPinLen)
{
    if (userType != CKU_USER && userType != CKU_SO)
        return refuse(CKR_USER_TYPE_INVALID, "C_Login: unsupported userType=", userType);
    const bool asUser = userType == CKU_USER;
    const CK_STATE sessionState = stateOf(session);
    if (asUser && isUserState(sessionState)) {
        logDebug("C_Login: User already logged in");
        return CKR_USER_ALREADY_LOGGED_IN;
    }
    if (pPin == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Login: pPin is NULL");
    if (!isPinLengthAccepted(ulPinLen))
        return refuse(CKR_PIN_LEN_RANGE, "C_Login: pin length out of range, ulPinLen=", ulPinLen);
    SecretText pin(pPin, ulPinLen);
    if (!asUser || !isCachedPin(pin)) {
        const CK_RV result = validatePin(session, pin, asUser ? USER_TYPE_USER : USER_TYPE_SECURITY_OFFICER);
        if (result != CKR_OK)
            return result;
    }
    if (asUser)
        cachePin(std::move(pin));
    return finishLogin(session, userType);
}

CK_RV logout(const SessionRecord& session)
{
    const CK_STATE sessionState = stateOf(session);
    if (sessionState == CKS_RO_PUBLIC_SESSION || sessionState == CKS_RW_PUBLIC_SESSION)
        return refuse(CKR_USER_NOT_LOGGED_IN, "C_Logout: user not logged in, session state=", sessionState);
    ModuleState& state = moduleState();
    {
        const std::scoped_lock lock(state.lock);
        moveSessionsOfSameToken(session, LOGOUT);
        state.cachedUserPassword = {}; // The user's, even when it is the SO who leaves.
    }
    logDebug("C_Logout end");
    return CKR_OK;
}

} // namespace velkor
