#include "strict/attributes.h"

#include <algorithm>
#include <iterator>

#include "log/log.h"
#include "strict/der.h"
#include "strict/mechanisms.h"

namespace velkor::strict
{
namespace
{

/// Kinds of objects, as bits.
enum Kind : unsigned {
    CERTIFICATE = 1,
    RSA_PUBLIC = 2,
    EC_PUBLIC = 4,
    RSA_PRIVATE = 8,
    EC_PRIVATE = 16,
    SECRET = 32,
    DATA = 64,
    PUBLIC = RSA_PUBLIC | EC_PUBLIC,
    PRIVATE = RSA_PRIVATE | EC_PRIVATE,
    KEY = PUBLIC | PRIVATE | SECRET,
    ANY = CERTIFICATE | KEY | DATA,
};

/// Shapes of values.
enum class Shape { Flag, Number, Bytes, Date, NothingGiven };

using Source = SecretBytes (*)(const View& view);

struct Row {
    CK_ATTRIBUTE_TYPE type;
    unsigned kinds;
    Shape shape;
    Source source; ///< Null: the value never leaves the token.
};

SecretBytes flag(bool value)
{
    return {static_cast<unsigned char>(value ? CK_TRUE : CK_FALSE)};
}

SecretBytes yes(const View& /*view*/)
{
    return flag(true);
}

SecretBytes no(const View& /*view*/)
{
    return flag(false);
}

SecretBytes nothing(const View& /*view*/)
{
    return {};
}

SecretBytes zero(const View& /*view*/)
{
    return bytesOfValue(CK_ULONG{0});
}

template <SecretBytes Contents::*Field>
SecretBytes field(const View& view)
{
    return (*view.contents).*Field;
}

bool isEc(const View& view)
{
    return view.contents->keyType == CKK_EC;
}

bool isOfPair(const View& view)
{
    return isKey(view.objectClass);
}

SecretBytes publicUse(const View& view, bool permitted)
{
    return flag(permitted && view.hasPair);
}

SecretBytes generationMechanism(const View& view)
{
    if (!isOfPair(view)) // A derived key is not local.
        return bytesOfValue(CK_UNAVAILABLE_INFORMATION);
    return bytesOfValue(CK_MECHANISM_TYPE{isEc(view) ? CKM_EC_KEY_PAIR_GEN : CKM_RSA_PKCS_KEY_PAIR_GEN});
}

/// A flag of a session object's template.
bool ownFlag(const View& view, CK_ATTRIBUTE_TYPE type, bool fallback)
{
    const auto found = view.own.find(type);
    return found != view.own.end() && !found->second.empty() ? found->second.front() != CK_FALSE : fallback;
}

bool isSensitive(const View& view)
{
    return ownFlag(view, CKA_SENSITIVE, false);
}

bool isExtractable(const View& view)
{
    return ownFlag(view, CKA_EXTRACTABLE, true);
}

SecretBytes allowedMechanisms(const View& view)
{
    SecretBytes list;
    if (!isOfPair(view))
        return list;
    for (const CK_MECHANISM_TYPE type : mechanismsOf(view.contents->keyType)) {
        const SecretBytes bytes = bytesOfValue(type);
        list.insert(list.end(), bytes.begin(), bytes.end());
    }
    return list;
}

SecretBytes pointInDer(const View& view)
{
    return derOctetString(view.contents->point);
}

/// In the order of the standard's tables.
constexpr Row ROWS[] = {
    {CKA_CLASS, ANY, Shape::Number, [](const View& view) { return bytesOfValue(view.objectClass); }},
    {CKA_TOKEN, ANY, Shape::Flag, [](const View& view) { return flag(view.isTokenObject); }},
    {CKA_PRIVATE, ANY, Shape::Flag, [](const View& view) { return flag(view.isPrivate); }},
    {CKA_MODIFIABLE, ANY, Shape::Flag, [](const View& view) { return flag(view.isModifiable); }},
    {CKA_COPYABLE, ANY, Shape::Flag, [](const View& view) { return flag(view.isCopyable); }},
    {CKA_DESTROYABLE, ANY, Shape::Flag, yes},
    {CKA_LABEL, ANY, Shape::Bytes, field<&Contents::label>},

    {CKA_APPLICATION, DATA, Shape::Bytes, nothing},
    {CKA_OBJECT_ID, DATA, Shape::Bytes, nothing},

    {CKA_CERTIFICATE_TYPE, CERTIFICATE, Shape::Number, [](const View&) { return bytesOfValue(CK_ULONG{CKC_X_509}); }},
    {CKA_TRUSTED, CERTIFICATE | PUBLIC | SECRET, Shape::Flag, no}, // Only an SO could say otherwise.
    {CKA_CERTIFICATE_CATEGORY, CERTIFICATE, Shape::Number, zero},
    {CKA_CHECK_VALUE, CERTIFICATE | SECRET, Shape::Bytes, nothing},
    {CKA_SUBJECT, CERTIFICATE | PUBLIC | PRIVATE, Shape::Bytes, field<&Contents::subject>},
    {CKA_ISSUER, CERTIFICATE, Shape::Bytes, field<&Contents::issuer>},
    {CKA_SERIAL_NUMBER, CERTIFICATE, Shape::Bytes, field<&Contents::serialNumber>},
    {CKA_URL, CERTIFICATE, Shape::Bytes, nothing},
    {CKA_HASH_OF_SUBJECT_PUBLIC_KEY, CERTIFICATE, Shape::Bytes, nothing},
    {CKA_HASH_OF_ISSUER_PUBLIC_KEY, CERTIFICATE, Shape::Bytes, nothing},
    {CKA_JAVA_MIDP_SECURITY_DOMAIN, CERTIFICATE, Shape::Number, zero},
    {CKA_VALUE, CERTIFICATE | SECRET | DATA, Shape::Bytes, field<&Contents::value>},

    {CKA_KEY_TYPE, KEY, Shape::Number, [](const View& view) { return bytesOfValue(view.contents->keyType); }},
    {CKA_ID, CERTIFICATE | KEY, Shape::Bytes, field<&Contents::id>},
    {CKA_START_DATE, CERTIFICATE | KEY, Shape::Date, nothing},
    {CKA_END_DATE, CERTIFICATE | KEY, Shape::Date, nothing},
    {CKA_DERIVE, KEY, Shape::Flag, [](const View& view) { return flag(isOfPair(view) && isEc(view) && view.hasPair); }},
    {CKA_LOCAL, KEY, Shape::Flag, [](const View& view) { return flag(view.hasPair); }},
    {CKA_KEY_GEN_MECHANISM, KEY, Shape::Number, generationMechanism},
    {CKA_ALLOWED_MECHANISMS, KEY, Shape::NothingGiven, allowedMechanisms},

    {CKA_ENCRYPT, PUBLIC, Shape::Flag,
     [](const View& view) { return publicUse(view, view.contents->mayUseCiphers && !isEc(view)); }},
    {CKA_VERIFY, PUBLIC, Shape::Flag,
     [](const View& view) { return publicUse(view, view.contents->mayUseSignatures); }},
    {CKA_VERIFY_RECOVER, PUBLIC, Shape::Flag, no},
    {CKA_WRAP, PUBLIC | SECRET, Shape::Flag, no},
    {CKA_WRAP_TEMPLATE, PUBLIC | SECRET, Shape::NothingGiven, nothing},

    {CKA_SENSITIVE, PRIVATE, Shape::Flag, yes},
    {CKA_DECRYPT, PRIVATE, Shape::Flag,
     [](const View& view) { return flag(view.contents->mayUseCiphers && !isEc(view)); }},
    {CKA_SIGN, PRIVATE, Shape::Flag, [](const View& view) { return flag(view.contents->mayUseSignatures); }},
    {CKA_SIGN_RECOVER, PRIVATE, Shape::Flag, no},
    {CKA_UNWRAP, PRIVATE | SECRET, Shape::Flag, no},
    {CKA_UNWRAP_TEMPLATE, PRIVATE | SECRET, Shape::NothingGiven, nothing},
    {CKA_EXTRACTABLE, PRIVATE, Shape::Flag, no},
    {CKA_ALWAYS_SENSITIVE, PRIVATE, Shape::Flag, yes},
    {CKA_NEVER_EXTRACTABLE, PRIVATE, Shape::Flag, yes},
    {CKA_WRAP_WITH_TRUSTED, PRIVATE | SECRET, Shape::Flag, no},
    {CKA_ALWAYS_AUTHENTICATE, PRIVATE, Shape::Flag, no},

    {CKA_MODULUS, RSA_PUBLIC | RSA_PRIVATE, Shape::Bytes, field<&Contents::modulus>},
    {CKA_MODULUS_BITS, RSA_PUBLIC, Shape::Number, [](const View& view) { return bytesOfValue(view.contents->bits); }},
    {CKA_PUBLIC_EXPONENT, RSA_PUBLIC | RSA_PRIVATE, Shape::Bytes, field<&Contents::exponent>},
    {CKA_PRIVATE_EXPONENT, RSA_PRIVATE, Shape::Bytes, nullptr},
    {CKA_PRIME_1, RSA_PRIVATE, Shape::Bytes, nullptr},
    {CKA_PRIME_2, RSA_PRIVATE, Shape::Bytes, nullptr},
    {CKA_EXPONENT_1, RSA_PRIVATE, Shape::Bytes, nullptr},
    {CKA_EXPONENT_2, RSA_PRIVATE, Shape::Bytes, nullptr},
    {CKA_COEFFICIENT, RSA_PRIVATE, Shape::Bytes, nullptr},
    {CKA_EC_PARAMS, EC_PUBLIC | EC_PRIVATE, Shape::Bytes, field<&Contents::curve>},
    {CKA_EC_POINT, EC_PUBLIC, Shape::Bytes, pointInDer},
    {CKA_VALUE, EC_PRIVATE, Shape::Bytes, nullptr},

    {CKA_SENSITIVE, SECRET, Shape::Flag, no},
    {CKA_EXTRACTABLE, SECRET, Shape::Flag, yes},
    // A secret comes from a private key, of which both have always been true.
    {CKA_ALWAYS_SENSITIVE, SECRET, Shape::Flag, [](const View& view) { return flag(isSensitive(view)); }},
    {CKA_NEVER_EXTRACTABLE, SECRET, Shape::Flag, [](const View& view) { return flag(!isExtractable(view)); }},
    {CKA_ENCRYPT, SECRET, Shape::Flag, no},
    {CKA_DECRYPT, SECRET, Shape::Flag, no},
    {CKA_SIGN, SECRET, Shape::Flag, no},
    {CKA_VERIFY, SECRET, Shape::Flag, no},
    {CKA_VALUE_LEN, SECRET, Shape::Number,
     [](const View& view) { return bytesOfValue(static_cast<CK_ULONG>(view.contents->value.size())); }},
};

unsigned kindOf(CK_OBJECT_CLASS objectClass, CK_KEY_TYPE keyType)
{
    switch (objectClass) {
    case CKO_CERTIFICATE:
        return CERTIFICATE;
    case CKO_PUBLIC_KEY:
        return keyType == CKK_EC ? EC_PUBLIC : RSA_PUBLIC;
    case CKO_PRIVATE_KEY:
        return keyType == CKK_EC ? EC_PRIVATE : RSA_PRIVATE;
    case CKO_SECRET_KEY:
        return SECRET;
    default:
        return DATA;
    }
}

const Row* findRow(unsigned kind, CK_ATTRIBUTE_TYPE type)
{
    const auto* row = std::find_if(std::begin(ROWS), std::end(ROWS),
                                   [&](const Row& each) { return each.type == type && (each.kinds & kind) != 0; });
    return row != std::end(ROWS) ? row : nullptr;
}

bool isSensitiveSecret(const View& view, CK_ATTRIBUTE_TYPE type)
{
    return view.objectClass == CKO_SECRET_KEY && type == CKA_VALUE && (isSensitive(view) || !isExtractable(view));
}

/// What a host is told of a key, and never says.
bool isTokensToSay(CK_ATTRIBUTE_TYPE type)
{
    return type == CKA_LOCAL || type == CKA_KEY_GEN_MECHANISM || type == CKA_ALWAYS_SENSITIVE ||
           type == CKA_NEVER_EXTRACTABLE;
}

bool isTrue(const CK_ATTRIBUTE& entry)
{
    return entry.ulValueLen == sizeof(CK_BBOOL) && *static_cast<const CK_BBOOL*>(entry.pValue) != CK_FALSE;
}

/// What a private key may be tied to, and the device ties none to.
bool isUnknownTie(CK_OBJECT_CLASS objectClass, CK_ATTRIBUTE_TYPE type)
{
    return objectClass == CKO_PRIVATE_KEY && (type == CKA_ALWAYS_AUTHENTICATE || type == CKA_WRAP_WITH_TRUSTED);
}

bool hasRightSize(Shape shape, CK_ULONG size)
{
    switch (shape) {
    case Shape::Flag:
        return size == sizeof(CK_BBOOL);
    case Shape::Number:
        return size == sizeof(CK_ULONG);
    case Shape::Date:
        return size == 0 || size == sizeof(CK_DATE);
    case Shape::NothingGiven:
        return size == 0;
    default:
        return true;
    }
}

} // namespace

Answer attributeOf(const View& view, CK_ATTRIBUTE_TYPE type, SecretBytes& value)
{
    const Row* row = findRow(kindOf(view.objectClass, view.contents ? view.contents->keyType : CKK_RSA), type);
    if (row == nullptr)
        return Answer::NotThere;
    if (row->source == nullptr || isSensitiveSecret(view, type))
        return Answer::Sensitive;
    const auto own = view.own.find(type);
    value = own != view.own.end() ? own->second : row->source(view);
    return Answer::Value;
}

bool hasAttribute(CK_OBJECT_CLASS objectClass, CK_KEY_TYPE keyType, CK_ATTRIBUTE_TYPE type)
{
    return findRow(kindOf(objectClass, keyType), type) != nullptr;
}

bool needsContents(CK_ATTRIBUTE_TYPE type)
{
    switch (type) {
    case CKA_CLASS:
    case CKA_TOKEN:
    case CKA_PRIVATE:
    case CKA_MODIFIABLE:
    case CKA_COPYABLE:
    case CKA_DESTROYABLE:
        return false;
    default:
        return true;
    }
}

CK_RV Template::read(const char* name, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, Template& read)
{
    if (pTemplate == nullptr && ulCount != 0)
        return refuse(CKR_ARGUMENTS_BAD, name, ": pTemplate is NULL with ulCount=", ulCount);
    read.entries_ = {pTemplate, ulCount};
    for (const CK_ATTRIBUTE& entry : read.entries_) {
        if (entry.pValue == nullptr && entry.ulValueLen != 0)
            return refuse(CKR_ARGUMENTS_BAD, name, ": pValue is NULL, type=", CK_ATTRIBUTE_TYPE{entry.type});
    }
    return CKR_OK;
}

const CK_ATTRIBUTE* Template::find(CK_ATTRIBUTE_TYPE type) const
{
    const auto found =
        std::find_if(entries_.begin(), entries_.end(), [&](const CK_ATTRIBUTE& entry) { return entry.type == type; });
    return found != entries_.end() ? &*found : nullptr;
}

Bytes Template::bytes(CK_ATTRIBUTE_TYPE type) const
{
    const CK_ATTRIBUTE* entry = find(type);
    return entry != nullptr ? Bytes(static_cast<const unsigned char*>(entry->pValue), entry->ulValueLen) : Bytes();
}

CK_ULONG Template::number(CK_ATTRIBUTE_TYPE type, CK_ULONG fallback) const
{
    const Bytes value = bytes(type);
    CK_ULONG number = fallback;
    if (value.size() == sizeof number)
        std::memcpy(&number, value.data(), sizeof number);
    return number;
}

bool Template::flag(CK_ATTRIBUTE_TYPE type, bool fallback) const
{
    const Bytes value = bytes(type);
    return value.size() == sizeof(CK_BBOOL) ? value.front() != CK_FALSE : fallback;
}

CK_RV checkTemplate(const char* name, const Template& wanted, CK_OBJECT_CLASS objectClass, CK_KEY_TYPE keyType)
{
    const unsigned kind = kindOf(objectClass, keyType);
    for (const CK_ATTRIBUTE& entry : wanted.entries()) {
        const CK_ATTRIBUTE_TYPE type = entry.type;
        const Row* row = findRow(kind, type);
        if (row == nullptr)
            return refuse(CKR_ATTRIBUTE_TYPE_INVALID, name, ": no such attribute here, type=", type);
        if (isTokensToSay(type))
            return refuse(CKR_ATTRIBUTE_READ_ONLY, name, ": the token says this itself, type=", type);
        if (!hasRightSize(row->shape, entry.ulValueLen))
            return refuse(CKR_ATTRIBUTE_VALUE_INVALID, name, ": wrong size, type=", type,
                          " ulValueLen=", CK_ULONG{entry.ulValueLen});
        if (type == CKA_TRUSTED && isTrue(entry))
            return refuse(CKR_ATTRIBUTE_READ_ONLY, name, ": CKA_TRUSTED cannot be set");
        if (isUnknownTie(objectClass, type) && isTrue(entry))
            return refuse(CKR_TEMPLATE_INCONSISTENT, name, ": the device ties no key to this, type=", type);
    }
    return CKR_OK;
}

} // namespace velkor::strict
