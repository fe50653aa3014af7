#include "slots/slot_table.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "frame/module_state.h"
#include "log/log.h"
#include "util/text_fields.h"
#include "util/utils.h"
#include "velkor/device_service.h"

namespace velkor
{
namespace
{

constexpr std::string_view MANUFACTURER = "Brenmoor";
constexpr std::size_t LABEL_KEPT = 30;

CK_VERSION parseVersion(const std::string& text)
{
    std::vector<std::int32_t> numbers = Utils::versionNumbers(text);
    numbers.resize(2);
    return {static_cast<CK_BYTE>(numbers[0]), static_cast<CK_BYTE>(numbers[1])};
}

/// Reads every listed device and makes those with a serial number the slot table. Gives the number of slots.
CK_ULONG rebuildSlotTable(const std::vector<std::string>& deviceNames, CK_SLOT_ID* pSlotList)
{
    ModuleState& state = moduleState();
    std::map<std::string, TokenInfo> slots; // Apart, so that no other thread finds it half full.
    CK_ULONG count = 0;
    for (const std::string& name : deviceNames) {
        TokenInfo token = velkor_getTokenInfo(name.c_str(), state.libraryInstance);
        if (token.serialNumber.empty())
            continue;
        // IDs follow the device list, the table follows the names; nothing reconciles the two.
        pSlotList[count] = SLOT_ID_BASE + count;
        slots.emplace(name, std::move(token));
        ++count;
    }
    const std::scoped_lock lock(state.lock);
    state.slotMap.swap(slots);
    return count;
}

/// A label of up to 32 characters loses those behind the 30th. A longer one runs on into the fields behind it, which
/// are written afterwards, but not beyond the serial number.
void copyLabel(CK_TOKEN_INFO& info, const std::string& label)
{
    constexpr std::size_t ROOM =
        sizeof info.label + sizeof info.manufacturerID + sizeof info.model + sizeof info.serialNumber;
    if (label.size() <= sizeof info.label)
        copyPadded(info.label, label, LABEL_KEPT);
    else
        copyTerminated(reinterpret_cast<unsigned char*>(&info), ROOM, label);
}

CK_FLAGS tokenFlags(const TokenInfo& token)
{
    CK_FLAGS flags = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
    if (token.pinChanged != 1)
        flags |= CKF_USER_PIN_TO_BE_CHANGED;
    if (token.pinTriesLeft == 0)
        flags |= CKF_USER_PIN_LOCKED;
    else if (token.pinTriesLeft == 1)
        flags |= CKF_USER_PIN_FINAL_TRY;
    else if (token.pinTriesLeft == 2)
        flags |= CKF_USER_PIN_COUNT_LOW;
    return flags;
}

/// Sessions in one state, over all slots.
CK_ULONG countSessions(CK_STATE sessionState)
{
    ModuleState& state = moduleState();
    const std::scoped_lock lock(state.lock);
    return static_cast<CK_ULONG>(std::count_if(state.sessionMap.begin(), state.sessionMap.end(),
                                               [&](const auto& entry) { return entry.second->state == sessionState; }));
}

} // namespace

CK_RV getSlotList(CK_SLOT_ID* pSlotList, CK_ULONG* pulCount)
{
    if (pulCount == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetSlotList: pulCount is NULL");
    ModuleState& state = moduleState();
    const std::vector<std::string> deviceNames = velkor_getConnectedDeviceList(false, state.libraryInstance);
    const auto slotCount = static_cast<CK_ULONG>(deviceNames.size());
    if (deviceNames.empty()) {
        {
            const std::scoped_lock lock(state.lock);
            state.slotMap.clear();
        }
        logError("No valid token found");
    }
    if (pSlotList == nullptr) {
        *pulCount = slotCount;
        return CKR_OK;
    }
    if (slotCount > *pulCount) // The caller's count stays as it is.
        return refuse(CKR_BUFFER_TOO_SMALL, "C_GetSlotList: buffer too small, *pulCount=", *pulCount,
                      " slotCount=", slotCount);
    *pulCount = rebuildSlotTable(deviceNames, pSlotList);
    return CKR_OK;
}

CK_RV getSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO* pInfo)
{
    const auto token = findSlot(slotID);
    if (!token)
        return refuse(CKR_SLOT_ID_INVALID, "C_GetSlotInfo: invalid slotID=", slotID);
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetSlotInfo: pInfo is NULL");
    std::memset(pInfo, 0, sizeof *pInfo);
    copyTerminated(pInfo->slotDescription, token->label);
    copyPadded(pInfo->manufacturerID, MANUFACTURER);
    pInfo->flags = CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE | CKF_HW_SLOT;
    pInfo->hardwareVersion = {1, 0};
    pInfo->firmwareVersion = parseVersion(token->firmwareVersion);
    return CKR_OK;
}

CK_RV getTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO* pInfo)
{
    const auto token = findSlot(slotID);
    if (!token)
        return refuse(CKR_SLOT_ID_INVALID, "C_GetTokenInfo: invalid slotID=", slotID);
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetTokenInfo: pInfo is NULL");
    std::memset(pInfo, 0, sizeof *pInfo);
    copyLabel(*pInfo, token->label);
    copyPadded(pInfo->manufacturerID, MANUFACTURER);
    copyTerminated(pInfo->model, token->model);
    copyPadded(pInfo->serialNumber, token->serialNumber);
    pInfo->flags = tokenFlags(*token);
    pInfo->ulMaxSessionCount = 0;
    // Sessions in the public states only: logged-in ones are not counted.
    pInfo->ulSessionCount = countSessions(CKS_RO_PUBLIC_SESSION);
    pInfo->ulMaxRwSessionCount = 0;
    pInfo->ulRwSessionCount = countSessions(CKS_RW_PUBLIC_SESSION);
    pInfo->ulMaxPinLen = CK_ULONG{PIN_LENGTH_MAX};
    pInfo->ulMinPinLen = CK_ULONG{PIN_LENGTH_MIN};
    pInfo->ulTotalPublicMemory = CK_UNAVAILABLE_INFORMATION;
    pInfo->ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
    pInfo->ulTotalPrivateMemory = CK_UNAVAILABLE_INFORMATION;
    pInfo->ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
    pInfo->hardwareVersion = {1, 0};
    pInfo->firmwareVersion = parseVersion(token->firmwareVersion);
    std::fill(std::begin(pInfo->utcTime), std::end(pInfo->utcTime), static_cast<CK_CHAR>(' '));
    logDebug("C_GetTokenInfo -- exit");
    return CKR_OK;
}

} // namespace velkor
