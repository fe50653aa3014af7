#include "crypto/operation.h"

#include <algorithm>

#include "frame/module_state.h"
#include "log/log.h"
#include "velkor/device_service.h"
#include "velkor/record_fields.h"

namespace velkor
{

CK_RV giveOut(SessionRecord& session, const char* name, SecretBytes& kept, CK_BYTE* pOutput, CK_ULONG* pulOutputLen)
{
    const auto length = static_cast<CK_ULONG>(kept.size());
    *pulOutputLen = length;
    if (pOutput == nullptr)
        return CKR_OK;
    // The caller's length is overwritten before it is compared, so this never refuses: the whole result is copied.
    if (*pulOutputLen < length)
        return refuse(CKR_BUFFER_TOO_SMALL, name, ": buffer too small, provided=", *pulOutputLen, " required=", length);
    std::copy(kept.begin(), kept.end(), pOutput);
    wipe(kept);
    session.activeOperation = ActiveOperation::None;
    return CKR_OK;
}

CK_RV hashData(const SessionRecord& session, int hashAlgorithm, const CK_BYTE* pData, CK_ULONG ulDataLen,
               const HashFailureTexts& texts, SecretBytes& hash)
{
    void* instance = moduleState().libraryInstance;
    void* context = nullptr;
    int status = velkor_initHash(session.deviceId(), hashAlgorithm, &context, instance);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, texts.init, status);
    status = velkor_updateHash(context, pData, deviceLength(ulDataLen), instance);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, texts.update, status);
    status = finishHash(context, HASH_CAPACITY, hash);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, texts.final, status);
    return CKR_OK;
}

CK_RV hashPart(SessionRecord& session, int hashAlgorithm, const CK_BYTE* pPart, CK_ULONG ulPartLen,
               const HashFailureTexts& texts)
{
    void* instance = moduleState().libraryInstance;
    void* context = std::exchange(session.hashContext, nullptr);
    if (context == nullptr) {
        const int status = velkor_initHash(session.deviceId(), hashAlgorithm, &context, instance);
        if (status != 0)
            return refuse(CKR_FUNCTION_FAILED, texts.init, status);
    }
    const int status = velkor_updateHash(context, pPart, deviceLength(ulPartLen), instance);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, texts.update, status);
    session.hashContext = context;
    return CKR_OK;
}

int finishHash(void* hashContext, int lengthOnEntry, SecretBytes& hash)
{
    SecretBytes buffer(HASH_CAPACITY); // A derived key may come from it.
    int length = lengthOnEntry;
    const int status = velkor_finalHash(hashContext, buffer.data(), &length, moduleState().libraryInstance);
    if (status == 0)
        hash.assign(buffer.begin(), buffer.begin() + std::clamp(length, 0, HASH_CAPACITY));
    return status;
}

} // namespace velkor
