// Handles, search, attributes.
#include <algorithm>
#include <cstring>

#include "hexadecimal.h"
#include "model.h"
#include "model_values.h"

namespace
{

/// Where the handles of each kind begin.
constexpr CK_OBJECT_HANDLE PRIVATE_BASE = 0x70000000;
constexpr CK_OBJECT_HANDLE PUBLIC_BASE = 0x70001000;
constexpr CK_OBJECT_HANDLE CERTIFICATE_BASE = 0x70002000;
constexpr CK_OBJECT_HANDLE DERIVED_BASE = 0x70003000;

DeviceBytes flag(bool isSet)
{
    return {static_cast<unsigned char>(isSet ? CK_TRUE : CK_FALSE)};
}

DeviceBytes octetString(const DeviceBytes& bytes)
{
    DeviceBytes wrapped = {0x04};
    if (bytes.size() >= 128)
        wrapped.push_back(0x81);
    wrapped.push_back(static_cast<unsigned char>(bytes.size())); // One byte, whatever the length.
    wrapped.insert(wrapped.end(), bytes.begin(), bytes.end());
    return wrapped;
}

CK_ULONG bitsOf(std::uint32_t keyKind)
{
    static const std::map<std::uint32_t, CK_ULONG> bits = {{KEY_KIND_RSA_1024, 1024}, {KEY_KIND_RSA_3072, 3072},
                                                           {KEY_KIND_RSA_4096, 4096}, {KEY_KIND_EC_P256, 256},
                                                           {KEY_KIND_EC_P384, 384},   {KEY_KIND_EC_P521, 521}};
    const auto found = bits.find(keyKind);
    return found != bits.end() ? found->second : 2048;
}

} // namespace

// ---- Lookup and labels ----

Model::KeyOrNone Model::keyPair(const ModelSession& session, CK_ULONG id)
{
    for (const VelkorKeyPair& each : device_.velkor_getKeyPairList(session.device(), library_)) {
        if (each.id == id) {
            lastKeyPair_ = each;
            return &lastKeyPair_;
        }
    }
    return nullptr;
}

std::optional<VelkorCertificate> Model::certificate(const ModelSession& session, CK_ULONG id)
{
    for (const VelkorCertificate& each : device_.velkor_getCertificateList(session.device(), library_)) {
        if (each.id == id)
            return each;
    }
    return std::nullopt;
}

std::string Model::label(const VelkorCertificate& certificate)
{
    if (certificate.label[0] != '\0' || certificate.der.empty())
        return certificate.label;
    CertificateDetails details;
    if (device_.velkor_getCertificateDetails(certificate.der.data(), lengthOf(certificate.der), details, nullptr) != 0)
        return {};
    const std::string label = computedLabel(details);
    debug("Empty certificate label, computed: " + label);
    return label;
}

std::string Model::label(const ModelSession& session, const VelkorKeyPair& keyPair)
{
    if (keyPair.label[0] != '\0')
        return keyPair.label;
    const DeviceCertificates certificates = device_.velkor_getCertificateList(session.device(), library_);
    for (const VelkorCertificate& each : certificates) {
        CertificateDetails details;
        if (device_.velkor_getCertificateDetails(each.der.data(), lengthOf(each.der), details, nullptr) != 0 ||
            details.publicKey != publicKeyOf(keyPair))
            continue;
        const std::string label = computedLabel(details);
        debug("Empty key pair label, computed: " + label);
        if (!pin_.empty())
            device_.velkor_updateKeyPairDetails(session.device(), keyPair.keyIdentifier, pin_.c_str(), label.c_str(),
                                                nullptr, 0, library_);
        return label;
    }
    return {};
}

// ---- Search ----

/// What a template asks for. The first that is there decides.
struct Model::Criteria {
    CK_OBJECT_CLASS objectClass = CKO_VENDOR_DEFINED;
    std::optional<std::string> label;
    std::optional<DeviceBytes> value;
    std::optional<DeviceBytes> subject;
    std::optional<DeviceBytes> id;
    std::optional<DeviceBytes> modulus;
};

std::optional<Model::Criteria> Model::readCriteria(CK_ATTRIBUTE_PTR entries, CK_ULONG count)
{
    const auto refused = [&](const std::string& text) {
        code_ = refuse(CKR_ATTRIBUTE_VALUE_INVALID, "C_FindObjectsInit: " + text);
        return std::nullopt;
    };
    Criteria criteria;
    for (CK_ULONG index = 0; index < count; ++index) {
        const CK_ATTRIBUTE& entry = entries[index];
        if (entry.pValue == nullptr)
            return refused("pValue is NULL at attribute index=" + decimal(index) + " type=" + decimal(entry.type));
        if (entry.ulValueLen == 0)
            return refused("ulValueLen<=0 at attribute index=" + decimal(index) + " type=" + decimal(entry.type));
        debug("Find object init type : " + decimal(entry.type));
        const DeviceBytes value = bytesIn(entry);
        switch (entry.type) {
        case CKA_CLASS:
            if (entry.ulValueLen != sizeof(CK_OBJECT_CLASS))
                return refused("wrong size for CKA_CLASS at index=" + decimal(index) +
                               " ulValueLen=" + decimal(entry.ulValueLen));
            criteria.objectClass = numberOf(entry);
            debug("Find object class : " + decimal(criteria.objectClass));
            break;
        case CKA_LABEL:
            criteria.label = static_cast<const char*>(entry.pValue);
            break;
        case CKA_VALUE:
            criteria.value = value;
            break;
        case CKA_SUBJECT:
            criteria.subject = value;
            break;
        case CKA_ID:
            criteria.id = value;
            break;
        case CKA_MODULUS:
            criteria.modulus = value;
            debug("Modulus provided length : " + decimal(entry.ulValueLen));
            break;
        default:
            break;
        }
    }
    return criteria;
}

bool Model::matches(const ModelSession& session, const VelkorKeyPair& keyPair, const Criteria& criteria)
{
    if (criteria.label)
        return label(session, keyPair) == *criteria.label;
    if (criteria.value)
        return *criteria.value == publicKeyOf(keyPair);
    if (criteria.id)
        return *criteria.id == objectIdOf(keyPair);
    return !criteria.modulus || *criteria.modulus == publicKeyOf(keyPair);
}

bool Model::matches(const VelkorCertificate& certificate, const Criteria& criteria)
{
    if (criteria.label)
        return label(certificate) == *criteria.label;
    if (criteria.value)
        return *criteria.value == certificate.der;
    if (criteria.subject)
        return *criteria.subject ==
               device_.velkor_getCertificateSubject(certificate.der.data(), lengthOf(certificate.der), library_);
    return !criteria.id || *criteria.id == objectIdOf(certificate);
}

void Model::select(ModelSession& session, const Criteria& criteria, const DeviceCertificates& certificates,
                   const DeviceKeyPairs& keyPairs)
{
    switch (criteria.objectClass) {
    case CKO_VENDOR_DEFINED: // None was given, and nothing else counts.
        session.foundCertificates = certificates;
        session.foundKeyPairs = keyPairs;
        session.findsPublicKeys = true;
        session.findsPrivateKeys = session.isUser();
        break;
    case CKO_CERTIFICATE:
        for (const VelkorCertificate& each : certificates) {
            if (matches(each, criteria))
                session.foundCertificates.push_back(each);
        }
        break;
    case CKO_PUBLIC_KEY:
    case CKO_PRIVATE_KEY:
        for (const VelkorKeyPair& each : keyPairs) {
            if (matches(session, each, criteria))
                session.foundKeyPairs.push_back(each);
        }
        session.findsPublicKeys = criteria.objectClass == CKO_PUBLIC_KEY;
        session.findsPrivateKeys = criteria.objectClass == CKO_PRIVATE_KEY && session.isUser();
        break;
    default:
        break;
    }
}

CK_RV Model::C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    ModelSession* session = enter("C_FindObjectsInit", hSession);
    if (session == nullptr)
        return code_;
    if (pTemplate == nullptr && ulCount != 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_FindObjectsInit: pTemplate is NULL with ulCount=" + decimal(ulCount));
    session->position = 0;
    session->findsPublicKeys = false;
    session->findsPrivateKeys = false;
    session->foundCertificates.clear();
    session->foundKeyPairs.clear();
    debug("Find object init count : " + decimal(ulCount));
    const std::optional<Criteria> criteria = readCriteria(pTemplate, ulCount);
    if (!criteria)
        return code_;
    DeviceCertificates certificates = device_.velkor_getCertificateList(session->device(), library_);
    DeviceKeyPairs keyPairs = device_.velkor_getKeyPairList(session->device(), library_);
    if (certificates.empty() || keyPairs.empty()) {
        const int status = device_.velkor_initDevice(session->device(), true, library_);
        if (status != 0) {
            error("Init device for certificates in find objects failed : " + std::to_string(status));
        } else {
            certificates = device_.velkor_getCertificateList(session->device(), library_);
            keyPairs = device_.velkor_getKeyPairList(session->device(), library_);
        }
    }
    if (criteria->id)
        debug("Find init id : " + hexadecimal(*criteria->id));
    select(*session, *criteria, certificates, keyPairs);
    session->operation = OP_FIND;
    return CKR_OK;
}

CK_RV Model::C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMaxObjectCount,
                           CK_ULONG_PTR pulObjectCount)
{
    ModelSession* session = goOn("C_FindObjects", hSession, OP_FIND);
    if (session == nullptr)
        return code_;
    if (phObject == nullptr && ulMaxObjectCount != 0)
        return refuse(CKR_ARGUMENTS_BAD,
                      "C_FindObjects: phObject is NULL with ulMaxObjectCount=" + decimal(ulMaxObjectCount));
    if (pulObjectCount == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_FindObjects: pulObjectCount is NULL");
    *pulObjectCount = 0;
    std::vector<CK_OBJECT_HANDLE> all;
    for (const VelkorKeyPair& each : session->findsPublicKeys ? session->foundKeyPairs : DeviceKeyPairs())
        all.push_back(PUBLIC_BASE + each.id);
    for (const VelkorKeyPair& each : session->findsPrivateKeys ? session->foundKeyPairs : DeviceKeyPairs())
        all.push_back(PRIVATE_BASE + each.id);
    for (const VelkorCertificate& each : session->foundCertificates)
        all.push_back(CERTIFICATE_BASE + each.id);
    debug("C_FindObjects find object count : " + std::to_string(all.size()));
    if (all.empty()) {
        debug("C_FindObjects find object count 0");
        return CKR_OK;
    }
    if (ulMaxObjectCount == 0) {
        debug("C_FindObjects find object max count is 0 : " + decimal(ulMaxObjectCount));
        return CKR_OK;
    }
    while (session->position < all.size() && *pulObjectCount < ulMaxObjectCount)
        phObject[(*pulObjectCount)++] = all[session->position++];
    debug("C_FindObjects find object count return : " + decimal(*pulObjectCount));
    return CKR_OK;
}

CK_RV Model::C_FindObjectsFinal(CK_SESSION_HANDLE hSession)
{
    ModelSession* session = goOn("C_FindObjectsFinal", hSession, OP_FIND);
    if (session == nullptr)
        return code_;
    session->operation = OP_NONE;
    session->position = 0;
    return CKR_OK;
}

// ---- Attributes ----

/// What an object answers from.
struct Model::Attributes {
    CK_OBJECT_HANDLE handle = 0;
    CK_OBJECT_CLASS objectClass = 0;
    std::string label;
    DeviceBytes id;
    DeviceBytes value;
    std::uint32_t keyKind = KEY_KIND_RSA_2048;
    std::uint32_t usage = 0;
};

std::optional<Model::Attributes> Model::attributesOf(const ModelSession& session, CK_OBJECT_HANDLE hObject)
{
    const auto refused = [&](const std::string& text) {
        code_ = refuse(CKR_OBJECT_HANDLE_INVALID, text + decimal(hObject));
        return std::nullopt;
    };
    if (hObject < PRIVATE_BASE || hObject == CERTIFICATE_BASE)
        return refused("Input hobject not valid in get attribute : ");
    Attributes object;
    object.handle = hObject;
    if (hObject > CERTIFICATE_BASE) {
        const std::optional<VelkorCertificate> found = certificate(session, hObject - CERTIFICATE_BASE);
        if (!found)
            return refused("Certificate not found in get attribute : ");
        object.objectClass = CKO_CERTIFICATE;
        object.label = label(*found);
        object.id = objectIdOf(*found);
        object.value = found->der;
        return object;
    }
    const bool isPublic = hObject >= PUBLIC_BASE;
    const VelkorKeyPair* found = keyPair(session, hObject - (isPublic ? PUBLIC_BASE : PRIVATE_BASE));
    if (found == nullptr)
        return refused("Key pair not found in get attribute : ");
    object.objectClass = isPublic ? CKO_PUBLIC_KEY : CKO_PRIVATE_KEY;
    object.label = label(session, *found);
    object.id = objectIdOf(*found);
    object.value = publicKeyOf(*found);
    object.keyKind = found->keyKind;
    object.usage = found->usageFlags;
    return object;
}

DeviceBytes Model::valueOf(const Attributes& object, CK_ATTRIBUTE_TYPE type)
{
    const bool isPrivate = object.objectClass == CKO_PRIVATE_KEY;
    const bool isPublic = object.objectClass == CKO_PUBLIC_KEY;
    const bool isCertificate = object.objectClass == CKO_CERTIFICATE;
    const bool isEc = isEcKind(object.keyKind);
    const bool signs = (object.usage & USAGE_SIGN_VERIFY) != 0;
    const bool encrypts = (object.usage & USAGE_DECRYPT_ENCRYPT) != 0;
    const unsigned char* der = object.value.data();
    const int length = lengthOf(object.value);
    switch (type) {
    case CKA_CLASS:
        return numberBytes(object.objectClass);
    case CKA_TOKEN:
    case CKA_TRUSTED:
    case CKA_LOCAL:
        return flag(true);
    case CKA_WRAP:
    case CKA_VERIFY_RECOVER:
    case CKA_DERIVE:
        return flag(false);
    case CKA_PRIVATE:
    case CKA_SENSITIVE:
        return flag(isPrivate);
    case CKA_EXTRACTABLE:
        return flag(!isPrivate);
    case CKA_MODIFIABLE:
        return flag(isCertificate);
    case CKA_ENCRYPT:
        return flag(isPublic && encrypts);
    case CKA_DECRYPT:
        return flag(isPrivate && encrypts);
    case CKA_SIGN:
        return flag(isPrivate && signs);
    case CKA_VERIFY:
        return flag(isPublic && signs);
    case CKA_LABEL:
        return {object.label.begin(), object.label.end()};
    case CKA_ID:
        return object.id;
    case CKA_VALUE:
    case CKA_MODULUS:
        return object.value;
    case CKA_CERTIFICATE_TYPE:
        return numberBytes(CKC_X_509);
    case CKA_OBJECT_ID:
        return numberBytes(object.handle);
    case CKA_ISSUER:
        return isCertificate ? device_.velkor_getCertificateIssuer(der, length, library_) : DeviceBytes();
    case CKA_SERIAL_NUMBER:
        return isCertificate ? device_.velkor_getCertificateSerialDER(der, length, library_) : DeviceBytes();
    case CKA_SUBJECT:
        return isCertificate ? device_.velkor_getCertificateSubject(der, length, library_) : DeviceBytes();
    case CKA_KEY_TYPE:
        return numberBytes(isEc ? CKK_EC : CKK_RSA);
    case CKA_MODULUS_BITS:
        return numberBytes(bitsOf(object.keyKind));
    case CKA_PUBLIC_EXPONENT:
        return {0x01, 0x00, 0x01};
    case CKA_KEY_GEN_MECHANISM:
        return numberBytes(isEc ? CKM_EC_KEY_PAIR_GEN : CKM_RSA_PKCS_KEY_PAIR_GEN);
    case CKA_EC_PARAMS:
        return curveOf(object.keyKind);
    case CKA_EC_POINT:
        return isCertificate ? DeviceBytes() : octetString(object.value);
    default:
        return {};
    }
}

/// One entry of a template; anything but CKR_OK ends the call.
CK_RV Model::answerEntry(CK_ATTRIBUTE& entry, CK_ULONG index, const DeviceBytes& value)
{
    const auto length = static_cast<CK_ULONG>(value.size());
    if (entry.pValue != nullptr && entry.ulValueLen < length)
        return refuse(CKR_BUFFER_TOO_SMALL, "C_GetAttributeValue: buffer too small at index=" + decimal(index) +
                                                " type=" + decimal(entry.type) + " provided=" +
                                                decimal(entry.ulValueLen) + " required=" + decimal(length));
    if (entry.pValue != nullptr && length != 0)
        std::memcpy(entry.pValue, value.data(), value.size());
    entry.ulValueLen = length;
    debug("C_GetAttributeValue length : " + decimal(length));
    return CKR_OK;
}

CK_RV Model::derivedAttributes(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR entries, CK_ULONG count)
{
    const auto key = derivedKeys_.find(hObject);
    if (key == derivedKeys_.end())
        return refuse(CKR_OBJECT_HANDLE_INVALID,
                      "C_GetAttributeValue: derived key handle not found=" + decimal(hObject));
    for (CK_ULONG index = 0; index < count; ++index) {
        if (entries[index].type != CKA_VALUE) {
            entries[index].ulValueLen = CK_UNAVAILABLE_INFORMATION;
        } else if (const CK_RV code = answerEntry(entries[index], index, key->second); code != CKR_OK) {
            return code;
        }
    }
    return CKR_OK;
}

CK_RV Model::C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                                 CK_ULONG ulCount)
{
    const ModelSession* session = enter("C_GetAttributeValue", hSession);
    if (session == nullptr)
        return code_;
    if (pTemplate == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetAttributeValue template is null");
    debug("C_GetAttributeValue count : " + decimal(ulCount));
    if (ulCount == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetAttributeValue: ulCount<=0");
    if (hObject >= DERIVED_BASE)
        return derivedAttributes(hObject, pTemplate, ulCount);
    const std::optional<Attributes> object = attributesOf(*session, hObject);
    if (!object)
        return code_;
    for (CK_ULONG index = 0; index < ulCount; ++index) {
        debug("C_GetAttributeValue type : " + decimal(pTemplate[index].type));
        const DeviceBytes value = valueOf(*object, pTemplate[index].type);
        if (const CK_RV code = answerEntry(pTemplate[index], index, value); code != CKR_OK)
            return code;
    }
    return CKR_OK;
}

CK_RV Model::C_SetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                                 CK_ULONG ulCount)
{
    const ModelSession* session = enter("C_SetAttributeValue", hSession);
    if (session == nullptr)
        return code_;
    if (pTemplate == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_SetAttributeValue: pTemplate is NULL");
    if (ulCount == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_SetAttributeValue: ulCount<=0");
    if (hObject < PRIVATE_BASE || hObject >= CERTIFICATE_BASE)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "C_SetAttributeValue: invalid hObject=" + decimal(hObject));
    const VelkorKeyPair* found = keyPair(*session, hObject - (hObject < PUBLIC_BASE ? PRIVATE_BASE : PUBLIC_BASE));
    if (found == nullptr)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Key pair not found in Set attribute : " + decimal(hObject));
    std::optional<DeviceBytes> newLabel;
    std::optional<DeviceBytes> newId;
    for (const CK_ATTRIBUTE& entry : std::span(pTemplate, ulCount)) {
        if (entry.pValue == nullptr || entry.ulValueLen == 0)
            continue;
        debug("C_SetAttributeValue - attrip type : " + decimal(entry.type));
        if (entry.type == CKA_LABEL)
            newLabel = bytesIn(entry);
        if (entry.type == CKA_ID)
            newId = bytesIn(entry);
    }
    if (newLabel || newId) {
        const std::string text = newLabel ? std::string(newLabel->begin(), newLabel->end()) : "";
        const DeviceBytes id = newId.value_or(DeviceBytes());
        const int status = device_.velkor_updateKeyPairDetails(session->device(), found->keyIdentifier, pin_.c_str(),
                                                               text.c_str(), id.data(), lengthOf(id), library_);
        if (status != 0)
            return refuse(CKR_FUNCTION_FAILED, "Update key pair details failed : " + std::to_string(status));
    }
    debug("Set attribute end");
    return CKR_OK;
}

CK_RV Model::C_GetObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize)
{
    const ModelSession* session = enter("C_GetObjectSize", hSession);
    if (session == nullptr)
        return code_;
    const bool isPublic = hObject >= PUBLIC_BASE;
    if (hObject >= PRIVATE_BASE && hObject < CERTIFICATE_BASE) {
        const VelkorKeyPair* found = keyPair(*session, hObject - (isPublic ? PUBLIC_BASE : PRIVATE_BASE));
        if (found == nullptr)
            return refuse(CKR_OBJECT_HANDLE_INVALID, std::string(isPublic ? "Public" : "Private") +
                                                         " key not found in get object size : " + decimal(hObject));
        const auto length = static_cast<CK_ULONG>(found->publicKeyLength);
        *pulSize = isPublic ? length : 2 * length;
        return CKR_OK;
    }
    const std::optional<VelkorCertificate> found =
        hObject >= CERTIFICATE_BASE ? certificate(*session, hObject - CERTIFICATE_BASE) : std::nullopt;
    if (!found)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Certificate not found in get object size : " + decimal(hObject));
    *pulSize = static_cast<CK_ULONG>(found->der.size());
    return CKR_OK;
}
