// Deletion of key pairs and certificates.
#pragma once

#include "cryptoki.h"

namespace velkor
{

CK_RV destroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject);

} // namespace velkor
