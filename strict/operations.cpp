// What operations share, and digests.
#include "strict/operations.h"

#include <array>
#include <utility>

#include "objects/handles.h"
#include "strict/attributes.h"
#include "strict/login.h"
#include "strict/objects.h"
#include "strict/operation.h"
#include "strict/sessions.h"
#include "velkor/device_service.h"

namespace velkor::strict
{
namespace
{

/// The device counts in signed 32-bit numbers.
constexpr std::size_t PIECE = 1U << 30U;

CK_BYTE_PTR inputPointer(Bytes data)
{
    return const_cast<CK_BYTE_PTR>(data.data());
}

CK_RV checkPermission(const Use& use, const View& view, const Mechanism& mechanism)
{
    if (view.objectClass != use.keyClass || view.contents->keyType != mechanism.keyType)
        return refuse(CKR_KEY_TYPE_INCONSISTENT, use.name, ": the key is of another kind, mechanism=", mechanism.type);
    SecretBytes permission;
    attributeOf(view, use.permission, permission);
    if (permission != SecretBytes{CK_TRUE})
        return refuse(CKR_KEY_FUNCTION_NOT_PERMITTED, use.name,
                      view.hasPair ? ": the key does not do this"
                                   : ": the pair of this public key is not on the token");
    if (use.flag == CKF_SIGN && mechanism.keyType == CKK_RSA && view.contents->modulus.size() < 256)
        return refuse(CKR_KEY_SIZE_RANGE, use.name, ": the key is too short, bytes=", view.contents->modulus.size());
    return CKR_OK;
}

/// A public key of the host's own is used through the token's pair of the same value.
CK_RV findPair(const Use& use, Token& token, const Object& key, KeyOperation& operation)
{
    if (key.moduleHandle != 0) {
        operation.pair = key.moduleHandle & PAIR_NUMBER;
        return CKR_OK;
    }
    CK_RV result = findPairOf(token, *operation.contents, operation.key);
    if (result != CKR_OK)
        return result;
    if (!operation.key)
        return refuse(CKR_KEY_FUNCTION_NOT_PERMITTED, use.name, ": the pair of this public key is not on the token");
    operation.pair = operation.key->moduleHandle & PAIR_NUMBER;
    View view;
    result = viewWithContents(use.name, token, operation.key, CKR_KEY_HANDLE_INVALID, view);
    operation.contents = view.contents;
    return result;
}

} // namespace

HashRun::~HashRun()
{
    if (!session_.isOpen())
        return;
    // The device forgets a hash only when it is finished.
    std::array<CK_BYTE, HASH_CAPACITY> forgotten{};
    CK_ULONG length = HASH_CAPACITY;
    if (module().C_DigestFinal(session_.handle(), forgotten.data(), &length) != CKR_OK)
        session_.spoil();
}

CK_RV HashRun::update(Token& token, Bytes data)
{
    if (data.empty())
        return CKR_OK;
    CK_RV result = CKR_OK;
    if (!session_.isOpen()) {
        ModuleSession session;
        result = borrowSession(token, session);
        if (result != CKR_OK)
            return result;
        CK_MECHANISM mechanism = {hash_->digest, nullptr, 0};
        result = module().C_DigestInit(session.handle(), &mechanism);
        if (result != CKR_OK) {
            session.spoil();
            return causeOfFailure(token, session.insertion(), result);
        }
        session_ = std::move(session);
    }
    while (!data.empty() && result == CKR_OK) {
        const Bytes piece = data.first(std::min(data.size(), PIECE));
        result = module().C_DigestUpdate(session_.handle(), inputPointer(piece), static_cast<CK_ULONG>(piece.size()));
        data = data.subspan(piece.size());
    }
    return result == CKR_OK ? CKR_OK : causeOfFailure(token, session_.insertion(), result);
}

CK_RV HashRun::finish(Token& token, SecretBytes& result)
{
    if (!session_.isOpen()) {
        result = secretCopyOf({hash_->ofNothing, hash_->size});
        return CKR_OK;
    }
    ModuleSession session = std::move(session_);
    result.resize(HASH_CAPACITY);
    CK_ULONG length = HASH_CAPACITY;
    const CK_RV status = module().C_DigestFinal(session.handle(), result.data(), &length);
    if (status != CKR_OK) {
        session.spoil();
        return causeOfFailure(token, session.insertion(), status);
    }
    result.resize(length);
    return CKR_OK;
}

CK_RV beginWithKey(Session& session, std::optional<KeyOperation>& slot, const Use& use, const Mechanism* mechanism,
                   CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    if (slot)
        return refuse(CKR_OPERATION_ACTIVE, use.name, ": an operation is active");
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, use.name, ": pMechanism is NULL");
    if (mechanism == nullptr || !isOffered(session.token, mechanism->type, use.flag))
        return refuse(CKR_MECHANISM_INVALID, use.name,
                      ": unsupported mechanism=", CK_MECHANISM_TYPE{pMechanism->mechanism});
    CK_RV result = checkParameter(use.name, *mechanism, *pMechanism);
    KeyOperation operation;
    if (result == CKR_OK)
        result = findObject(use.name, session, hKey, CKR_KEY_HANDLE_INVALID, operation.key);
    if (result == CKR_OK && !isKey(operation.key->objectClass))
        return refuse(operation.key->objectClass == CKO_SECRET_KEY ? CKR_KEY_TYPE_INCONSISTENT : CKR_KEY_HANDLE_INVALID,
                      use.name, ": not a key of a pair, handle=", hKey);
    View view;
    if (result == CKR_OK)
        result = viewWithContents(use.name, session.token, operation.key, CKR_KEY_HANDLE_INVALID, view);
    if (result == CKR_OK)
        result = checkPermission(use, view, *mechanism);
    if (result != CKR_OK)
        return result;
    operation.mechanism = mechanism;
    operation.contents = view.contents;
    operation.hashSize = hashSizeInParameter(*mechanism, *pMechanism);
    result = findPair(use, session.token, *operation.key, operation);
    if (result != CKR_OK)
        return result;
    if (mechanism->hash != nullptr)
        operation.run = HashRun(*mechanism->hash);
    slot = std::move(operation);
    return CKR_OK;
}

CK_RV checkLogin(const char* name, const Token& token, const KeyOperation& operation)
{
    if (operation.key->isPrivate && !isUserLoggedIn(token))
        return refuse(CKR_USER_NOT_LOGGED_IN, name, ": the user has logged out");
    return CKR_OK;
}

CK_RV addPart(const char* name, Token& token, KeyOperation& operation, Bytes part)
{
    if (part.data() == nullptr && !part.empty())
        return refuse(CKR_ARGUMENTS_BAD, name, ": pPart is NULL");
    if (operation.way == Way::InOnePart)
        return refuseParts(name);
    operation.way = Way::InParts;
    if (operation.mechanism->hash != nullptr)
        return operation.run.update(token, part);
    constexpr std::size_t LIMIT = 4096; // No key takes as much.
    if (operation.gathered.size() + part.size() > LIMIT)
        return refuse(CKR_DATA_LEN_RANGE, name, ": too much data, ulPartLen=", part.size());
    operation.gathered.insert(operation.gathered.end(), part.begin(), part.end());
    return CKR_OK;
}

CK_RV prepareInput(Token& token, KeyOperation& operation, Bytes data, SecretBytes& input)
{
    if (operation.mechanism->hash == nullptr) {
        input = operation.way == Way::InParts ? std::move(operation.gathered) : secretCopyOf(data);
        return CKR_OK;
    }
    const CK_RV result = operation.run.update(token, data);
    return result == CKR_OK ? operation.run.finish(token, input) : result;
}

CK_RV checkInput(const char* name, const KeyOperation& operation, std::size_t size)
{
    constexpr std::size_t PKCS1_OVERHEAD = 11;
    constexpr std::size_t BARE_HASHES[] = {20, 28, 32, 48, 64};
    const Mechanism& mechanism = *operation.mechanism;
    bool isGood = size != 0;
    if (mechanism.padding == Padding::Pkcs1) // The device would wrap a bare hash, and sign something else.
        isGood = isGood && size + PKCS1_OVERHEAD <= operation.contents->modulus.size() &&
                 std::find(std::begin(BARE_HASHES), std::end(BARE_HASHES), size) == std::end(BARE_HASHES);
    if (mechanism.padding == Padding::Pss)
        isGood = size == operation.hashSize;
    if (!isGood)
        return refuse(CKR_DATA_LEN_RANGE, name, ": the data has a length that is not taken, ulDataLen=", size);
    return CKR_OK;
}

CK_RV digestInit(Session& session, CK_MECHANISM_PTR pMechanism)
{
    if (session.operations.digest)
        return refuse(CKR_OPERATION_ACTIVE, "C_DigestInit: a digest is active");
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_DigestInit: pMechanism is NULL");
    const Hash* hash = findHash(pMechanism->mechanism);
    if (hash == nullptr)
        return refuse(CKR_MECHANISM_INVALID,
                      "C_DigestInit: unsupported mechanism=", CK_MECHANISM_TYPE{pMechanism->mechanism});
    if (pMechanism->pParameter != nullptr || pMechanism->ulParameterLen != 0)
        return refuse(CKR_MECHANISM_PARAM_INVALID,
                      "C_DigestInit: the mechanism has no parameter, mechanism=", hash->digest);
    session.operations.digest.emplace();
    session.operations.digest->hash = hash;
    session.operations.digest->run = HashRun(*hash);
    return CKR_OK;
}

CK_RV digest(Session& session, CK_BYTE_PTR pData, CK_ULONG ulDataLen, Output output)
{
    auto& operation = session.operations.digest;
    if (!operation)
        return refuseNotActive("C_Digest");
    if (operation->way == Way::InParts)
        return endUnless(operation, refuse(CKR_OPERATION_ACTIVE, "C_Digest: a digest in parts is active"), false);
    if (output.length == nullptr || (pData == nullptr && ulDataLen != 0))
        return endUnless(operation, refuse(CKR_ARGUMENTS_BAD, "C_Digest: an argument is NULL"), false);
    operation->way = Way::InOnePart;
    CK_RV result = CKR_OK;
    if (answersLength("C_Digest", output, operation->hash->size, result))
        return result;
    SecretBytes hash;
    result = operation->run.update(session.token, {pData, ulDataLen});
    if (result == CKR_OK)
        result = operation->run.finish(session.token, hash);
    if (result == CKR_OK)
        copyOut(output, hash);
    return endUnless(operation, result, false);
}

CK_RV digestUpdate(Session& session, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    auto& operation = session.operations.digest;
    if (!operation)
        return refuseNotActive("C_DigestUpdate");
    if (operation->way == Way::InOnePart)
        return endUnless(operation, refuseParts("C_DigestUpdate"), false);
    if (pPart == nullptr && ulPartLen != 0)
        return endUnless(operation, refuse(CKR_ARGUMENTS_BAD, "C_DigestUpdate: pPart is NULL"), false);
    operation->way = Way::InParts;
    const CK_RV result = operation->run.update(session.token, {pPart, ulPartLen});
    return endUnless(operation, result, result == CKR_OK);
}

CK_RV digestFinal(Session& session, Output output)
{
    auto& operation = session.operations.digest;
    if (!operation)
        return refuseNotActive("C_DigestFinal");
    if (operation->way == Way::InOnePart)
        return endUnless(operation, refuseParts("C_DigestFinal"), false);
    if (output.length == nullptr)
        return endUnless(operation, refuse(CKR_ARGUMENTS_BAD, "C_DigestFinal: pulDigestLen is NULL"), false);
    CK_RV result = CKR_OK;
    if (answersLength("C_DigestFinal", output, operation->hash->size, result))
        return result;
    SecretBytes hash;
    result = operation->run.finish(session.token, hash);
    if (result == CKR_OK)
        copyOut(output, hash);
    return endUnless(operation, result, false);
}

} // namespace velkor::strict
