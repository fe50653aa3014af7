/* Owns the proof that cryptoki.h is plain C: this file is only compiled, once for each layout. */

#include "cryptoki.h"

#include <stddef.h>

/* C99 has no static assertion; an array of negative size stops the compiler just as well. */
#define REQUIRE(name, condition) typedef char require_##name[(condition) ? 1 : -1]

struct after_the_header {
    char first;
    void* second;
};
REQUIRE(packing_is_given_back, offsetof(struct after_the_header, second) == sizeof(void*));

REQUIRE(unavailable_is_all_ones, CK_UNAVAILABLE_INFORMATION + 1 == 0);
REQUIRE(constants_have_the_width_of_values, sizeof(CKR_OK) == sizeof(CK_ULONG));

#ifdef CRYPTOKI_HOST_LAYOUT
REQUIRE(ulong_is_the_platforms, sizeof(CK_ULONG) == sizeof(unsigned long));
REQUIRE(functions_are_aligned, offsetof(CK_FUNCTION_LIST, C_Initialize) == sizeof(void*));
REQUIRE(list_is_aligned, sizeof(CK_FUNCTION_LIST) == 69 * sizeof(void*));
#else
REQUIRE(ulong_has_32_bits, sizeof(CK_ULONG) == 4);
REQUIRE(functions_are_packed, offsetof(CK_FUNCTION_LIST, C_Initialize) == 2);
REQUIRE(list_is_packed, sizeof(CK_FUNCTION_LIST) == 2 + 68 * sizeof(void*));
#endif

#define NAME_OF_FUNCTION(name, parameters) name,
static CK_FUNCTION_LIST functions = {{CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR},
                                     CK_FOR_EACH_FUNCTION(NAME_OF_FUNCTION)};

CK_DEFINE_FUNCTION(CK_RV, C_GetFunctionList)(CK_FUNCTION_LIST_PTR_PTR ppFunctionList)
{
    if (ppFunctionList == NULL_PTR) {
        return CKR_ARGUMENTS_BAD;
    }
    *ppFunctionList = &functions;
    return CKR_OK;
}

CK_DEFINE_FUNCTION(CK_RV, C_GetMechanismInfo)(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo)
{
    if (slotID == CK_UNAVAILABLE_INFORMATION || pInfo == NULL_PTR) {
        return slotID == CK_UNAVAILABLE_INFORMATION ? CKR_SLOT_ID_INVALID : CKR_ARGUMENTS_BAD;
    }
    switch (type) {
    case CKM_RSA_PKCS:
    case CKM_VENDOR_DEFINED | CKM_ECDSA:
        pInfo->ulMinKeySize = CK_EFFECTIVELY_INFINITE;
        pInfo->ulMaxKeySize = CK_UNAVAILABLE_INFORMATION;
        pInfo->flags = CKF_SIGN | CKF_EXTENSION;
        pInfo->flags &= ~CKF_HW;
        return CKR_OK;
    default:
        return CKR_MECHANISM_INVALID;
    }
}

static CK_RV notify(CK_SESSION_HANDLE hSession, CK_NOTIFICATION event, CK_VOID_PTR pApplication)
{
    CK_BBOOL* seen = pApplication;
    *seen = event == CKN_SURRENDER ? CK_TRUE : CK_FALSE;
    return hSession == CK_INVALID_HANDLE ? CKR_SESSION_HANDLE_INVALID : CKR_CANCEL;
}

CK_DEFINE_FUNCTION(CK_RV, C_GetSessionInfo)(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo)
{
    static CK_BBOOL seen = CK_FALSE;
    CK_ATTRIBUTE attribute = {CKA_TOKEN, NULL_PTR, 0};
    CK_NOTIFY callback = notify;
    CK_C_Login login = functions.C_Login;

    attribute.pValue = &seen;
    attribute.ulValueLen = sizeof(seen);
    pInfo->state = CKS_RW_USER_FUNCTIONS;
    pInfo->ulDeviceError = attribute.ulValueLen;
    return login == NULL_PTR ? CKR_FUNCTION_FAILED : callback(hSession, CKN_SURRENDER, attribute.pValue);
}
