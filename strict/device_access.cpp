#include "strict/device_access.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "log/log.h"
#include "objects/handles.h"
#include "strict/login.h"
#include "strict/sessions.h"
#include "strict/slots.h"

namespace velkor::strict
{
namespace
{

constexpr CK_FLAGS MODULE_SESSION = CKF_SERIAL_SESSION | CKF_RW_SESSION;

/// A session that is opened while the module holds another token's PIN would start as logged in.
CK_RV openModuleSession(const Token& token, CK_SESSION_HANDLE& handle)
{
    const std::scoped_lock slots(state().slotLock);
    CK_SLOT_ID slot = 0;
    if (!moduleSlotOf(token, slot))
        return CKR_DEVICE_REMOVED;
    return module().C_OpenSession(slot, MODULE_SESSION, nullptr, nullptr, &handle);
}

/// Takes an idle session of the module, if there is one.
CK_SESSION_HANDLE takeIdleSession(Token& token, unsigned long& insertion)
{
    const std::scoped_lock lock(state().lock);
    insertion = token.insertion;
    if (token.idleSessions.empty())
        return 0;
    const CK_SESSION_HANDLE handle = token.idleSessions.back();
    token.idleSessions.pop_back();
    return handle;
}

bool giveBack(Token& token, unsigned long insertion, CK_SESSION_HANDLE handle)
{
    const std::scoped_lock lock(state().lock);
    if (token.insertion != insertion || !token.isPresent || state().phase != Phase::Running)
        return false;
    token.idleSessions.push_back(handle);
    return true;
}

/// Whether the module has dropped the PIN by itself: it does so when it misses the device.
bool hasModuleDroppedPin(KeyGate::Stay& stay, Token& token)
{
    if (stay.holds().pin.token != &token)
        return false;
    CK_SESSION_INFO info{};
    if (module().C_GetSessionInfo(token.loginSession, &info) == CKR_OK && info.state == CKS_RW_USER_FUNCTIONS)
        return false;
    dropPin(stay);
    return true;
}

void closeSessionsOf(Token& token)
{
    RemovedThings removed;
    {
        const std::scoped_lock lock(state().lock);
        removed = takeFromRemovedToken(token);
        ++token.insertion; // What has lost sight of it was at work with the token as it was before.
    }
    removed.release();
}

bool isOfDevice(CK_RV result)
{
    return result == CKR_FUNCTION_FAILED || result == CKR_DEVICE_REMOVED || result == CKR_SESSION_HANDLE_INVALID;
}

/// A device that has gone looks like one without objects, to a verification like a bad signature, and to a login like
/// one that refuses the PIN.
bool mayHideRemoval(CK_RV result)
{
    return isOfDevice(result) || result == CKR_OBJECT_HANDLE_INVALID || result == CKR_KEY_HANDLE_INVALID ||
           result == CKR_SIGNATURE_INVALID || result == CKR_PIN_INCORRECT || result == CKR_PIN_LOCKED ||
           result == LOGIN_LOST;
}

bool isPresent(const Token& token)
{
    const std::scoped_lock lock(state().lock);
    return token.isPresent;
}

unsigned long insertionOf(const Token& token)
{
    const std::scoped_lock lock(state().lock);
    return token.insertion;
}

PinInForce pinUnderLock(Token& token)
{
    return token.user == User::User ? PinInForce{&token, token.login} : PinInForce{};
}

CK_RV putInForce(KeyGate::Stay& stay, Token& token, const PinInForce& wanted, const SecretText& pin)
{
    if (stay.holds().pin == wanted)
        return CKR_OK;
    dropPin(stay);
    if (wanted.token == nullptr)
        return CKR_OK;
    CK_SESSION_HANDLE session = 0;
    CK_RV result = loginSessionOf(token, session);
    if (result != CKR_OK)
        return result;
    result = loginUnderneath(session, CKU_USER, pin);
    if (result == CKR_OK) {
        stay.holds().pin = wanted;
        return CKR_OK;
    }
    if (result != CKR_PIN_INCORRECT && result != CKR_PIN_LOCKED)
        return result;
    notePinAnswer(token, User::User, result);
    const std::scoped_lock lock(state().lock);
    if (token.login == wanted.login)
        forgetLogin(token);
    return refuse(CKR_USER_NOT_LOGGED_IN, "The user PIN has been changed elsewhere, slotID=", token.slotID);
}

} // namespace

ModuleSession& ModuleSession::operator=(ModuleSession&& other) noexcept
{
    std::swap(token_, other.token_);
    std::swap(insertion_, other.insertion_);
    std::swap(handle_, other.handle_);
    std::swap(isSpoilt_, other.isSpoilt_);
    return *this;
}

ModuleSession::~ModuleSession()
{
    if (token_ != nullptr && (isSpoilt_ || !giveBack(*token_, insertion_, handle_)))
        module().C_CloseSession(handle_);
}

CK_RV borrowSession(Token& token, ModuleSession& session)
{
    unsigned long insertion = 0;
    CK_SESSION_HANDLE handle = takeIdleSession(token, insertion);
    if (handle == 0) {
        CK_RV result = CKR_OK;
        {
            KeyGate::Stay stay = state().gate.enterAlone();
            result = putPinInForce(stay, token);
            if (result == CKR_OK)
                result = openModuleSession(token, handle);
        }
        if (result != CKR_OK)
            return causeOfFailure(token, insertion, result);
    }
    session = ModuleSession(token, insertion, handle);
    return CKR_OK;
}

PinInForce pinOf(Token& token)
{
    const std::scoped_lock lock(state().lock);
    return pinUnderLock(token);
}

CK_RV checkPin(const KeyGate::Stay& stay, const Token& token, Needs needs)
{
    return needs == Needs::Nothing || stay.holds().pin.token == &token ? CKR_OK : LOGIN_LOST;
}

KeptPin keepPin(const Token& token)
{
    return {token.pin, token.pinChanges};
}

CK_RV loginSessionOf(Token& token, CK_SESSION_HANDLE& session)
{
    const unsigned long insertion = insertionOf(token);
    if (token.loginSession != 0 && token.loginSessionInsertion != insertion) {
        module().C_CloseSession(token.loginSession);
        token.loginSession = 0;
    }
    if (token.loginSession == 0) {
        const CK_RV result = openModuleSession(token, token.loginSession);
        if (result != CKR_OK)
            return result;
        token.loginSessionInsertion = insertion;
    }
    session = token.loginSession;
    return CKR_OK;
}

void dropPin(KeyGate::Stay& stay)
{
    ModuleHolds& holds = stay.holds();
    if (holds.pin.token != nullptr)
        module().C_Logout(holds.pin.token->loginSession);
    holds.pin = {};
}

void dropKeptPin(KeyGate::Stay& stay)
{
    if (stay.holds().pin.login == 0)
        dropPin(stay);
}

CK_RV putPinInForce(KeyGate::Stay& stay, Token& token)
{
    PinInForce wanted;
    SecretText pin;
    { // In one look: a user who logs out takes the PIN along.
        const std::scoped_lock lock(state().lock);
        wanted = pinUnderLock(token);
        pin = token.pin;
    }
    return putInForce(stay, token, wanted, pin);
}

CK_RV putKeptPinInForce(KeyGate::Stay& stay, Token& token, const KeptPin& kept)
{
    PinInForce wanted{&token, 0}; // No login has this number.
    SecretText pin = kept.pin;
    {
        const std::scoped_lock lock(state().lock);
        if (token.user == User::User) {
            wanted = pinUnderLock(token);
            pin = token.pin;
        } else if (token.pinChanges != kept.changes) {
            return CKR_PIN_INCORRECT;
        }
    }
    return putInForce(stay, token, wanted, pin);
}

CK_RV lookUpPair(KeyGate::Stay& stay, CK_SESSION_HANDLE session, const PairId& pair, const SecretBytes& identity)
{
    ModuleHolds& holds = stay.holds();
    holds.pair.reset();
    std::array<unsigned char, PUBLIC_KEY_CAPACITY> value{};
    CK_ATTRIBUTE attribute = {CKA_VALUE, value.data(), static_cast<CK_ULONG>(value.size())};
    const CK_RV result = module().C_GetAttributeValue(session, PRIVATE_KEY_BASE + pair.number, &attribute, 1);
    if (result == CKR_OBJECT_HANDLE_INVALID)
        return CKR_KEY_HANDLE_INVALID;
    if (result != CKR_OK)
        return result;
    if (!std::equal(identity.begin(), identity.end(), value.begin(), value.begin() + attribute.ulValueLen))
        return refuse(CKR_KEY_HANDLE_INVALID, "Another key has taken the place of key pair ", pair.number);
    holds.pair = pair;
    holds.identity = identity;
    holds.checked = std::chrono::steady_clock::now();
    return CKR_OK;
}

CK_RV causeOfFailure(Token& token, unsigned long insertion, CK_RV result)
{
    if (!mayHideRemoval(result))
        return result;
    bool isPinDropped = false;
    if (isOfDevice(result)) {
        KeyGate::Stay stay = state().gate.enterAlone();
        isPinDropped = hasModuleDroppedPin(stay, token);
        // A PIN that another process has changed would cost a try with every call: the next one gives it anew, and
        // learns what is wrong.
        if (stay.holds().pin.token == &token)
            dropPin(stay);
    }
    refreshSlots();
    if (insertionOf(token) != insertion) // Its sessions have gone already; those of now are others.
        return refuse(CKR_DEVICE_REMOVED, "The token was removed meanwhile, slotID=", token.slotID);
    if (isPinDropped)
        closeSessionsOf(token);
    if (isPinDropped || !isPresent(token))
        return refuse(CKR_DEVICE_REMOVED, "The token has been removed, slotID=", token.slotID);
    if (result == LOGIN_LOST)
        return refuse(CKR_USER_NOT_LOGGED_IN, "The user has logged out meanwhile, slotID=", token.slotID);
    return result;
}

CK_RV unlessPinIsWrong(Token& token, CK_RV otherwise)
{
    const CK_RV result = usePin(token, Needs::Login, [](CK_SESSION_HANDLE) -> CK_RV { return CKR_OK; });
    return result == CKR_OK ? otherwise : result;
}

void forgetModuleSessions()
{
    State& state = strict::state();
    KeyGate::Stay stay = state.gate.enterAlone();
    stay.holds() = {};
    const std::scoped_lock lock(state.lock);
    for (const auto& token : state.tokens) {
        token->idleSessions.clear();
        token->loginSession = 0;
    }
}

} // namespace velkor::strict
