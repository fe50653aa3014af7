#include "crypto/signing.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "crypto/key_selection.h"
#include "crypto/operation.h"
#include "frame/module_state.h"
#include "log/log.h"
#include "mechanisms/mechanism_table.h"
#include "mechanisms/token_policy.h"
#include "util/attributes.h"
#include "util/bytes.h"
#include "util/der.h"
#include "util/utils.h"
#include "velkor/device_service.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

constexpr HashFailureTexts SIGN_HASH_FAILURES = {"init hash failed ", "update hash failed ", "final hash failed "};
constexpr HashFailureTexts SIGN_PART_FAILURES = {"C_SignUpdate: initHash failed ", "C_SignUpdate: updateHash failed ",
                                                 nullptr};

constexpr unsigned char SHA1_IDENTIFIER[] = {0x2B, 0x0E, 0x03, 0x02, 0x1A};
constexpr unsigned char MD5_IDENTIFIER[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x05};
constexpr std::size_t DIGEST_INFO_MIN_SIZE = 11;
constexpr std::size_t SHA1_SIZE = 20;
constexpr std::size_t MD5_SIZE = 16;

/// Looks for an object identifier at every offset: the input is not parsed.
bool isDigestInfoWith(Bytes input, Bytes identifier)
{
    return input.size() >= DIGEST_INFO_MIN_SIZE && input.front() == DER_TAG_SEQUENCE &&
           std::search(input.begin(), input.end(), identifier.begin(), identifier.end()) != input.end();
}

/// Inputs of raw mechanisms that a FIPS token does not sign.
struct FipsRule {
    CK_MECHANISM_TYPE mechanism;
    bool (*isRefused)(Bytes input);
    const char* text;
};

constexpr FipsRule FIPS_RULES[] = {
    {CKM_RSA_PKCS, [](Bytes input) { return isDigestInfoWith(input, SHA1_IDENTIFIER); },
     "C_Sign: SHA1 DigestInfo signing not allowed on FIPS 140-3 token"},
    {CKM_RSA_PKCS, [](Bytes input) { return isDigestInfoWith(input, MD5_IDENTIFIER); },
     "C_Sign: MD5 DigestInfo signing not allowed on FIPS 140-3 token"},
    {CKM_ECDSA, [](Bytes input) { return input.size() == SHA1_SIZE; },
     "C_Sign: SHA1 hash signing via CKM_ECDSA not allowed on FIPS 140-3 token"},
    {CKM_ECDSA, [](Bytes input) { return input.size() == MD5_SIZE; },
     "C_Sign: MD5 hash signing via CKM_ECDSA not allowed on FIPS 140-3 token"},
    {CKM_RSA_PKCS_PSS, [](Bytes input) { return input.size() == SHA1_SIZE; },
     "C_Sign: SHA1 hash signing via CKM_RSA_PKCS_PSS not allowed on FIPS 140-3 token"},
    {CKM_RSA_PKCS_PSS, [](Bytes input) { return input.size() == MD5_SIZE; },
     "C_Sign: MD5 hash signing via CKM_RSA_PKCS_PSS not allowed on FIPS 140-3 token"},
};

CK_RV refuseByFipsRules(const SessionRecord& session, Bytes input)
{
    if (!isFipsToken(session.token))
        return CKR_OK;
    for (const FipsRule& rule : FIPS_RULES) {
        if (rule.mechanism == session.mechanism && rule.isRefused(input))
            return refuse(CKR_MECHANISM_INVALID, rule.text);
    }
    return CKR_OK;
}

CK_RV checkMechanism(const SessionRecord& session, const CK_MECHANISM& mechanism, const MechanismRow* row)
{
    const CK_MECHANISM_TYPE type = mechanism.mechanism;
    if (row != nullptr && row->fipsLimited && isFipsToken(session.token))
        return refuse(CKR_MECHANISM_INVALID, "C_SignInit: SHA1 signing not allowed on FIPS 140-3 token");
    if (row == nullptr)
        return refuse(CKR_MECHANISM_INVALID, "C_SignInit: unsupported mechanism=", type);
    if (!row->isPss) {
        if (hasParameter(mechanism))
            return refuse(CKR_MECHANISM_PARAM_INVALID, "C_SignInit: mechanism param invalid for mechanism=", type);
        return CKR_OK;
    }
    logDebug("firmware veriosn :: ", session.token.firmwareVersion);
    if (!isFirmwareRecent(session.token))
        return refuse(CKR_MECHANISM_INVALID, "C_SignInit: CKM_RSA_PKCS_PSS not supported on firmware ",
                      session.token.firmwareVersion);
    return CKR_OK;
}

/// Has the device sign into `resultBuffer`; gives its status.
int signHash(SessionRecord& session, Bytes hash)
{
    const VelkorKeyPair keyPair = keyPairInUse(session);
    std::array<unsigned char, SIGNATURE_CAPACITY> signature{};
    int length = SIGNATURE_CAPACITY;
    const int status = velkor_signHash(session.deviceId(), keyPair.keyIdentifier, cachedPassword().c_str(), hash.data(),
                                       deviceLength(hash.size()), signature.data(), &length, false,
                                       moduleState().libraryInstance, session.isPss);
    if (status == 0)
        session.resultBuffer.assign(signature.begin(), signature.begin() + std::clamp(length, 0, SIGNATURE_CAPACITY));
    return status;
}

void logInput(const SessionRecord& session, Bytes hash)
{
    logDebug(
        "Sign: password empty=", [] { return decimal(cachedPassword().empty() ? 1 : 0); }, " hashLen=", hash.size(),
        " session state=", [&] { return decimal(stateOf(session)); });
    logDebug("Sign input hash : ", [&] { return hash.empty() ? "NULL or empty" : Utils::toHexadecimal(hash); });
}

CK_RV hashAndSign(SessionRecord& session, const MechanismRow& row, const CK_BYTE* pData, CK_ULONG ulDataLen)
{
    Bytes input(pData, ulDataLen);
    SecretBytes hash;
    if (row.family == SignatureFamily::Raw) {
        const CK_RV result = refuseByFipsRules(session, input);
        if (result != CKR_OK)
            return result;
    } else {
        const CK_RV result = hashData(session, row.hash, pData, ulDataLen, SIGN_HASH_FAILURES, hash);
        if (result != CKR_OK)
            return result;
        input = hash;
    }
    logInput(session, input);
    const int status = signHash(session, input);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "Sign hash failed : ", status);
    return CKR_OK;
}

/// A mechanism that does not sign leaves the operation active; what fails behind that ends it.
CK_RV signData(SessionRecord& session, const CK_BYTE* pData, CK_ULONG ulDataLen)
{
    const MechanismRow* row = findSignatureMechanism(session.mechanism);
    if (row == nullptr)
        return refuse(CKR_MECHANISM_INVALID, "C_Sign: unsupported mechanism=", session.mechanism);
    return endIfFailed(session, [&] { return hashAndSign(session, *row, pData, ulDataLen); });
}

CK_RV signGathered(SessionRecord& session)
{
    SecretBytes hash = std::exchange(session.hashBuffer, {});
    if (findSignatureMechanism(session.mechanism)->family == SignatureFamily::Hash) {
        const int status = finishHash(std::exchange(session.hashContext, nullptr), HASH_CAPACITY, hash);
        if (status != 0)
            return refuse(CKR_FUNCTION_FAILED, "C_SignFinal: finalHash failed ", status);
    }
    const int status = signHash(session, hash);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "C_SignFinal: signHash failed ", status);
    return CKR_OK;
}

} // namespace

CK_RV signInit(SessionRecord& session, const CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey)
{
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_SignInit: pMechanism is NULL");
    const MechanismRow* row = findSignatureMechanism(pMechanism->mechanism);
    CK_RV result = checkMechanism(session, *pMechanism, row);
    if (result != CKR_OK)
        return result;
    session.mechanism = row->type;
    session.isPss = row->isPss;
    result = selectKey(session, KeyUse::Sign, hKey);
    if (result != CKR_OK)
        return result;
    wipe(session.resultBuffer);
    session.activeOperation = ActiveOperation::Sign;
    return CKR_OK;
}

CK_RV sign(SessionRecord& session, const CK_BYTE* pData, CK_ULONG ulDataLen, CK_BYTE* pSignature,
           CK_ULONG* pulSignatureLen)
{
    if (pData == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Sign: pData is NULL");
    if (ulDataLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_Sign: ulDataLen<=0, ulDataLen=", ulDataLen);
    if (pulSignatureLen == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_Sign: pulSignatureLen is NULL");
    logDebug("sign echanism : ", session.mechanism);
    return deliver(session, "C_Sign", session.resultBuffer, pSignature, pulSignatureLen,
                   [&] { return signData(session, pData, ulDataLen); });
}

CK_RV signUpdate(SessionRecord& session, const CK_BYTE* pPart, CK_ULONG ulPartLen)
{
    if (pPart == nullptr || ulPartLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_SignUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
    const MechanismRow* row = findSignatureMechanism(session.mechanism);
    if (row->family == SignatureFamily::Hash)
        return endIfFailed(session, [&] { return hashPart(session, row->hash, pPart, ulPartLen, SIGN_PART_FAILURES); });
    session.hashBuffer.insert(session.hashBuffer.end(), pPart, pPart + ulPartLen);
    return CKR_OK;
}

CK_RV signFinal(SessionRecord& session, CK_BYTE* pSignature, CK_ULONG* pulSignatureLen)
{
    if (pulSignatureLen == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_SignFinal: pulSignatureLen is NULL");
    return deliver(session, "C_SignFinal", session.resultBuffer, pSignature, pulSignatureLen,
                   [&] { return endIfFailed(session, [&] { return signGathered(session); }); });
}

} // namespace velkor
