#include "crypto/derivation.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <utility>

#include "crypto/library_buffer.h"
#include "crypto/operation.h"
#include "frame/module_state.h"
#include "log/log.h"
#include "mechanisms/token_policy.h"
#include "objects/handles.h"
#include "objects/record_lookup.h"
#include "util/attributes.h"
#include "util/bytes.h"
#include "util/utils.h"
#include "velkor/device_service.h"
#include "velkor/record_fields.h"

namespace velkor
{
namespace
{

constexpr HashFailureTexts KDF_HASH_FAILURES = {"C_DeriveKey: initHash failed ", "C_DeriveKey: updateHash failed ",
                                                "C_DeriveKey: finalHash failed "};

/// Derivation has its own pair of hash codes, which are not those of `HashAlgorithm`.
struct KdfRow {
    CK_EC_KDF_TYPE kdf;
    int hash;
    std::size_t size; ///< Bytes kept of whatever the library returns.
};

constexpr KdfRow KDFS[] = {
    {CKD_SHA1_KDF, 1, 20},
    {CKD_SHA256_KDF, 4, 32},
};

/// The mechanism's parameter; nothing when it is too short or has no peer point.
std::optional<CK_ECDH1_DERIVE_PARAMS> readParameter(const CK_MECHANISM& mechanism)
{
    CK_ECDH1_DERIVE_PARAMS parameter;
    if (mechanism.pParameter == nullptr || mechanism.ulParameterLen < sizeof parameter)
        return std::nullopt;
    std::memcpy(&parameter, mechanism.pParameter, sizeof parameter);
    if (parameter.pPublicData == nullptr || parameter.ulPublicDataLen == 0)
        return std::nullopt;
    return parameter;
}

CK_RV deriveSecret(const SessionRecord& session, const VelkorKeyPair& keyPair, Bytes peer, SecretBytes& secret)
{
    LibraryBuffer shared;
    const int status =
        velkor_ecdhDerive(session.deviceId(), keyPair.keyIdentifier, cachedPassword().c_str(), peer.data(),
                          deviceLength(peer.size()), &shared.bytes, &shared.length, moduleState().libraryInstance);
    if (status != 0 || shared.span().empty())
        return refuse(CKR_FUNCTION_FAILED, "C_DeriveKey: velkor_ecdhDerive failed:", status, " len=", shared.length);
    secret.assign(shared.span().begin(), shared.span().end());
    return CKR_OK;
}

/// Replaces the shared secret by its hash where the function asks for one.
CK_RV applyKdf(const SessionRecord& session, CK_EC_KDF_TYPE kdf, SecretBytes& value)
{
    const auto* const row =
        std::find_if(std::begin(KDFS), std::end(KDFS), [&](const KdfRow& each) { return each.kdf == kdf; });
    if (row == std::end(KDFS))
        return CKR_OK;
    SecretBytes hash;
    const CK_RV result =
        hashData(session, row->hash, value.data(), static_cast<CK_ULONG>(value.size()), KDF_HASH_FAILURES, hash);
    if (result != CKR_OK)
        return result;
    shorten(hash, row->size);
    value.swap(hash);
    return CKR_OK;
}

/// The first CKA_VALUE_LEN with a value; 0 when there is none.
CK_ULONG requestedLength(const CK_ATTRIBUTE* pTemplate, CK_ULONG ulAttributeCount)
{
    for (CK_ULONG index = 0; pTemplate != nullptr && index < ulAttributeCount; ++index) {
        if (pTemplate[index].type == CKA_VALUE_LEN && pTemplate[index].pValue != nullptr)
            return integerOf(pTemplate[index]);
    }
    return 0;
}

CK_OBJECT_HANDLE store(SecretBytes value)
{
    ModuleState& state = moduleState();
    const std::scoped_lock lock(state.lock);
    const CK_OBJECT_HANDLE handle = state.nextDerivedKey++;
    state.derivedKeys.emplace(handle, std::move(value));
    return handle;
}

const VelkorKeyPair* findBaseKey(const SessionRecord& session, CK_OBJECT_HANDLE hBaseKey)
{
    if (!isPrivateKeyHandle(hBaseKey))
        return nullptr;
    const CK_ULONG id = keyPairIdOf(hBaseKey);
    logDebug("key id :: ", id);
    return findKeyPair(session, id);
}

} // namespace

CK_RV deriveKey(const SessionRecord& session, const CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hBaseKey,
                const CK_ATTRIBUTE* pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE* phKey)
{
    // Several refusals of this function write no line.
    if (pMechanism == nullptr || phKey == nullptr)
        return CKR_ARGUMENTS_BAD;
    if (pMechanism->mechanism != CKM_ECDH1_DERIVE)
        return CKR_MECHANISM_INVALID;
    if (!isFirmwareRecent(session.token))
        return refuse(CKR_MECHANISM_INVALID, "C_DeriveKey: ECDH not supported on firmware ",
                      session.token.firmwareVersion);
    const auto parameter = readParameter(*pMechanism);
    if (!parameter)
        return CKR_MECHANISM_PARAM_INVALID;
    const VelkorKeyPair* keyPair = findBaseKey(session, hBaseKey);
    if (keyPair == nullptr)
        return CKR_KEY_HANDLE_INVALID;
    const Bytes peer(parameter->pPublicData, parameter->ulPublicDataLen);
    logDebug("base key id :: ", [&] { return Utils::toHexadecimal(keyPair->keyIdentifier); });
    logDebug("public key :: ", [&] { return Utils::toHexadecimal(peer); });
    SecretBytes value;
    CK_RV result = deriveSecret(session, *keyPair, peer, value);
    if (result == CKR_OK)
        result = applyKdf(session, parameter->kdf, value);
    if (result != CKR_OK)
        return result;
    if (const CK_ULONG length = requestedLength(pTemplate, ulAttributeCount); length != 0)
        shorten(value, length);
    *phKey = store(std::move(value));
    logDebug("C_DeriveKey: done, handle=", *phKey);
    return CKR_OK;
}

} // namespace velkor
