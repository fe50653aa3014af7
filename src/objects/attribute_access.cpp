#include "objects/attribute_access.h"

#include <algorithm>
#include <optional>
#include <span>
#include <string>

#include "frame/module_state.h"
#include "log/log.h"
#include "objects/handles.h"
#include "objects/object_attributes.h"
#include "objects/record_lookup.h"
#include "util/attributes.h"
#include "util/bytes.h"
#include "util/secret.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

/// Answers one template entry; a short buffer is refused and its length left as it was.
CK_RV answerAttribute(CK_ATTRIBUTE& attribute, CK_ULONG index, Bytes value)
{
    const auto length = static_cast<CK_ULONG>(value.size());
    if (attribute.pValue != nullptr && attribute.ulValueLen < length)
        return refuse(CKR_BUFFER_TOO_SMALL, "C_GetAttributeValue: buffer too small at index=", index,
                      " type=", CK_ATTRIBUTE_TYPE{attribute.type}, " provided=", CK_ULONG{attribute.ulValueLen},
                      " required=", length);
    if (attribute.pValue != nullptr)
        std::copy(value.begin(), value.end(), static_cast<unsigned char*>(attribute.pValue));
    attribute.ulValueLen = length;
    logDebug("C_GetAttributeValue length : ", length);
    return CKR_OK;
}

CK_RV answerTemplate(const ObjectView& object, std::span<CK_ATTRIBUTE> attributes)
{
    OwnedBytes room;
    for (CK_ULONG index = 0; index < attributes.size(); ++index) {
        CK_ATTRIBUTE& attribute = attributes[index];
        const CK_ATTRIBUTE_TYPE type = attribute.type;
        logDebug("C_GetAttributeValue type : ", type);
        const CK_RV result = answerAttribute(attribute, index, attributeValue(object, type, room));
        if (result != CKR_OK)
            return result;
    }
    return CKR_OK;
}

std::optional<SecretBytes> derivedKey(CK_OBJECT_HANDLE handle)
{
    ModuleState& state = moduleState();
    const std::scoped_lock lock(state.lock);
    const auto found = state.derivedKeys.find(handle);
    return found != state.derivedKeys.end() ? std::optional(found->second) : std::nullopt;
}

/// A derived key answers its value and nothing else.
CK_RV answerDerivedKey(CK_OBJECT_HANDLE hObject, std::span<CK_ATTRIBUTE> attributes)
{
    const auto value = derivedKey(hObject);
    if (!value)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "C_GetAttributeValue: derived key handle not found=", hObject);
    for (CK_ULONG index = 0; index < attributes.size(); ++index) {
        if (attributes[index].type != CKA_VALUE) {
            attributes[index].ulValueLen = CK_UNAVAILABLE_INFORMATION;
            continue;
        }
        const CK_RV result = answerAttribute(attributes[index], index, *value);
        if (result != CKR_OK)
            return result;
    }
    return CKR_OK;
}

CK_RV answerKeyPair(const SessionRecord& session, CK_OBJECT_HANDLE hObject, std::span<CK_ATTRIBUTE> attributes)
{
    const VelkorKeyPair* keyPair = findKeyPair(session, keyPairIdOf(hObject));
    if (keyPair == nullptr)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Key pair not found in get attribute : ", hObject);
    const CK_OBJECT_CLASS objectClass = hObject >= PUBLIC_KEY_BASE ? CKO_PUBLIC_KEY : CKO_PRIVATE_KEY;
    return answerTemplate(viewOf(session, *keyPair, objectClass, hObject), attributes);
}

CK_RV answerCertificate(const SessionRecord& session, CK_OBJECT_HANDLE hObject, std::span<CK_ATTRIBUTE> attributes)
{
    const VelkorCertificate* certificate = findCertificate(session, hObject - CERTIFICATE_BASE);
    if (certificate == nullptr)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Certificate not found in get attribute : ", hObject);
    return answerTemplate(viewOf(*certificate, hObject), attributes);
}

struct KeyPairChanges {
    std::optional<std::string> label;
    std::optional<OwnedBytes> objectId;
};

KeyPairChanges readChanges(std::span<const CK_ATTRIBUTE> attributes)
{
    KeyPairChanges changes;
    for (const CK_ATTRIBUTE& attribute : attributes) {
        if (!hasValue(attribute))
            continue;
        const auto value = bytesOf(attribute);
        logDebug("C_SetAttributeValue - attrip type : ", CK_ATTRIBUTE_TYPE{attribute.type});
        if (attribute.type == CKA_LABEL)
            changes.label.emplace(value.begin(), value.end());
        else if (attribute.type == CKA_ID)
            changes.objectId.emplace(value.begin(), value.end());
    }
    return changes;
}

int updateKeyPair(const SessionRecord& session, const VelkorKeyPair& keyPair, const KeyPairChanges& changes)
{
    const std::string label = changes.label.value_or("");
    const OwnedBytes objectId = changes.objectId.value_or(OwnedBytes());
    return velkor_updateKeyPairDetails(session.deviceId(), keyPair.keyIdentifier, cachedPassword().c_str(),
                                       label.c_str(), objectId.data(), deviceLength(objectId.size()),
                                       moduleState().libraryInstance);
}

/// Bytes of the object; nothing when there is none.
std::optional<std::size_t> objectSize(const SessionRecord& session, CK_OBJECT_HANDLE hObject)
{
    if (isPrivateKeyHandle(hObject) || isPublicKeyHandle(hObject)) {
        const VelkorKeyPair* keyPair = findKeyPair(session, keyPairIdOf(hObject));
        if (keyPair == nullptr)
            return std::nullopt;
        return publicKeyOf(*keyPair).size() * (isPrivateKeyHandle(hObject) ? 2 : 1); // A private key counts twice.
    }
    if (hObject < CERTIFICATE_BASE)
        return std::nullopt;
    const VelkorCertificate* certificate = findCertificate(session, hObject - CERTIFICATE_BASE);
    return certificate != nullptr ? std::optional(certificate->der.size()) : std::nullopt;
}

CK_RV refuseSize(CK_OBJECT_HANDLE hObject)
{
    if (isPrivateKeyHandle(hObject))
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Private key not found in get object size : ", hObject);
    if (isPublicKeyHandle(hObject))
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Public key not found in get object size : ", hObject);
    return refuse(CKR_OBJECT_HANDLE_INVALID, "Certificate not found in get object size : ", hObject);
}

} // namespace

CK_RV getObjectSize(const SessionRecord& session, CK_OBJECT_HANDLE hObject, CK_ULONG* pulSize)
{
    const auto size = objectSize(session, hObject);
    if (!size)
        return refuseSize(hObject);
    if (pulSize == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetObjectSize: pulSize is NULL");
    *pulSize = static_cast<CK_ULONG>(*size);
    return CKR_OK;
}

CK_RV getAttributeValue(const SessionRecord& session, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE* pTemplate,
                        CK_ULONG ulCount)
{
    if (pTemplate == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetAttributeValue template is null");
    logDebug("C_GetAttributeValue count : ", ulCount);
    if (ulCount == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetAttributeValue: ulCount<=0");
    // The first handle of the certificate range is refused although a certificate may have the id 0.
    if (hObject < PRIVATE_KEY_BASE || hObject == CERTIFICATE_BASE)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Input hobject not valid in get attribute : ", hObject);
    const std::span attributes(pTemplate, ulCount);
    if (hObject < CERTIFICATE_BASE)
        return answerKeyPair(session, hObject, attributes);
    if (hObject < DERIVED_KEY_BASE)
        return answerCertificate(session, hObject, attributes);
    return answerDerivedKey(hObject, attributes);
}

CK_RV setAttributeValue(const SessionRecord& session, CK_OBJECT_HANDLE hObject, const CK_ATTRIBUTE* pTemplate,
                        CK_ULONG ulCount)
{
    if (pTemplate == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_SetAttributeValue: pTemplate is NULL");
    if (ulCount == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_SetAttributeValue: ulCount<=0");
    if (hObject < PRIVATE_KEY_BASE || hObject >= CERTIFICATE_BASE)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "C_SetAttributeValue: invalid hObject=", hObject);
    const VelkorKeyPair* keyPair = findKeyPair(session, keyPairIdOf(hObject));
    if (keyPair == nullptr)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Key pair not found in Set attribute : ", hObject);
    const KeyPairChanges changes = readChanges({pTemplate, ulCount});
    if (changes.label || changes.objectId) {
        const int status = updateKeyPair(session, *keyPair, changes);
        if (status != 0)
            return refuse(CKR_FUNCTION_FAILED, "Update key pair details failed : ", status);
    }
    logDebug("Set attribute end");
    return CKR_OK;
}

} // namespace velkor
