// Objects that come and go: import, deletion, generation, derivation; and random bytes.
#include <algorithm>
#include <cstdlib>
#include <regex>

#include "hexadecimal.h"
#include "model.h"
#include "model_values.h"

namespace
{

constexpr CK_OBJECT_HANDLE FIRST_PRIVATE = 0x70000000;
constexpr CK_OBJECT_HANDLE FIRST_PUBLIC = 0x70001000;
constexpr CK_OBJECT_HANDLE FIRST_CERTIFICATE = 0x70002000;
constexpr CK_OBJECT_HANDLE FIRST_DERIVED = 0x70003000;
constexpr CK_ULONG KEY_NUMBERS = 0x1000;

std::string trimmed(const std::string& text)
{
    static constexpr char WHITE[] = " \t\n\v\f\r";
    const std::size_t first = text.find_first_not_of(WHITE);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(WHITE) - first + 1);
}

std::string commonName(const std::string& name)
{
    static const std::regex pattern("CN=([^,\\n\\r]+)");
    std::smatch match;
    return std::regex_search(name, match, pattern) ? match[1].str() : "";
}

void setText(VelkorCertificate& certificate, const std::string& label)
{
    label.copy(certificate.label, LABEL_CAPACITY);
}

bool sameIdentifier(const unsigned char* left, const unsigned char* right)
{
    return std::equal(left, left + KEY_IDENTIFIER_SIZE, right);
}

CK_RV codeOfStatus(int status)
{
    return status == STATUS_DEVICE_REMOVED || status == STATUS_DEVICE_UNREACHABLE ? CKR_DEVICE_REMOVED
                                                                                  : CKR_FUNCTION_FAILED;
}

} // namespace

// ---- Import ----

/// What a template says, the last entry of each type.
struct Model::NewObject {
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    CK_KEY_TYPE keyType = CKK_RSA;
    std::string label;
    DeviceBytes value;
    DeviceBytes id;
    DeviceBytes modulus;
    DeviceBytes privateExponent;
    DeviceBytes prime1;
};

Model::NewObject Model::readNewObject(CK_ATTRIBUTE_PTR entries, CK_ULONG count)
{
    NewObject object;
    const std::map<CK_ATTRIBUTE_TYPE, DeviceBytes*> bytes = {{CKA_VALUE, &object.value},
                                                             {CKA_ID, &object.id},
                                                             {CKA_MODULUS, &object.modulus},
                                                             {CKA_PRIVATE_EXPONENT, &object.privateExponent},
                                                             {CKA_PRIME_1, &object.prime1}};
    for (const CK_ATTRIBUTE& entry : std::span(entries, count)) {
        if (entry.pValue == nullptr || entry.ulValueLen == 0)
            continue;
        debug("C_CreateObject - attrip type : " + decimal(entry.type));
        const DeviceBytes value = bytesIn(entry);
        if (entry.type == CKA_CLASS)
            object.objectClass = numberOf(entry);
        if (entry.type == CKA_KEY_TYPE)
            object.keyType = numberOf(entry);
        if (entry.type == CKA_LABEL)
            object.label.assign(value.begin(), value.end());
        if (const auto field = bytes.find(CK_ATTRIBUTE_TYPE{entry.type}); field != bytes.end())
            *field->second = value;
    }
    return object;
}

CK_RV Model::C_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                            CK_OBJECT_HANDLE_PTR phObject)
{
    const ModelSession* session = enter("C_CreateObject", hSession);
    if (session == nullptr)
        return code_;
    if (pTemplate == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_CreateObject: pTemplate is NULL");
    if (ulCount == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_CreateObject: ulCount<=0");
    if (phObject == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_CreateObject: phObject is NULL");
    const NewObject object = readNewObject(pTemplate, ulCount);
    if (object.objectClass == CKO_CERTIFICATE)
        return importLeaf(*session, object, phObject);
    if (object.objectClass == CKO_PRIVATE_KEY)
        return importKey(*session, object, phObject);
    return refuse(CKR_FUNCTION_NOT_SUPPORTED, "Provided object class not supported : " + decimal(object.objectClass));
}

CK_RV Model::store(const ModelSession& session, VelkorCertificate& certificate)
{
    const int status = attempt(
        [&] { return device_.velkor_importCertificate(session.device(), pin_.c_str(), &certificate, library_); });
    return status == 0 ? CKR_OK : refuse(codeOfStatus(status), "Leaf import failed: " + std::to_string(status));
}

void Model::tellHandle(const ModelSession& session, const VelkorCertificate& stored, CK_OBJECT_HANDLE_PTR phObject)
{
    for (const VelkorCertificate& each : device_.velkor_getCertificateList(session.device(), library_)) {
        if (sameIdentifier(each.certificateIdentifier, stored.certificateIdentifier)) {
            *phObject = FIRST_CERTIFICATE + each.id;
            return;
        }
    }
}

CK_RV Model::importLeaf(const ModelSession& session, const NewObject& object, CK_OBJECT_HANDLE_PTR phObject)
{
    if (object.value.empty())
        return refuse(CKR_FUNCTION_FAILED, "Certificate data not available in create object");
    VelkorCertificate leaf;
    leaf.der = object.value;
    leaf.objectIdLength = std::min(lengthOf(object.id), static_cast<int>(OBJECT_ID_CAPACITY));
    std::copy_n(object.id.begin(), leaf.objectIdLength, leaf.objectId);
    CertificateDetails details;
    if (device_.velkor_getCertificateDetails(leaf.der.data(), lengthOf(leaf.der), details, library_) != 0) {
        debug("certificate parsing failed");
        return CKR_DATA_INVALID;
    }
    std::string label = trimmed(object.label);
    if (label.empty()) {
        label = computedLabel(details);
        debug("Label not provided, using: " + label);
    }
    setText(leaf, label);
    if (const CK_RV code = importWithIssuers(session, leaf, commonName(details.issuer), phObject); code != CKR_OK)
        return code;
    nameKeyPair(session, details.publicKey, label);
    return CKR_OK;
}

/// The leaf and its issuers up to the last, in the order of their names; empty when one is missing.
std::vector<VelkorCertificate> Model::issuersFromDisk(const VelkorCertificate& leaf, std::string issuer)
{
    const std::string folder = std::string(std::getenv("VELKOR_HOME")) + "\\VelkorDSC\\Certificates";
    debug("CA Folder: " + folder);
    const auto files = device_.velkor_getFilesWithExtensionsAndConvertDER(
        folder.c_str(), {".cer", ".der", ".pem", ".crt"}, false, library_);
    if (files.empty())
        return {};
    std::map<std::string, std::pair<VelkorCertificate, std::string>> found; // By name, with the issuer's.
    for (const auto& [file, der] : files) {
        CertificateDetails details;
        if (der.empty() || device_.velkor_getCertificateDetails(der.data(), lengthOf(der), details, library_) != 0)
            continue;
        VelkorCertificate certificate;
        certificate.der = der;
        const std::string name = commonName(details.subject);
        setText(certificate, name);
        found.insert_or_assign(name, std::pair(certificate, commonName(details.issuer)));
    }
    std::vector<VelkorCertificate> chain = {leaf};
    while (!issuer.empty()) {
        const auto next = found.find(issuer);
        if (next == found.end()) {
            debug("Issuer '" + issuer + "' NOT found — skipping chain import");
            return {};
        }
        chain.push_back(next->second.first);
        if (next->second.second == issuer)
            break;
        issuer = next->second.second;
    }
    return chain;
}

CK_RV Model::importWithIssuers(const ModelSession& session, VelkorCertificate leaf, const std::string& issuer,
                               CK_OBJECT_HANDLE_PTR phObject)
{
    std::vector<VelkorCertificate> chain = issuersFromDisk(leaf, issuer);
    if (chain.empty()) {
        debug("Chain import skipped or failed — Performing normal leaf import");
        const CK_RV code = store(session, leaf);
        if (code == CKR_OK)
            tellHandle(session, leaf, phObject);
        return code;
    }
    std::reverse(chain.begin(), chain.end());
    for (VelkorCertificate& each : chain) {
        if (const CK_RV code = store(session, each); code != CKR_OK)
            return code;
        debug("Certificate imported successfully");
    }
    tellHandle(session, chain.back(), phObject);
    return CKR_OK;
}

/// Gives the certificate's key pair its label when it has none.
void Model::nameKeyPair(const ModelSession& session, const DeviceBytes& publicKey, const std::string& label)
{
    const DeviceKeyPairs keyPairs = device_.velkor_getKeyPairList(session.device(), library_);
    const auto owner = std::find_if(keyPairs.begin(), keyPairs.end(),
                                    [&](const VelkorKeyPair& each) { return publicKeyOf(each) == publicKey; });
    if (owner == keyPairs.end() || !trimmed(owner->label).empty())
        return;
    debug("Updating empty key pair alias to: " + label);
    if (!pin_.empty())
        device_.velkor_updateKeyPairDetails(session.device(), owner->keyIdentifier, pin_.c_str(), label.c_str(),
                                            nullptr, 0, library_);
}

CK_RV Model::importKey(const ModelSession& session, const NewObject& object, CK_OBJECT_HANDLE_PTR phObject)
{
    if (object.keyType == CKK_EC)
        return refuse(CKR_FUNCTION_FAILED, "ECC keypair not supported for import");
    if (object.modulus.empty() || object.privateExponent.empty() || object.prime1.empty())
        return refuse(CKR_FUNCTION_FAILED, "Invalid input parameters for import RSA key");
    if (object.modulus.size() <= 128)
        return refuse(CKR_KEY_SIZE_RANGE, "C_CreateObject: RSA-1024 key import not allowed — key size below 112-bit "
                                          "security strength");
    ImportPFXDetails details;
    details.kind = IMPORT_KIND_RSA_COMPONENTS;
    details.label = object.label;
    details.objectId = object.id;
    details.modulus = object.modulus;
    details.privateExponent = object.privateExponent;
    details.prime1 = object.prime1;
    const int status =
        attempt([&] { return device_.velkor_importPfx(session.device(), pin_.c_str(), &details, library_); });
    if (status != 0)
        return refuse(codeOfStatus(status), "Import private key into device failed : " + std::to_string(status));
    for (const VelkorKeyPair& each : device_.velkor_getKeyPairList(session.device(), library_)) {
        if (sameIdentifier(each.keyIdentifier, details.keyIdentifier)) {
            *phObject = FIRST_PRIVATE + each.id;
            break;
        }
    }
    return CKR_OK;
}

// ---- Deletion ----

CK_RV Model::C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject)
{
    if (!enter("C_DestroyObject"))
        return code_;
    const auto session = sessions_.find(hSession);
    if (session == sessions_.end())
        return refuse(CKR_SESSION_HANDLE_INVALID, "Delete session state invalid");
    if (session->second.isReadOnly()) {
        debug("Delete session state invalid : " + decimal(session->second.state));
        return CKR_SESSION_READ_ONLY;
    }
    debug("Delete key pair id : " + decimal(hObject));
    const char* device = session->second.device();
    if (hObject - FIRST_PRIVATE < KEY_NUMBERS) {
        const VelkorKeyPair* found = keyPair(session->second, hObject - FIRST_PRIVATE);
        if (found == nullptr) {
            debug("Input keypair not found in destroy : " + decimal(hObject));
            return CKR_OBJECT_HANDLE_INVALID;
        }
        const int status = attempt([&] {
            return device_.velkor_deleteKeyPair(device, found->keyIdentifier, pin_.c_str(), found->deviceFlag,
                                                library_);
        });
        return status == 0
                   ? CKR_OK
                   : refuse(CKR_FUNCTION_FAILED, "Delete keypair in destroy object failed : " + std::to_string(status));
    }
    if (hObject < FIRST_CERTIFICATE)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "C_DestroyObject: invalid hObject=" + decimal(hObject));
    const std::optional<VelkorCertificate> found = certificate(session->second, hObject - FIRST_CERTIFICATE);
    if (!found) {
        debug("Input certificate not found in destroy : " + decimal(hObject));
        return CKR_OBJECT_HANDLE_INVALID;
    }
    const int status = attempt(
        [&] { return device_.velkor_deleteCertificate(device, found->certificateIdentifier, pin_.c_str(), library_); });
    return status == 0
               ? CKR_OK
               : refuse(CKR_FUNCTION_FAILED, "Delete certificate in destroy object failed : " + std::to_string(status));
}

// ---- Generation ----

CK_KEY_TYPE Model::readPrivateTemplate(CK_ATTRIBUTE_PTR entries, CK_ULONG count, VelkorKeyPair& request)
{
    CK_KEY_TYPE type = CKK_RSA;
    for (const CK_ATTRIBUTE& entry : std::span(entries, count)) {
        if (entry.pValue == nullptr || entry.ulValueLen == 0)
            continue;
        const DeviceBytes value = bytesIn(entry);
        const auto length = static_cast<int>(std::min<std::size_t>(value.size(), 128));
        if (entry.type == CKA_KEY_TYPE)
            type = numberOf(entry);
        if (entry.type == CKA_ID) {
            std::copy_n(value.begin(), length, request.objectId);
            request.objectIdLength = length;
        }
        if (entry.type == CKA_LABEL)
            *std::copy_n(value.begin(), length, request.label) = '\0';
        if (entry.type == CKA_SIGN && value[0] != 0)
            request.usageFlags |= USAGE_SIGN_VERIFY;
        if (entry.type == CKA_DECRYPT && value[0] != 0)
            request.usageFlags |= USAGE_DECRYPT_ENCRYPT;
    }
    if (request.usageFlags == 0)
        request.usageFlags = type == CKK_EC ? USAGE_SIGN_VERIFY | USAGE_DECRYPT_ENCRYPT : USAGE_SIGN_VERIFY;
    debug("C_GenerateKeyPair - keytype : " + decimal(type));
    return type;
}

CK_RV Model::readKind(CK_KEY_TYPE type, CK_ATTRIBUTE_PTR entries, CK_ULONG count, VelkorKeyPair& request)
{
    request.keyKind = KEY_KIND_RSA_2048;
    for (const CK_ATTRIBUTE& entry : std::span(entries, count)) {
        if (entry.pValue == nullptr || entry.ulValueLen == 0)
            continue;
        if (type == CKK_RSA && entry.type == CKA_MODULUS_BITS) {
            const CK_ULONG bits = numberOf(entry);
            debug("C_GenerateKeyPair - modulusBits : " + decimal(bits));
            if (bits == 1024)
                return refuse(CKR_KEY_SIZE_RANGE, "C_GenerateKeyPair: RSA-1024 key generation not allowed — key size "
                                                  "below 112-bit security strength");
            if (bits != 2048 && bits != 3072 && bits != 4096)
                return refuse(CKR_MECHANISM_INVALID, "C_GenerateKeyPair: unsupported RSA modulusBits=" + decimal(bits));
            request.keyKind = static_cast<std::uint32_t>(bits / 1024);
        }
        if (type == CKK_EC && entry.type == CKA_EC_PARAMS) {
            const DeviceBytes curve = bytesIn(entry);
            request.keyKind = 0;
            for (std::uint32_t kind = KEY_KIND_EC_P256; kind <= KEY_KIND_EC_P521; ++kind) {
                if (curve == curveOf(kind))
                    request.keyKind = kind;
            }
            if (request.keyKind == 0)
                return refuse(CKR_MECHANISM_INVALID,
                              "C_GenerateKeyPair: unknown EC param (len=" + decimal(entry.ulValueLen) + ")");
        }
    }
    return CKR_OK;
}

CK_RV Model::C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                               CK_ATTRIBUTE_PTR pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                               CK_ATTRIBUTE_PTR pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
                               CK_OBJECT_HANDLE_PTR phPublicKey, CK_OBJECT_HANDLE_PTR phPrivateKey)
{
    const ModelSession* session = enter("C_GenerateKeyPair", hSession);
    if (session == nullptr)
        return code_;
    const auto refused = [&](CK_RV code, const std::string& text) {
        return refuse(code, "C_GenerateKeyPair: " + text);
    };
    if (session->isReadOnly())
        return refused(CKR_SESSION_HANDLE_INVALID, "invalid session state=" + decimal(session->state));
    if (pMechanism == nullptr)
        return refused(CKR_ARGUMENTS_BAD, "pMechanism is NULL");
    if (pMechanism->pParameter != nullptr || pMechanism->ulParameterLen != 0)
        return refused(CKR_MECHANISM_PARAM_INVALID,
                       "mechanism param invalid for mechanism=" + decimal(pMechanism->mechanism));
    if (pPublicKeyTemplate == nullptr)
        return refused(CKR_ARGUMENTS_BAD, "pPublicKeyTemplate is NULL");
    if (ulPublicKeyAttributeCount == 0)
        return refused(CKR_ARGUMENTS_BAD, "ulPublicKeyAttributeCount<=0");
    if (pPrivateKeyTemplate == nullptr)
        return refused(CKR_ARGUMENTS_BAD, "pPrivateKeyTemplate is NULL");
    if (ulPrivateKeyAttributeCount == 0)
        return refused(CKR_ARGUMENTS_BAD, "ulPrivateKeyAttributeCount<=0");
    if (phPublicKey == nullptr)
        return refused(CKR_ARGUMENTS_BAD, "phPublicKey is NULL");
    if (phPrivateKey == nullptr)
        return refused(CKR_ARGUMENTS_BAD, "phPrivateKey is NULL");
    VelkorKeyPair request;
    const CK_KEY_TYPE type = readPrivateTemplate(pPrivateKeyTemplate, ulPrivateKeyAttributeCount, request);
    if (const CK_RV code = readKind(type, pPublicKeyTemplate, ulPublicKeyAttributeCount, request); code != CKR_OK)
        return code;
    const int status =
        attempt([&] { return device_.velkor_generateKeyPair(session->device(), pin_.c_str(), &request, library_); });
    if (status != 0)
        return refuse(codeOfStatus(status), "Generate key pair failed : " + std::to_string(status));
    *phPublicKey = FIRST_PUBLIC + request.id;
    *phPrivateKey = FIRST_PRIVATE + request.id;
    debug("C_GenerateKeyPair - exit");
    return CKR_OK;
}

// ---- Derivation ----

CK_RV Model::applyKdf(const ModelSession& session, CK_EC_KDF_TYPE kdf, DeviceBytes& secret)
{
    if (kdf != CKD_SHA1_KDF && kdf != CKD_SHA256_KDF)
        return CKR_OK;
    const bool isSha1 = kdf == CKD_SHA1_KDF;
    DeviceBytes digest;
    std::string failed;
    if (const int status = hash(session, isSha1 ? 1 : 4, secret, digest, failed); status != 0)
        return refuse(CKR_FUNCTION_FAILED, "C_DeriveKey: " + failed + "Hash failed " + std::to_string(status));
    digest.resize(std::min<std::size_t>(digest.size(), isSha1 ? 20 : 32));
    secret = digest;
    return CKR_OK;
}

CK_RV Model::C_DeriveKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hBaseKey,
                         CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey)
{
    debug("C_DeriveKey"); // Its first refusals are silent.
    name_ = "C_DeriveKey";
    if (library_ == nullptr)
        return CKR_CRYPTOKI_NOT_INITIALIZED;
    const auto found = sessions_.find(hSession);
    if (found == sessions_.end())
        return CKR_SESSION_HANDLE_INVALID;
    const ModelSession& session = found->second;
    if (pMechanism == nullptr || phKey == nullptr)
        return CKR_ARGUMENTS_BAD;
    if (pMechanism->mechanism != CKM_ECDH1_DERIVE)
        return CKR_MECHANISM_INVALID;
    if (!firmwareIsRecent(session))
        return refuse(CKR_MECHANISM_INVALID,
                      "C_DeriveKey: ECDH not supported on firmware " + session.token.firmwareVersion);
    if (pMechanism->pParameter == nullptr || pMechanism->ulParameterLen < sizeof(CK_ECDH1_DERIVE_PARAMS))
        return CKR_MECHANISM_PARAM_INVALID;
    const auto& parameter = *static_cast<const CK_ECDH1_DERIVE_PARAMS*>(pMechanism->pParameter);
    if (parameter.pPublicData == nullptr || parameter.ulPublicDataLen == 0)
        return CKR_MECHANISM_PARAM_INVALID;
    const CK_ULONG id = hBaseKey - FIRST_PRIVATE;
    if (id >= KEY_NUMBERS)
        return CKR_KEY_HANDLE_INVALID;
    debug("key id :: " + decimal(id));
    const VelkorKeyPair* key = keyPair(session, id);
    if (key == nullptr)
        return CKR_KEY_HANDLE_INVALID;
    const std::span<const unsigned char> peer(parameter.pPublicData, parameter.ulPublicDataLen);
    debug("base key id :: " + hexadecimal(key->keyIdentifier));
    debug("public key :: " + hexadecimal(peer));
    unsigned char* given = nullptr;
    int length = 0;
    const int status = attempt([&] {
        return device_.velkor_ecdhDerive(session.device(), key->keyIdentifier, pin_.c_str(), peer.data(),
                                         static_cast<int>(peer.size()), &given, &length, library_);
    });
    DeviceBytes secret;
    if (status == 0 && given != nullptr && length > 0)
        secret.assign(given, given + length);
    std::free(given);
    if (secret.empty())
        return refuse(CKR_FUNCTION_FAILED, "C_DeriveKey: velkor_ecdhDerive failed:" + std::to_string(status) +
                                               " len=" + std::to_string(length));
    if (const CK_RV code = applyKdf(session, parameter.kdf, secret); code != CKR_OK)
        return code;
    for (const CK_ATTRIBUTE& entry : std::span(pTemplate, ulAttributeCount)) {
        if (entry.type != CKA_VALUE_LEN || entry.pValue == nullptr)
            continue;
        const CK_ULONG wanted = numberOf(entry);
        if (wanted != 0 && wanted < secret.size())
            secret.resize(wanted);
        break;
    }
    const CK_OBJECT_HANDLE handle = FIRST_DERIVED + static_cast<CK_ULONG>(derivedKeys_.size());
    derivedKeys_[handle] = secret;
    *phKey = handle;
    debug("C_DeriveKey: done, handle=" + decimal(handle));
    return CKR_OK;
}

// ---- Random bytes ----

CK_RV Model::C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pRandomData, CK_ULONG ulRandomLen)
{
    const ModelSession* session = enter("C_GenerateRandom", hSession);
    if (session == nullptr)
        return code_;
    if (pRandomData == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GenerateRandom: RandomData is NULL");
    if (ulRandomLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_GenerateRandom: ulRandomLen<=0, ulRandomLen=" + decimal(ulRandomLen));
    const int status = attempt([&] {
        return device_.velkor_generateRamdomNumber(session->device(), static_cast<int>(ulRandomLen), pRandomData, true,
                                                   nullptr);
    });
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED,
                      "C_GenerateRandom: generate random number failed ret=" + std::to_string(status));
    return CKR_OK;
}
