// The session table: sessions are opened, described and closed.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

CK_RV openSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_SESSION_HANDLE* phSession);
CK_RV closeSession(const SessionRecord& session, CK_SESSION_HANDLE hSession);
CK_RV closeAllSessions(CK_SLOT_ID slotID);
CK_RV getSessionInfo(const SessionRecord& session, CK_SESSION_INFO* pInfo);

} // namespace velkor
