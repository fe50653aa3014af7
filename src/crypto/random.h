// Random numbers of the device.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

CK_RV generateRandom(const SessionRecord& session, CK_BYTE* pRandomData, CK_ULONG ulRandomLen);

} // namespace velkor
