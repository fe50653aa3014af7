// Operations of a session: digests, signatures, ciphers. One of each kind may be active at a time, beside the others.
#pragma once

#include <memory>
#include <optional>

#include "cryptoki.h"
#include "strict/device_access.h"
#include "strict/mechanisms.h"
#include "strict/object.h"
#include "strict/search.h"

namespace velkor::strict
{

/// A hash in the making, in a session of the module that nobody else uses until it is done.
class HashRun
{
public:
    HashRun() = default;
    explicit HashRun(const Hash& hash) : hash_(&hash) {}
    HashRun(HashRun&&) noexcept = default;
    HashRun& operator=(HashRun&&) noexcept = default;
    HashRun(const HashRun&) = delete;
    HashRun& operator=(const HashRun&) = delete;
    ~HashRun();

    CK_RV update(Token& token, Bytes data);
    /// Also of nothing at all.
    CK_RV finish(Token& token, SecretBytes& result);

private:
    const Hash* hash_ = nullptr;
    ModuleSession session_;
};

/// In which way an operation has been given data so far.
enum class Way { Undecided, InOnePart, InParts };

struct DigestOperation {
    const Hash* hash = nullptr;
    Way way = Way::Undecided;
    HashRun run;
    SecretBytes result; ///< Finished, but not yet fetched.
};

struct KeyOperation {
    const Mechanism* mechanism = nullptr;
    ObjectPtr key;
    std::shared_ptr<const Contents> contents;
    CK_ULONG pair = 0;        ///< The key pair's number in the module.
    std::size_t hashSize = 0; ///< That PSS data must have.
    Way way = Way::Undecided;
    HashRun run;
    SecretBytes gathered;
    SecretBytes input;  ///< What the result was made of, where a host may still say otherwise.
    SecretBytes result; ///< Finished, but not yet fetched.
    bool isFinished = false;
};

struct Operations {
    std::optional<Search> search;
    std::optional<DigestOperation> digest;
    std::optional<KeyOperation> sign;
    std::optional<KeyOperation> verify;
    std::optional<KeyOperation> encrypt;
    std::optional<KeyOperation> decrypt;
};

/// Where the host wants output, and how long it may be.
struct Output {
    CK_BYTE_PTR buffer;
    CK_ULONG_PTR length;
};

CK_RV digestInit(Session& session, CK_MECHANISM_PTR pMechanism);
CK_RV digest(Session& session, CK_BYTE_PTR pData, CK_ULONG ulDataLen, Output output);
CK_RV digestUpdate(Session& session, CK_BYTE_PTR pPart, CK_ULONG ulPartLen);
CK_RV digestFinal(Session& session, Output output);

CK_RV signInit(Session& session, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey);
CK_RV sign(Session& session, CK_BYTE_PTR pData, CK_ULONG ulDataLen, Output output);
CK_RV signUpdate(Session& session, CK_BYTE_PTR pPart, CK_ULONG ulPartLen);
CK_RV signFinal(Session& session, Output output);

CK_RV verifyInit(Session& session, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey);
CK_RV verify(Session& session, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen);
CK_RV verifyUpdate(Session& session, CK_BYTE_PTR pPart, CK_ULONG ulPartLen);
CK_RV verifyFinal(Session& session, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen);

CK_RV encryptInit(Session& session, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey);
CK_RV encrypt(Session& session, CK_BYTE_PTR pData, CK_ULONG ulDataLen, Output output);
CK_RV encryptUpdate(Session& session, CK_BYTE_PTR pPart, CK_ULONG ulPartLen, Output output);
CK_RV encryptFinal(Session& session, Output output);

CK_RV decryptInit(Session& session, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey);
CK_RV decrypt(Session& session, CK_BYTE_PTR pData, CK_ULONG ulDataLen, Output output);
CK_RV decryptUpdate(Session& session, CK_BYTE_PTR pPart, CK_ULONG ulPartLen, Output output);
CK_RV decryptFinal(Session& session, Output output);

} // namespace velkor::strict
