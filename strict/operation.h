// What all operations have in common: how they begin with a key, how they end, and how their output is handed over.
#pragma once

#include <algorithm>

#include "log/log.h"
#include "strict/operations.h"

namespace velkor::strict
{

/// How the two sides of a mechanism differ: which key it takes, and which of the key's permissions it needs.
struct Use {
    const char* name; ///< Of the entry point that begins it.
    CK_OBJECT_CLASS keyClass;
    CK_ATTRIBUTE_TYPE permission;
    CK_FLAGS flag;
};

/// Begins an operation with a key, or says why not.
CK_RV beginWithKey(Session& session, std::optional<KeyOperation>& slot, const Use& use, const Mechanism* mechanism,
                   CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey);

/// Ends an operation that failed: only a question for the length and a buffer that is too short leave it active.
template <typename Operation>
CK_RV endUnless(std::optional<Operation>& operation, CK_RV result, bool goesOn)
{
    if (!goesOn)
        operation.reset();
    return result;
}

/// Whether the user is still there who may use the operation's key.
CK_RV checkLogin(const char* name, const Token& token, const KeyOperation& operation);

/// Gathers or hashes data of an operation in parts.
CK_RV addPart(const char* name, Token& token, KeyOperation& operation, Bytes part);

/// The data that the mechanism is to work on: as it is, or hashed.
CK_RV prepareInput(Token& token, KeyOperation& operation, Bytes data, SecretBytes& input);

/// Whether the input has a length that the device treats as the mechanism says.
CK_RV checkInput(const char* name, const KeyOperation& operation, std::size_t size);

/// Answers a question for the length, or a buffer that is too short for `size`. True when that was the case.
inline bool answersLength(const char* name, Output output, std::size_t size, CK_RV& result)
{
    const CK_ULONG room = *output.length;
    if (output.buffer != nullptr && room >= size)
        return false;
    *output.length = static_cast<CK_ULONG>(size);
    result = output.buffer == nullptr
                 ? CKR_OK
                 : refuse(CKR_BUFFER_TOO_SMALL, name, ": buffer too small, provided=", room, " required=", size);
    return true;
}

inline void copyOut(Output output, const SecretBytes& result)
{
    std::copy(result.begin(), result.end(), output.buffer);
    *output.length = static_cast<CK_ULONG>(result.size());
}

/// An operation whose key has gone: the standard has no code for a key here.
inline CK_RV withoutKey(CK_RV result)
{
    return result == CKR_KEY_HANDLE_INVALID ? CKR_FUNCTION_FAILED : result;
}

inline CK_RV refuseParts(const char* name)
{
    return refuse(CKR_OPERATION_ACTIVE, name, ": an operation in one part is active");
}

inline CK_RV refuseNotActive(const char* name)
{
    return refuse(CKR_OPERATION_NOT_INITIALIZED, name, ": no such operation is active");
}

} // namespace velkor::strict
