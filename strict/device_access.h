// How the front reaches a token through the module: sessions of the module, which are lent to one call at a time, the
// PIN that the module holds, and the gate in front of both.
#pragma once

#include <chrono>
#include <vector>

#include "cryptoki.h"
#include "strict/state.h"
#include "util/secret.h"

namespace velkor::strict
{

/// A session of the module on a token, lent until the end of the object.
class ModuleSession
{
public:
    ModuleSession() = default;
    ModuleSession(Token& token, unsigned long insertion, CK_SESSION_HANDLE handle)
        : token_(&token), insertion_(insertion), handle_(handle)
    {
    }
    ModuleSession(ModuleSession&& other) noexcept { *this = std::move(other); }
    ModuleSession& operator=(ModuleSession&& other) noexcept;
    ModuleSession(const ModuleSession&) = delete;
    ModuleSession& operator=(const ModuleSession&) = delete;
    ~ModuleSession();

    CK_SESSION_HANDLE handle() const { return handle_; }
    /// That of its token when it was lent.
    unsigned long insertion() const { return insertion_; }
    bool isOpen() const { return token_ != nullptr; }
    /// Nobody shall have it after this: an operation may still be active in it.
    void spoil() { isSpoilt_ = true; }

private:
    Token* token_ = nullptr;
    unsigned long insertion_ = 0;
    CK_SESSION_HANDLE handle_ = 0;
    bool isSpoilt_ = false;
};

/// Not to be called from behind the gate.
CK_RV borrowSession(Token& token, ModuleSession& session);

/// Whose PIN a token's calls want in the module: its user's, or nobody's.
PinInForce pinOf(Token& token);

/// What the work on a token cannot do without.
enum class Needs { Nothing, Login };

/// The user whom the work needs has logged out while it waited. Never leaves the front: `causeOfFailure` gives the
/// code.
inline constexpr CK_RV LOGIN_LOST = ~CK_RV{0};

/// Whether the module holds the PIN that the work needs; it then does so as long as the stay lasts.
CK_RV checkPin(const KeyGate::Stay& stay, const Token& token, Needs needs);

/// A user's PIN, for what is still to be done when the user has logged out.
struct KeptPin {
    SecretText pin;
    unsigned long changes = 0; ///< Token::pinChanges of its time.
};
/// Under State::lock.
KeptPin keepPin(const Token& token);

/// Brings the module to hold the PIN of whoever is logged in, or else the one that was kept, unless it has been changed
/// since: a wrong one would cost a try.
CK_RV putKeptPinInForce(KeyGate::Stay& stay, Token& token, const KeptPin& kept);

/// Brings the module to hold what `pinOf` says. No PIN reaches another token, and a right one costs no try.
CK_RV putPinInForce(KeyGate::Stay& stay, Token& token);

/// Takes the PIN from the module.
void dropPin(KeyGate::Stay& stay);

/// Takes it when it is one that was kept for a pair whose login is over.
void dropKeptPin(KeyGate::Stay& stay);

/// The module's session for logins of a token; the module must hold no PIN.
CK_RV loginSessionOf(Token& token, CK_SESSION_HANDLE& session);

/// The bytes that a key pair had when it was looked at first are its identity.
CK_RV lookUpPair(KeyGate::Stay& stay, CK_SESSION_HANDLE session, const PairId& pair, const SecretBytes& identity);

/// Looks for the reason of a failure that the module gives no reason for; not from behind the gate. A token that turns
/// out to be gone takes its sessions along; `insertion` is what it was when the call began.
CK_RV causeOfFailure(Token& token, unsigned long insertion, CK_RV result);

/// Forgets the module's sessions once the module has ended.
void forgetModuleSessions();

inline constexpr std::chrono::milliseconds IDENTITY_HOLDS{1000};

/// Runs `work(session)` while the module's key record is that pair's, beside other calls with the same key.
template <typename Work>
CK_RV useKeyPair(Token& token, Needs needs, CK_ULONG number, const SecretBytes& identity, const Work& work)
{
    ModuleSession session;
    CK_RV result = borrowSession(token, session);
    if (result != CKR_OK)
        return result;
    const PairId pair{&token, number};
    {
        const PinInForce pin = pinOf(token);
        KeyGate::Stay stay = state().gate.enter([&](const ModuleHolds& holds) {
            return holds.pin == pin && holds.pair == pair && holds.identity == identity &&
                   std::chrono::steady_clock::now() - holds.checked < IDENTITY_HOLDS;
        });
        if (stay.isAlone()) {
            result = putPinInForce(stay, token);
            if (result == CKR_OK)
                result = lookUpPair(stay, session.handle(), pair, identity);
            if (result == CKR_OK)
                stay.admitOthers();
        }
        if (result == CKR_OK)
            result = checkPin(stay, token, needs);
        if (result == CKR_OK)
            result = work(session.handle());
    }
    if (result == CKR_OK)
        return CKR_OK;
    session.spoil();
    return causeOfFailure(token, session.insertion(), result);
}

/// Runs `work(session)`, which looks that pair up itself.
template <typename Work>
CK_RV lookAtPair(Token& token, CK_ULONG number, const Work& work)
{
    ModuleSession session;
    CK_RV result = borrowSession(token, session);
    if (result != CKR_OK)
        return result;
    const PairId pair{&token, number};
    {
        const PinInForce pin = pinOf(token);
        KeyGate::Stay stay =
            state().gate.enter([&](const ModuleHolds& holds) { return holds.pin == pin && holds.pair == pair; });
        if (stay.isAlone()) {
            result = putPinInForce(stay, token);
            stay.holds().pair.reset();
        }
        if (result == CKR_OK)
            result = work(session.handle());
        if (result == CKR_OK && stay.isAlone()) {
            stay.holds().pair = pair;
            stay.holds().checked = {}; // Who uses the key compares it first.
        }
    }
    return result == CKR_OK ? CKR_OK : causeOfFailure(token, session.insertion(), result);
}

/// Runs `work(session)` while the module holds the token's PIN and no other, beside other calls with that PIN. The work
/// looks no key pair up.
template <typename Work>
CK_RV usePin(Token& token, Needs needs, const Work& work)
{
    ModuleSession session;
    CK_RV result = borrowSession(token, session);
    if (result != CKR_OK)
        return result;
    {
        const PinInForce pin = pinOf(token);
        KeyGate::Stay stay = state().gate.enter([&](const ModuleHolds& holds) { return holds.pin == pin; });
        if (stay.isAlone()) {
            result = putPinInForce(stay, token);
            stay.admitOthers();
        }
        if (result == CKR_OK)
            result = checkPin(stay, token, needs);
        if (result == CKR_OK)
            result = work(session.handle());
    }
    return result == CKR_OK ? CKR_OK : causeOfFailure(token, session.insertion(), result);
}

/// Behind a failure of the device: gives it the user's PIN anew, which another process may have changed, and answers
/// `otherwise` where it is the right one.
CK_RV unlessPinIsWrong(Token& token, CK_RV otherwise);

/// Runs `work(stay, session)` alone, with the user's PIN: it changes or deletes objects. What it deletes, it has the
/// front forget before it returns.
template <typename Work>
CK_RV changeObjects(Token& token, const Work& work)
{
    ModuleSession session;
    CK_RV result = borrowSession(token, session);
    if (result != CKR_OK)
        return result;
    {
        KeyGate::Stay stay = state().gate.enterAlone();
        result = putPinInForce(stay, token);
        if (result == CKR_OK)
            result = checkPin(stay, token, Needs::Login);
        if (result == CKR_OK)
            result = work(stay, session.handle());
        stay.holds().pair.reset();
    }
    return result == CKR_OK ? CKR_OK : causeOfFailure(token, session.insertion(), result);
}

/// Runs `work(session)` alone on that pair, unless another one has taken its place.
template <typename Work>
CK_RV changePair(Token& token, CK_ULONG number, const SecretBytes& identity, const Work& work)
{
    return changeObjects(token, [&](KeyGate::Stay& stay, CK_SESSION_HANDLE session) {
        const CK_RV result = lookUpPair(stay, session, {&token, number}, identity);
        return result == CKR_OK ? work(session) : result;
    });
}

/// Runs `work(session)`, to which neither key record nor PIN matters.
template <typename Work>
CK_RV useToken(Token& token, const Work& work)
{
    ModuleSession session;
    CK_RV result = borrowSession(token, session);
    if (result == CKR_OK)
        result = work(session.handle());
    return result == CKR_OK ? CKR_OK : causeOfFailure(token, session.insertion(), result);
}

} // namespace velkor::strict
