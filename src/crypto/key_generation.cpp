#include "crypto/key_generation.h"

#include <span>

#include "frame/device_status.h"
#include "frame/module_state.h"
#include "log/log.h"
#include "mechanisms/key_kinds.h"
#include "objects/handles.h"
#include "util/attributes.h"
#include "velkor/device_service.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

using Template = std::span<const CK_ATTRIBUTE>;

/// The mechanism's value plays no part.
CK_RV checkRequest(const SessionRecord& session, const KeyPairRequest& request)
{
    const CK_STATE sessionState = stateOf(session);
    if (isReadOnly(sessionState))
        return refuse(CKR_SESSION_HANDLE_INVALID, "C_GenerateKeyPair: invalid session state=", sessionState);
    if (request.pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: pMechanism is NULL");
    if (hasParameter(*request.pMechanism))
        return refuse(CKR_MECHANISM_PARAM_INVALID, "C_GenerateKeyPair: mechanism param invalid for mechanism=",
                      CK_MECHANISM_TYPE{request.pMechanism->mechanism});
    if (request.pPublicKeyTemplate == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: pPublicKeyTemplate is NULL");
    if (request.ulPublicKeyAttributeCount == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: ulPublicKeyAttributeCount<=0");
    if (request.pPrivateKeyTemplate == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: pPrivateKeyTemplate is NULL");
    if (request.ulPrivateKeyAttributeCount == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: ulPrivateKeyAttributeCount<=0");
    if (request.phPublicKey == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: phPublicKey is NULL");
    if (request.phPrivateKey == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GenerateKeyPair: phPrivateKey is NULL");
    return CKR_OK;
}

/// Fills identifier, label and usage; gives the key type.
CK_KEY_TYPE readPrivateTemplate(Template attributes, VelkorKeyPair& keyPair)
{
    CK_KEY_TYPE keyType = CKK_RSA;
    for (const CK_ATTRIBUTE& attribute : attributes) {
        if (!hasValue(attribute))
            continue;
        const auto value = bytesOf(attribute);
        if (attribute.type == CKA_ID)
            keyPair.objectIdLength = copyInto(keyPair.objectId, value);
        else if (attribute.type == CKA_LABEL)
            setLabel(keyPair, value);
        else if (attribute.type == CKA_SIGN && value.front() != 0)
            keyPair.usageFlags |= USAGE_SIGN_VERIFY;
        else if (attribute.type == CKA_DECRYPT && value.front() != 0)
            keyPair.usageFlags |= USAGE_DECRYPT_ENCRYPT;
        else if (attribute.type == CKA_KEY_TYPE)
            keyType = integerOf(attribute);
    }
    if (keyPair.usageFlags == 0)
        keyPair.usageFlags = keyType == CKK_EC ? USAGE_SIGN_VERIFY | USAGE_DECRYPT_ENCRYPT : USAGE_SIGN_VERIFY;
    return keyType;
}

CK_RV readModulusBits(const CK_ATTRIBUTE& attribute, VelkorKeyPair& keyPair)
{
    const CK_ULONG bits = integerOf(attribute);
    logDebug("C_GenerateKeyPair - modulusBits : ", bits);
    if (bits == RSA_1024_BITS)
        return refuse(
            CKR_KEY_SIZE_RANGE,
            "C_GenerateKeyPair: RSA-1024 key generation not allowed — key size below 112-bit security strength");
    const KeyKindInfo* kind = findRsaKind(bits);
    if (kind == nullptr)
        return refuse(CKR_MECHANISM_INVALID, "C_GenerateKeyPair: unsupported RSA modulusBits=", bits);
    keyPair.keyKind = kind->keyKind;
    return CKR_OK;
}

CK_RV readEcParams(const CK_ATTRIBUTE& attribute, VelkorKeyPair& keyPair)
{
    const KeyKindInfo* kind = findCurveKind(bytesOf(attribute));
    if (kind == nullptr)
        return refuse(CKR_MECHANISM_INVALID,
                      "C_GenerateKeyPair: unknown EC param (len=", CK_ULONG{attribute.ulValueLen}, ")");
    keyPair.keyKind = kind->keyKind;
    return CKR_OK;
}

/// The last matching attribute decides on the kind; a refused one ends the call.
CK_RV readPublicTemplate(Template attributes, CK_KEY_TYPE keyType, VelkorKeyPair& keyPair)
{
    CK_RV result = CKR_OK;
    for (const CK_ATTRIBUTE& attribute : attributes) {
        if (!hasValue(attribute))
            continue;
        if (keyType == CKK_RSA && attribute.type == CKA_MODULUS_BITS)
            result = readModulusBits(attribute, keyPair);
        else if (keyType == CKK_EC && attribute.type == CKA_EC_PARAMS)
            result = readEcParams(attribute, keyPair);
        if (result != CKR_OK)
            return result;
    }
    return CKR_OK;
}

} // namespace

CK_RV generateKeyPair(const SessionRecord& session, const KeyPairRequest& request)
{
    CK_RV result = checkRequest(session, request);
    if (result != CKR_OK)
        return result;
    VelkorKeyPair keyPair;
    keyPair.keyKind = KEY_KIND_RSA_2048;
    const CK_KEY_TYPE keyType =
        readPrivateTemplate({request.pPrivateKeyTemplate, request.ulPrivateKeyAttributeCount}, keyPair);
    logDebug("C_GenerateKeyPair - keytype : ", keyType);
    result = readPublicTemplate({request.pPublicKeyTemplate, request.ulPublicKeyAttributeCount}, keyType, keyPair);
    if (result != CKR_OK)
        return result;
    const int status =
        velkor_generateKeyPair(session.deviceId(), cachedPassword().c_str(), &keyPair, moduleState().libraryInstance);
    if (status != 0)
        return refuse(codeOfDeviceStatus(status), "Generate key pair failed : ", status);
    *request.phPublicKey = PUBLIC_KEY_BASE + keyPair.id;
    *request.phPrivateKey = PRIVATE_KEY_BASE + keyPair.id;
    logDebug("C_GenerateKeyPair - exit");
    return CKR_OK;
}

} // namespace velkor
