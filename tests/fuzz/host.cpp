#include "host.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace fuzz
{
namespace
{

// What lies at the limits of the handles that the libraries give.
constexpr CK_ULONG SLOTS[] = {0, 1, 2, 3, 0x50000000, 0x50000001, 0x50000002, 0x50000003, 0xFFFFFFFF};
constexpr CK_ULONG SESSIONS[] = {0, 1, 2, 0x60000000, 0x60000001, 0x60000002, 0xFFFFFFFF};
constexpr CK_ULONG OBJECTS[] = {0,          1,          2,          0x6FFFFFFF, 0x70000000, 0x70000001, 0x70000002,
                                0x70000005, 0x70000FFF, 0x70001000, 0x70001001, 0x70001002, 0x70001005, 0x70001FFF,
                                0x70002000, 0x70002001, 0x70002002, 0x70002FFF, 0x70003000, 0x70003001, 0xFFFFFFFF};
constexpr CK_ULONG NUMBERS[] = {0, 1, 2, 3, 20, 32, 256, 1024, 2048, 3072, 4096, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};

constexpr CK_MECHANISM_TYPE MECHANISMS[] = {CKM_RSA_PKCS_KEY_PAIR_GEN,
                                            CKM_RSA_PKCS,
                                            CKM_RSA_PKCS_OAEP,
                                            CKM_RSA_PKCS_PSS,
                                            CKM_SHA1_RSA_PKCS,
                                            CKM_SHA256_RSA_PKCS,
                                            CKM_SHA512_RSA_PKCS,
                                            CKM_SHA1_RSA_PKCS_PSS,
                                            CKM_SHA256_RSA_PKCS_PSS,
                                            CKM_EC_KEY_PAIR_GEN,
                                            CKM_ECDH1_DERIVE,
                                            CKM_ECDSA,
                                            CKM_ECDSA_SHA1,
                                            CKM_ECDSA_SHA256,
                                            CKM_ECDSA_SHA384,
                                            CKM_SHA_1,
                                            CKM_SHA224,
                                            CKM_SHA256,
                                            CKM_SHA384,
                                            CKM_SHA512,
                                            CKM_RSA_X_509,
                                            CKM_AES_KEY_GEN,
                                            CKM_SHA384_RSA_PKCS_PSS,
                                            CKM_MD5};

constexpr CK_ATTRIBUTE_TYPE ATTRIBUTES[] = {CKA_CLASS,
                                            CKA_TOKEN,
                                            CKA_PRIVATE,
                                            CKA_LABEL,
                                            CKA_VALUE,
                                            CKA_OBJECT_ID,
                                            CKA_ISSUER,
                                            CKA_SUBJECT,
                                            CKA_ID,
                                            CKA_SERIAL_NUMBER,
                                            CKA_TRUSTED,
                                            CKA_KEY_TYPE,
                                            CKA_SENSITIVE,
                                            CKA_ENCRYPT,
                                            CKA_DECRYPT,
                                            CKA_WRAP,
                                            CKA_UNWRAP,
                                            CKA_SIGN,
                                            CKA_VERIFY,
                                            CKA_DERIVE,
                                            CKA_MODULUS,
                                            CKA_MODULUS_BITS,
                                            CKA_PUBLIC_EXPONENT,
                                            CKA_PRIVATE_EXPONENT,
                                            CKA_PRIME_1,
                                            CKA_PRIME_2,
                                            CKA_EXPONENT_1,
                                            CKA_COEFFICIENT,
                                            CKA_VALUE_LEN,
                                            CKA_EXTRACTABLE,
                                            CKA_LOCAL,
                                            CKA_MODIFIABLE,
                                            CKA_EC_PARAMS,
                                            CKA_EC_POINT,
                                            CKA_START_DATE,
                                            CKA_END_DATE,
                                            CKA_APPLICATION,
                                            CKA_WRAP_TEMPLATE,
                                            CKA_CERTIFICATE_TYPE,
                                            CKA_ALWAYS_AUTHENTICATE,
                                            CKA_UNWRAP_TEMPLATE,
                                            CKA_WRAP_WITH_TRUSTED,
                                            CKA_CERTIFICATE_CATEGORY,
                                            CKA_CHECK_VALUE,
                                            CKA_URL,
                                            CKA_KEY_GEN_MECHANISM};

constexpr CK_ULONG TYPES[] = {
    CKO_DATA, CKO_CERTIFICATE, CKO_PUBLIC_KEY, CKO_PRIVATE_KEY, CKO_SECRET_KEY, CKO_VENDOR_DEFINED, 4, 5, 16};

const std::vector<unsigned char> VALUES[] = {
    {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}, // P-256
    {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22},                   // P-384
    {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23},                   // P-521
    {0x01, 0x00, 0x01},                                           // the exponent of RSA keys
    {0x30, 0x03, 0x02, 0x01, 0x01},                               // the double's first certificate
    {1},                                                          // the ID of its first objects
    std::vector<unsigned char>(256, 0xC5),
};

/// Random bytes are no parameter with pointers in it: those are longer in either layout.
constexpr std::size_t LONGEST_RANDOM_PARAMETER = 23;

} // namespace

CK_ULONG Host::number()
{
    return isRarely() ? input.ConsumeIntegral<CK_ULONG>() : input.PickValueInArray(NUMBERS);
}

template <typename Handle>
Handle Host::handle(const std::vector<Handle>& known, std::span<const CK_ULONG> others)
{
    if (!known.empty() && !isRarely())
        return known[input.ConsumeIntegralInRange<std::size_t>(0, known.size() - 1)];
    return others[input.ConsumeIntegralInRange<std::size_t>(0, others.size() - 1)];
}

CK_SLOT_ID Host::slot()
{
    return handle(slots_, SLOTS);
}

CK_SESSION_HANDLE Host::session()
{
    return handle(sessions_, SESSIONS);
}

CK_OBJECT_HANDLE Host::object()
{
    return handle(objects_, OBJECTS);
}

Data Host::data(std::size_t most)
{
    if (isRarely())
        return {nullptr, input.ConsumeIntegralInRange<CK_ULONG>(0, 1)};
    const auto length = input.ConsumeIntegralInRange<std::size_t>(0, most);
    std::vector<unsigned char> bytes = input.ConsumeBytes<unsigned char>(length);
    bytes.resize(length, 0x5A);
    return {rooms.takeCopy(bytes), static_cast<CK_ULONG>(length)};
}

Data Host::pin()
{
    constexpr const char* PINS[] = {"1234", "12345678", "0000"};
    if (isRarely())
        return data(80);
    const std::string text = input.PickValueInArray(PINS);
    const std::vector<unsigned char> bytes(text.begin(), text.end());
    return {rooms.takeCopy(bytes), static_cast<CK_ULONG>(bytes.size())};
}

Data Host::parameterOf(CK_MECHANISM_TYPE type)
{
    const auto whole = [&](const auto& parameter) {
        return Data{reinterpret_cast<unsigned char*>(rooms.takeFor(parameter)), sizeof parameter};
    };
    if (type == CKM_ECDH1_DERIVE) {
        const Data point = data(140);
        return whole(CK_ECDH1_DERIVE_PARAMS{input.ConsumeIntegralInRange<CK_EC_KDF_TYPE>(0, 9), 0, nullptr,
                                            point.length, point.bytes});
    }
    const auto hash = input.PickValueInArray(MECHANISMS);
    const CK_ULONG mask = input.ConsumeIntegralInRange<CK_ULONG>(0, 5);
    if (type == CKM_RSA_PKCS_OAEP) {
        const Data label = input.ConsumeBool() ? data(20) : Data();
        return whole(CK_RSA_PKCS_OAEP_PARAMS{hash, mask, input.ConsumeIntegralInRange<CK_ULONG>(0, 2), label.bytes,
                                             label.length});
    }
    return whole(CK_RSA_PKCS_PSS_PARAMS{hash, mask, number()});
}

CK_MECHANISM* Host::mechanism()
{
    if (isRarely())
        return nullptr;
    CK_MECHANISM mechanism = {isRarely() ? number() : input.PickValueInArray(MECHANISMS), nullptr, 0};
    Data parameter;
    switch (input.ConsumeIntegralInRange(0, 3)) {
    case 1:
    case 2:
        parameter = parameterOf(mechanism.mechanism);
        break;
    case 3:
        parameter = data(LONGEST_RANDOM_PARAMETER);
        break;
    default:
        break;
    }
    mechanism.pParameter = parameter.bytes;
    mechanism.ulParameterLen = parameter.length;
    return rooms.takeFor(mechanism);
}

/// A value may be a template itself, with pointers in it: such a one has an entry without a value, or none.
Data Host::value(CK_ATTRIBUTE_TYPE type)
{
    if ((type & CKF_ARRAY_ATTRIBUTE) != 0) {
        const CK_ATTRIBUTE inner = {CKA_TOKEN, nullptr, 0};
        return {reinterpret_cast<unsigned char*>(rooms.takeFor(inner)),
                input.ConsumeIntegralInRange<CK_ULONG>(0, 1) * CK_ULONG{sizeof inner}};
    }
    const auto numeric = [&](CK_ULONG value) {
        return Data{reinterpret_cast<unsigned char*>(rooms.takeFor(value)), sizeof value};
    };
    switch (input.ConsumeIntegralInRange(0, 5)) {
    case 0:
        return numeric(input.PickValueInArray(TYPES));
    case 1:
        return {rooms.takeFor(input.ConsumeIntegralInRange<unsigned char>(0, 1)), 1};
    case 2:
        return numeric(number());
    case 3: {
        const std::vector<unsigned char>& known =
            VALUES[input.ConsumeIntegralInRange<std::size_t>(0, std::size(VALUES) - 1)];
        return {rooms.takeCopy(known), static_cast<CK_ULONG>(known.size())};
    }
    default:
        return data();
    }
}

Attributes Host::attributes()
{
    if (isRarely())
        return {nullptr, input.ConsumeIntegralInRange<CK_ULONG>(0, 1)};
    std::vector<CK_ATTRIBUTE> entries(input.ConsumeIntegralInRange<std::size_t>(0, 8));
    for (CK_ATTRIBUTE& entry : entries) {
        entry.type = isRarely() ? number() : input.PickValueInArray(ATTRIBUTES);
        Data given = value(entry.type);
        if (entry.type == CKA_LABEL && given.bytes != nullptr) { // A label has a zero byte behind it.
            std::vector<unsigned char> label(given.bytes, given.bytes + given.length);
            label.push_back(0);
            given.bytes = rooms.takeCopy(label);
        }
        entry.pValue = given.bytes;
        entry.ulValueLen = given.length;
    }
    auto* first = room<CK_ATTRIBUTE>(entries.size());
    std::copy(entries.begin(), entries.end(), first);
    return {first, static_cast<CK_ULONG>(entries.size())};
}

Attributes Host::questions()
{
    if (isRarely())
        return {nullptr, input.ConsumeIntegralInRange<CK_ULONG>(0, 1)};
    const auto count = input.ConsumeIntegralInRange<std::size_t>(0, 8);
    auto* entries = room<CK_ATTRIBUTE>(count);
    for (std::size_t index = 0; index < count; ++index) {
        CK_ATTRIBUTE& entry = entries[index];
        entry.type = isRarely() ? number() : input.PickValueInArray(ATTRIBUTES);
        if (input.ConsumeBool())
            continue;
        entry.ulValueLen = input.ConsumeIntegralInRange<CK_ULONG>(0, 600);
        entry.pValue = rooms.take(entry.ulValueLen);
    }
    return {entries, static_cast<CK_ULONG>(count)};
}

void Host::checkAnswers(const Attributes& asked, const std::vector<CK_ULONG>& sizes)
{
    for (std::size_t index = 0; index < sizes.size(); ++index) {
        const CK_ATTRIBUTE& entry = asked.entries[index];
        const CK_ULONG length = entry.ulValueLen;
        expect(entry.pValue == nullptr || length <= sizes[index] || length == CK_UNAVAILABLE_INFORMATION,
               "an attribute is no longer than its room");
    }
}

} // namespace fuzz
