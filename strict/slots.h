// Slots and tokens: which there are, what they say of themselves, and the events of their coming and going.
#pragma once

#include "cryptoki.h"
#include "strict/state.h"

namespace velkor::strict
{

/// The first look at the devices after the module has started; it raises no events.
void beginSlots();

/// Asks the module for its devices, and notes what came, what went, and what they say of themselves.
CK_RV refreshSlots();

/// Null when there is no such slot.
Token* findSlot(CK_SLOT_ID slotID);

/// Refreshes, then finds the slot, and tells whether its token is there.
CK_RV findPresentToken(const char* name, CK_SLOT_ID slotID, Token*& token);

/// The module's number of a token's slot, for a call that is made before the module is asked for its slots again:
/// under State::slotLock. False when the token is not there.
bool moduleSlotOf(const Token& token, CK_SLOT_ID& moduleSlot);

CK_RV getSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount);
CK_RV getSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo);
CK_RV getTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo);

/// An event names the slot that changed; each slot that changed is one event.
CK_RV waitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR pReserved);

/// Has all who wait for an event look whether the front still runs.
void wakeEventWaiters();

} // namespace velkor::strict
