// The session table: sessions are opened, described and closed.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

/// The handle of the first session of an empty table.
inline constexpr CK_SESSION_HANDLE SESSION_HANDLE_BASE = 0x60000001;

CK_RV openSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_SESSION_HANDLE* phSession);
CK_RV closeSession(const SessionRecord& session, CK_SESSION_HANDLE hSession);
CK_RV closeAllSessions(CK_SLOT_ID slotID);
CK_RV getSessionInfo(const SessionRecord& session, CK_SESSION_INFO* pInfo);

} // namespace velkor
