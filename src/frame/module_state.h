// The process-wide state of the module.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "cryptoki.h"
#include "objects/handles.h"
#include "sessions/session_record.h"
#include "util/secret.h"
#include "velkor/device_service.h"

namespace velkor
{

/// The slot ID of the first entry of the slot table.
inline constexpr CK_SLOT_ID SLOT_ID_BASE = 0x50000001;

struct ModuleState {
    std::atomic<void*> libraryInstance = nullptr; ///< Non-null: the module is initialised.

    // Guarded by `lock`, which is never held across a call of the device library, a wait or a sleep.
    std::mutex lock;
    SecretText cachedUserPassword; ///< Non-empty: a user is logged in.
    std::map<CK_SESSION_HANDLE, std::shared_ptr<SessionRecord>> sessionMap;
    std::map<std::string, TokenInfo> slotMap; ///< By device name.
    VelkorKeyPair foundKeyPair;               ///< Of the last key pair lookup, whoever made it.
    /// Derived values by handle. They outlive C_Finalize; handles are never used twice.
    std::map<CK_OBJECT_HANDLE, SecretBytes> derivedKeys;
    CK_OBJECT_HANDLE nextDerivedKey = DERIVED_KEY_BASE;

    std::thread monitorThread;
    std::atomic<bool> monitorRunning = false;
    std::atomic<bool> stopMonitor = false;
    std::atomic<bool> slotEventPending = false;
    std::atomic<CK_SLOT_ID> eventSlotId = 0;
    std::mutex deviceLock; ///< Held by the monitor while it asks for the devices and scans the sessions.
    std::mutex eventLock;  ///< Hands `slotEventPending` and `eventSlotId` over; paired with `slotEventCv`.
    std::condition_variable slotEventCv;
};

/// The one state. It is not destroyed at exit: a host may exit without C_Finalize while the monitor still runs.
ModuleState& moduleState();

/// The session of a handle; null when there is none. It stays alive while the caller holds it.
std::shared_ptr<SessionRecord> findSession(CK_SESSION_HANDLE hSession);

/// What the slot table holds for a slot ID: the entry at that position in the order of device names.
std::optional<TokenInfo> findSlot(CK_SLOT_ID slotID);

/// A session's state, which other threads may change at any time.
CK_STATE stateOf(const SessionRecord& session);

/// A copy of the cached user PIN, empty when nobody is logged in.
SecretText cachedPassword();

} // namespace velkor
