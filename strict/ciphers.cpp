// Encryption and decryption. Parts are gathered and go to the device as one.
#include "objects/handles.h"
#include "strict/operation.h"
#include "strict/sessions.h"
#include "velkor/device_service.h"

namespace velkor::strict
{
namespace
{

constexpr Use ENCRYPTING = {"C_EncryptInit", CKO_PUBLIC_KEY, CKA_ENCRYPT, CKF_ENCRYPT};
constexpr Use DECRYPTING = {"C_DecryptInit", CKO_PRIVATE_KEY, CKA_DECRYPT, CKF_DECRYPT};
/// The module writes as much as the device gives, whatever room it is told; a plaintext is shorter than its key.
constexpr CK_ULONG RESULT_ROOM = CIPHERTEXT_CAPACITY;

std::size_t overheadOf(Padding padding)
{
    constexpr std::size_t PKCS1 = 11;
    constexpr std::size_t OAEP_SHA1 = 42;
    return padding == Padding::Oaep ? OAEP_SHA1 : PKCS1;
}

CK_RV checkPlaintext(const char* name, const KeyOperation& operation, std::size_t size)
{
    if (size == 0 || size + overheadOf(operation.mechanism->padding) > operation.contents->modulus.size())
        return refuse(CKR_DATA_LEN_RANGE, name, ": the data has a length that is not taken, ulDataLen=", size);
    return CKR_OK;
}

CK_RV checkCiphertext(const char* name, const KeyOperation& operation, std::size_t size)
{
    if (size != operation.contents->modulus.size())
        return refuse(CKR_ENCRYPTED_DATA_LEN_RANGE, name, ": not as long as the key, ulEncryptedDataLen=", size);
    return CKR_OK;
}

CK_RV encryptInModule(CK_SESSION_HANDLE session, const KeyOperation& operation, Bytes data, SecretBytes& result)
{
    CK_MECHANISM mechanism = {operation.mechanism->type, nullptr, 0};
    const CK_RV status = module().C_EncryptInit(session, &mechanism, PUBLIC_KEY_BASE + operation.pair);
    if (status != CKR_OK)
        return status == CKR_OBJECT_HANDLE_INVALID ? CKR_KEY_HANDLE_INVALID : status;
    result.resize(RESULT_ROOM);
    CK_ULONG length = RESULT_ROOM;
    const CK_RV done = module().C_Encrypt(session, const_cast<CK_BYTE_PTR>(data.data()),
                                          static_cast<CK_ULONG>(data.size()), result.data(), &length);
    result.resize(done == CKR_OK ? length : 0);
    return done;
}

/// The length is asked for first: the device alone knows it, and the module writes past any room.
CK_RV decryptInModule(CK_SESSION_HANDLE session, const KeyOperation& operation, Bytes data, SecretBytes& result)
{
    CK_MECHANISM mechanism = {operation.mechanism->type, nullptr, 0};
    const CK_RV status = module().C_DecryptInit(session, &mechanism, PRIVATE_KEY_BASE + operation.pair);
    if (status != CKR_OK)
        return status == CKR_OBJECT_HANDLE_INVALID ? CKR_KEY_HANDLE_INVALID : status;
    auto* input = const_cast<CK_BYTE_PTR>(data.data());
    const auto size = static_cast<CK_ULONG>(data.size());
    CK_ULONG length = 0;
    CK_RV done = module().C_Decrypt(session, input, size, nullptr, &length);
    if (done != CKR_OK)
        return done;
    result.resize(std::max(length, RESULT_ROOM));
    done = module().C_Decrypt(session, input, size, result.data(), &length);
    result.resize(done == CKR_OK ? length : 0);
    return done;
}

using CheckInput = CK_RV (*)(const char* name, const KeyOperation& operation, std::size_t size);
using Work = CK_RV (*)(CK_SESSION_HANDLE session, const KeyOperation& operation, Bytes data, SecretBytes& result);

/// What differs between the two directions.
struct Direction {
    std::optional<KeyOperation> Operations::*operation;
    Needs needs;
    CheckInput check;
    Work work;
    CK_RV failure; ///< What a failure of the device means where nothing else explains it.
};

constexpr Direction ENCRYPTION = {&Operations::encrypt, Needs::Nothing, checkPlaintext, encryptInModule,
                                  CKR_FUNCTION_FAILED};
constexpr Direction DECRYPTION = {&Operations::decrypt, Needs::Login, checkCiphertext, decryptInModule,
                                  CKR_ENCRYPTED_DATA_INVALID};

/// The longest output there can be, until it is known.
std::size_t outputSize(const KeyOperation& operation)
{
    return operation.isFinished ? operation.result.size() : operation.contents->modulus.size();
}

CK_RV transform(const char* name, Token& token, const Direction& direction, KeyOperation& operation, Bytes data)
{
    CK_RV result = checkLogin(name, token, operation);
    if (result == CKR_OK)
        result = direction.check(name, operation, data.size());
    if (result != CKR_OK)
        return result;
    result = useKeyPair(
        token, direction.needs, operation.pair, operation.contents->identity,
        [&](CK_SESSION_HANDLE session) { return direction.work(session, operation, data, operation.result); });
    operation.isFinished = result == CKR_OK;
    operation.input = secretCopyOf(data);
    return result == CKR_FUNCTION_FAILED && direction.failure != result ? unlessPinIsWrong(token, direction.failure)
                                                                        : result;
}

/// A ciphertext has the length of its key, so that a short buffer is told before the device works; a plaintext has to
/// be there first.
CK_RV transformInto(const char* name, Session& session, const Direction& direction, Bytes data, Output output)
{
    auto& operation = session.operations.*direction.operation;
    CK_RV result = CKR_OK;
    const bool isSizeKnown = operation->isFinished || direction.failure == CKR_FUNCTION_FAILED;
    if ((output.buffer == nullptr || isSizeKnown) && answersLength(name, output, outputSize(*operation), result))
        return result;
    if (!operation->isFinished)
        result = withoutKey(transform(name, session.token, direction, *operation, data));
    if (result != CKR_OK)
        return endUnless(operation, refuse(result, name, ": not done : ", result), false);
    if (answersLength(name, output, operation->result.size(), result))
        return result;
    copyOut(output, operation->result);
    return endUnless(operation, CKR_OK, false);
}

CK_RV inOnePart(const char* name, Session& session, const Direction& direction, Bytes data, Output output)
{
    auto& operation = session.operations.*direction.operation;
    if (!operation)
        return refuseNotActive(name);
    if (operation->way == Way::InParts)
        return endUnless(operation, refuse(CKR_OPERATION_ACTIVE, name, ": an operation in parts is active"), false);
    if (output.length == nullptr || (data.data() == nullptr && !data.empty()))
        return endUnless(operation, refuse(CKR_ARGUMENTS_BAD, name, ": an argument is NULL"), false);
    operation->way = Way::InOnePart;
    operation->isFinished = operation->isFinished && sameBytes(operation->input, data);
    return transformInto(name, session, direction, data, output);
}

/// All output comes with the final call.
CK_RV update(const char* name, Session& session, const Direction& direction, Bytes part, Output output)
{
    auto& operation = session.operations.*direction.operation;
    if (!operation)
        return refuseNotActive(name);
    if (operation->way == Way::InOnePart)
        return endUnless(operation, refuseParts(name), false);
    if (output.length == nullptr)
        return endUnless(operation, refuse(CKR_ARGUMENTS_BAD, name, ": the length is NULL"), false);
    if (operation->isFinished)
        return endUnless(operation, refuse(CKR_OPERATION_ACTIVE, name, ": all is done but fetching the output"), false);
    *output.length = 0;
    if (output.buffer == nullptr) // A question for the length: the part comes again.
        return CKR_OK;
    const CK_RV result = addPart(name, session.token, *operation, part);
    return endUnless(operation, result, result == CKR_OK);
}

CK_RV finish(const char* name, Session& session, const Direction& direction, Output output)
{
    auto& operation = session.operations.*direction.operation;
    if (!operation)
        return refuseNotActive(name);
    if (operation->way == Way::InOnePart)
        return endUnless(operation, refuseParts(name), false);
    if (output.length == nullptr)
        return endUnless(operation, refuse(CKR_ARGUMENTS_BAD, name, ": the length is NULL"), false);
    operation->way = Way::InParts;
    return transformInto(name, session, direction, operation->gathered, output);
}

} // namespace

CK_RV encryptInit(Session& session, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    const Mechanism* mechanism = pMechanism != nullptr ? findCipherMechanism(pMechanism->mechanism) : nullptr;
    return beginWithKey(session, session.operations.encrypt, ENCRYPTING, mechanism, pMechanism, hKey);
}

CK_RV encrypt(Session& session, CK_BYTE_PTR pData, CK_ULONG ulDataLen, Output output)
{
    return inOnePart("C_Encrypt", session, ENCRYPTION, {pData, ulDataLen}, output);
}

CK_RV encryptUpdate(Session& session, CK_BYTE_PTR pPart, CK_ULONG ulPartLen, Output output)
{
    return update("C_EncryptUpdate", session, ENCRYPTION, {pPart, ulPartLen}, output);
}

CK_RV encryptFinal(Session& session, Output output)
{
    return finish("C_EncryptFinal", session, ENCRYPTION, output);
}

CK_RV decryptInit(Session& session, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    const Mechanism* mechanism = pMechanism != nullptr ? findCipherMechanism(pMechanism->mechanism) : nullptr;
    return beginWithKey(session, session.operations.decrypt, DECRYPTING, mechanism, pMechanism, hKey);
}

CK_RV decrypt(Session& session, CK_BYTE_PTR pData, CK_ULONG ulDataLen, Output output)
{
    return inOnePart("C_Decrypt", session, DECRYPTION, {pData, ulDataLen}, output);
}

CK_RV decryptUpdate(Session& session, CK_BYTE_PTR pPart, CK_ULONG ulPartLen, Output output)
{
    return update("C_DecryptUpdate", session, DECRYPTION, {pPart, ulPartLen}, output);
}

CK_RV decryptFinal(Session& session, Output output)
{
    return finish("C_DecryptFinal", session, DECRYPTION, output);
}

} // namespace velkor::strict
