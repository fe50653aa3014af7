#include "strict/login.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "log/log.h"
#include "strict/device_access.h"
#include "strict/objects.h"
#include "strict/sessions.h"
#include "velkor/device_service.h"

namespace velkor::strict
{
namespace
{

bool isPinLength(CK_ULONG length)
{
    return length >= PIN_LENGTH_MIN && length <= PIN_LENGTH_MAX;
}

/// The device would read such a PIN up to its zero byte.
bool hasZeroByte(const CK_UTF8CHAR* pin, CK_ULONG length)
{
    return std::find(pin, pin + length, 0) != pin + length;
}

bool hasReadOnlySession(const State& state, const Token& token)
{
    return std::any_of(state.sessions.begin(), state.sessions.end(),
                       [&](const auto& entry) { return &entry.second->token == &token && !entry.second->isReadWrite; });
}

/// What speaks against a login before the device sees a PIN.
CK_RV checkConflicts(const State& state, const Token& token, User wanted)
{
    if (token.user == wanted)
        return refuse(CKR_USER_ALREADY_LOGGED_IN, "C_Login: already logged in, slotID=", token.slotID);
    if (token.user != User::None)
        return refuse(CKR_USER_ANOTHER_ALREADY_LOGGED_IN, "C_Login: another user is logged in, slotID=", token.slotID);
    if (wanted == User::SecurityOfficer && hasReadOnlySession(state, token))
        return refuse(CKR_SESSION_READ_ONLY_EXISTS, "C_Login: read-only session exists, cannot log in as SO");
    return CKR_OK;
}

/// Gives the login's number: somebody may log out right after. A session that has gone meanwhile would have taken the
/// login along.
CK_RV rememberLogin(const Session& session, User user, SecretText pin, unsigned long& login)
{
    const std::scoped_lock lock(state().lock);
    const CK_RV result = checkStillOpen("C_Login", session, false);
    if (result != CKR_OK)
        return result;
    session.token.user = user;
    session.token.pin = std::move(pin);
    login = ++session.token.login;
    return CKR_OK;
}

/// Alone behind the gate, with no PIN in the module. The SO's login leaves the module again at once: it can do nothing
/// there.
CK_RV loginAlone(KeyGate::Stay& stay, const Session& session, User user, const SecretText& pin)
{
    Token& token = session.token;
    {
        const std::scoped_lock lock(state().lock);
        const CK_RV result = checkConflicts(state(), token, user);
        if (result != CKR_OK)
            return result;
    }
    dropPin(stay);
    CK_SESSION_HANDLE moduleSession = 0;
    CK_RV result = loginSessionOf(token, moduleSession);
    if (result != CKR_OK)
        return result;
    result = loginUnderneath(moduleSession, user == User::User ? CKU_USER : CKU_SO, pin);
    if (result != CKR_OK)
        return refuse(result, "C_Login: the PIN is refused, slotID=", token.slotID);
    unsigned long login = 0;
    result = rememberLogin(session, user, user == User::User ? pin : SecretText(), login);
    if (result == CKR_OK && user == User::User)
        stay.holds().pin = {&token, login};
    else
        module().C_Logout(moduleSession);
    return result;
}

/// The device says nothing of why it does not change a PIN, but it does of why it refuses one at a login.
CK_RV changePinAlone(KeyGate::Stay& stay, Token& token, const SecretText& oldPin, const SecretText& newPin)
{
    dropPin(stay);
    CK_SESSION_HANDLE moduleSession = 0;
    CK_RV result = loginSessionOf(token, moduleSession);
    if (result != CKR_OK)
        return result;
    result = loginUnderneath(moduleSession, CKU_USER, oldPin);
    if (result != CKR_OK)
        return refuse(result, "C_SetPIN: the old PIN is refused, slotID=", token.slotID);
    const auto bytes = [](const SecretText& pin) {
        return reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(pin.c_str()));
    };
    const auto length = [](const SecretText& pin) { return static_cast<CK_ULONG>(std::strlen(pin.c_str())); };
    result = module().C_SetPIN(moduleSession, bytes(oldPin), length(oldPin), bytes(newPin), length(newPin));
    module().C_Logout(moduleSession);
    if (result != CKR_OK)
        return result;
    const std::scoped_lock lock(state().lock);
    ++token.pinChanges;
    if (token.user == User::User)
        token.pin = newPin;
    return CKR_OK;
}

CK_RV checkSetPin(const Session& session, const CK_UTF8CHAR* pOldPin, CK_ULONG ulOldLen, const CK_UTF8CHAR* pNewPin,
                  CK_ULONG ulNewLen)
{
    const CK_STATE sessionState = stateOf(session);
    if (!session.isReadWrite)
        return refuse(CKR_SESSION_READ_ONLY, "C_SetPIN: session is read-only, state=", sessionState);
    if (sessionState == CKS_RW_SO_FUNCTIONS) // The module would take it for the user's PIN, and spend a try.
        return refuse(CKR_FUNCTION_NOT_SUPPORTED, "C_SetPIN: the SO PIN cannot be changed");
    if (pOldPin == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_SetPIN: pOldPin is NULL");
    if (pNewPin == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_SetPIN: pNewPin is NULL");
    if (!isPinLength(ulNewLen))
        return refuse(CKR_PIN_LEN_RANGE, "C_SetPIN: new pin length out of range, ulNewLen=", ulNewLen);
    if (!isPinLength(ulOldLen))
        return refuse(CKR_PIN_LEN_RANGE, "C_SetPIN: old pin length out of range, ulOldLen=", ulOldLen);
    if (hasZeroByte(pNewPin, ulNewLen))
        return refuse(CKR_PIN_INVALID, "C_SetPIN: the new pin has a zero byte");
    if (hasZeroByte(pOldPin, ulOldLen))
        return refuse(CKR_PIN_INCORRECT, "C_SetPIN: the old pin has a zero byte");
    return CKR_OK;
}

} // namespace

CK_RV loginUnderneath(CK_SESSION_HANDLE session, CK_USER_TYPE userType, const SecretText& pin)
{
    auto* bytes = reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(pin.c_str()));
    return module().C_Login(session, userType, bytes, static_cast<CK_ULONG>(std::strlen(pin.c_str())));
}

void notePinAnswer(Token& token, User user, CK_RV result)
{
    const std::scoped_lock lock(state().lock);
    PinAnswer& answer = user == User::User ? token.answerToUser : token.answerToSecurityOfficer;
    if (result == CKR_OK)
        answer = {};
    else if (result == CKR_PIN_INCORRECT || result == CKR_PIN_LOCKED)
        answer = {true, result == CKR_PIN_LOCKED};
}

void forgetLogin(Token& token)
{
    token.user = User::None;
    token.pin = {};
    ++token.login;
    retirePrivateObjects(state(), token);
}

void withdrawStalePin()
{
    KeyGate::Stay stay = state().gate.enterAlone();
    Token* token = stay.holds().pin.token;
    if (token != nullptr && !(pinOf(*token) == stay.holds().pin))
        dropPin(stay);
}

bool isUserLoggedIn(const Token& token)
{
    const std::scoped_lock lock(state().lock);
    return token.user == User::User;
}

CK_RV login(Session& session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen)
{
    if (userType == CKU_CONTEXT_SPECIFIC) // No key asks for a PIN of its own.
        return refuse(CKR_OPERATION_NOT_INITIALIZED, "C_Login: no operation waits for a PIN");
    if (userType != CKU_USER && userType != CKU_SO)
        return refuse(CKR_USER_TYPE_INVALID, "C_Login: unsupported userType=", userType);
    Token& token = session.token;
    const User user = userType == CKU_USER ? User::User : User::SecurityOfficer;
    {
        const std::scoped_lock lock(state().lock);
        const CK_RV result = checkConflicts(state(), token, user);
        if (result != CKR_OK)
            return result;
    }
    if (pPin == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Login: pPin is NULL");
    if (!isPinLength(ulPinLen) || hasZeroByte(pPin, ulPinLen)) // No such PIN is right, and none costs a try.
        return refuse(CKR_PIN_INCORRECT, "C_Login: no PIN looks like this, ulPinLen=", ulPinLen);
    const SecretText pin(pPin, ulPinLen);
    CK_RV result = CKR_OK;
    {
        KeyGate::Stay stay = state().gate.enterAlone();
        result = loginAlone(stay, session, user, pin);
    }
    result = causeOfFailure(token, session.insertion, result);
    notePinAnswer(token, user, result);
    return result;
}

CK_RV logout(Session& session)
{
    Token& token = session.token;
    State& state = strict::state();
    RemovedThings removed;
    {
        const std::scoped_lock lock(state.lock);
        if (token.user == User::None)
            return refuse(CKR_USER_NOT_LOGGED_IN, "C_Logout: user not logged in, slotID=", token.slotID);
        takePrivateSessionObjects(state, token, removed);
        forgetLogin(token);
    }
    destroyPairs(removed.doomed);
    withdrawStalePin();
    return CKR_OK;
}

CK_RV setPin(Session& session, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen, CK_UTF8CHAR_PTR pNewPin, CK_ULONG ulNewLen)
{
    CK_RV result = checkSetPin(session, pOldPin, ulOldLen, pNewPin, ulNewLen);
    if (result != CKR_OK)
        return result;
    Token& token = session.token;
    const SecretText oldPin(pOldPin, ulOldLen);
    const SecretText newPin(pNewPin, ulNewLen);
    {
        KeyGate::Stay stay = state().gate.enterAlone();
        result = changePinAlone(stay, token, oldPin, newPin);
    }
    result = causeOfFailure(token, session.insertion, result);
    notePinAnswer(token, User::User, result);
    return result;
}

} // namespace velkor::strict
