#include "strict/slots.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "log/log.h"
#include "strict/device_access.h"
#include "strict/sessions.h"
#include "strict/texts.h"

namespace velkor::strict
{
namespace
{

constexpr CK_SLOT_ID FIRST_SLOT_ID = 1;
constexpr std::chrono::milliseconds POLLING_PERIOD{400};

/// A device as the module shows it.
struct Seen {
    CK_SLOT_ID moduleSlot;
    CK_SLOT_INFO slotInfo;
    CK_TOKEN_INFO tokenInfo;
};

/// Has the module fill its slot table anew. Its count is a number of devices, of which some may be no slots.
CK_RV fetchModuleSlots(std::vector<CK_SLOT_ID>& slots)
{
    constexpr std::size_t ROOM = 64;
    slots.resize(ROOM);
    for (;;) {
        auto count = static_cast<CK_ULONG>(slots.size());
        const CK_RV result = module().C_GetSlotList(CK_TRUE, slots.data(), &count);
        if (result == CKR_BUFFER_TOO_SMALL) {
            slots.resize(slots.size() * 2);
            continue;
        }
        slots.resize(result == CKR_OK ? count : 0);
        return result;
    }
}

/// The serial number fills its field and has no zero byte then; the fields in front of it may hold the rest of a label.
std::string serialNumberOf(const CK_TOKEN_INFO& info)
{
    return std::string(textOf(info.serialNumber));
}

CK_RV fetchDevices(std::vector<Seen>& devices)
{
    std::vector<CK_SLOT_ID> slots;
    CK_RV result = fetchModuleSlots(slots);
    for (const CK_SLOT_ID slot : slots) {
        Seen seen{slot, {}, {}};
        result = module().C_GetSlotInfo(slot, &seen.slotInfo);
        if (result == CKR_SLOT_ID_INVALID) { // Devices of one name have an ID each, and one slot behind the first.
            result = CKR_OK;
            continue;
        }
        if (result == CKR_OK)
            result = module().C_GetTokenInfo(slot, &seen.tokenInfo);
        if (result != CKR_OK)
            return result;
        devices.push_back(seen);
    }
    return result;
}

Token& tokenWith(State& state, const std::string& serialNumber)
{
    const auto found = std::find_if(state.tokens.begin(), state.tokens.end(),
                                    [&](const auto& token) { return token->serialNumber == serialNumber; });
    if (found != state.tokens.end())
        return **found;
    auto token = std::make_unique<Token>();
    token->slotID = FIRST_SLOT_ID + static_cast<CK_SLOT_ID>(state.tokens.size());
    token->serialNumber = serialNumber;
    return *state.tokens.emplace_back(std::move(token));
}

void noteInsertion(State& state, Token& token)
{
    token.isPresent = true;
    ++token.insertion;
    state.slotEvents.insert(token.slotID);
}

/// Notes what is there, under both locks. Gives the tokens that went.
std::vector<Token*> noteDevices(State& state, const std::vector<Seen>& devices)
{
    std::vector<Token*> gone;
    std::vector<Token*> there;
    for (const Seen& seen : devices) {
        Token& token = tokenWith(state, serialNumberOf(seen.tokenInfo));
        token.moduleSlot = seen.moduleSlot;
        token.slotInfo = seen.slotInfo;
        token.tokenInfo = seen.tokenInfo;
        if (!token.isPresent)
            noteInsertion(state, token);
        there.push_back(&token);
    }
    for (const auto& token : state.tokens) {
        if (token->isPresent && std::find(there.begin(), there.end(), token.get()) == there.end())
            gone.push_back(token.get());
    }
    for (Token* token : gone) {
        token->isPresent = false;
        state.slotEvents.insert(token->slotID);
    }
    return gone;
}

CK_RV refreshUnderLock(State& state)
{
    std::vector<Seen> devices;
    const CK_RV result = fetchDevices(devices);
    if (result != CKR_OK)
        return result;
    RemovedThings removed;
    {
        const std::scoped_lock lock(state.lock);
        for (Token* token : noteDevices(state, devices))
            removed.add(takeFromRemovedToken(*token));
        if (!state.slotEvents.empty())
            state.eventOrEnd.notify_all();
    }
    removed.release();
    return CKR_OK;
}

std::vector<CK_SLOT_ID> listSlots(State& state, bool presentOnly)
{
    const std::scoped_lock lock(state.lock);
    std::vector<CK_SLOT_ID> slots;
    for (const auto& token : state.tokens) {
        if (token->isPresent || !presentOnly)
            slots.push_back(token->slotID);
    }
    return slots;
}

void fillSlotInfo(const Token& token, CK_SLOT_INFO& info)
{
    info = token.slotInfo;
    pad(info.slotDescription);
    pad(info.manufacturerID);
    if (!token.isPresent)
        info.flags &= ~CKF_TOKEN_PRESENT;
}

/// Of the sessions of a token, all, or those that may write.
CK_ULONG countSessions(const State& state, const Token& token, bool readWriteOnly)
{
    return static_cast<CK_ULONG>(std::count_if(state.sessions.begin(), state.sessions.end(), [&](const auto& entry) {
        return &entry.second->token == &token && (entry.second->isReadWrite || !readWriteOnly);
    }));
}

/// The module tells of few tries by their number alone, and of the SO's PIN nothing. A wrong PIN that another process
/// gave is known by that number only.
CK_FLAGS pinFlags(const Token& token)
{
    constexpr CK_FLAGS FEW_TRIES = CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_LOCKED;
    CK_FLAGS flags = 0;
    if (token.answerToUser.isRefused || (token.tokenInfo.flags & FEW_TRIES) != 0)
        flags |= CKF_USER_PIN_COUNT_LOW;
    if (token.answerToSecurityOfficer.isRefused)
        flags |= CKF_SO_PIN_COUNT_LOW;
    if (token.answerToSecurityOfficer.isLocked)
        flags |= CKF_SO_PIN_LOCKED;
    return flags;
}

/// The module cuts labels; the slot's description has them whole.
void fillTokenInfo(const State& state, const Token& token, CK_TOKEN_INFO& info)
{
    info = token.tokenInfo;
    putPadded(info.label, textOf(token.slotInfo.slotDescription));
    pad(info.manufacturerID);
    pad(info.model);
    pad(info.serialNumber);
    info.flags |= pinFlags(token);
    info.ulMaxSessionCount = CK_EFFECTIVELY_INFINITE;
    info.ulSessionCount = countSessions(state, token, false);
    info.ulMaxRwSessionCount = CK_EFFECTIVELY_INFINITE;
    info.ulRwSessionCount = countSessions(state, token, true);
}

bool takeEvent(State& state, CK_SLOT_ID_PTR pSlot)
{
    const std::scoped_lock lock(state.lock);
    if (state.slotEvents.empty())
        return false;
    *pSlot = *state.slotEvents.begin();
    state.slotEvents.erase(state.slotEvents.begin());
    return true;
}

bool isAnyTokenPresent(State& state)
{
    return !listSlots(state, true).empty();
}

/// With no device there, each look at the list would be an error in the log: the module's own event is waited for. It
/// comes when the number of devices changes, and when the module ends.
void awaitFirstDevice(State& state)
{
    --state.callsInside;
    CK_SLOT_ID slot = 0;
    module().C_WaitForSlotEvent(0, &slot, nullptr);
    ++state.callsInside;
}

/// Waits for an event that another call notices, for a while.
void awaitNextLook(State& state)
{
    std::unique_lock lock(state.lock);
    state.eventOrEnd.wait_for(lock, POLLING_PERIOD,
                              [&] { return !state.slotEvents.empty() || state.phase != Phase::Running; });
}

CK_RV awaitEvent(State& state, CK_SLOT_ID_PTR pSlot)
{
    const unsigned long life = state.life;
    while (state.phase == Phase::Running && state.life == life) {
        const CK_RV result = refreshSlots();
        if (result != CKR_OK)
            return result;
        if (takeEvent(state, pSlot))
            return CKR_OK;
        if (isAnyTokenPresent(state))
            awaitNextLook(state);
        else
            awaitFirstDevice(state);
    }
    return refuse(CKR_CRYPTOKI_NOT_INITIALIZED, "C_WaitForSlotEvent: finalized while waiting");
}

} // namespace

void beginSlots()
{
    refreshSlots();
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    state.slotEvents.clear();
}

CK_RV refreshSlots()
{
    State& state = strict::state();
    const std::scoped_lock slots(state.slotLock);
    return refreshUnderLock(state);
}

Token* findSlot(CK_SLOT_ID slotID)
{
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    if (slotID < FIRST_SLOT_ID || slotID - FIRST_SLOT_ID >= state.tokens.size())
        return nullptr;
    return state.tokens[slotID - FIRST_SLOT_ID].get();
}

CK_RV findPresentToken(const char* name, CK_SLOT_ID slotID, Token*& token)
{
    const CK_RV result = refreshSlots();
    token = findSlot(slotID);
    if (token == nullptr)
        return refuse(CKR_SLOT_ID_INVALID, name, ": invalid slotID=", slotID);
    if (result != CKR_OK)
        return result;
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    if (!token->isPresent)
        return refuse(CKR_TOKEN_NOT_PRESENT, name, ": no token in slotID=", slotID);
    return CKR_OK;
}

bool moduleSlotOf(const Token& token, CK_SLOT_ID& moduleSlot)
{
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    moduleSlot = token.moduleSlot;
    return token.isPresent;
}

CK_RV getSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount)
{
    if (pulCount == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetSlotList: pulCount is NULL");
    State& state = strict::state();
    const std::scoped_lock slots(state.slotLock);
    if (pSlotList == nullptr || !state.isListCounted) {
        const CK_RV result = refreshUnderLock(state);
        if (result != CKR_OK)
            return result;
    }
    const std::vector<CK_SLOT_ID> list = listSlots(state, tokenPresent != CK_FALSE);
    const CK_ULONG room = *pulCount;
    *pulCount = static_cast<CK_ULONG>(list.size());
    state.isListCounted = pSlotList == nullptr;
    if (pSlotList == nullptr)
        return CKR_OK;
    if (list.size() > room)
        return refuse(CKR_BUFFER_TOO_SMALL, "C_GetSlotList: buffer too small, *pulCount=", room,
                      " slotCount=", list.size());
    std::copy(list.begin(), list.end(), pSlotList);
    return CKR_OK;
}

CK_RV getSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo)
{
    refreshSlots(); // A failure leaves what was known.
    const Token* token = findSlot(slotID);
    if (token == nullptr)
        return refuse(CKR_SLOT_ID_INVALID, "C_GetSlotInfo: invalid slotID=", slotID);
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetSlotInfo: pInfo is NULL");
    const std::scoped_lock lock(state().lock);
    fillSlotInfo(*token, *pInfo);
    return CKR_OK;
}

CK_RV getTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo)
{
    Token* token = nullptr;
    const CK_RV result = findPresentToken("C_GetTokenInfo", slotID, token);
    if (result != CKR_OK)
        return result;
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetTokenInfo: pInfo is NULL");
    const std::scoped_lock lock(state().lock);
    fillTokenInfo(state(), *token, *pInfo);
    return CKR_OK;
}

CK_RV waitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR pReserved)
{
    if (pSlot == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_WaitForSlotEvent: pSlot is NULL");
    if (pReserved != nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_WaitForSlotEvent: pReserved is not NULL");
    State& state = strict::state();
    if ((flags & CKF_DONT_BLOCK) == 0)
        return awaitEvent(state, pSlot);
    const CK_RV result = refreshSlots();
    if (result != CKR_OK)
        return result;
    return takeEvent(state, pSlot) ? CKR_OK : CKR_NO_EVENT;
}

void wakeEventWaiters()
{
    State& state = strict::state();
    const std::scoped_lock lock(state.lock);
    state.eventOrEnd.notify_all();
}

} // namespace velkor::strict
