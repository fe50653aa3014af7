// Start, end and description of the module.
#pragma once

#include "cryptoki.h"

namespace velkor
{

/// Before a start: whether lines of the log that are lost are told on standard output, or that is left alone.
CK_RV chooseOutput(bool isLeftAlone);

/// Creates the library instance and ends a monitor that an earlier, failed start left running.
CK_RV createLibraryInstance();
/// Starts the monitor. Throws std::system_error when its thread cannot be created.
void startDeviceMonitor();
/// CKR_OK, with an error line when the library did not start.
CK_RV reportStart();

CK_RV finalize();
CK_RV getInfo(CK_INFO* pInfo);

} // namespace velkor
