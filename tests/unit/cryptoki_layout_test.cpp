// Owns the proof that the default layout of cryptoki.h is the packed one: callers built against it hand over raw
// structures, so a single byte of drift would be read as somebody else's field.

#include "cryptoki.h"
#include "velkor_extensions.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace
{

// ---- Scalars ----

#ifdef _WIN32
static_assert(std::is_same_v<CK_ULONG, unsigned long> && std::is_same_v<CK_LONG, long>);
#else
static_assert(std::is_same_v<CK_ULONG, unsigned int> && std::is_same_v<CK_LONG, int>);
#endif
static_assert(sizeof(CK_ULONG) == 4 && sizeof(CK_LONG) == 4);
static_assert(sizeof(CK_BYTE) == 1 && sizeof(CK_BBOOL) == 1);

// A constant wider than CK_ULONG would turn ~CKF_... and ?: into conversions that lose bits.
static_assert(std::is_same_v<decltype(CKR_OK), CK_ULONG>);
static_assert(std::is_same_v<decltype(CKA_WRAP_TEMPLATE), CK_ULONG>);
static_assert(std::is_same_v<decltype(CK_UNAVAILABLE_INFORMATION), CK_ULONG>);
static_assert(CK_UNAVAILABLE_INFORMATION == 0xFFFFFFFFU);
static_assert(CKM_VENDOR_DEFINED == 0x80000000U);
static_assert(CKA_ALLOWED_MECHANISMS == 0x40000600U);

// The preprocessor must be able to compare the constants as well.
#if CKM_VENDOR_DEFINED != 0x80000000 || CKA_WRAP_TEMPLATE != 0x40000211 || !CK_TRUE
#error "the constants do not work in #if"
#endif

// ---- Packing ----

template <class... Structures>
constexpr bool packed = ((alignof(Structures) == 1 && std::is_standard_layout_v<Structures>)&&...);

static_assert(packed<CK_VERSION, CK_INFO, CK_SLOT_INFO, CK_TOKEN_INFO, CK_SESSION_INFO, CK_ATTRIBUTE, CK_DATE,
                     CK_MECHANISM, CK_MECHANISM_INFO, CK_C_INITIALIZE_ARGS, CK_FUNCTION_LIST>);
static_assert(packed<CK_RSA_PKCS_OAEP_PARAMS, CK_RSA_PKCS_PSS_PARAMS, CK_ECDH1_DERIVE_PARAMS, CK_ECDH2_DERIVE_PARAMS,
                     CK_ECMQV_DERIVE_PARAMS, CK_X9_42_DH1_DERIVE_PARAMS, CK_X9_42_DH2_DERIVE_PARAMS,
                     CK_X9_42_MQV_DERIVE_PARAMS, CK_KEA_DERIVE_PARAMS>);
static_assert(packed<CK_RC2_CBC_PARAMS, CK_RC2_MAC_GENERAL_PARAMS, CK_RC5_PARAMS, CK_RC5_CBC_PARAMS,
                     CK_RC5_MAC_GENERAL_PARAMS, CK_DES_CBC_ENCRYPT_DATA_PARAMS, CK_AES_CBC_ENCRYPT_DATA_PARAMS,
                     CK_SKIPJACK_PRIVATE_WRAP_PARAMS, CK_SKIPJACK_RELAYX_PARAMS>);
static_assert(
    packed<CK_PBE_PARAMS, CK_KEY_WRAP_SET_OAEP_PARAMS, CK_SSL3_RANDOM_DATA, CK_SSL3_MASTER_KEY_DERIVE_PARAMS,
           CK_SSL3_KEY_MAT_OUT, CK_SSL3_KEY_MAT_PARAMS, CK_TLS_PRF_PARAMS, CK_WTLS_RANDOM_DATA,
           CK_WTLS_MASTER_KEY_DERIVE_PARAMS, CK_WTLS_PRF_PARAMS, CK_WTLS_KEY_MAT_OUT, CK_WTLS_KEY_MAT_PARAMS>);
static_assert(packed<CK_CMS_SIG_PARAMS, CK_KEY_DERIVATION_STRING_DATA, CK_PKCS5_PBKD2_PARAMS, CK_OTP_PARAM,
                     CK_OTP_PARAMS, CK_OTP_SIGNATURE_INFO, CK_KIP_PARAMS, CK_AES_CTR_PARAMS, CK_CAMELLIA_CTR_PARAMS,
                     CK_CAMELLIA_CBC_ENCRYPT_DATA_PARAMS, CK_ARIA_CBC_ENCRYPT_DATA_PARAMS>);

// The header must give the includer's own packing back.
struct AfterTheHeader {
    char first;
    std::uint32_t second;
};
static_assert(offsetof(AfterTheHeader, second) == 4);

// ---- Sizes that do not depend on pointers ----

static_assert(sizeof(CK_VERSION) == 2);
static_assert(sizeof(CK_INFO) == 72);
static_assert(sizeof(CK_SLOT_INFO) == 104);
static_assert(sizeof(CK_TOKEN_INFO) == 160);
static_assert(sizeof(CK_SESSION_INFO) == 16);
static_assert(sizeof(CK_DATE) == 8);
static_assert(sizeof(CK_MECHANISM_INFO) == 12);
static_assert(sizeof(CK_RSA_PKCS_PSS_PARAMS) == 12);
static_assert(sizeof(CK_RC2_CBC_PARAMS) == 12);
static_assert(sizeof(CK_RC2_MAC_GENERAL_PARAMS) == 8);
static_assert(sizeof(CK_RC5_PARAMS) == 8);
static_assert(sizeof(CK_RC5_MAC_GENERAL_PARAMS) == 12);
static_assert(sizeof(CK_AES_CTR_PARAMS) == 20);
static_assert(sizeof(CK_CAMELLIA_CTR_PARAMS) == 20);

static_assert(offsetof(CK_INFO, cryptokiVersion) == 0);
static_assert(offsetof(CK_INFO, manufacturerID) == 2);
static_assert(offsetof(CK_INFO, flags) == 34);
static_assert(offsetof(CK_INFO, libraryDescription) == 38);
static_assert(offsetof(CK_INFO, libraryVersion) == 70);

static_assert(offsetof(CK_SLOT_INFO, slotDescription) == 0);
static_assert(offsetof(CK_SLOT_INFO, manufacturerID) == 64);
static_assert(offsetof(CK_SLOT_INFO, flags) == 96);
static_assert(offsetof(CK_SLOT_INFO, hardwareVersion) == 100);
static_assert(offsetof(CK_SLOT_INFO, firmwareVersion) == 102);

static_assert(offsetof(CK_TOKEN_INFO, label) == 0);
static_assert(offsetof(CK_TOKEN_INFO, manufacturerID) == 32);
static_assert(offsetof(CK_TOKEN_INFO, model) == 64);
static_assert(offsetof(CK_TOKEN_INFO, serialNumber) == 80);
static_assert(offsetof(CK_TOKEN_INFO, flags) == 96);
static_assert(offsetof(CK_TOKEN_INFO, ulMaxSessionCount) == 100);
static_assert(offsetof(CK_TOKEN_INFO, ulSessionCount) == 104);
static_assert(offsetof(CK_TOKEN_INFO, ulMaxRwSessionCount) == 108);
static_assert(offsetof(CK_TOKEN_INFO, ulRwSessionCount) == 112);
static_assert(offsetof(CK_TOKEN_INFO, ulMaxPinLen) == 116);
static_assert(offsetof(CK_TOKEN_INFO, ulMinPinLen) == 120);
static_assert(offsetof(CK_TOKEN_INFO, ulTotalPublicMemory) == 124);
static_assert(offsetof(CK_TOKEN_INFO, ulFreePublicMemory) == 128);
static_assert(offsetof(CK_TOKEN_INFO, ulTotalPrivateMemory) == 132);
static_assert(offsetof(CK_TOKEN_INFO, ulFreePrivateMemory) == 136);
static_assert(offsetof(CK_TOKEN_INFO, hardwareVersion) == 140);
static_assert(offsetof(CK_TOKEN_INFO, firmwareVersion) == 142);
static_assert(offsetof(CK_TOKEN_INFO, utcTime) == 144);

static_assert(offsetof(CK_SESSION_INFO, slotID) == 0);
static_assert(offsetof(CK_SESSION_INFO, state) == 4);
static_assert(offsetof(CK_SESSION_INFO, flags) == 8);
static_assert(offsetof(CK_SESSION_INFO, ulDeviceError) == 12);

static_assert(offsetof(CK_MECHANISM_INFO, ulMinKeySize) == 0);
static_assert(offsetof(CK_MECHANISM_INFO, ulMaxKeySize) == 4);
static_assert(offsetof(CK_MECHANISM_INFO, flags) == 8);

// ---- Sizes with 8-byte pointers ----

#if UINTPTR_MAX > 0xFFFFFFFFU
static_assert(sizeof(CK_ATTRIBUTE) == 16);
static_assert(sizeof(CK_MECHANISM) == 16);
static_assert(sizeof(CK_C_INITIALIZE_ARGS) == 44);
static_assert(sizeof(CK_FUNCTION_LIST) == 2 + 68 * 8);
static_assert(sizeof(CK_RSA_PKCS_OAEP_PARAMS) == 24);
static_assert(sizeof(CK_ECDH1_DERIVE_PARAMS) == 28);
static_assert(sizeof(CK_ECDH2_DERIVE_PARAMS) == 48);
static_assert(sizeof(CK_ECMQV_DERIVE_PARAMS) == 52);
static_assert(sizeof(CK_X9_42_DH1_DERIVE_PARAMS) == 28);
static_assert(sizeof(CK_X9_42_DH2_DERIVE_PARAMS) == 48);
static_assert(sizeof(CK_X9_42_MQV_DERIVE_PARAMS) == 52);
static_assert(sizeof(CK_KEA_DERIVE_PARAMS) == 33);
static_assert(sizeof(CK_RC5_CBC_PARAMS) == 20);
static_assert(sizeof(CK_DES_CBC_ENCRYPT_DATA_PARAMS) == 20);
static_assert(sizeof(CK_AES_CBC_ENCRYPT_DATA_PARAMS) == 28);
static_assert(sizeof(CK_SKIPJACK_PRIVATE_WRAP_PARAMS) == 68);
static_assert(sizeof(CK_SKIPJACK_RELAYX_PARAMS) == 84);
static_assert(sizeof(CK_PBE_PARAMS) == 36);
static_assert(sizeof(CK_KEY_WRAP_SET_OAEP_PARAMS) == 13);
static_assert(sizeof(CK_SSL3_RANDOM_DATA) == 24);
static_assert(sizeof(CK_SSL3_MASTER_KEY_DERIVE_PARAMS) == 32);
static_assert(sizeof(CK_SSL3_KEY_MAT_OUT) == 32);
static_assert(sizeof(CK_SSL3_KEY_MAT_PARAMS) == 45);
static_assert(sizeof(CK_TLS_PRF_PARAMS) == 40);
static_assert(sizeof(CK_WTLS_RANDOM_DATA) == 24);
static_assert(sizeof(CK_WTLS_MASTER_KEY_DERIVE_PARAMS) == 36);
static_assert(sizeof(CK_WTLS_PRF_PARAMS) == 44);
static_assert(sizeof(CK_WTLS_KEY_MAT_OUT) == 16);
static_assert(sizeof(CK_WTLS_KEY_MAT_PARAMS) == 53);
static_assert(sizeof(CK_CMS_SIG_PARAMS) == 52);
static_assert(sizeof(CK_KEY_DERIVATION_STRING_DATA) == 12);
static_assert(sizeof(CK_PKCS5_PBKD2_PARAMS) == 52);
static_assert(sizeof(CK_OTP_PARAM) == 16);
static_assert(sizeof(CK_OTP_PARAMS) == 12);
static_assert(sizeof(CK_OTP_SIGNATURE_INFO) == 12);
static_assert(sizeof(CK_KIP_PARAMS) == 24);
static_assert(sizeof(CK_CAMELLIA_CBC_ENCRYPT_DATA_PARAMS) == 28);
static_assert(sizeof(CK_ARIA_CBC_ENCRYPT_DATA_PARAMS) == 28);

static_assert(offsetof(CK_ATTRIBUTE, type) == 0);
static_assert(offsetof(CK_ATTRIBUTE, pValue) == 4);
static_assert(offsetof(CK_ATTRIBUTE, ulValueLen) == 12);

static_assert(offsetof(CK_MECHANISM, mechanism) == 0);
static_assert(offsetof(CK_MECHANISM, pParameter) == 4);
static_assert(offsetof(CK_MECHANISM, ulParameterLen) == 12);

static_assert(offsetof(CK_C_INITIALIZE_ARGS, CreateMutex) == 0);
static_assert(offsetof(CK_C_INITIALIZE_ARGS, DestroyMutex) == 8);
static_assert(offsetof(CK_C_INITIALIZE_ARGS, LockMutex) == 16);
static_assert(offsetof(CK_C_INITIALIZE_ARGS, UnlockMutex) == 24);
static_assert(offsetof(CK_C_INITIALIZE_ARGS, flags) == 32);
static_assert(offsetof(CK_C_INITIALIZE_ARGS, pReserved) == 36);

static_assert(offsetof(CK_ECDH1_DERIVE_PARAMS, kdf) == 0);
static_assert(offsetof(CK_ECDH1_DERIVE_PARAMS, ulSharedDataLen) == 4);
static_assert(offsetof(CK_ECDH1_DERIVE_PARAMS, pSharedData) == 8);
static_assert(offsetof(CK_ECDH1_DERIVE_PARAMS, ulPublicDataLen) == 16);
static_assert(offsetof(CK_ECDH1_DERIVE_PARAMS, pPublicData) == 20);

static_assert(offsetof(CK_RSA_PKCS_OAEP_PARAMS, hashAlg) == 0);
static_assert(offsetof(CK_RSA_PKCS_OAEP_PARAMS, mgf) == 4);
static_assert(offsetof(CK_RSA_PKCS_OAEP_PARAMS, source) == 8);
static_assert(offsetof(CK_RSA_PKCS_OAEP_PARAMS, pSourceData) == 12);
static_assert(offsetof(CK_RSA_PKCS_OAEP_PARAMS, ulSourceDataLen) == 20);
#endif

// ---- The function list ----

#define OFFSET_OF_FUNCTION(name, parameters) offsetof(CK_FUNCTION_LIST, name),
constexpr std::array functionOffsets{CK_FOR_EACH_FUNCTION(OFFSET_OF_FUNCTION)};
#undef OFFSET_OF_FUNCTION

constexpr bool functionsFollowTheVersionWithoutGaps()
{
    std::size_t expected = sizeof(CK_VERSION);
    for (const std::size_t offset : functionOffsets) {
        if (offset != expected) {
            return false;
        }
        expected += sizeof(CK_C_Initialize);
    }
    return expected == sizeof(CK_FUNCTION_LIST);
}

static_assert(functionOffsets.size() == 68);
static_assert(functionsFollowTheVersionWithoutGaps());
static_assert(offsetof(CK_FUNCTION_LIST, C_Initialize) == 2);
static_assert(offsetof(CK_FUNCTION_LIST, C_GetFunctionList) == 2 + 3 * sizeof(void*));
static_assert(offsetof(CK_FUNCTION_LIST, C_WaitForSlotEvent) == 2 + 67 * sizeof(void*));

// ---- The extensions ----

// Callers know these by mangled name, which the parameter types decide.
static_assert(std::is_same_v<decltype(&C_EjectToken), CK_RV (*)(CK_SLOT_ID)>);
static_assert(std::is_same_v<decltype(&C_GetUnmanagedStructSizeList), CK_RV (*)(CK_ULONG*, CK_ULONG*)>);
static_assert(std::is_same_v<decltype(&C_InteractiveLogin), CK_RV (*)(CK_SESSION_HANDLE)>);

// ---- What only running code can show ----

TEST(CryptokiLayout, ATemplateIsOneRunOfBytes)
{
    CK_BBOOL yes = CK_TRUE;
    const std::array<CK_ATTRIBUTE, 2> attributes{
        {{CKA_TOKEN, &yes, sizeof(yes)}, {CKA_VALUE, NULL_PTR, CK_UNAVAILABLE_INFORMATION}}};

    std::array<unsigned char, 2 * (sizeof(CK_ULONG) + sizeof(CK_VOID_PTR) + sizeof(CK_ULONG))> expected{};
    std::size_t position = 0;
    const auto append = [&](const auto& value) {
        std::memcpy(expected.data() + position, &value, sizeof(value));
        position += sizeof(value);
    };
    append(CK_ULONG{0x00000001});
    append(CK_VOID_PTR{&yes});
    append(CK_ULONG{1});
    append(CK_ULONG{0x00000011});
    append(CK_VOID_PTR{nullptr});
    append(CK_ULONG{0xFFFFFFFF});

    ASSERT_EQ(sizeof(attributes), position);
    EXPECT_EQ(0, std::memcmp(attributes.data(), expected.data(), position));
}

CK_RV answerNoEvent(CK_FLAGS, CK_SLOT_ID_PTR slot, CK_VOID_PTR)
{
    *slot = CK_UNAVAILABLE_INFORMATION;
    return CKR_NO_EVENT;
}

TEST(CryptokiLayout, FunctionsAreCallableFromUnalignedMembers)
{
    CK_FUNCTION_LIST functions{};
    functions.C_WaitForSlotEvent = &answerNoEvent;

    CK_SLOT_ID slot = 0;
    EXPECT_EQ(CKR_NO_EVENT, functions.C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, NULL_PTR));
    EXPECT_EQ(CK_UNAVAILABLE_INFORMATION, slot);
}

TEST(CryptokiLayout, FlagsCombineWithoutLosingBits)
{
    CK_FLAGS flags = CKF_RNG | CKF_LOGIN_REQUIRED;
    flags |= CKF_EXTENSION;
    flags &= ~CKF_RNG;
    EXPECT_EQ(CK_FLAGS{0x80000004}, flags);
}

} // namespace
