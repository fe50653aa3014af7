// The label that hosts show for a key as a whole.
#pragma once

#include "store/sqlite.h"

#include <string_view>

namespace softkey
{

/// Runs inside the caller's change.
void updateDeviceLabel(Database& database, std::string_view label);

} // namespace softkey
