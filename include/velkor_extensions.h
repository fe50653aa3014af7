// The module's own exports beside the standard ones, under their C++ names. None of them is supported.
#pragma once

#include "cryptoki.h"

/// Answers CKR_FUNCTION_NOT_SUPPORTED.
CK_RV C_EjectToken(CK_SLOT_ID slotID);
/// Answers CKR_FUNCTION_NOT_SUPPORTED.
CK_RV C_GetUnmanagedStructSizeList(CK_ULONG_PTR pSizes, CK_ULONG_PTR pulCount);
/// Answers CKR_FUNCTION_NOT_SUPPORTED.
CK_RV C_InteractiveLogin(CK_SESSION_HANDLE hSession);
