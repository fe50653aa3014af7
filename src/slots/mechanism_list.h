// The mechanisms as they are published for a slot. A slot that is not known is no error here.
#pragma once

#include "cryptoki.h"

namespace velkor
{

CK_RV getMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE* pMechanismList, CK_ULONG* pulCount);
CK_RV getMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* pInfo);

} // namespace velkor
