#include "mechanisms/key_kinds.h"

#include <algorithm>
#include <iterator>

#include "velkor/device_service.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

constexpr unsigned char P256[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
constexpr unsigned char P384[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
constexpr unsigned char P521[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};

// The first row is also that of every unknown kind.
constexpr KeyKindInfo KEY_KINDS[] = {
    {KEY_KIND_RSA_2048, CKK_RSA, RSA_2048_BITS, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
    {KEY_KIND_RSA_1024, CKK_RSA, RSA_1024_BITS, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
    {KEY_KIND_RSA_3072, CKK_RSA, 3072, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
    {KEY_KIND_RSA_4096, CKK_RSA, 4096, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
    {KEY_KIND_EC_P256, CKK_EC, 256, CKM_EC_KEY_PAIR_GEN, P256},
    {KEY_KIND_EC_P384, CKK_EC, 384, CKM_EC_KEY_PAIR_GEN, P384},
    {KEY_KIND_EC_P521, CKK_EC, 521, CKM_EC_KEY_PAIR_GEN, P521},
};

template <typename Condition>
const KeyKindInfo* findKind(const Condition& condition)
{
    const auto* const row = std::find_if(std::begin(KEY_KINDS), std::end(KEY_KINDS), condition);
    return row != std::end(KEY_KINDS) ? row : nullptr;
}

} // namespace

const KeyKindInfo& keyKindInfo(std::uint32_t keyKind)
{
    const KeyKindInfo* kind = findKind([&](const KeyKindInfo& each) { return each.keyKind == keyKind; });
    return kind != nullptr ? *kind : KEY_KINDS[0];
}

const KeyKindInfo* findRsaKind(CK_ULONG bits)
{
    return findKind([&](const KeyKindInfo& each) { return each.keyType == CKK_RSA && each.bits == bits; });
}

const KeyKindInfo* findCurveKind(Bytes ecParams)
{
    return findKind(
        [&](const KeyKindInfo& each) { return each.keyType == CKK_EC && sameBytes(each.ecParams, ecParams); });
}

} // namespace velkor
