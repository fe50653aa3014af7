// An object as the host sees it: its handle, what backs it in the module, and what it says of itself.
#pragma once

#include <cstring>
#include <map>
#include <memory>
#include <span>

#include "cryptoki.h"
#include "strict/state.h"
#include "util/bytes.h"
#include "util/secret.h"
#include "velkor/device_service.h"
#include "velkor/record_fields.h"

namespace velkor::strict
{

using AttributeMap = std::map<CK_ATTRIBUTE_TYPE, SecretBytes>;

// Younger than 2.20, and asked for all the same.
inline constexpr CK_ATTRIBUTE_TYPE CKA_COPYABLE = 0x171;
inline constexpr CK_ATTRIBUTE_TYPE CKA_DESTROYABLE = 0x172;
inline constexpr CK_RV CKR_ACTION_PROHIBITED = 0x1B;

/// What is read of a key pair or a certificate in one call of the module, or what a session object was made of. Both
/// halves of a pair share it. Never changed once it is made.
struct Contents {
    CK_KEY_TYPE keyType = CK_UNAVAILABLE_INFORMATION;
    SecretBytes identity; ///< As the module has it: what makes it this object and no other.
    SecretBytes value;    ///< A certificate, a secret, or data.
    SecretBytes modulus;
    SecretBytes exponent;
    SecretBytes point; ///< Uncompressed, bare.
    SecretBytes curve; ///< DER of the object identifier.
    CK_ULONG bits = 0;
    SecretBytes label;
    SecretBytes id;
    SecretBytes subject;
    SecretBytes issuer;
    SecretBytes serialNumber;
    bool mayUseSignatures = false;
    bool mayUseCiphers = false;
};

/// The part of the module's handles that numbers a key pair.
inline constexpr CK_OBJECT_HANDLE PAIR_NUMBER = OBJECT_NUMBER_LIMIT - 1;

enum class Fate {
    Live,
    Hidden,   ///< A public half that was destroyed, while its private half lives on.
    HalfGone, ///< A public half whose pair went with its private half: it can be destroyed once.
    Retired,  ///< A private object of a login that is over.
};

struct Object {
    CK_OBJECT_HANDLE handle = 0;
    Token* token = nullptr;
    CK_OBJECT_CLASS objectClass = 0;
    CK_OBJECT_HANDLE moduleHandle = 0; ///< 0: only the front knows the object.
    unsigned long insertion = 0;       ///< Of the token, when the object got its handle.
    bool isPrivate = false;

    // Under State::lock.
    CK_SESSION_HANDLE owner = 0; ///< The session that it goes with; 0: a token object.
    Fate fate = Fate::Live;
    bool ownsPair = false;    ///< The pair on the token goes with the session.
    bool followsPair = false; ///< A copy of the other half keeps the session's pair on the token; one of this may too.
    bool isModifiable = true;
    bool isCopyable = true;
    std::shared_ptr<const Contents> contents; ///< Null until they are read.
    AttributeMap own;                         ///< Attributes of a session object that come before its contents.
};

using ObjectPtr = std::shared_ptr<Object>;

/// A look at an object that others do not change.
struct View {
    CK_OBJECT_CLASS objectClass = 0;
    bool isTokenObject = false;
    bool isPrivate = false;
    bool isModifiable = true;
    bool isCopyable = true;
    bool hasPair = false; ///< There is a pair on the token to work with.
    std::shared_ptr<const Contents> contents;
    AttributeMap own;
};

inline bool isKey(CK_OBJECT_CLASS objectClass)
{
    return objectClass == CKO_PUBLIC_KEY || objectClass == CKO_PRIVATE_KEY;
}

inline SecretBytes secretCopyOf(Bytes bytes)
{
    return {bytes.begin(), bytes.end()};
}

/// A number or a structure as its bytes.
template <typename Value>
SecretBytes bytesOfValue(const Value& value)
{
    const auto* first = reinterpret_cast<const unsigned char*>(&value);
    return {first, first + sizeof value};
}

} // namespace velkor::strict
