// What the front knows of mechanisms: what the device really does with each, and which parameters say just that.
#pragma once

#include <vector>

#include "cryptoki.h"
#include "strict/object.h"
#include "strict/state.h"

namespace velkor::strict
{

/// A hash that the device makes.
struct Hash {
    CK_MECHANISM_TYPE digest;
    CK_RSA_PKCS_MGF_TYPE maskGeneration;
    std::size_t size;
    const unsigned char* ofNothing; ///< The module hashes no empty message.
};

enum class Padding { None, Pkcs1, Pss, Oaep };

/// A mechanism of signatures or ciphers; in the order of its table's columns.
struct Mechanism { // NOLINT(clang-analyzer-optin.performance.Padding)
    CK_MECHANISM_TYPE type;
    CK_KEY_TYPE keyType;
    Padding padding;
    CK_MECHANISM_TYPE raw;      ///< The one that takes a finished hash.
    const Hash* hash = nullptr; ///< Null: the data is used as it is.
    bool isInModule = true;
};

/// Null when it is not one that the front digests, signs or encrypts with.
const Hash* findHash(CK_MECHANISM_TYPE type);
const Mechanism* findSignatureMechanism(CK_MECHANISM_TYPE type);
const Mechanism* findCipherMechanism(CK_MECHANISM_TYPE type);

/// All that keys of a type can be used with.
std::vector<CK_MECHANISM_TYPE> mechanismsOf(CK_KEY_TYPE keyType);

/// Whether a token, by its firmware and its FIPS rules, does what the use of a mechanism asks: CKF_SIGN and so on.
bool isOffered(const Token& token, CK_MECHANISM_TYPE type, CK_FLAGS use);

/// Parameters must say what the device does anyway.
CK_RV checkParameter(const char* name, const Mechanism& mechanism, const CK_MECHANISM& given);

/// Of data for PSS, which must be the hash that the parameter names; 0 for all others.
std::size_t hashSizeInParameter(const Mechanism& mechanism, const CK_MECHANISM& given);

CK_RV getMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList, CK_ULONG_PTR pulCount);
CK_RV getMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo);

} // namespace velkor::strict
