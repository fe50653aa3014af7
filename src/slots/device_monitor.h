// The device monitor: the module's one thread. It watches the device list, logs sessions out whose device has gone,
// and raises slot events.
#pragma once

#include "cryptoki.h"
#include "util/secret.h"

namespace velkor
{

/// Body of the monitor thread; ends some time after `stopMonitor` is set. `password` is the cached user PIN.
void deviceMonitorLoop(SecretText* password);

/// Ends and joins the monitor, which takes up to one polling period and one query of the device list; does nothing
/// when none runs. Blocked waiters return.
void stopDeviceMonitor();

CK_RV waitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID* pSlot);

} // namespace velkor
