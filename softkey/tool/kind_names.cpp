#include "tool/kind_names.h"

namespace softkey
{
namespace
{

struct OtherName {
    std::string_view plain; ///< In the form of `plainForm`.
    std::string_view name;  ///< The kind's own.
};

constexpr OtherName OTHER_NAMES[] = {
    {"prime256v1", "P-256"}, {"secp256r1", "P-256"}, {"nistp256", "P-256"}, {"secp384r1", "P-384"},
    {"nistp384", "P-384"},   {"secp521r1", "P-521"}, {"nistp521", "P-521"},
};

/// Small letters and digits alone.
std::string plainForm(std::string_view name)
{
    std::string plain;
    for (const char character : name) {
        if (character >= 'A' && character <= 'Z')
            plain += static_cast<char>(character - 'A' + 'a');
        else if (std::string_view("-_: ").find(character) == std::string_view::npos)
            plain += character;
    }
    return plain;
}

const KeyKindTraits* kindOfPlain(std::string_view plain)
{
    for (const OtherName& other : OTHER_NAMES) {
        if (other.plain == plain)
            return keyKindNamed(other.name);
    }
    for (const KeyKindTraits& traits : keyKinds()) {
        if (plainForm(traits.name) == plain)
            return &traits;
    }
    return nullptr;
}

} // namespace

const KeyKindTraits* keyKindCalled(std::string_view name)
{
    const std::string plain = plainForm(name);
    const KeyKindTraits* kind = kindOfPlain(plain);
    const bool namesType = plain.starts_with("ec"); // As in EC:secp256r1.
    return kind != nullptr || !namesType ? kind : kindOfPlain(std::string_view(plain).substr(2));
}

std::string keyKindNames()
{
    std::string names;
    for (const KeyKindTraits& traits : keyKinds())
        names += (names.empty() ? "" : ", ") + std::string(traits.name);
    return names;
}

} // namespace softkey
