// The module's own exports beside the standard ones, under their C++ names. None of them is supported.
#pragma once

#include "cryptoki.h"

/* For what a compiler wants before an exported function. */
#ifndef VELKOR_EXTENSION
#define VELKOR_EXTENSION
#endif

/// Answers CKR_FUNCTION_NOT_SUPPORTED.
VELKOR_EXTENSION CK_RV C_EjectToken(CK_SLOT_ID slotID);
/// Answers CKR_FUNCTION_NOT_SUPPORTED.
VELKOR_EXTENSION CK_RV C_GetUnmanagedStructSizeList(CK_ULONG_PTR pSizes, CK_ULONG_PTR pulCount);
/// Answers CKR_FUNCTION_NOT_SUPPORTED.
VELKOR_EXTENSION CK_RV C_InteractiveLogin(CK_SESSION_HANDLE hSession);
