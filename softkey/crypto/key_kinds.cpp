#include "crypto/key_kinds.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>

namespace softkey
{
namespace
{

constexpr EncryptionType NONE{}; // EC keys do not encrypt.

constexpr KeyKindTraits KINDS[] = {
    {KEY_KIND_RSA_1024, EncryptionType::Rsa1024, "RSA-1024", 1024, nullptr},
    {KEY_KIND_RSA_2048, EncryptionType::Rsa2048, "RSA-2048", 2048, nullptr},
    {KEY_KIND_RSA_3072, EncryptionType::Rsa3072, "RSA-3072", 3072, nullptr},
    {KEY_KIND_RSA_4096, EncryptionType::Rsa4096, "RSA-4096", 4096, nullptr},
    {KEY_KIND_EC_P256, NONE, "P-256", 256, "prime256v1"},
    {KEY_KIND_EC_P384, NONE, "P-384", 384, "secp384r1"},
    {KEY_KIND_EC_P521, NONE, "P-521", 521, "secp521r1"},
};
constexpr const KeyKindTraits& RSA_2048 = KINDS[1];

} // namespace

std::span<const KeyKindTraits> keyKinds()
{
    return KINDS;
}

const KeyKindTraits& traitsOf(std::uint32_t keyKind)
{
    const KeyKindTraits* found = &RSA_2048;
    for (const KeyKindTraits& traits : KINDS) {
        if (traits.kind == keyKind)
            found = &traits;
    }
    return *found;
}

const KeyKindTraits* keyKindNamed(std::string_view name)
{
    const auto found = std::find_if(std::begin(KINDS), std::end(KINDS),
                                    [&](const KeyKindTraits& traits) { return traits.name == name; });
    return found == std::end(KINDS) ? nullptr : found;
}

const KeyKindTraits* keyKindOf(const EVP_PKEY* key)
{
    std::array<char, 64> group{};
    const bool isRsa = EVP_PKEY_is_a(key, "RSA") == 1;
    if (!isRsa &&
        (EVP_PKEY_is_a(key, "EC") != 1 || EVP_PKEY_get_group_name(key, group.data(), group.size(), nullptr) != 1))
        return nullptr;
    for (const KeyKindTraits& traits : KINDS) {
        const bool matches = isRsa ? traits.isRsa() && EVP_PKEY_get_bits(key) == static_cast<int>(traits.bits)
                                   : !traits.isRsa() && std::string_view(group.data()) == traits.curve;
        if (matches)
            return &traits;
    }
    return nullptr;
}

} // namespace softkey
