#include "strict/generation.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "log/log.h"
#include "objects/handles.h"
#include "strict/device_access.h"
#include "strict/login.h"
#include "strict/mechanisms.h"
#include "strict/objects.h"
#include "strict/sessions.h"
#include "util/der.h"

namespace velkor::strict
{
namespace
{

constexpr const char* GENERATE = "C_GenerateKeyPair";

constexpr unsigned char P256[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
constexpr unsigned char P384[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
constexpr unsigned char P521[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};

/// What the host wants, of both templates.
struct Wanted {
    CK_KEY_TYPE keyType;
    Template ofPublic;
    Template ofPrivate;
};

CK_RV readWanted(const CK_MECHANISM* pMechanism, GivenTemplate ofPublic, GivenTemplate ofPrivate, Wanted& wanted)
{
    if (pMechanism == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, GENERATE, ": pMechanism is NULL");
    const CK_MECHANISM_TYPE type = pMechanism->mechanism;
    if (type != CKM_RSA_PKCS_KEY_PAIR_GEN && type != CKM_EC_KEY_PAIR_GEN)
        return refuse(CKR_MECHANISM_INVALID, GENERATE, ": unsupported mechanism=", type);
    if (pMechanism->pParameter != nullptr || pMechanism->ulParameterLen != 0)
        return refuse(CKR_MECHANISM_PARAM_INVALID, GENERATE, ": the mechanism has no parameter, mechanism=", type);
    wanted.keyType = type == CKM_EC_KEY_PAIR_GEN ? CKK_EC : CKK_RSA;
    CK_RV result = Template::read(GENERATE, ofPublic.attributes, ofPublic.count, wanted.ofPublic);
    if (result == CKR_OK)
        result = Template::read(GENERATE, ofPrivate.attributes, ofPrivate.count, wanted.ofPrivate);
    if (result == CKR_OK)
        result = checkTemplate(GENERATE, wanted.ofPublic, CKO_PUBLIC_KEY, wanted.keyType);
    if (result == CKR_OK)
        result = checkTemplate(GENERATE, wanted.ofPrivate, CKO_PRIVATE_KEY, wanted.keyType);
    return result;
}

/// Class and key type follow from the mechanism; a template may repeat them.
CK_RV checkConsistent(const Wanted& wanted)
{
    const bool isConsistent = wanted.ofPublic.number(CKA_CLASS, CKO_PUBLIC_KEY) == CKO_PUBLIC_KEY &&
                              wanted.ofPrivate.number(CKA_CLASS, CKO_PRIVATE_KEY) == CKO_PRIVATE_KEY &&
                              wanted.ofPublic.number(CKA_KEY_TYPE, wanted.keyType) == wanted.keyType &&
                              wanted.ofPrivate.number(CKA_KEY_TYPE, wanted.keyType) == wanted.keyType;
    if (!isConsistent)
        return refuse(CKR_TEMPLATE_INCONSISTENT, GENERATE, ": class or key type does not suit the mechanism");
    return CKR_OK;
}

CK_RV checkRsa(const Template& ofPublic)
{
    if (!ofPublic.has(CKA_MODULUS_BITS))
        return refuse(CKR_TEMPLATE_INCOMPLETE, GENERATE, ": CKA_MODULUS_BITS is missing");
    constexpr CK_ULONG SIZES[] = {2048, 3072, 4096};
    const CK_ULONG bits = ofPublic.number(CKA_MODULUS_BITS, 0);
    if (std::find(std::begin(SIZES), std::end(SIZES), bits) == std::end(SIZES))
        return refuse(CKR_KEY_SIZE_RANGE, GENERATE, ": unsupported RSA modulusBits=", bits);
    Bytes exponent = ofPublic.bytes(CKA_PUBLIC_EXPONENT);
    while (!exponent.empty() && exponent.front() == 0)
        exponent = exponent.subspan(1);
    if (!exponent.empty() && !sameBytes(exponent, RSA_PUBLIC_EXPONENT))
        return refuse(CKR_ATTRIBUTE_VALUE_INVALID, GENERATE, ": the public exponent has to be 65537");
    return CKR_OK;
}

CK_RV checkEc(const Wanted& wanted)
{
    Bytes curve = wanted.ofPublic.bytes(CKA_EC_PARAMS);
    if (curve.empty())
        return refuse(CKR_TEMPLATE_INCOMPLETE, GENERATE, ": CKA_EC_PARAMS is missing");
    constexpr std::span<const unsigned char> CURVES[] = {P256, P384, P521};
    if (std::none_of(std::begin(CURVES), std::end(CURVES), [&](Bytes each) { return sameBytes(each, curve); }))
        return refuse(CKR_DOMAIN_PARAMS_INVALID, GENERATE, ": the token lacks this curve, ulValueLen=", curve.size());
    return CKR_OK;
}

/// A use that either half asks for, the device has for both. Where nothing is said, all of them are meant.
CK_BBOOL useOf(const Wanted& wanted, CK_ATTRIBUTE_TYPE ofPrivate, CK_ATTRIBUTE_TYPE ofPublic)
{
    const bool isSaid = wanted.ofPrivate.has(ofPrivate) || wanted.ofPublic.has(ofPublic);
    const bool isWanted = wanted.ofPrivate.flag(ofPrivate, false) || wanted.ofPublic.flag(ofPublic, false);
    return !isSaid || isWanted ? CK_TRUE : CK_FALSE;
}

CK_BBOOL signs(const Wanted& wanted)
{
    return useOf(wanted, CKA_SIGN, CKA_VERIFY);
}

CK_BBOOL decrypts(const Wanted& wanted)
{
    return useOf(wanted, CKA_DECRYPT, CKA_ENCRYPT);
}

/// The module takes a request for no use at all for one of signing.
CK_RV checkUses(const Wanted& wanted)
{
    if (wanted.keyType == CKK_RSA && signs(wanted) == CK_FALSE && decrypts(wanted) == CK_FALSE)
        return refuse(CKR_TEMPLATE_INCONSISTENT, GENERATE, ": the token has no keys that neither sign nor decrypt");
    return CKR_OK;
}

CK_RV check(const Session& session, const Wanted& wanted)
{
    CK_RV result = checkConsistent(wanted);
    if (result == CKR_OK)
        result = wanted.keyType == CKK_RSA ? checkRsa(wanted.ofPublic) : checkEc(wanted);
    if (result == CKR_OK)
        result = checkUses(wanted);
    for (const Template* each : {&wanted.ofPrivate, &wanted.ofPublic}) {
        for (const CK_ATTRIBUTE_TYPE type : {CKA_LABEL, CKA_ID}) {
            if (result == CKR_OK && !each->bytes(type).empty())
                result = checkName(GENERATE, type, each->bytes(type));
        }
    }
    if (result != CKR_OK)
        return result;
    const bool toToken = wanted.ofPrivate.flag(CKA_TOKEN, false) || wanted.ofPublic.flag(CKA_TOKEN, false);
    if (toToken && !session.isReadWrite)
        return refuse(CKR_SESSION_READ_ONLY, GENERATE, ": session is read-only");
    if (!isUserLoggedIn(session.token))
        return refuse(CKR_USER_NOT_LOGGED_IN, GENERATE, ": private keys need a login");
    return CKR_OK;
}

/// The module has generation take ID and label from the private template; without one there, the public one's count.
SecretBytes nameOf(const Wanted& wanted, CK_ATTRIBUTE_TYPE type)
{
    const Bytes ofPrivate = wanted.ofPrivate.bytes(type);
    return secretCopyOf(ofPrivate.empty() ? wanted.ofPublic.bytes(type) : ofPrivate);
}

CK_RV generateInModule(CK_SESSION_HANDLE session, const CK_MECHANISM& given, const Wanted& wanted,
                       CK_OBJECT_HANDLE& publicKey, CK_OBJECT_HANDLE& privateKey)
{
    CK_KEY_TYPE keyType = wanted.keyType;
    CK_BBOOL maySign = signs(wanted);
    CK_BBOOL mayDecrypt = decrypts(wanted);
    if (keyType == CKK_EC && maySign == CK_FALSE) // It still derives.
        mayDecrypt = CK_TRUE;
    SecretBytes label = nameOf(wanted, CKA_LABEL);
    SecretBytes id = nameOf(wanted, CKA_ID);
    const CK_ATTRIBUTE_TYPE sizeType = keyType == CKK_EC ? CKA_EC_PARAMS : CKA_MODULUS_BITS;
    SecretBytes size = secretCopyOf(wanted.ofPublic.bytes(sizeType));
    CK_ATTRIBUTE ofPublic[] = {{sizeType, size.data(), static_cast<CK_ULONG>(size.size())}};
    CK_ATTRIBUTE ofPrivate[] = {{CKA_KEY_TYPE, &keyType, sizeof keyType},
                                {CKA_SIGN, &maySign, sizeof maySign},
                                {CKA_DECRYPT, &mayDecrypt, sizeof mayDecrypt},
                                {CKA_LABEL, label.data(), static_cast<CK_ULONG>(label.size())},
                                {CKA_ID, id.data(), static_cast<CK_ULONG>(id.size())}};
    CK_MECHANISM mechanism = given;
    return module().C_GenerateKeyPair(session, &mechanism, ofPublic, 1, ofPrivate,
                                      static_cast<CK_ULONG>(std::size(ofPrivate)), &publicKey, &privateKey);
}

} // namespace

CK_RV generateKeyPair(Session& session, CK_MECHANISM_PTR pMechanism, GivenTemplate ofPublic, GivenTemplate ofPrivate,
                      CK_OBJECT_HANDLE_PTR phPublicKey, CK_OBJECT_HANDLE_PTR phPrivateKey)
{
    if (phPublicKey == nullptr || phPrivateKey == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, GENERATE, ": no room for handles");
    Wanted wanted{};
    CK_RV result = readWanted(pMechanism, ofPublic, ofPrivate, wanted);
    if (result == CKR_OK)
        result = check(session, wanted);
    if (result != CKR_OK)
        return result;
    NewPair pair(session, wishesOf(wanted.ofPublic), wishesOf(wanted.ofPrivate));
    result = usePin(session.token, Needs::Login, [&](CK_SESSION_HANDLE moduleSession) {
        CK_OBJECT_HANDLE publicKey = 0;
        CK_OBJECT_HANDLE privateKey = 0;
        const CK_RV status = generateInModule(moduleSession, *pMechanism, wanted, publicKey, privateKey);
        if (status == CKR_OK)
            pair.adopt(privateKey & PAIR_NUMBER);
        return status;
    });
    return result == CKR_OK ? pair.finish(GENERATE, *phPublicKey, *phPrivateKey) : result;
}

CK_RV generateRandom(Session& session, CK_BYTE_PTR pRandomData, CK_ULONG ulRandomLen)
{
    constexpr CK_ULONG PIECE = 1U << 30U; // The device counts in signed 32-bit numbers.
    if (pRandomData == nullptr && ulRandomLen != 0)
        return refuse(CKR_ARGUMENTS_BAD, "C_GenerateRandom: RandomData is NULL");
    CK_RV result = CKR_OK;
    while (ulRandomLen != 0 && result == CKR_OK) {
        const CK_ULONG length = std::min(ulRandomLen, PIECE);
        result = useToken(session.token, [&](CK_SESSION_HANDLE moduleSession) {
            return module().C_GenerateRandom(moduleSession, pRandomData, length);
        });
        pRandomData += length;
        ulRandomLen -= length;
    }
    return result;
}

} // namespace velkor::strict
