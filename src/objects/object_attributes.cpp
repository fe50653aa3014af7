#include "objects/object_attributes.h"

#include <algorithm>
#include <iterator>

#include "frame/module_state.h"
#include "objects/labels.h"
#include "util/der.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

constexpr unsigned char TAG_OCTET_STRING = 0x04;
constexpr unsigned char ONE_LENGTH_BYTE = 0x81;

OwnedBytes boolean(bool value)
{
    return {static_cast<CK_BBOOL>(value ? CK_TRUE : CK_FALSE)};
}

/// An integer as the caller's CK_ULONG.
OwnedBytes integer(CK_ULONG value)
{
    const auto* first = reinterpret_cast<const unsigned char*>(&value);
    return {first, first + sizeof value};
}

bool isPrivate(const ObjectView& object)
{
    return object.objectClass == CKO_PRIVATE_KEY;
}

bool isPublic(const ObjectView& object)
{
    return object.objectClass == CKO_PUBLIC_KEY;
}

bool isCertificate(const ObjectView& object)
{
    return object.objectClass == CKO_CERTIFICATE;
}

bool hasUsage(const ObjectView& object, std::uint32_t usage)
{
    return (object.usageFlags & usage) != 0;
}

using Parser = OwnedBytes (*)(const unsigned char* der, int derLength, void* libraryInstance);

OwnedBytes parsedFrom(const ObjectView& object, Parser parser)
{
    if (!isCertificate(object))
        return {};
    return parser(object.value.data(), deviceLength(object.value.size()), moduleState().libraryInstance);
}

/// The public key as a DER OCTET STRING, whose length never takes more than one byte behind 0x81.
OwnedBytes ecPoint(const ObjectView& object)
{
    if (isCertificate(object))
        return {};
    OwnedBytes point = {TAG_OCTET_STRING};
    if (object.value.size() >= 128)
        point.push_back(ONE_LENGTH_BYTE);
    point.push_back(static_cast<unsigned char>(object.value.size()));
    point.insert(point.end(), object.value.begin(), object.value.end());
    return point;
}

struct AttributeRow {
    CK_ATTRIBUTE_TYPE type;
    OwnedBytes (*value)(const ObjectView& object);
};

// Rows without a condition answer the same for every class.
// clang-format off
constexpr AttributeRow ATTRIBUTES[] = {
    {CKA_CLASS,             [](const ObjectView& object) { return integer(object.objectClass); }},
    {CKA_TOKEN,             [](const ObjectView&)        { return boolean(true); }},
    {CKA_PRIVATE,           [](const ObjectView& object) { return boolean(isPrivate(object)); }},
    {CKA_LABEL,             [](const ObjectView& object) { return OwnedBytes(object.label.begin(), object.label.end()); }},
    {CKA_VALUE,             [](const ObjectView& object) { return object.value; }},
    {CKA_CERTIFICATE_TYPE,  [](const ObjectView&)        { return integer(CKC_X_509); }},
    {CKA_OBJECT_ID,         [](const ObjectView& object) { return integer(object.handle); }},
    {CKA_ISSUER,            [](const ObjectView& object) { return parsedFrom(object, velkor_getCertificateIssuer); }},
    {CKA_SERIAL_NUMBER,     [](const ObjectView& object) { return parsedFrom(object, velkor_getCertificateSerialDER); }},
    {CKA_SUBJECT,           [](const ObjectView& object) { return parsedFrom(object, velkor_getCertificateSubject); }},
    {CKA_TRUSTED,           [](const ObjectView&)        { return boolean(true); }},
    {CKA_KEY_TYPE,          [](const ObjectView& object) { return integer(object.kind.keyType); }},
    {CKA_ID,                [](const ObjectView& object) { return object.objectId; }},
    {CKA_SENSITIVE,         [](const ObjectView& object) { return boolean(isPrivate(object)); }},
    {CKA_ENCRYPT,           [](const ObjectView& object) { return boolean(isPublic(object) && hasUsage(object, USAGE_DECRYPT_ENCRYPT)); }},
    {CKA_DECRYPT,           [](const ObjectView& object) { return boolean(isPrivate(object) && hasUsage(object, USAGE_DECRYPT_ENCRYPT)); }},
    {CKA_WRAP,              [](const ObjectView&)        { return boolean(false); }},
    {CKA_SIGN,              [](const ObjectView& object) { return boolean(isPrivate(object) && hasUsage(object, USAGE_SIGN_VERIFY)); }},
    {CKA_VERIFY,            [](const ObjectView& object) { return boolean(isPublic(object) && hasUsage(object, USAGE_SIGN_VERIFY)); }},
    {CKA_VERIFY_RECOVER,    [](const ObjectView&)        { return boolean(false); }},
    {CKA_DERIVE,            [](const ObjectView&)        { return boolean(false); }},
    {CKA_MODULUS,           [](const ObjectView& object) { return object.value; }},
    {CKA_MODULUS_BITS,      [](const ObjectView& object) { return integer(object.kind.bits); }},
    {CKA_PUBLIC_EXPONENT,   [](const ObjectView&)        { return copyOf(RSA_PUBLIC_EXPONENT); }},
    {CKA_EXTRACTABLE,       [](const ObjectView& object) { return boolean(!isPrivate(object)); }},
    {CKA_LOCAL,             [](const ObjectView&)        { return boolean(true); }},
    {CKA_KEY_GEN_MECHANISM, [](const ObjectView& object) { return integer(object.kind.generationMechanism); }},
    {CKA_MODIFIABLE,        [](const ObjectView& object) { return boolean(isCertificate(object)); }},
    {CKA_EC_PARAMS,         [](const ObjectView& object) { return copyOf(object.kind.ecParams); }},
    {CKA_EC_POINT,          ecPoint},
};
// clang-format on

} // namespace

ObjectView viewOf(const SessionRecord& session, const VelkorKeyPair& keyPair, CK_OBJECT_CLASS objectClass,
                  CK_OBJECT_HANDLE handle)
{
    return {handle,
            objectClass,
            labelOf(session, keyPair),
            copyOf(objectIdOf(keyPair)),
            copyOf(publicKeyOf(keyPair)),
            keyKindInfo(keyPair.keyKind),
            keyPair.usageFlags};
}

ObjectView viewOf(const VelkorCertificate& certificate, CK_OBJECT_HANDLE handle)
{
    return {handle,
            CKO_CERTIFICATE,
            labelOf(certificate),
            copyOf(objectIdOf(certificate)),
            certificate.der,
            keyKindInfo(KEY_KIND_RSA_2048),
            0};
}

OwnedBytes attributeValue(const ObjectView& object, CK_ATTRIBUTE_TYPE type)
{
    const auto* const row = std::find_if(std::begin(ATTRIBUTES), std::end(ATTRIBUTES),
                                         [&](const AttributeRow& each) { return each.type == type; });
    return row != std::end(ATTRIBUTES) ? row->value(object) : OwnedBytes();
}

} // namespace velkor
