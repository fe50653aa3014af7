// C_Initialize, C_Finalize and C_GetInfo: how the front and the module below it begin and end.
#pragma once

#include "cryptoki.h"

namespace velkor::strict
{

CK_RV initialize(CK_VOID_PTR pInitArgs);

/// Closes and logs out at once; the module's own end runs behind it.
CK_RV finalize(CK_VOID_PTR pReserved);

CK_RV getInfo(CK_INFO_PTR pInfo);

} // namespace velkor::strict
