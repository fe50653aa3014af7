#include "objects/object_import.h"

#include <algorithm>
#include <span>
#include <string>
#include <vector>

#include "frame/device_status.h"
#include "frame/module_state.h"
#include "log/log.h"
#include "objects/handles.h"
#include "objects/issuer_chain.h"
#include "objects/labels.h"
#include "platform/platform.h"
#include "util/attributes.h"
#include "util/bytes.h"
#include "util/utils.h"
#include "velkor/device_service.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

constexpr std::size_t RSA_1024_MODULUS_SIZE = 128;

/// What the template says; values are those of the caller's memory.
struct NewObject {
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    CK_KEY_TYPE keyType = CKK_RSA;
    Bytes label;
    Bytes value;
    Bytes objectId;
    Bytes modulus;
    Bytes privateExponent;
    Bytes prime1;
};

/// Where a value of the template goes.
struct ValueRow {
    CK_ATTRIBUTE_TYPE type;
    Bytes NewObject::*value;
};

constexpr ValueRow VALUES[] = {
    {CKA_LABEL, &NewObject::label},
    {CKA_VALUE, &NewObject::value},
    {CKA_ID, &NewObject::objectId},
    {CKA_MODULUS, &NewObject::modulus},
    {CKA_PRIVATE_EXPONENT, &NewObject::privateExponent},
    {CKA_PRIME_1, &NewObject::prime1},
};

NewObject readTemplate(std::span<const CK_ATTRIBUTE> attributes)
{
    NewObject object;
    for (const CK_ATTRIBUTE& attribute : attributes) {
        if (!hasValue(attribute))
            continue;
        const CK_ATTRIBUTE_TYPE type = attribute.type;
        logDebug("C_CreateObject - attrip type : ", type);
        if (type == CKA_CLASS)
            object.objectClass = integerOf(attribute);
        else if (type == CKA_KEY_TYPE)
            object.keyType = integerOf(attribute);
        for (const ValueRow& row : VALUES) {
            if (row.type == type)
                object.*row.value = bytesOf(attribute);
        }
    }
    return object;
}

std::string toText(Bytes value)
{
    return {value.begin(), value.end()};
}

using Identifier = unsigned char[KEY_IDENTIFIER_SIZE];

/// Sets the handle of the record that was stored under an identifier; leaves it alone when the device does not list it.
template <typename Record>
void reportHandle(const std::vector<Record>& records, const Identifier Record::*field, const Identifier& stored,
                  CK_OBJECT_HANDLE base, CK_OBJECT_HANDLE* phObject)
{
    const auto found = std::find_if(records.begin(), records.end(),
                                    [&](const Record& each) { return sameBytes(each.*field, stored); });
    if (found != records.end())
        *phObject = base + found->id;
}

VelkorCertificate newCertificate(const NewObject& object, const std::string& label)
{
    VelkorCertificate certificate;
    certificate.objectIdLength = copyInto(certificate.objectId, object.objectId);
    certificate.der.assign(object.value.begin(), object.value.end());
    setLabel(certificate, label);
    return certificate;
}

/// The template's label without white space around it, or one computed from the certificate.
std::string labelFor(const NewObject& object, const CertificateDetails& details)
{
    std::string label = Utils::trimmed(toText(object.label));
    if (!label.empty())
        return label;
    label = computedLabel(details);
    logDebug("Label not provided, using: ", label);
    return label;
}

CK_RV importCertificate(const SessionRecord& session, VelkorCertificate& certificate)
{
    const int status = velkor_importCertificate(session.deviceId(), cachedPassword().c_str(), &certificate,
                                                moduleState().libraryInstance);
    if (status != 0)
        return refuse(codeOfDeviceStatus(status), "Leaf import failed: ", status);
    return CKR_OK;
}

/// The topmost issuer first, the leaf last. What was stored before a failure stays on the token.
CK_RV importChain(const SessionRecord& session, std::vector<VelkorCertificate>& chain)
{
    for (VelkorCertificate& certificate : chain) {
        const CK_RV result = importCertificate(session, certificate);
        if (result != CKR_OK)
            return result;
        logDebug("Certificate imported successfully");
    }
    return CKR_OK;
}

/// Imports the leaf with its issuers where all of them were found, or else alone.
CK_RV importWithIssuers(const SessionRecord& session, const VelkorCertificate& leaf, const CertificateDetails& details,
                        CK_OBJECT_HANDLE* phObject)
{
    std::vector<VelkorCertificate> chain = issuerChain(leaf, details);
    CK_RV result = CKR_OK;
    if (chain.empty()) {
        logDebug("Chain import skipped or failed — Performing normal leaf import");
        chain = {leaf};
        result = importCertificate(session, chain.back());
    } else {
        result = importChain(session, chain);
    }
    if (result == CKR_OK)
        reportHandle(velkor_getCertificateList(session.deviceId(), moduleState().libraryInstance),
                     &VelkorCertificate::certificateIdentifier, chain.back().certificateIdentifier, CERTIFICATE_BASE,
                     phObject);
    return result;
}

/// Gives the certificate's label to its key pair where that has none.
void updateKeyPairAlias(const SessionRecord& session, const CertificateDetails& details, const std::string& label)
{
    const auto& keyPairs = velkor_getKeyPairList(session.deviceId(), moduleState().libraryInstance);
    const auto keyPair = std::find_if(keyPairs.begin(), keyPairs.end(), [&](const VelkorKeyPair& each) {
        return sameBytes(publicKeyOf(each), details.publicKey);
    });
    if (keyPair == keyPairs.end() || !Utils::trimmed(storedLabelOf(*keyPair)).empty())
        return;
    logDebug("Updating empty key pair alias to: ", label);
    storeLabel(session, *keyPair, label);
}

CK_RV createCertificate(const SessionRecord& session, const NewObject& object, CK_OBJECT_HANDLE* phObject)
{
    if (object.value.empty())
        return refuse(CKR_FUNCTION_FAILED, "Certificate data not available in create object");
    CertificateDetails details;
    if (velkor_getCertificateDetails(object.value.data(), deviceLength(object.value.size()), details,
                                     moduleState().libraryInstance) != 0) {
        logDebug("certificate parsing failed");
        return CKR_DATA_INVALID;
    }
    const std::string label = labelFor(object, details);
    const CK_RV result = importWithIssuers(session, newCertificate(object, label), details, phObject);
    if (result == CKR_OK)
        updateKeyPairAlias(session, details, label);
    return result;
}

/// The request of a private key import, whose secret parts are wiped when it ends.
struct PrivateKeyImport : ImportPFXDetails {
    PrivateKeyImport() = default;

    /// By way of the other constructor, so that the wiping is due from here on.
    explicit PrivateKeyImport(const NewObject& object) : PrivateKeyImport()
    {
        kind = IMPORT_KIND_RSA_COMPONENTS;
        label = toText(object.label);
        objectId.assign(object.objectId.begin(), object.objectId.end());
        modulus.assign(object.modulus.begin(), object.modulus.end());
        privateExponent.assign(object.privateExponent.begin(), object.privateExponent.end());
        prime1.assign(object.prime1.begin(), object.prime1.end());
    }

    PrivateKeyImport(const PrivateKeyImport&) = delete;
    PrivateKeyImport& operator=(const PrivateKeyImport&) = delete;

    ~PrivateKeyImport()
    {
        platform::secureWipe(privateExponent.data(), privateExponent.size());
        platform::secureWipe(prime1.data(), prime1.size());
    }
};

CK_RV createPrivateKey(const SessionRecord& session, const NewObject& object, CK_OBJECT_HANDLE* phObject)
{
    if (object.keyType == CKK_EC)
        return refuse(CKR_FUNCTION_FAILED, "ECC keypair not supported for import");
    if (object.modulus.empty() || object.privateExponent.empty() || object.prime1.empty())
        return refuse(CKR_FUNCTION_FAILED, "Invalid input parameters for import RSA key");
    if (object.modulus.size() <= RSA_1024_MODULUS_SIZE)
        return refuse(CKR_KEY_SIZE_RANGE,
                      "C_CreateObject: RSA-1024 key import not allowed — key size below 112-bit security strength");
    void* instance = moduleState().libraryInstance;
    PrivateKeyImport request(object);
    const int status = velkor_importPfx(session.deviceId(), cachedPassword().c_str(), &request, instance);
    if (status != 0)
        return refuse(codeOfDeviceStatus(status), "Import private key into device failed : ", status);
    reportHandle(velkor_getKeyPairList(session.deviceId(), instance), &VelkorKeyPair::keyIdentifier,
                 request.keyIdentifier, PRIVATE_KEY_BASE, phObject);
    return CKR_OK;
}

} // namespace

CK_RV createObject(const SessionRecord& session, const CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount,
                   CK_OBJECT_HANDLE* phObject)
{
    if (pTemplate == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_CreateObject: pTemplate is NULL");
    if (ulCount == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_CreateObject: ulCount<=0");
    if (phObject == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_CreateObject: phObject is NULL");
    const NewObject object = readTemplate({pTemplate, ulCount});
    switch (object.objectClass) {
    case CKO_CERTIFICATE:
        return createCertificate(session, object, phObject);
    case CKO_PRIVATE_KEY:
        return createPrivateKey(session, object, phObject);
    default:
        return refuse(CKR_FUNCTION_NOT_SUPPORTED, "Provided object class not supported : ", object.objectClass);
    }
}

} // namespace velkor
