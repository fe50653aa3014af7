// The slot table: connected devices as slots, and what is told of a slot and its token.
#pragma once

#include "cryptoki.h"

namespace velkor
{

CK_RV getSlotList(CK_SLOT_ID* pSlotList, CK_ULONG* pulCount);
CK_RV getSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO* pInfo);
CK_RV getTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO* pInfo);

} // namespace velkor
