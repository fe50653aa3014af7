#include "slots/mechanism_list.h"

#include <algorithm>
#include <vector>

#include "frame/module_state.h"
#include "log/log.h"
#include "mechanisms/key_kinds.h"
#include "mechanisms/mechanism_table.h"
#include "mechanisms/token_policy.h"

namespace velkor
{
namespace
{

std::vector<CK_MECHANISM_TYPE> offeredMechanisms(CK_SLOT_ID slotID)
{
    const auto token = findSlot(slotID);
    const bool isFips = token && isFipsToken(*token);
    std::vector<CK_MECHANISM_TYPE> types;
    for (const MechanismRow& row : mechanismTable()) {
        if (!isFips || !row.fipsLimited)
            types.push_back(row.type);
    }
    return types;
}

/// A known token never signs with or generates RSA-1024, and a FIPS token does not sign with SHA-1.
void applyTokenLimits(const TokenInfo& token, const MechanismRow& row, CK_MECHANISM_INFO& info)
{
    if (row.fipsLimited && isFipsToken(token))
        info.flags &= ~CKF_SIGN;
    if ((info.flags & (CKF_SIGN | CKF_GENERATE_KEY_PAIR)) != 0 && info.ulMinKeySize == RSA_1024_BITS)
        info.ulMinKeySize = RSA_2048_BITS;
}

} // namespace

CK_RV getMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE* pMechanismList, CK_ULONG* pulCount)
{
    if (pulCount == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetMechanismList: pulCount is NULL");
    const std::vector<CK_MECHANISM_TYPE> types = offeredMechanisms(slotID);
    const auto count = static_cast<CK_ULONG>(types.size());
    if (pMechanismList != nullptr) {
        if (count > *pulCount) // The caller's count stays as it is.
            return refuse(CKR_BUFFER_TOO_SMALL, "C_GetMechanismList: buffer too small, *pulCount=", *pulCount,
                          " mechanismCount=", count);
        std::copy(types.begin(), types.end(), pMechanismList);
    }
    *pulCount = count;
    return CKR_OK;
}

CK_RV getMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* pInfo)
{
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetMechanismInfo: pInfo is NULL");
    logDebug("C_GetMechanismInfo -- type : ", type);
    const MechanismRow* row = findMechanism(type);
    if (row == nullptr)
        return refuse(CKR_MECHANISM_INVALID, "C_GetMechanismInfo: unsupported mechanism type=", type);
    *pInfo = {row->minKeySize, row->maxKeySize, row->flags};
    if (const auto token = findSlot(slotID))
        applyTokenLimits(*token, *row, *pInfo);
    logDebug("C_GetMechanismInfo -- exit");
    return CKR_OK;
}

} // namespace velkor
