// Hides what the log shows of secrets and of people: hashes and raw inputs, identifiers, labels, paths.
#pragma once

#include "calls.h"

namespace velkor::trace
{

/// Hides such values in all lines of a call. A text that is in no table is hidden whole.
void redact(Call& call);

} // namespace velkor::trace
