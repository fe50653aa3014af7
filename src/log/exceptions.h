// What becomes of an exception at the boundary to the host: a return code and an error line.
#pragma once

#include "cryptoki.h"

namespace velkor
{

/// Return code for the exception being handled; logs it under the entry point's name.
CK_RV codeOfCurrentException(const char* name) noexcept;

} // namespace velkor
