// The mechanisms of the module, one row each: what is published of them and how they sign, verify and digest.
#pragma once

#include <span>

#include "cryptoki.h"

namespace velkor
{

/// What signing and verification do with the caller's data.
enum class SignatureFamily {
    None, ///< The mechanism does not sign.
    Raw,  ///< The data is signed as it is given.
    Hash, ///< The data is hashed first.
};

/// Stands for a hash code where there is no hash.
inline constexpr int NO_HASH = 0;

struct MechanismRow {
    CK_MECHANISM_TYPE type;
    CK_ULONG minKeySize; ///< Bits.
    CK_ULONG maxKeySize;
    CK_FLAGS flags;
    SignatureFamily family = SignatureFamily::None;
    bool isPss = false;
    int hash = NO_HASH;                ///< Of digests, signing and single-part verification.
    int multiPartVerifyHash = NO_HASH; ///< Differs from `hash` on purpose; NO_HASH: the data is gathered.
    bool fipsLimited = false;          ///< Does not sign on FIPS 140-3 tokens.
};

/// All mechanisms in the order in which they are listed.
std::span<const MechanismRow> mechanismTable();

/// The mechanism's row; null when it is not offered.
const MechanismRow* findMechanism(CK_MECHANISM_TYPE type);

/// The mechanism's row; null when it does not sign.
const MechanismRow* findSignatureMechanism(CK_MECHANISM_TYPE type);

} // namespace velkor
