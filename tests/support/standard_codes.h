// The codes that the standard has for each of its functions, and the few that the strict front adds to them.
#pragma once

#include <string_view>

#include "cryptoki.h"

/// False for a function that is not there, too.
bool hasStandardCode(std::string_view function, CK_RV code);
