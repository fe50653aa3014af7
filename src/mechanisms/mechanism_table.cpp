#include "mechanisms/mechanism_table.h"

#include <algorithm>

#include "velkor/device_service.h"

namespace velkor
{
namespace
{

constexpr auto RAW = SignatureFamily::Raw;
constexpr auto HASH = SignatureFamily::Hash;
constexpr auto NONE = SignatureFamily::None;

constexpr CK_FLAGS SIGN = CKF_SIGN | CKF_VERIFY;
constexpr CK_FLAGS CRYPT = CKF_ENCRYPT | CKF_DECRYPT;

constexpr bool PSS = true;
constexpr bool FIPS_LIMITED = true;

// Multi-part verification hashes with SHA-256 wherever it knows no better, the raw PSS mechanism included.
// clang-format off
constexpr MechanismRow MECHANISMS[] = {
    {CKM_RSA_PKCS_KEY_PAIR_GEN, 1024, 4096, CKF_GENERATE_KEY_PAIR},
    {CKM_RSA_PKCS,              1024, 4096, CRYPT | SIGN, RAW,  false, NO_HASH,     NO_HASH},
    {CKM_RSA_PKCS_OAEP,         1024, 4096, CRYPT},
    {CKM_RSA_PKCS_PSS,          1024, 4096, SIGN,         RAW,  PSS,   NO_HASH,     HASH_SHA256},
    {CKM_SHA1_RSA_PKCS,         1024, 4096, SIGN,         HASH, false, HASH_SHA1,   HASH_SHA1, FIPS_LIMITED},
    {CKM_SHA224_RSA_PKCS,       1024, 4096, SIGN,         HASH, false, HASH_SHA224, HASH_SHA224},
    {CKM_SHA256_RSA_PKCS,       1024, 4096, SIGN,         HASH, false, HASH_SHA256, HASH_SHA256},
    {CKM_SHA384_RSA_PKCS,       1024, 4096, SIGN,         HASH, false, HASH_SHA384, HASH_SHA384},
    {CKM_SHA512_RSA_PKCS,       1024, 4096, SIGN,         HASH, false, HASH_SHA512, HASH_SHA512},
    {CKM_SHA1_RSA_PKCS_PSS,     1024, 4096, SIGN,         HASH, PSS,   HASH_SHA1,   HASH_SHA256, FIPS_LIMITED},
    {CKM_SHA224_RSA_PKCS_PSS,   1024, 4096, SIGN,         HASH, PSS,   HASH_SHA224, HASH_SHA224},
    {CKM_SHA256_RSA_PKCS_PSS,   1024, 4096, SIGN,         HASH, PSS,   HASH_SHA256, HASH_SHA256},
    {CKM_SHA384_RSA_PKCS_PSS,   1024, 4096, SIGN,         HASH, PSS,   HASH_SHA384, HASH_SHA256},
    {CKM_SHA512_RSA_PKCS_PSS,   1024, 4096, SIGN,         HASH, PSS,   HASH_SHA512, HASH_SHA256},
    {CKM_EC_KEY_PAIR_GEN,        256,  521, CKF_GENERATE_KEY_PAIR},
    {CKM_ECDH1_DERIVE,           256,  521, CKF_DERIVE},
    {CKM_ECDSA,                  256,  521, SIGN,         RAW,  false, NO_HASH,     NO_HASH},
    {CKM_ECDSA_SHA1,             256,  521, SIGN,         HASH, false, HASH_SHA1,   HASH_SHA1, FIPS_LIMITED},
    {CKM_ECDSA_SHA224,           256,  521, SIGN,         HASH, false, HASH_SHA224, HASH_SHA224},
    {CKM_ECDSA_SHA256,           256,  521, SIGN,         HASH, false, HASH_SHA256, HASH_SHA256},
    {CKM_ECDSA_SHA384,           256,  521, SIGN,         HASH, false, HASH_SHA384, HASH_SHA384},
    {CKM_SHA_1,                    0,    0, CKF_DIGEST,   NONE, false, HASH_SHA1},
    {CKM_SHA224,                   0,    0, CKF_DIGEST,   NONE, false, HASH_SHA224},
    {CKM_SHA256,                   0,    0, CKF_DIGEST,   NONE, false, HASH_SHA256},
    {CKM_SHA384,                   0,    0, CKF_DIGEST,   NONE, false, HASH_SHA384},
    {CKM_SHA512,                   0,    0, CKF_DIGEST,   NONE, false, HASH_SHA512},
};
// clang-format on

} // namespace

std::span<const MechanismRow> mechanismTable()
{
    return MECHANISMS;
}

const MechanismRow* findMechanism(CK_MECHANISM_TYPE type)
{
    const auto table = mechanismTable();
    const auto row =
        std::find_if(table.begin(), table.end(), [&](const MechanismRow& each) { return each.type == type; });
    return row != table.end() ? &*row : nullptr;
}

const MechanismRow* findSignatureMechanism(CK_MECHANISM_TYPE type)
{
    const MechanismRow* row = findMechanism(type);
    return row != nullptr && row->family != SignatureFamily::None ? row : nullptr;
}

} // namespace velkor
