// Login, logout and PIN change. A user is logged in exactly when the cached user PIN is not empty.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

CK_RV setPin(const SessionRecord& session, const CK_UTF8CHAR* pOldPin, CK_ULONG ulOldLen, const CK_UTF8CHAR* pNewPin,
             CK_ULONG ulNewLen);
CK_RV login(const SessionRecord& session, CK_USER_TYPE userType, const CK_UTF8CHAR* pPin, CK_ULONG ulPinLen);
CK_RV logout(const SessionRecord& session);

} // namespace velkor
