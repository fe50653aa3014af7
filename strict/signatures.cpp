// Signing and verifying.
#include <array>

#include "objects/handles.h"
#include "strict/operation.h"
#include "strict/sessions.h"
#include "velkor/device_service.h"

namespace velkor::strict
{
namespace
{

constexpr Use SIGNING = {"C_SignInit", CKO_PRIVATE_KEY, CKA_SIGN, CKF_SIGN};
constexpr Use VERIFYING = {"C_VerifyInit", CKO_PUBLIC_KEY, CKA_VERIFY, CKF_VERIFY};
/// Longer data is hashed piece by piece.
constexpr std::size_t IN_ONE_CALL = 1U << 30U;

std::size_t signatureSize(const Contents& key)
{
    return key.keyType == CKK_EC ? 2 * ((key.bits + 7) / 8) : key.modulus.size();
}

/// What the module is to be called with: the data and a mechanism that hashes it, or the hash and the one that takes
/// it.
struct Call {
    CK_MECHANISM_TYPE mechanism;
    Bytes input;
    SecretBytes hashed; ///< Where the input is not the host's data.
};

CK_RV prepareCall(const char* name, Token& token, KeyOperation& operation, Bytes data, Call& call)
{
    const Mechanism& mechanism = *operation.mechanism;
    call.mechanism = mechanism.type;
    call.input = data;
    const bool hashesInModule = mechanism.hash != nullptr && operation.way != Way::InParts && mechanism.isInModule &&
                                !data.empty() && data.size() <= IN_ONE_CALL;
    if (hashesInModule)
        return CKR_OK;
    const CK_RV result = prepareInput(token, operation, data, call.hashed);
    if (result != CKR_OK)
        return result;
    call.mechanism = mechanism.raw;
    call.input = call.hashed;
    return mechanism.hash == nullptr ? checkInput(name, operation, call.input.size()) : CKR_OK;
}

CK_RV signInModule(CK_SESSION_HANDLE session, const KeyOperation& operation, const Call& call, SecretBytes& signature)
{
    CK_MECHANISM mechanism = {call.mechanism, nullptr, 0};
    CK_RV result = module().C_SignInit(session, &mechanism, PRIVATE_KEY_BASE + operation.pair);
    if (result != CKR_OK)
        return result == CKR_OBJECT_HANDLE_INVALID ? CKR_KEY_HANDLE_INVALID : result;
    signature.resize(SIGNATURE_CAPACITY);
    CK_ULONG length = SIGNATURE_CAPACITY;
    result = module().C_Sign(session, const_cast<CK_BYTE_PTR>(call.input.data()),
                             static_cast<CK_ULONG>(call.input.size()), signature.data(), &length);
    signature.resize(result == CKR_OK ? length : 0);
    // A FIPS token does not sign what looks like a SHA-1 or MD5 hash.
    return result == CKR_MECHANISM_INVALID ? CKR_DATA_INVALID : result;
}

CK_RV makeSignature(const char* name, Token& token, KeyOperation& operation, Bytes data)
{
    Call call{};
    CK_RV result = checkLogin(name, token, operation);
    if (result == CKR_OK)
        result = prepareCall(name, token, operation, data, call);
    if (result != CKR_OK)
        return result;
    return useKeyPair(
        token, Needs::Login, operation.pair, operation.contents->identity,
        [&](CK_SESSION_HANDLE session) { return signInModule(session, operation, call, operation.result); });
}

CK_RV signInto(const char* name, Session& session, Bytes data, Output output)
{
    auto& operation = session.operations.sign;
    CK_RV result = CKR_OK;
    const std::size_t expected = operation->isFinished ? operation->result.size() : signatureSize(*operation->contents);
    if (answersLength(name, output, expected, result))
        return result;
    if (!operation->isFinished)
        result = withoutKey(makeSignature(name, session.token, *operation, data));
    if (result != CKR_OK)
        return endUnless(operation, refuse(result, name, ": not signed : ", result), false);
    operation->isFinished = true;
    if (answersLength(name, output, operation->result.size(), result))
        return result;
    copyOut(output, operation->result);
    return endUnless(operation, CKR_OK, false);
}

CK_RV verifyInModule(CK_SESSION_HANDLE session, const KeyOperation& operation, const Call& call, Bytes signature)
{
    CK_MECHANISM mechanism = {call.mechanism, nullptr, 0};
    const CK_RV result = module().C_VerifyInit(session, &mechanism, PUBLIC_KEY_BASE + operation.pair);
    if (result != CKR_OK)
        return result == CKR_OBJECT_HANDLE_INVALID ? CKR_KEY_HANDLE_INVALID : result;
    return module().C_Verify(session, const_cast<CK_BYTE_PTR>(call.input.data()),
                             static_cast<CK_ULONG>(call.input.size()), const_cast<CK_BYTE_PTR>(signature.data()),
                             static_cast<CK_ULONG>(signature.size()));
}

CK_RV checkSignature(const char* name, Token& token, KeyOperation& operation, Bytes data, Bytes signature)
{
    const std::size_t expected = signatureSize(*operation.contents);
    if (signature.size() != expected)
        return refuse(CKR_SIGNATURE_LEN_RANGE, name,
                      ": the signature has a wrong length, ulSignatureLen=", signature.size());
    Call call{};
    CK_RV result = prepareCall(name, token, operation, data, call);
    if (result != CKR_OK)
        return result;
    result = useKeyPair(token, Needs::Nothing, operation.pair, operation.contents->identity,
                        [&](CK_SESSION_HANDLE session) { return verifyInModule(session, operation, call, signature); });
    return withoutKey(result);
}

} // namespace

CK_RV signInit(Session& session, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    const Mechanism* mechanism = pMechanism != nullptr ? findSignatureMechanism(pMechanism->mechanism) : nullptr;
    return beginWithKey(session, session.operations.sign, SIGNING, mechanism, pMechanism, hKey);
}

CK_RV sign(Session& session, CK_BYTE_PTR pData, CK_ULONG ulDataLen, Output output)
{
    auto& operation = session.operations.sign;
    if (!operation)
        return refuseNotActive("C_Sign");
    if (operation->way == Way::InParts)
        return endUnless(operation, refuse(CKR_OPERATION_ACTIVE, "C_Sign: signing in parts is active"), false);
    if (output.length == nullptr || (pData == nullptr && ulDataLen != 0))
        return endUnless(operation, refuse(CKR_ARGUMENTS_BAD, "C_Sign: an argument is NULL"), false);
    operation->way = Way::InOnePart;
    return signInto("C_Sign", session, {pData, ulDataLen}, output);
}

CK_RV signUpdate(Session& session, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    auto& operation = session.operations.sign;
    if (!operation)
        return refuseNotActive("C_SignUpdate");
    const CK_RV result = addPart("C_SignUpdate", session.token, *operation, {pPart, ulPartLen});
    return endUnless(operation, result, result == CKR_OK);
}

CK_RV signFinal(Session& session, Output output)
{
    auto& operation = session.operations.sign;
    if (!operation)
        return refuseNotActive("C_SignFinal");
    if (operation->way == Way::InOnePart)
        return endUnless(operation, refuseParts("C_SignFinal"), false);
    if (output.length == nullptr)
        return endUnless(operation, refuse(CKR_ARGUMENTS_BAD, "C_SignFinal: pulSignatureLen is NULL"), false);
    operation->way = Way::InParts;
    return signInto("C_SignFinal", session, {}, output);
}

CK_RV verifyInit(Session& session, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    const Mechanism* mechanism = pMechanism != nullptr ? findSignatureMechanism(pMechanism->mechanism) : nullptr;
    return beginWithKey(session, session.operations.verify, VERIFYING, mechanism, pMechanism, hKey);
}

CK_RV verify(Session& session, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen)
{
    auto& operation = session.operations.verify;
    if (!operation)
        return refuseNotActive("C_Verify");
    if (operation->way == Way::InParts)
        return endUnless(operation, refuse(CKR_OPERATION_ACTIVE, "C_Verify: verifying in parts is active"), false);
    if ((pData == nullptr && ulDataLen != 0) || (pSignature == nullptr && ulSignatureLen != 0))
        return endUnless(operation, refuse(CKR_ARGUMENTS_BAD, "C_Verify: an argument is NULL"), false);
    const CK_RV result =
        checkSignature("C_Verify", session.token, *operation, {pData, ulDataLen}, {pSignature, ulSignatureLen});
    return endUnless(operation, result, false);
}

CK_RV verifyUpdate(Session& session, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    auto& operation = session.operations.verify;
    if (!operation)
        return refuseNotActive("C_VerifyUpdate");
    const CK_RV result = addPart("C_VerifyUpdate", session.token, *operation, {pPart, ulPartLen});
    return endUnless(operation, result, result == CKR_OK);
}

CK_RV verifyFinal(Session& session, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen)
{
    auto& operation = session.operations.verify;
    if (!operation)
        return refuseNotActive("C_VerifyFinal");
    if (pSignature == nullptr && ulSignatureLen != 0)
        return endUnless(operation, refuse(CKR_ARGUMENTS_BAD, "C_VerifyFinal: pSignature is NULL"), false);
    operation->way = Way::InParts;
    const CK_RV result = checkSignature("C_VerifyFinal", session.token, *operation, {}, {pSignature, ulSignatureLen});
    return endUnless(operation, result, false);
}

} // namespace velkor::strict
