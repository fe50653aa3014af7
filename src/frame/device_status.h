// Statuses of the device library as return codes.
#pragma once

#include "cryptoki.h"
#include "velkor/device_service.h"

namespace velkor
{

/// The code for a failure, where a device that is gone is told apart.
inline CK_RV codeOfDeviceStatus(int status)
{
    const bool removed = status == STATUS_DEVICE_REMOVED || status == STATUS_DEVICE_UNREACHABLE;
    return removed ? CKR_DEVICE_REMOVED : CKR_FUNCTION_FAILED;
}

} // namespace velkor
