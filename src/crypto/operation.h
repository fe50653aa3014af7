// What all operations of a session share: the delivery of a result, and the hash calls of the device library. That the
// right operation is in progress has been seen to where the call came in.
#pragma once

#include <utility>

#include "cryptoki.h"
#include "sessions/session_record.h"
#include "util/secret.h"

namespace velkor
{

/// Gives a finished result out. A null `pOutput` asks for the length and keeps result and operation; otherwise the
/// result is emptied and the operation ends.
CK_RV giveOut(SessionRecord& session, const char* name, SecretBytes& kept, CK_BYTE* pOutput, CK_ULONG* pulOutputLen);

/// Gives out what a length query has kept, whatever the data of this call, or what `compute` puts there.
template <typename Compute>
CK_RV deliver(SessionRecord& session, const char* name, SecretBytes& kept, CK_BYTE* pOutput, CK_ULONG* pulOutputLen,
              const Compute& compute)
{
    const CK_RV result = kept.empty() ? compute() : CKR_OK;
    return result == CKR_OK ? giveOut(session, name, kept, pOutput, pulOutputLen) : result;
}

/// Takes a step that ends the operation when it fails, be it by an exception.
template <typename Step>
CK_RV endIfFailed(SessionRecord& session, const Step& step)
{
    const ActiveOperation operation = std::exchange(session.activeOperation, ActiveOperation::None);
    const CK_RV result = step();
    if (result == CKR_OK)
        session.activeOperation = operation;
    return result;
}

/// Log texts of a hash that fails at one of its steps; the library's status follows.
struct HashFailureTexts {
    const char* init;
    const char* update;
    const char* final; ///< Null where there is no such step.
};

/// Hashes data in one go with a context of its own.
CK_RV hashData(const SessionRecord& session, int hashAlgorithm, const CK_BYTE* pData, CK_ULONG ulDataLen,
               const HashFailureTexts& texts, SecretBytes& hash);

/// Adds a part to the session's hash, which it begins where none has begun. A context that a digest has left counts
/// as begun. A part that cannot be added leaves no context.
CK_RV hashPart(SessionRecord& session, int hashAlgorithm, const CK_BYTE* pPart, CK_ULONG ulPartLen,
               const HashFailureTexts& texts);

/// Ends a hash; gives the library's status. `lengthOnEntry` is what the library finds in the length variable.
int finishHash(void* hashContext, int lengthOnEntry, SecretBytes& hash);

} // namespace velkor
