#include "crypto/random.h"

#include "log/log.h"
#include "velkor/device_service.h"
#include "velkor/record_fields.h"

namespace velkor
{

CK_RV generateRandom(const SessionRecord& session, CK_BYTE* pRandomData, CK_ULONG ulRandomLen)
{
    if (pRandomData == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GenerateRandom: RandomData is NULL");
    if (ulRandomLen == 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_GenerateRandom: ulRandomLen<=0, ulRandomLen=", ulRandomLen);
    // The one call of the library without the instance.
    const int status =
        velkor_generateRamdomNumber(session.deviceId(), deviceLength(ulRandomLen), pRandomData, true, nullptr);
    if (status != 0)
        return refuse(CKR_FUNCTION_FAILED, "C_GenerateRandom: generate random number failed ret=", status);
    return CKR_OK;
}

} // namespace velkor
