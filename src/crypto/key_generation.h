// Generation of key pairs by the device.
#pragma once

#include "cryptoki.h"
#include "sessions/session_record.h"

namespace velkor
{

/// The arguments of C_GenerateKeyPair behind the session.
struct KeyPairRequest {
    const CK_MECHANISM* pMechanism;
    const CK_ATTRIBUTE* pPublicKeyTemplate;
    CK_ULONG ulPublicKeyAttributeCount;
    const CK_ATTRIBUTE* pPrivateKeyTemplate;
    CK_ULONG ulPrivateKeyAttributeCount;
    CK_OBJECT_HANDLE* phPublicKey;
    CK_OBJECT_HANDLE* phPrivateKey;
};

CK_RV generateKeyPair(const SessionRecord& session, const KeyPairRequest& request);

} // namespace velkor
