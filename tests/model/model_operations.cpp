// Digests, signatures, verification, encryption and decryption.
#include <algorithm>
#include <cstdlib>
#include <initializer_list>

#include "hexadecimal.h"
#include "model.h"
#include "model_values.h"

namespace
{

constexpr CK_OBJECT_HANDLE PRIVATE_KEYS = 0x70000000;
constexpr CK_OBJECT_HANDLE PUBLIC_KEYS = 0x70001000;

/// What a signature mechanism is. A raw one has no hash.
struct SignatureRow {
    CK_MECHANISM_TYPE type;
    int hash;
    bool isPss;
    int multiPartHash; ///< Of verification in parts; 0 where the data is gathered.
};

constexpr SignatureRow SIGNATURE_ROWS[] = {
    {CKM_RSA_PKCS, 0, false, 0},
    {CKM_SHA1_RSA_PKCS, 2, false, 2},
    {CKM_RSA_PKCS_PSS, 0, true, 3},
    {CKM_SHA1_RSA_PKCS_PSS, 2, true, 3},
    {CKM_SHA256_RSA_PKCS, 3, false, 3},
    {CKM_SHA384_RSA_PKCS, 4, false, 4},
    {CKM_SHA512_RSA_PKCS, 5, false, 5},
    {CKM_SHA256_RSA_PKCS_PSS, 3, true, 3},
    {CKM_SHA384_RSA_PKCS_PSS, 4, true, 3},
    {CKM_SHA512_RSA_PKCS_PSS, 5, true, 3},
    {CKM_SHA224_RSA_PKCS, 6, false, 6},
    {CKM_SHA224_RSA_PKCS_PSS, 6, true, 6},
    {CKM_ECDSA, 0, false, 0},
    {CKM_ECDSA_SHA1, 2, false, 2},
    {CKM_ECDSA_SHA224, 6, false, 6},
    {CKM_ECDSA_SHA256, 3, false, 3},
    {CKM_ECDSA_SHA384, 4, false, 4},
};

/// Null for what is no signature mechanism.
const SignatureRow* signatureRow(CK_MECHANISM_TYPE type)
{
    const auto* row = std::find_if(std::begin(SIGNATURE_ROWS), std::end(SIGNATURE_ROWS),
                                   [&](const SignatureRow& each) { return each.type == type; });
    return row != std::end(SIGNATURE_ROWS) ? row : nullptr;
}

/// The hash code of a digest mechanism; 0: none.
int digestCode(CK_MECHANISM_TYPE type)
{
    static const std::map<CK_MECHANISM_TYPE, int> codes = {
        {CKM_SHA_1, 2}, {CKM_SHA224, 6}, {CKM_SHA256, 3}, {CKM_SHA384, 4}, {CKM_SHA512, 5}};
    const auto found = codes.find(type);
    return found != codes.end() ? found->second : 0;
}

bool hasParameter(const CK_MECHANISM& mechanism)
{
    return mechanism.pParameter != nullptr || mechanism.ulParameterLen != 0;
}

bool contains(std::span<const unsigned char> data, std::initializer_list<unsigned char> part)
{
    return std::search(data.begin(), data.end(), part.begin(), part.end()) != data.end();
}

DeviceBytes der(unsigned char tag, const DeviceBytes& content)
{
    DeviceBytes length;
    for (std::size_t rest = content.size(); rest != 0; rest >>= 8U)
        length.insert(length.begin(), static_cast<unsigned char>(rest & 0xFFU));
    DeviceBytes encoded = {tag};
    if (content.size() >= 128)
        encoded.push_back(static_cast<unsigned char>(0x80U + length.size()));
    if (length.empty())
        length.push_back(0);
    encoded.insert(encoded.end(), length.begin(), length.end());
    encoded.insert(encoded.end(), content.begin(), content.end());
    return encoded;
}

DeviceBytes behind(DeviceBytes left, const DeviceBytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// SubjectPublicKeyInfo of an RSA key with the exponent 65537.
DeviceBytes publicKeyInfo(DeviceBytes modulus)
{
    if (!modulus.empty() && modulus[0] >= 0x80)
        modulus.insert(modulus.begin(), 0);
    const DeviceBytes key = der(0x30, behind(der(0x02, modulus), {0x02, 0x03, 0x01, 0x00, 0x01}));
    const DeviceBytes algorithm = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                   0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
    return der(0x30, behind(algorithm, der(0x03, behind({0x00}, key))));
}

bool isPublicKeyPassedAsIs(const VelkorKeyPair& keyPair)
{
    return isEcKind(keyPair.keyKind) || keyPair.publicKeyLength < 1 || keyPair.publicKey[0] == 0x30;
}

EncryptionType encryptionType(std::uint32_t keyKind)
{
    switch (keyKind) {
    case KEY_KIND_RSA_1024:
        return EncryptionType::Rsa1024;
    case KEY_KIND_RSA_3072:
        return EncryptionType::Rsa3072;
    case KEY_KIND_RSA_4096:
        return EncryptionType::Rsa4096;
    default:
        return EncryptionType::Rsa2048;
    }
}

std::span<const unsigned char> bytesAt(CK_BYTE_PTR data, CK_ULONG length)
{
    return {data, static_cast<std::size_t>(length)};
}

} // namespace

// ---- Entry and end of operations ----

/// The start of an operation. Null when the call ends with `code_`.
ModelSession* Model::begin(const std::string& name, CK_SESSION_HANDLE hSession, bool stateCounts,
                           bool digestMayBeActive)
{
    ModelSession* session = enter(name, hSession);
    if (session == nullptr)
        return nullptr;
    if (stateCounts && session->state == CKS_RO_PUBLIC_SESSION) {
        code_ = refuse(CKR_SESSION_HANDLE_INVALID, name + ": invalid session state=" + decimal(session->state));
        return nullptr;
    }
    if (session->operation == OP_NONE || (digestMayBeActive && session->operation == OP_DIGEST))
        return session;
    code_ = refuse(CKR_OPERATION_ACTIVE,
                   name + ": operation already active, activeOperation=" + std::to_string(session->operation));
    return nullptr;
}

/// A call that goes on with an operation. Null when it ends with `code_`.
ModelSession* Model::goOn(const std::string& name, CK_SESSION_HANDLE hSession, int operation)
{
    ModelSession* session = enter(name, hSession);
    if (session == nullptr || session->operation == operation)
        return session;
    code_ = refuse(CKR_OPERATION_NOT_INITIALIZED,
                   name + ": operation not initialized, activeOperation=" + std::to_string(session->operation));
    return nullptr;
}

/// A refusal that ends the operation.
CK_RV Model::end(ModelSession& session, CK_RV code, const std::string& text)
{
    session.operation = OP_NONE;
    return refuse(code, text);
}

/// Tells the length; gives the whole result where there is a buffer, whatever its length, and ends the operation.
CK_RV Model::deliver(ModelSession& session, DeviceBytes& result, CK_BYTE_PTR out, CK_ULONG_PTR length)
{
    *length = static_cast<CK_ULONG>(result.size());
    if (out == nullptr)
        return CKR_OK;
    std::copy(result.begin(), result.end(), out);
    result.clear();
    session.operation = OP_NONE;
    return CKR_OK;
}

/// A hash in one go. `failed` gets the step that failed, as the log names it.
int Model::hash(const ModelSession& session, int code, std::span<const unsigned char> data, DeviceBytes& hash,
                std::string& failed)
{
    void* context = nullptr;
    failed = "init";
    int status = attempt([&] { return device_.velkor_initHash(session.device(), code, &context, library_); });
    if (status != 0)
        return status;
    failed = "update";
    const int length = static_cast<int>(data.size());
    status = attempt([&] { return device_.velkor_updateHash(context, data.data(), length, library_); });
    if (status != 0)
        return status;
    failed = "final";
    hash.resize(HASH_CAPACITY);
    int hashLength = HASH_CAPACITY;
    status = attempt([&] { return device_.velkor_finalHash(context, hash.data(), &hashLength, library_); });
    hash.resize(static_cast<std::size_t>(hashLength));
    return status;
}

bool Model::firmwareIsRecent(const ModelSession& session) const
{
    std::vector<long> numbers = versionNumbers(session.token.firmwareVersion);
    std::vector<long> wanted = {2};
    const std::size_t length = std::max(numbers.size(), wanted.size());
    numbers.resize(length);
    wanted.resize(length);
    return numbers >= wanted;
}

// ---- Digest ----

CK_RV Model::C_DigestInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism)
{
    ModelSession* session = begin("C_DigestInit", hSession, true, true);
    if (session == nullptr)
        return code_;
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_DigestInit mechanism pointer in NULL");
    const int code = digestCode(pMechanism->mechanism);
    if (code == 0)
        return refuse(CKR_MECHANISM_INVALID, "C_DigestInit mechanism not supported");
    const int status =
        attempt([&] { return device_.velkor_initHash(session->device(), code, &session->hashContext, library_); });
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "Init hash in diges init failed : " + std::to_string(status));
    session->hashed.clear();
    session->operation = OP_DIGEST;
    return CKR_OK;
}

/// The end of a digest, unless it is kept from a length query; the digest stays active when that fails.
CK_RV Model::finalHash(ModelSession& session, const std::string& text)
{
    if (!session.hashed.empty())
        return CKR_OK;
    DeviceBytes digest(HASH_CAPACITY);
    int length = 0;
    const int status =
        attempt([&] { return device_.velkor_finalHash(session.hashContext, digest.data(), &length, library_); });
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, text + std::to_string(status));
    digest.resize(static_cast<std::size_t>(length));
    session.hashed = digest;
    return CKR_OK;
}

CK_RV Model::C_Digest(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pDigest,
                      CK_ULONG_PTR pulDigestLen)
{
    ModelSession* session = goOn("C_Digest", hSession, OP_DIGEST);
    if (session == nullptr)
        return code_;
    if (pData == nullptr || ulDataLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_Digest: pData is NULL or ulDataLen<=0, ulDataLen=" + decimal(ulDataLen));
    if (pulDigestLen == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Digest: pulDigestLen is NULL");
    if (session->hashed.empty()) {
        const int status = attempt([&] {
            return device_.velkor_updateHash(session->hashContext, pData, static_cast<int>(ulDataLen), library_);
        });
        if (status != 0)
            return refuse(CKR_FUNCTION_FAILED, "Update hash data in diget failed : " + std::to_string(status));
    }
    if (const CK_RV code = finalHash(*session, "Final hash data in diget failed : "); code != CKR_OK)
        return code;
    deliver(*session, session->hashed, pDigest, pulDigestLen);
    debug("C_Digest Success");
    return CKR_OK;
}

CK_RV Model::C_DigestUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    ModelSession* session = goOn("C_DigestUpdate", hSession, OP_DIGEST);
    if (session == nullptr)
        return code_;
    if (pPart == nullptr || ulPartLen == 0)
        return refuse(CKR_ARGUMENTS_BAD,
                      "C_DigestUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=" + decimal(ulPartLen));
    const int status = attempt(
        [&] { return device_.velkor_updateHash(session->hashContext, pPart, static_cast<int>(ulPartLen), library_); });
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "Update hash data in digest update failed : " + std::to_string(status));
    return CKR_OK;
}

CK_RV Model::C_DigestFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen)
{
    ModelSession* session = goOn("C_DigestFinal", hSession, OP_DIGEST);
    if (session == nullptr)
        return code_;
    if (pulDigestLen == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_DigestFinal: pulDigestLen is NULL");
    if (const CK_RV code = finalHash(*session, "Final hash data in diget failed : "); code != CKR_OK)
        return code;
    deliver(*session, session->hashed, pDigest, pulDigestLen);
    debug("C_DigestFinal Success");
    return CKR_OK;
}

// ---- Signing ----

CK_RV Model::C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    ModelSession* session = begin("C_SignInit", hSession, true, false);
    if (session == nullptr)
        return code_;
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_SignInit: pMechanism is NULL");
    const CK_MECHANISM_TYPE type = pMechanism->mechanism;
    const SignatureRow* row = signatureRow(type);
    if (row != nullptr && row->hash == 2 && countsAsFips(session->token.model))
        return refuse(CKR_MECHANISM_INVALID, "C_SignInit: SHA1 signing not allowed on FIPS 140-3 token");
    if (row == nullptr)
        return refuse(CKR_MECHANISM_INVALID, "C_SignInit: unsupported mechanism=" + decimal(type));
    if (!row->isPss && hasParameter(*pMechanism))
        return refuse(CKR_MECHANISM_PARAM_INVALID,
                      "C_SignInit: mechanism param invalid for mechanism=" + decimal(type));
    if (row->isPss)
        debug("firmware veriosn :: " + session->token.firmwareVersion);
    if (row->isPss && !firmwareIsRecent(*session))
        return refuse(CKR_MECHANISM_INVALID,
                      "C_SignInit: CKM_RSA_PKCS_PSS not supported on firmware " + session->token.firmwareVersion);
    session->mechanism = type;
    session->isPss = row->isPss;
    if (hKey < PRIVATE_KEYS)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "C_SignInit: invalid hKey=" + decimal(hKey));
    const VelkorKeyPair* key = keyPair(*session, hKey - PRIVATE_KEYS);
    if (key == nullptr)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Invalid input handle in sign : " + decimal(hKey));
    if (key->keyKind == KEY_KIND_RSA_1024)
        return refuse(CKR_KEY_SIZE_RANGE,
                      "C_SignInit: RSA-1024 signing not allowed — key size below 112-bit security strength");
    session->result.clear();
    session->operation = OP_SIGN;
    return CKR_OK;
}

/// What a FIPS token does not sign, though the mechanism is allowed.
CK_RV Model::refuseFipsInput(ModelSession& session, std::span<const unsigned char> data)
{
    if (!countsAsFips(session.token.model))
        return CKR_OK;
    const auto refused = [&](const std::string& what) {
        return end(session, CKR_MECHANISM_INVALID, "C_Sign: " + what + " not allowed on FIPS 140-3 token");
    };
    if (session.mechanism == CKM_RSA_PKCS) {
        if (data.size() < 11 || data[0] != 0x30)
            return CKR_OK;
        if (contains(data, {0x2B, 0x0E, 0x03, 0x02, 0x1A}))
            return refused("SHA1 DigestInfo signing");
        if (contains(data, {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x05}))
            return refused("MD5 DigestInfo signing");
        return CKR_OK;
    }
    const std::string via = session.mechanism == CKM_ECDSA ? "via CKM_ECDSA" : "via CKM_RSA_PKCS_PSS";
    if (data.size() == 20)
        return refused("SHA1 hash signing " + via);
    if (data.size() == 16)
        return refused("MD5 hash signing " + via);
    return CKR_OK;
}

/// Has the device sign; on success the signature is kept.
int Model::sign(ModelSession& session, const DeviceBytes& hash)
{
    DeviceBytes signature(SIGNATURE_CAPACITY);
    int length = SIGNATURE_CAPACITY;
    const int status = attempt([&] {
        return device_.velkor_signHash(session.device(), lastKeyPair_.keyIdentifier, pin_.c_str(), hash.data(),
                                       lengthOf(hash), signature.data(), &length, false, library_, session.isPss);
    });
    if (status == 0) {
        signature.resize(static_cast<std::size_t>(length));
        session.result = signature;
    }
    return status;
}

CK_RV Model::C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
                    CK_ULONG_PTR pulSignatureLen)
{
    ModelSession* session = goOn("C_Sign", hSession, OP_SIGN);
    if (session == nullptr)
        return code_;
    if (pData == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Sign: pData is NULL");
    if (ulDataLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_Sign: ulDataLen<=0, ulDataLen=" + decimal(ulDataLen));
    if (pulSignatureLen == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Sign: pulSignatureLen is NULL");
    debug("sign echanism : " + decimal(session->mechanism));
    if (!session->result.empty())
        return deliver(*session, session->result, pSignature, pulSignatureLen);
    const auto data = bytesAt(pData, ulDataLen);
    DeviceBytes hashed(data.begin(), data.end());
    const int code = signatureRow(session->mechanism)->hash;
    if (code == 0) {
        if (const CK_RV refused = refuseFipsInput(*session, data); refused != CKR_OK)
            return refused;
    } else {
        std::string failed;
        if (const int status = hash(*session, code, data, hashed, failed); status != 0)
            return end(*session, CKR_FUNCTION_FAILED, failed + " hash failed " + std::to_string(status));
    }
    debug(std::string("Sign: password empty=") + (pin_.empty() ? "1" : "0") +
          " hashLen=" + std::to_string(hashed.size()) + " session state=" + decimal(session->state));
    debug("Sign input hash : " + (hashed.empty() ? "NULL or empty" : hexadecimal(hashed)));
    if (const int status = sign(*session, hashed); status != 0)
        return end(*session, CKR_FUNCTION_FAILED, "Sign hash failed : " + std::to_string(status));
    return deliver(*session, session->result, pSignature, pulSignatureLen);
}

CK_RV Model::addPart(ModelSession& session, const std::string& function, int code, std::span<const CK_BYTE> part)
{
    if (code == 0) {
        session.hashed.insert(session.hashed.end(), part.begin(), part.end());
        return CKR_OK;
    }
    if (session.hashContext == nullptr) {
        const int status =
            attempt([&] { return device_.velkor_initHash(session.device(), code, &session.hashContext, library_); });
        if (status != 0)
            return end(session, CKR_FUNCTION_FAILED, function + ": initHash failed " + std::to_string(status));
    }
    const int status = attempt([&] {
        return device_.velkor_updateHash(session.hashContext, part.data(), static_cast<int>(part.size()), library_);
    });
    if (status == 0)
        return CKR_OK;
    session.hashContext = nullptr;
    return end(session, CKR_FUNCTION_FAILED, function + ": updateHash failed " + std::to_string(status));
}

int Model::finishParts(ModelSession& session)
{
    DeviceBytes digest(HASH_CAPACITY);
    int length = HASH_CAPACITY;
    void* context = std::exchange(session.hashContext, nullptr);
    const int status = attempt([&] { return device_.velkor_finalHash(context, digest.data(), &length, library_); });
    session.hashed.clear();
    if (status != 0)
        return status;
    digest.resize(static_cast<std::size_t>(length));
    session.hashed = digest;
    return 0;
}

CK_RV Model::C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    ModelSession* session = goOn("C_SignUpdate", hSession, OP_SIGN);
    if (session == nullptr)
        return code_;
    if (pPart == nullptr || ulPartLen == 0)
        return refuse(CKR_ARGUMENTS_BAD,
                      "C_SignUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=" + decimal(ulPartLen));
    return addPart(*session, "C_SignUpdate", signatureRow(session->mechanism)->hash, bytesAt(pPart, ulPartLen));
}

CK_RV Model::C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen)
{
    ModelSession* session = goOn("C_SignFinal", hSession, OP_SIGN);
    if (session == nullptr)
        return code_;
    if (pulSignatureLen == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_SignFinal: pulSignatureLen is NULL");
    if (!session->result.empty())
        return deliver(*session, session->result, pSignature, pulSignatureLen);
    if (signatureRow(session->mechanism)->hash != 0) {
        if (const int status = finishParts(*session); status != 0)
            return end(*session, CKR_FUNCTION_FAILED, "C_SignFinal: finalHash failed " + std::to_string(status));
    }
    const DeviceBytes hashed = std::exchange(session->hashed, {});
    if (const int status = sign(*session, hashed); status != 0)
        return end(*session, CKR_FUNCTION_FAILED, "C_SignFinal: signHash failed " + std::to_string(status));
    return deliver(*session, session->result, pSignature, pulSignatureLen);
}

// ---- Verification ----

CK_RV Model::C_VerifyInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    ModelSession* session = begin("C_VerifyInit", hSession, false, true);
    if (session == nullptr)
        return code_;
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_VerifyInit: pMechanism is NULL");
    const SignatureRow* row = signatureRow(pMechanism->mechanism);
    if (row == nullptr)
        return refuse(CKR_MECHANISM_INVALID, "C_VerifyInit: unsupported mechanism=" + decimal(pMechanism->mechanism));
    if (hKey < PRIVATE_KEYS)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "C_VerifyInit: invalid hKey=" + decimal(hKey));
    if (keyPair(*session, hKey - (hKey >= PUBLIC_KEYS ? PUBLIC_KEYS : PRIVATE_KEYS)) == nullptr)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Invalid input handle in verify : " + decimal(hKey));
    if (row->isPss && !firmwareIsRecent(*session))
        return refuse(CKR_MECHANISM_INVALID,
                      "C_VerifyInit: CKM_RSA_PKCS_PSS not supported on firmware " + session->token.firmwareVersion);
    session->mechanism = row->type;
    session->isPss = row->isPss;
    session->operation = OP_VERIFY;
    return CKR_OK;
}

CK_RV Model::C_Verify(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
                      CK_ULONG ulSignatureLen)
{
    ModelSession* session = goOn("C_Verify", hSession, OP_VERIFY);
    if (session == nullptr)
        return code_;
    if (pData == nullptr || pSignature == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Verify: pData or pSignature is NULL");
    if (ulDataLen == 0 || ulSignatureLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_Verify: ulDataLen or ulSignatureLen <= 0, ulDataLen=" + decimal(ulDataLen) +
                                             " ulSignatureLen=" + decimal(ulSignatureLen));
    const auto data = bytesAt(pData, ulDataLen);
    DeviceBytes hashed(data.begin(), data.end());
    if (const int code = signatureRow(session->mechanism)->hash; code != 0) {
        std::string failed;
        if (const int status = hash(*session, code, data, hashed, failed); status != 0)
            return end(*session, CKR_FUNCTION_FAILED,
                       "C_Verify: " + failed + "Hash failed ret=" + std::to_string(status));
    }
    DeviceBytes publicKey = publicKeyOf(lastKeyPair_);
    if (isPublicKeyPassedAsIs(lastKeyPair_)) {
        debug("Public key passed as-is");
    } else {
        debug("Public key is not der need to convert to the der");
        publicKey = publicKeyInfo(publicKey);
    }
    session->operation = OP_NONE;
    const int status = attempt([&] {
        return device_.velkor_verifySignatureHash(lastKeyPair_.keyKind, session->device(), hashed.data(),
                                                  lengthOf(hashed), publicKey.data(), lengthOf(publicKey), pSignature,
                                                  static_cast<int>(ulSignatureLen), library_, session->isPss);
    });
    if (status != 0)
        return refuse(CKR_SIGNATURE_INVALID, "Verify signature failed : " + std::to_string(status));
    return CKR_OK;
}

CK_RV Model::C_VerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    ModelSession* session = goOn("C_VerifyUpdate", hSession, OP_VERIFY);
    if (session == nullptr)
        return code_;
    if (pPart == nullptr || ulPartLen == 0)
        return refuse(CKR_ARGUMENTS_BAD,
                      "C_VerifyUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=" + decimal(ulPartLen));
    return addPart(*session, "C_VerifyUpdate", signatureRow(session->mechanism)->multiPartHash,
                   bytesAt(pPart, ulPartLen));
}

CK_RV Model::C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen)
{
    ModelSession* session = goOn("C_VerifyFinal", hSession, OP_VERIFY);
    if (session == nullptr)
        return code_;
    if (pSignature == nullptr || ulSignatureLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_VerifyFinal: pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=" +
                                             decimal(ulSignatureLen));
    if (signatureRow(session->mechanism)->multiPartHash != 0) {
        if (const int status = finishParts(*session); status != 0)
            return end(*session, CKR_FUNCTION_FAILED, "C_VerifyFinal: finalHash failed " + std::to_string(status));
    }
    const DeviceBytes hashed = std::exchange(session->hashed, {});
    session->operation = OP_NONE;
    const int status = attempt([&] {
        return device_.velkor_verifySignatureHash(
            lastKeyPair_.keyKind, session->device(), hashed.data(), lengthOf(hashed), lastKeyPair_.publicKey,
            lastKeyPair_.publicKeyLength, pSignature, static_cast<int>(ulSignatureLen), library_, false);
    });
    if (status != 0)
        return refuse(CKR_SIGNATURE_INVALID, "C_VerifyFinal: verify failed " + std::to_string(status));
    return CKR_OK;
}

// ---- Encryption and decryption ----

CK_RV Model::selectCipherKey(ModelSession& session, const CK_MECHANISM& mechanism, CK_OBJECT_HANDLE hKey)
{
    const CK_MECHANISM_TYPE type = mechanism.mechanism;
    if (type != CKM_RSA_PKCS && type != CKM_RSA_PKCS_OAEP)
        return refuse(CKR_MECHANISM_INVALID, "C_EncryptInit: unsupported mechanism=" + decimal(type));
    const bool isOaep = type == CKM_RSA_PKCS_OAEP;
    if (!isOaep && hasParameter(mechanism))
        return refuse(CKR_MECHANISM_PARAM_INVALID,
                      "C_EncryptInit: mechanism param invalid for mechanism=" + decimal(type));
    if (isOaep && !firmwareIsRecent(session))
        return refuse(CKR_MECHANISM_INVALID,
                      "C_EncryptInit: CKM_RSA_PKCS_OAEP not supported on firmware " + session.token.firmwareVersion);
    if (hKey < (isOaep ? PUBLIC_KEYS : PRIVATE_KEYS))
        return refuse(CKR_OBJECT_HANDLE_INVALID,
                      "C_EncryptInit: invalid hKey=" + decimal(hKey) + (isOaep ? " for CKM_RSA_PKCS_OAEP" : ""));
    if (keyPair(session, hKey - (hKey >= PUBLIC_KEYS ? PUBLIC_KEYS : PRIVATE_KEYS)) != nullptr)
        return CKR_OK;
    return refuse(CKR_OBJECT_HANDLE_INVALID, (isOaep ? "C_EncryptInit: invalid input handle for OAEP encrypt : "
                                                     : "Invalid input handle in encrypt : ") +
                                                 decimal(hKey));
}

CK_RV Model::C_EncryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    ModelSession* session = begin("C_EncryptInit", hSession, false, true);
    if (session == nullptr)
        return code_;
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_EncryptInit: pMechanism is NULL");
    if (const CK_RV code = selectCipherKey(*session, *pMechanism, hKey); code != CKR_OK)
        return code;
    session->cipherMechanism = pMechanism->mechanism;
    session->operation = session->operation == OP_DIGEST ? OP_DIGEST_ENCRYPT : OP_ENCRYPT;
    session->result.clear();
    return CKR_OK;
}

CK_RV Model::C_Encrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pEncryptedData,
                       CK_ULONG_PTR pulEncryptedDataLen)
{
    ModelSession* session = goOn("C_Encrypt", hSession, OP_ENCRYPT);
    if (session == nullptr)
        return code_;
    if (pData == nullptr || ulDataLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_Encrypt: pData is NULL or ulDataLen<=0, ulDataLen=" + decimal(ulDataLen));
    if (pulEncryptedDataLen == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Encrypt: pulEncryptedDataLen is NULL");
    if (session->result.empty()) {
        const DeviceBytes key = publicKeyInfo(publicKeyOf(lastKeyPair_));
        const PaddingMode padding =
            session->cipherMechanism == CKM_RSA_PKCS_OAEP ? PaddingMode::Oaep : PaddingMode::Pkcs1;
        DeviceBytes out(CIPHERTEXT_CAPACITY);
        int length = 0;
        const int status = attempt([&] {
            return device_.velkor_encrypt(encryptionType(lastKeyPair_.keyKind), padding, pData,
                                          static_cast<int>(ulDataLen), out.data(), &length, key.data(), lengthOf(key),
                                          library_);
        });
        if (status != 0) {
            session->cipherMechanism = 0;
            return end(*session, CKR_FUNCTION_FAILED, "Encrypt data failed : " + std::to_string(status));
        }
        out.resize(static_cast<std::size_t>(length));
        session->result = out;
    }
    return deliver(*session, session->result, pEncryptedData, pulEncryptedDataLen);
}

CK_RV Model::selectDecryptionKey(ModelSession& session, const CK_MECHANISM& mechanism, CK_OBJECT_HANDLE hKey)
{
    const CK_MECHANISM_TYPE type = mechanism.mechanism;
    if (type != CKM_RSA_PKCS && type != CKM_RSA_PKCS_OAEP)
        return refuse(CKR_MECHANISM_INVALID, "C_DecryptInit: unsupported mechanism=" + decimal(type));
    const bool isOaep = type == CKM_RSA_PKCS_OAEP;
    if (!isOaep && hasParameter(mechanism))
        return refuse(CKR_MECHANISM_PARAM_INVALID, "C_DecryptInit: mechanism param invalid for CKM_RSA_PKCS");
    if (isOaep && !firmwareIsRecent(session))
        return refuse(CKR_MECHANISM_INVALID,
                      "CKM_RSA_PKCS_OAEP not supported on firmware " + session.token.firmwareVersion);
    if (hKey < PRIVATE_KEYS)
        return refuse(CKR_OBJECT_HANDLE_INVALID, "C_DecryptInit: invalid hKey=" + decimal(hKey) +
                                                     (isOaep ? " for CKM_RSA_PKCS_OAEP" : " for CKM_RSA_PKCS"));
    if (keyPair(session, hKey - PRIVATE_KEYS) != nullptr)
        return CKR_OK;
    return refuse(CKR_OBJECT_HANDLE_INVALID,
                  (isOaep ? "Invalid input handle in decrypt OAEP : " : "Invalid input handle in decrypt : ") +
                      decimal(hKey));
}

CK_RV Model::C_DecryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    ModelSession* session = begin("C_DecryptInit", hSession, true, true);
    if (session == nullptr)
        return code_;
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_DecryptInit: pMechanism is NULL");
    if (const CK_RV code = selectDecryptionKey(*session, *pMechanism, hKey); code != CKR_OK)
        return code;
    session->operation = session->operation == OP_DIGEST ? OP_DIGEST_DECRYPT : OP_DECRYPT;
    session->result.clear();
    return CKR_OK;
}

CK_RV Model::C_Decrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData, CK_ULONG ulEncryptedDataLen,
                       CK_BYTE_PTR pData, CK_ULONG_PTR pulDataLen)
{
    ModelSession* session = goOn("C_Decrypt", hSession, OP_DECRYPT);
    if (session == nullptr)
        return code_;
    if (pEncryptedData == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Decrypt: pEncryptedData is NULL");
    if (ulEncryptedDataLen == 0)
        return refuse(CKR_ARGUMENTS_BAD,
                      "C_Decrypt: ulEncryptedDataLen<=0, ulEncryptedDataLen=" + decimal(ulEncryptedDataLen));
    if (pulDataLen == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Decrypt: pulDataLen is NULL");
    if (session->result.empty()) {
        unsigned char* plain = nullptr;
        int length = 0;
        const int status = attempt([&] {
            return device_.velkor_decrypt(session->device(), lastKeyPair_.keyIdentifier, pin_.c_str(), pEncryptedData,
                                          static_cast<int>(ulEncryptedDataLen), &plain, &length,
                                          lastKeyPair_.deviceFlag, library_);
        });
        if (status == 0)
            session->result.assign(plain, plain + length);
        std::free(plain);
        if (status != 0) // The operation stays active.
            return refuse(CKR_FUNCTION_FAILED, "Dacrypt data failed : " + std::to_string(status));
    }
    return deliver(*session, session->result, pData, pulDataLen);
}
