#include "strict/mechanisms.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "log/log.h"
#include "strict/slots.h"
#include "strict/texts.h"

namespace velkor::strict
{
namespace
{

constexpr unsigned char SHA1_OF_NOTHING[] = {0xda, 0x39, 0xa3, 0xee, 0x5e, 0x6b, 0x4b, 0x0d, 0x32, 0x55,
                                             0xbf, 0xef, 0x95, 0x60, 0x18, 0x90, 0xaf, 0xd8, 0x07, 0x09};
constexpr unsigned char SHA224_OF_NOTHING[] = {0xd1, 0x4a, 0x02, 0x8c, 0x2a, 0x3a, 0x2b, 0xc9, 0x47, 0x61,
                                               0x02, 0xbb, 0x28, 0x82, 0x34, 0xc4, 0x15, 0xa2, 0xb0, 0x1f,
                                               0x82, 0x8e, 0xa6, 0x2a, 0xc5, 0xb3, 0xe4, 0x2f};
constexpr unsigned char SHA256_OF_NOTHING[] = {0xe3, 0xb0, 0xc4, 0x42, 0x98, 0xfc, 0x1c, 0x14, 0x9a, 0xfb, 0xf4,
                                               0xc8, 0x99, 0x6f, 0xb9, 0x24, 0x27, 0xae, 0x41, 0xe4, 0x64, 0x9b,
                                               0x93, 0x4c, 0xa4, 0x95, 0x99, 0x1b, 0x78, 0x52, 0xb8, 0x55};
constexpr unsigned char SHA384_OF_NOTHING[] = {0x38, 0xb0, 0x60, 0xa7, 0x51, 0xac, 0x96, 0x38, 0x4c, 0xd9, 0x32, 0x7e,
                                               0xb1, 0xb1, 0xe3, 0x6a, 0x21, 0xfd, 0xb7, 0x11, 0x14, 0xbe, 0x07, 0x43,
                                               0x4c, 0x0c, 0xc7, 0xbf, 0x63, 0xf6, 0xe1, 0xda, 0x27, 0x4e, 0xde, 0xbf,
                                               0xe7, 0x6f, 0x65, 0xfb, 0xd5, 0x1a, 0xd2, 0xf1, 0x48, 0x98, 0xb9, 0x5b};
constexpr unsigned char SHA512_OF_NOTHING[] = {
    0xcf, 0x83, 0xe1, 0x35, 0x7e, 0xef, 0xb8, 0xbd, 0xf1, 0x54, 0x28, 0x50, 0xd6, 0x6d, 0x80, 0x07,
    0xd6, 0x20, 0xe4, 0x05, 0x0b, 0x57, 0x15, 0xdc, 0x83, 0xf4, 0xa9, 0x21, 0xd3, 0x6c, 0xe9, 0xce,
    0x47, 0xd0, 0xd1, 0x3c, 0x5d, 0x85, 0xf2, 0xb0, 0xff, 0x83, 0x18, 0xd2, 0x87, 0x7e, 0xec, 0x2f,
    0x63, 0xb9, 0x31, 0xbd, 0x47, 0x41, 0x7a, 0x81, 0xa5, 0x38, 0x32, 0x7a, 0xf9, 0x27, 0xda, 0x3e};

constexpr Hash SHA1 = {CKM_SHA_1, CKG_MGF1_SHA1, 20, SHA1_OF_NOTHING};
constexpr Hash SHA224 = {CKM_SHA224, CKG_MGF1_SHA224, 28, SHA224_OF_NOTHING};
constexpr Hash SHA256 = {CKM_SHA256, CKG_MGF1_SHA256, 32, SHA256_OF_NOTHING};
constexpr Hash SHA384 = {CKM_SHA384, CKG_MGF1_SHA384, 48, SHA384_OF_NOTHING};
constexpr Hash SHA512 = {CKM_SHA512, CKG_MGF1_SHA512, 64, SHA512_OF_NOTHING};
constexpr const Hash* HASHES[] = {&SHA1, &SHA224, &SHA256, &SHA384, &SHA512};

constexpr Mechanism SIGNATURES[] = {
    {CKM_RSA_PKCS, CKK_RSA, Padding::Pkcs1, CKM_RSA_PKCS},
    {CKM_SHA1_RSA_PKCS, CKK_RSA, Padding::Pkcs1, CKM_RSA_PKCS, &SHA1},
    {CKM_SHA224_RSA_PKCS, CKK_RSA, Padding::Pkcs1, CKM_RSA_PKCS, &SHA224},
    {CKM_SHA256_RSA_PKCS, CKK_RSA, Padding::Pkcs1, CKM_RSA_PKCS, &SHA256},
    {CKM_SHA384_RSA_PKCS, CKK_RSA, Padding::Pkcs1, CKM_RSA_PKCS, &SHA384},
    {CKM_SHA512_RSA_PKCS, CKK_RSA, Padding::Pkcs1, CKM_RSA_PKCS, &SHA512},
    {CKM_RSA_PKCS_PSS, CKK_RSA, Padding::Pss, CKM_RSA_PKCS_PSS},
    {CKM_SHA1_RSA_PKCS_PSS, CKK_RSA, Padding::Pss, CKM_RSA_PKCS_PSS, &SHA1},
    {CKM_SHA224_RSA_PKCS_PSS, CKK_RSA, Padding::Pss, CKM_RSA_PKCS_PSS, &SHA224},
    {CKM_SHA256_RSA_PKCS_PSS, CKK_RSA, Padding::Pss, CKM_RSA_PKCS_PSS, &SHA256},
    {CKM_SHA384_RSA_PKCS_PSS, CKK_RSA, Padding::Pss, CKM_RSA_PKCS_PSS, &SHA384},
    {CKM_SHA512_RSA_PKCS_PSS, CKK_RSA, Padding::Pss, CKM_RSA_PKCS_PSS, &SHA512},
    {CKM_ECDSA, CKK_EC, Padding::None, CKM_ECDSA},
    {CKM_ECDSA_SHA1, CKK_EC, Padding::None, CKM_ECDSA, &SHA1},
    {CKM_ECDSA_SHA224, CKK_EC, Padding::None, CKM_ECDSA, &SHA224},
    {CKM_ECDSA_SHA256, CKK_EC, Padding::None, CKM_ECDSA, &SHA256},
    {CKM_ECDSA_SHA384, CKK_EC, Padding::None, CKM_ECDSA, &SHA384},
    {CKM_ECDSA_SHA512, CKK_EC, Padding::None, CKM_ECDSA, &SHA512, false},
};

constexpr Mechanism CIPHERS[] = {
    {CKM_RSA_PKCS, CKK_RSA, Padding::Pkcs1, CKM_RSA_PKCS},
    {CKM_RSA_PKCS_OAEP, CKK_RSA, Padding::Oaep, CKM_RSA_PKCS_OAEP},
};

constexpr CK_FLAGS EC_FLAGS = CKF_EC_F_P | CKF_EC_NAMEDCURVE | CKF_EC_UNCOMPRESS;

template <std::size_t Count>
const Mechanism* find(const Mechanism (&rows)[Count], CK_MECHANISM_TYPE type)
{
    const auto* row =
        std::find_if(std::begin(rows), std::end(rows), [&](const Mechanism& each) { return each.type == type; });
    return row != std::end(rows) ? row : nullptr;
}

bool wantsRecentFirmware(CK_MECHANISM_TYPE type)
{
    const Mechanism* signature = findSignatureMechanism(type);
    return type == CKM_RSA_PKCS_OAEP || type == CKM_ECDH1_DERIVE ||
           (signature != nullptr && signature->padding == Padding::Pss);
}

bool isRecent(const Token& token)
{
    return token.tokenInfo.firmwareVersion.major >= 2;
}

/// The module's own rule: the third character of the model decides.
bool isFipsToken(const Token& token)
{
    const auto model = textOf(token.tokenInfo.model);
    return model.size() < 3 || model[2] != '1';
}

bool signsWithSha1(CK_MECHANISM_TYPE type)
{
    const Mechanism* signature = findSignatureMechanism(type);
    return signature != nullptr && signature->hash == &SHA1;
}

bool isListed(const Token& token, CK_MECHANISM_TYPE type)
{
    const std::scoped_lock lock(state().lock);
    return isRecent(token) || !wantsRecentFirmware(type);
}

CK_RV checkPss(const char* name, const Mechanism& mechanism, const CK_MECHANISM& given)
{
    CK_RSA_PKCS_PSS_PARAMS parameter{};
    const bool isThere = given.pParameter != nullptr && given.ulParameterLen == sizeof parameter;
    if (isThere)
        std::memcpy(&parameter, given.pParameter, sizeof parameter);
    const Hash* hash = isThere ? findHash(parameter.hashAlg) : nullptr;
    if (hash == nullptr || parameter.mgf != hash->maskGeneration || parameter.sLen != hash->size ||
        (mechanism.hash != nullptr && mechanism.hash != hash))
        return refuse(CKR_MECHANISM_PARAM_INVALID, name,
                      ": PSS with one hash for data and mask and a salt of its size only, mechanism=",
                      CK_MECHANISM_TYPE{given.mechanism});
    return CKR_OK;
}

CK_RV checkOaep(const char* name, const CK_MECHANISM& given)
{
    CK_RSA_PKCS_OAEP_PARAMS parameter{};
    const bool isThere = given.pParameter != nullptr && given.ulParameterLen == sizeof parameter;
    if (isThere)
        std::memcpy(&parameter, given.pParameter, sizeof parameter);
    if (!isThere || parameter.hashAlg != CKM_SHA_1 || parameter.mgf != CKG_MGF1_SHA1 ||
        parameter.ulSourceDataLen != 0 || parameter.source > CKZ_DATA_SPECIFIED)
        return refuse(CKR_MECHANISM_PARAM_INVALID, name, ": OAEP with SHA-1, MGF1 with SHA-1 and no label only");
    return CKR_OK;
}

/// The module's list for the slot, and what the front adds and leaves out.
CK_RV listMechanisms(const Token& token, std::vector<CK_MECHANISM_TYPE>& list)
{
    constexpr CK_ULONG ROOM = 64;
    list.resize(ROOM);
    CK_ULONG count = ROOM;
    {
        const std::scoped_lock slots(state().slotLock);
        CK_SLOT_ID moduleSlot = 0;
        moduleSlotOf(token, moduleSlot);
        const CK_RV result = module().C_GetMechanismList(moduleSlot, list.data(), &count);
        if (result != CKR_OK)
            return result;
    }
    list.resize(count);
    std::erase_if(list, [&](CK_MECHANISM_TYPE type) { return !isListed(token, type); });
    for (const Mechanism& mechanism : SIGNATURES) {
        if (!mechanism.isInModule)
            list.push_back(mechanism.type);
    }
    return CKR_OK;
}

} // namespace

const Hash* findHash(CK_MECHANISM_TYPE type)
{
    const auto* const* found =
        std::find_if(std::begin(HASHES), std::end(HASHES), [&](const Hash* hash) { return hash->digest == type; });
    return found != std::end(HASHES) ? *found : nullptr;
}

const Mechanism* findSignatureMechanism(CK_MECHANISM_TYPE type)
{
    return find(SIGNATURES, type);
}

const Mechanism* findCipherMechanism(CK_MECHANISM_TYPE type)
{
    return find(CIPHERS, type);
}

std::vector<CK_MECHANISM_TYPE> mechanismsOf(CK_KEY_TYPE keyType)
{
    std::vector<CK_MECHANISM_TYPE> types;
    const auto add = [&](CK_MECHANISM_TYPE type) {
        if (std::find(types.begin(), types.end(), type) == types.end())
            types.push_back(type);
    };
    for (const Mechanism& mechanism : SIGNATURES) {
        if (mechanism.keyType == keyType)
            add(mechanism.type);
    }
    for (const Mechanism& mechanism : CIPHERS) {
        if (mechanism.keyType == keyType)
            add(mechanism.type);
    }
    if (keyType == CKK_EC)
        add(CKM_ECDH1_DERIVE);
    return types;
}

bool isOffered(const Token& token, CK_MECHANISM_TYPE type, CK_FLAGS use)
{
    const std::scoped_lock lock(state().lock);
    if (wantsRecentFirmware(type) && !isRecent(token))
        return false;
    return use != CKF_SIGN || !signsWithSha1(type) || !isFipsToken(token);
}

CK_RV checkParameter(const char* name, const Mechanism& mechanism, const CK_MECHANISM& given)
{
    if (mechanism.padding == Padding::Pss)
        return checkPss(name, mechanism, given);
    if (mechanism.padding == Padding::Oaep)
        return checkOaep(name, given);
    if (given.pParameter != nullptr || given.ulParameterLen != 0)
        return refuse(CKR_MECHANISM_PARAM_INVALID, name,
                      ": the mechanism has no parameter, mechanism=", CK_MECHANISM_TYPE{given.mechanism});
    return CKR_OK;
}

std::size_t hashSizeInParameter(const Mechanism& mechanism, const CK_MECHANISM& given)
{
    if (mechanism.padding != Padding::Pss)
        return 0;
    CK_RSA_PKCS_PSS_PARAMS parameter{};
    std::memcpy(&parameter, given.pParameter, sizeof parameter);
    return findHash(parameter.hashAlg)->size;
}

CK_RV getMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList, CK_ULONG_PTR pulCount)
{
    Token* token = nullptr;
    CK_RV result = findPresentToken("C_GetMechanismList", slotID, token);
    if (result != CKR_OK)
        return result;
    if (pulCount == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetMechanismList: pulCount is NULL");
    std::vector<CK_MECHANISM_TYPE> list;
    result = listMechanisms(*token, list);
    if (result != CKR_OK)
        return result;
    const CK_ULONG room = *pulCount;
    *pulCount = static_cast<CK_ULONG>(list.size());
    if (pMechanismList == nullptr)
        return CKR_OK;
    if (list.size() > room)
        return refuse(CKR_BUFFER_TOO_SMALL, "C_GetMechanismList: buffer too small, *pulCount=", room,
                      " mechanismCount=", list.size());
    std::copy(list.begin(), list.end(), pMechanismList);
    return CKR_OK;
}

CK_RV getMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo)
{
    Token* token = nullptr;
    CK_RV result = findPresentToken("C_GetMechanismInfo", slotID, token);
    if (result != CKR_OK)
        return result;
    if (pInfo == nullptr)
        return refuse(CKR_ARGUMENTS_BAD, "C_GetMechanismInfo: pInfo is NULL");
    const Mechanism* own = findSignatureMechanism(type);
    const bool isOwn = own != nullptr && !own->isInModule;
    if (!isListed(*token, type))
        return refuse(CKR_MECHANISM_INVALID, "C_GetMechanismInfo: not with this firmware, mechanism type=", type);
    const std::scoped_lock slots(state().slotLock);
    CK_SLOT_ID moduleSlot = 0;
    moduleSlotOf(*token, moduleSlot);
    result = module().C_GetMechanismInfo(moduleSlot, isOwn ? own->raw : type, pInfo);
    if (result == CKR_OK && pInfo->ulMaxKeySize == 521)
        pInfo->flags |= EC_FLAGS;
    return result;
}

} // namespace velkor::strict
