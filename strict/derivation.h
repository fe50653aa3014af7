// ECDH: secrets that two parties have in common, as session objects.
#pragma once

#include "cryptoki.h"

namespace velkor::strict
{

struct Session;

CK_RV deriveKey(Session& session, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hBaseKey, CK_ATTRIBUTE_PTR pTemplate,
                CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey);

} // namespace velkor::strict
