// The functions of the standard as the fuzzers call them, one row each; all but those that begin and end a library.
#pragma once

#include <span>

#include "host.h"

namespace fuzz
{

struct CallRow {
    const char* function;
    CK_RV (*make)(Host& host); ///< With arguments of the input; gives the code.
};

std::span<const CallRow> calls();

/// Those of them that take templates, or mechanisms with a parameter.
std::span<const CallRow> callsWithTemplates();

} // namespace fuzz
