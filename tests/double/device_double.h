// The double's own function: what stands behind the 29 operations.
#pragma once

#include <memory>

#include "device_operations.h"

/// Puts other operations behind the library's functions; until the first call they are a `DefaultDevice`.
DOUBLE_EXPORT void setDeviceOperations(std::shared_ptr<DeviceOperations> newOperations);
