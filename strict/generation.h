// Key pairs that the token makes, and random numbers.
#pragma once

#include "cryptoki.h"

namespace velkor::strict
{

struct Session;

/// A template of the host, as it is given.
struct GivenTemplate {
    CK_ATTRIBUTE_PTR attributes;
    CK_ULONG count;
};

CK_RV generateKeyPair(Session& session, CK_MECHANISM_PTR pMechanism, GivenTemplate ofPublic, GivenTemplate ofPrivate,
                      CK_OBJECT_HANDLE_PTR phPublicKey, CK_OBJECT_HANDLE_PTR phPrivateKey);
CK_RV generateRandom(Session& session, CK_BYTE_PTR pRandomData, CK_ULONG ulRandomLen);

} // namespace velkor::strict
