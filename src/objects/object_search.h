// Object search: evaluated once, when it begins; the handles are then handed out in pages.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

CK_RV findObjectsInit(SessionRecord& session, const CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount);
CK_RV findObjects(SessionRecord& session, CK_OBJECT_HANDLE* phObject, CK_ULONG ulMaxObjectCount,
                  CK_ULONG* pulObjectCount);
CK_RV findObjectsFinal(SessionRecord& session);

} // namespace velkor
