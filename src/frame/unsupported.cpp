// The entry points that this module exports but does not support. They answer the same before C_Initialize, and look
// at none of their arguments.
#include "cryptoki.h"
#include "frame/entry_sequence.h"
#include "velkor_extensions.h"

namespace velkor
{
namespace
{

CK_RV unsupported(const char* name)
{
    return enterAlways(name, [] { return CKR_FUNCTION_NOT_SUPPORTED; });
}

} // namespace
} // namespace velkor

using velkor::unsupported;

// clang-format off
CK_RV C_InitToken(CK_SLOT_ID, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR) { return unsupported(__func__); }
CK_RV C_InitPIN(CK_SESSION_HANDLE, CK_UTF8CHAR_PTR, CK_ULONG) { return unsupported(__func__); }
CK_RV C_GetOperationState(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_SetOperationState(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE) { return unsupported(__func__); }
CK_RV C_CopyObject(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR) { return unsupported(__func__); }
CK_RV C_EncryptUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_EncryptFinal(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_DecryptUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_DecryptFinal(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_DigestKey(CK_SESSION_HANDLE, CK_OBJECT_HANDLE) { return unsupported(__func__); }
CK_RV C_SignRecoverInit(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE) { return unsupported(__func__); }
CK_RV C_SignRecover(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_VerifyRecoverInit(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE) { return unsupported(__func__); }
CK_RV C_VerifyRecover(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_DigestEncryptUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_DecryptDigestUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_SignEncryptUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_DecryptVerifyUpdate(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_GenerateKey(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR) { return unsupported(__func__); }
CK_RV C_WrapKey(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_UnwrapKey(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR) { return unsupported(__func__); }
CK_RV C_SeedRandom(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG) { return unsupported(__func__); }
CK_RV C_GetFunctionStatus(CK_SESSION_HANDLE) { return unsupported(__func__); }
CK_RV C_CancelFunction(CK_SESSION_HANDLE) { return unsupported(__func__); }

CK_RV C_EjectToken(CK_SLOT_ID) { return unsupported(__func__); }
CK_RV C_GetUnmanagedStructSizeList(CK_ULONG_PTR, CK_ULONG_PTR) { return unsupported(__func__); }
CK_RV C_InteractiveLogin(CK_SESSION_HANDLE) { return unsupported(__func__); }
// clang-format on
