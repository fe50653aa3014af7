// The key of an operation: from the handle that an init call is given to the key pair that the session uses.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"
#include "velkor/device_service.h"

namespace velkor
{

/// What a key is selected for.
enum class KeyUse { Sign, Verify, EncryptPkcs, EncryptOaep, DecryptPkcs, DecryptOaep };

/// Makes the session refer to the module-wide record of the handle's key pair, or to none where none is found.
CK_RV selectKey(SessionRecord& session, KeyUse use, CK_OBJECT_HANDLE hKey);

/// What the module-wide record that the session refers to holds now: any later lookup overwrites it.
VelkorKeyPair keyPairInUse(const SessionRecord& session);

} // namespace velkor
