// Deletion of key pairs and certificates.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

CK_RV destroyObject(const SessionRecord& session, CK_OBJECT_HANDLE hObject);

} // namespace velkor
