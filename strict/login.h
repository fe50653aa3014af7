// Login, logout and change of the PIN. A login belongs to a token; the module, which knows one PIN for all, is logged
// in and out underneath.
#pragma once

#include "cryptoki.h"
#include "strict/state.h"
#include "util/secret.h"

namespace velkor::strict
{

struct Session;

/// Gives a PIN to the module.
CK_RV loginUnderneath(CK_SESSION_HANDLE session, CK_USER_TYPE userType, const SecretText& pin);

/// Keeps what a token answered to a PIN, for its flags. Other answers than those to a PIN are passed over.
void notePinAnswer(Token& token, User user, CK_RV result);

/// Nobody is logged in any more; the handles of private objects become invalid. Under State::lock.
void forgetLogin(Token& token);

/// Takes a PIN from the module whose user has logged out.
void withdrawStalePin();

/// Whether private objects of the token are to be seen.
bool isUserLoggedIn(const Token& token);

CK_RV login(Session& session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen);
CK_RV logout(Session& session);
CK_RV setPin(Session& session, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen, CK_UTF8CHAR_PTR pNewPin, CK_ULONG ulNewLen);

} // namespace velkor::strict
