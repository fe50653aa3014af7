// One open session: what it was opened on, how far its login goes, and the operation in progress.
#pragma once

#include <vector>

#include "cryptoki.h"
#include "util/secret.h"
#include "velkor/device_service.h"

namespace velkor
{

/// `SessionRecord::activeOperation`. The values 6 and 8 stay unused.
enum class ActiveOperation : CK_ULONG {
    None = 0,
    Find = 1,
    Encrypt = 2,
    Decrypt = 3,
    Digest = 4,
    Sign = 5,
    Verify = 7,
    DigestEncrypt = 9, // No call accepts these two; only a search takes their place.
    DigestDecrypt = 10,
};

inline bool isUserState(CK_STATE state)
{
    return state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS;
}

inline bool isReadOnly(CK_STATE state)
{
    return state < CKS_RW_PUBLIC_SESSION;
}

struct SessionRecord {
    CK_STATE state = CKS_RO_PUBLIC_SESSION; ///< Guarded by `ModuleState::lock`: other threads log in and out.
    CK_SLOT_ID slotID = 0;
    TokenInfo token; ///< As it was when the session was opened; never refreshed.

    ActiveOperation activeOperation = ActiveOperation::None;

    std::vector<CK_OBJECT_HANDLE> foundHandles; ///< Of the search, in the order in which they are handed out.
    CK_ULONG findPosition = 0;                  ///< Handles already handed out.

    VelkorKeyPair* keyPair = nullptr; ///< The module-wide lookup record: any later lookup overwrites it.
    SecretBytes resultBuffer;         ///< Finished output between a length query and the fetching call.
    SecretBytes hashBuffer;           ///< Finished digest, or the data gathered by update calls.
    void* hashContext = nullptr;      ///< The device library's; ended by its final call only.
    CK_MECHANISM_TYPE mechanism = 0;  ///< Of signing or verification.
    bool isPss = false;
    CK_MECHANISM_TYPE cipherMechanism = 0; ///< Of encryption.

    /// The device's name in every call of the device library.
    const char* deviceId() const { return token.serialNumber.c_str(); }
};

} // namespace velkor
