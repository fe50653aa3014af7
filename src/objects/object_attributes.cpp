#include "objects/object_attributes.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "frame/module_state.h"
#include "util/der.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

constexpr unsigned char TAG_OCTET_STRING = 0x04;
constexpr unsigned char ONE_LENGTH_BYTE = 0x81;

Bytes boolean(bool value)
{
    static constexpr CK_BBOOL VALUES[] = {CK_FALSE, CK_TRUE};
    return {&VALUES[value ? 1 : 0], 1};
}

/// An integer as the caller's CK_ULONG.
Bytes integer(CK_ULONG value, OwnedBytes& room)
{
    const auto* first = reinterpret_cast<const unsigned char*>(&value);
    room.assign(first, first + sizeof value);
    return room;
}

Bytes bytesOfText(std::string_view text)
{
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
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

Bytes parsedFrom(const ObjectView& object, OwnedBytes& room, Parser parser)
{
    if (!isCertificate(object))
        return {};
    room = parser(object.value.data(), deviceLength(object.value.size()), moduleState().libraryInstance);
    return room;
}

/// The public key as a DER OCTET STRING, whose length never takes more than one byte behind 0x81.
Bytes ecPoint(const ObjectView& object, OwnedBytes& room)
{
    if (isCertificate(object))
        return {};
    room.assign({TAG_OCTET_STRING});
    if (object.value.size() >= 128)
        room.push_back(ONE_LENGTH_BYTE);
    room.push_back(static_cast<unsigned char>(object.value.size()));
    room.insert(room.end(), object.value.begin(), object.value.end());
    return room;
}

struct AttributeRow {
    CK_ATTRIBUTE_TYPE type;
    Bytes (*value)(const ObjectView& object, OwnedBytes& room);
};

// Rows without a condition answer the same for every class.
// clang-format off
constexpr AttributeRow ATTRIBUTES[] = {
    {CKA_CLASS,             [](const ObjectView& object, OwnedBytes& room) { return integer(object.objectClass, room); }},
    {CKA_TOKEN,             [](const ObjectView&, OwnedBytes&)             { return boolean(true); }},
    {CKA_PRIVATE,           [](const ObjectView& object, OwnedBytes&)      { return boolean(isPrivate(object)); }},
    {CKA_LABEL,             [](const ObjectView& object, OwnedBytes&)      { return bytesOfText(object.label.text()); }},
    {CKA_VALUE,             [](const ObjectView& object, OwnedBytes&)      { return object.value; }},
    {CKA_CERTIFICATE_TYPE,  [](const ObjectView&, OwnedBytes& room)        { return integer(CKC_X_509, room); }},
    {CKA_OBJECT_ID,         [](const ObjectView& object, OwnedBytes& room) { return integer(object.handle, room); }},
    {CKA_ISSUER,            [](const ObjectView& object, OwnedBytes& room) { return parsedFrom(object, room, velkor_getCertificateIssuer); }},
    {CKA_SERIAL_NUMBER,     [](const ObjectView& object, OwnedBytes& room) { return parsedFrom(object, room, velkor_getCertificateSerialDER); }},
    {CKA_SUBJECT,           [](const ObjectView& object, OwnedBytes& room) { return parsedFrom(object, room, velkor_getCertificateSubject); }},
    {CKA_TRUSTED,           [](const ObjectView&, OwnedBytes&)             { return boolean(true); }},
    {CKA_KEY_TYPE,          [](const ObjectView& object, OwnedBytes& room) { return integer(object.kind.keyType, room); }},
    {CKA_ID,                [](const ObjectView& object, OwnedBytes&)      { return object.objectId; }},
    {CKA_SENSITIVE,         [](const ObjectView& object, OwnedBytes&)      { return boolean(isPrivate(object)); }},
    {CKA_ENCRYPT,           [](const ObjectView& object, OwnedBytes&)      { return boolean(isPublic(object) && hasUsage(object, USAGE_DECRYPT_ENCRYPT)); }},
    {CKA_DECRYPT,           [](const ObjectView& object, OwnedBytes&)      { return boolean(isPrivate(object) && hasUsage(object, USAGE_DECRYPT_ENCRYPT)); }},
    {CKA_WRAP,              [](const ObjectView&, OwnedBytes&)             { return boolean(false); }},
    {CKA_SIGN,              [](const ObjectView& object, OwnedBytes&)      { return boolean(isPrivate(object) && hasUsage(object, USAGE_SIGN_VERIFY)); }},
    {CKA_VERIFY,            [](const ObjectView& object, OwnedBytes&)      { return boolean(isPublic(object) && hasUsage(object, USAGE_SIGN_VERIFY)); }},
    {CKA_VERIFY_RECOVER,    [](const ObjectView&, OwnedBytes&)             { return boolean(false); }},
    {CKA_DERIVE,            [](const ObjectView&, OwnedBytes&)             { return boolean(false); }},
    {CKA_MODULUS,           [](const ObjectView& object, OwnedBytes&)      { return object.value; }},
    {CKA_MODULUS_BITS,      [](const ObjectView& object, OwnedBytes& room) { return integer(object.kind.bits, room); }},
    {CKA_PUBLIC_EXPONENT,   [](const ObjectView&, OwnedBytes&)             { return Bytes(RSA_PUBLIC_EXPONENT); }},
    {CKA_EXTRACTABLE,       [](const ObjectView& object, OwnedBytes&)      { return boolean(!isPrivate(object)); }},
    {CKA_LOCAL,             [](const ObjectView&, OwnedBytes&)             { return boolean(true); }},
    {CKA_KEY_GEN_MECHANISM, [](const ObjectView& object, OwnedBytes& room) { return integer(object.kind.generationMechanism, room); }},
    {CKA_MODIFIABLE,        [](const ObjectView& object, OwnedBytes&)      { return boolean(isCertificate(object)); }},
    {CKA_EC_PARAMS,         [](const ObjectView& object, OwnedBytes&)      { return object.kind.ecParams; }},
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
            objectIdOf(keyPair),
            publicKeyOf(keyPair),
            keyKindInfo(keyPair.keyKind),
            keyPair.usageFlags};
}

ObjectView viewOf(const VelkorCertificate& certificate, CK_OBJECT_HANDLE handle)
{
    return {handle,
            CKO_CERTIFICATE,
            labelOf(certificate),
            objectIdOf(certificate),
            certificate.der,
            keyKindInfo(KEY_KIND_RSA_2048),
            0};
}

Bytes attributeValue(const ObjectView& object, CK_ATTRIBUTE_TYPE type, OwnedBytes& room)
{
    const auto* const row = std::find_if(std::begin(ATTRIBUTES), std::end(ATTRIBUTES),
                                         [&](const AttributeRow& each) { return each.type == type; });
    return row != std::end(ATTRIBUTES) ? row->value(object, room) : Bytes();
}

} // namespace velkor
