// Attributes of objects: read, changed where the device allows it, and sizes.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

CK_RV getObjectSize(const SessionRecord& session, CK_OBJECT_HANDLE hObject, CK_ULONG* pulSize);
CK_RV getAttributeValue(const SessionRecord& session, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE* pTemplate,
                        CK_ULONG ulCount);
CK_RV setAttributeValue(const SessionRecord& session, CK_OBJECT_HANDLE hObject, const CK_ATTRIBUTE* pTemplate,
                        CK_ULONG ulCount);

} // namespace velkor
