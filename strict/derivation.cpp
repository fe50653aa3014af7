#include "strict/derivation.h"

#include <utility>

#include "log/log.h"
#include "objects/handles.h"
#include "strict/der.h"
#include "strict/device_access.h"
#include "strict/login.h"
#include "strict/mechanisms.h"
#include "strict/objects.h"
#include "strict/sessions.h"

namespace velkor::strict
{
namespace
{

constexpr const char* DERIVE = "C_DeriveKey";
constexpr std::size_t SECRET_ROOM = 1024;

/// The peer's point, bare; empty when the parameter is not one that the device honours.
SecretBytes readPeer(const CK_MECHANISM& mechanism)
{
    CK_ECDH1_DERIVE_PARAMS parameter{};
    if (mechanism.pParameter == nullptr || mechanism.ulParameterLen != sizeof parameter)
        return {};
    std::memcpy(&parameter, mechanism.pParameter, sizeof parameter);
    if (parameter.kdf != CKD_NULL || parameter.ulSharedDataLen != 0 || parameter.pPublicData == nullptr)
        return {};
    return secretCopyOf(barePoint({parameter.pPublicData, parameter.ulPublicDataLen}));
}

CK_RV readMechanism(const Session& session, const CK_MECHANISM* pMechanism, SecretBytes& peer)
{
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, DERIVE, ": pMechanism is NULL");
    if (pMechanism->mechanism != CKM_ECDH1_DERIVE || !isOffered(session.token, CKM_ECDH1_DERIVE, CKF_DERIVE))
        return refuse(CKR_MECHANISM_INVALID, DERIVE,
                      ": unsupported mechanism=", CK_MECHANISM_TYPE{pMechanism->mechanism});
    peer = readPeer(*pMechanism);
    if (peer.empty())
        return refuse(CKR_MECHANISM_PARAM_INVALID, DERIVE, ": a point with CKD_NULL and no shared data only");
    return CKR_OK;
}

CK_RV readTemplate(const Session& session, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, Template& wanted)
{
    CK_RV result = Template::read(DERIVE, pTemplate, ulCount, wanted);
    if (result == CKR_OK)
        result = checkTemplate(DERIVE, wanted, CKO_SECRET_KEY, CKK_GENERIC_SECRET);
    if (result != CKR_OK)
        return result;
    if (wanted.number(CKA_CLASS, CKO_SECRET_KEY) != CKO_SECRET_KEY || wanted.has(CKA_VALUE))
        return refuse(CKR_TEMPLATE_INCONSISTENT, DERIVE, ": a secret key is derived, and its value is not given");
    if (wanted.flag(CKA_TOKEN, false))
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, DERIVE, ": the token keeps no secret keys");
    if (wanted.flag(CKA_PRIVATE, false) && !isUserLoggedIn(session.token))
        return refuse(CKR_USER_NOT_LOGGED_IN, DERIVE, ": the key is private");
    return CKR_OK;
}

CK_RV findBase(const Session& session, CK_OBJECT_HANDLE hBaseKey, const SecretBytes& peer, ObjectPtr& base, View& view)
{
    CK_RV result = findObject(DERIVE, session, hBaseKey, CKR_KEY_HANDLE_INVALID, base);
    if (result == CKR_OK && base->objectClass != CKO_PRIVATE_KEY)
        return refuse(CKR_KEY_TYPE_INCONSISTENT, DERIVE, ": not a private key, handle=", hBaseKey);
    if (result == CKR_OK)
        result = viewWithContents(DERIVE, session.token, base, CKR_KEY_HANDLE_INVALID, view);
    if (result != CKR_OK)
        return result;
    if (view.contents->keyType != CKK_EC)
        return refuse(CKR_KEY_TYPE_INCONSISTENT, DERIVE, ": not an EC key, handle=", hBaseKey);
    if (peer.size() != view.contents->point.size() || peer.front() != 0x04)
        return refuse(CKR_MECHANISM_PARAM_INVALID, DERIVE, ": no point of this curve, ulPublicDataLen=", peer.size());
    return CKR_OK;
}

/// The module keeps each secret under a handle of its own until the end of the process; the front takes a copy.
CK_RV deriveInModule(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE base, SecretBytes& peer, SecretBytes& secret)
{
    CK_ECDH1_DERIVE_PARAMS parameter{CKD_NULL, 0, nullptr, static_cast<CK_ULONG>(peer.size()), peer.data()};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
    CK_OBJECT_HANDLE derived = 0;
    CK_RV result = module().C_DeriveKey(session, &mechanism, base, nullptr, 0, &derived);
    if (result != CKR_OK)
        return result;
    secret.resize(SECRET_ROOM);
    CK_ATTRIBUTE value = {CKA_VALUE, secret.data(), static_cast<CK_ULONG>(secret.size())};
    result = module().C_GetAttributeValue(session, derived, &value, 1);
    secret.resize(result == CKR_OK ? value.ulValueLen : 0);
    return result;
}

} // namespace

CK_RV deriveKey(Session& session, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hBaseKey, CK_ATTRIBUTE_PTR pTemplate,
                CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey)
{
    SecretBytes peer;
    Template wanted;
    ObjectPtr base;
    View view;
    CK_RV result = readMechanism(session, pMechanism, peer);
    if (result == CKR_OK)
        result = readTemplate(session, pTemplate, ulAttributeCount, wanted);
    if (result == CKR_OK && phKey == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, DERIVE, ": phKey is NULL");
    if (result == CKR_OK)
        result = findBase(session, hBaseKey, peer, base, view);
    SecretBytes secret;
    if (result == CKR_OK)
        result = useKeyPair(session.token, Needs::Login, base->moduleHandle & PAIR_NUMBER, view.contents->identity,
                            [&](CK_SESSION_HANDLE moduleSession) {
                                return deriveInModule(moduleSession, base->moduleHandle, peer, secret);
                            });
    if (result == CKR_FUNCTION_FAILED)
        result = unlessPinIsWrong(session.token, CKR_MECHANISM_PARAM_INVALID);
    if (result == CKR_MECHANISM_PARAM_INVALID)
        return refuse(CKR_MECHANISM_PARAM_INVALID, DERIVE, ": the device does not take this point");
    if (result != CKR_OK)
        return result;
    const std::size_t length = wanted.number(CKA_VALUE_LEN, static_cast<CK_ULONG>(secret.size()));
    if (length == 0 || length > secret.size())
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, DERIVE, ": the secret is shorter, CKA_VALUE_LEN=", length);
    shorten(secret, length);
    auto contents = std::make_shared<Contents>();
    contents->keyType = wanted.number(CKA_KEY_TYPE, CKK_GENERIC_SECRET);
    contents->value = std::move(secret);
    return addSessionObject(DERIVE, session, CKO_SECRET_KEY, wanted, std::move(contents), phKey);
}

} // namespace velkor::strict
