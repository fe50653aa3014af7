#include "calls.h"

#include <vector>

namespace fuzz
{
namespace
{

using CipherOrSignature = CK_RV (*)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR);

/// Slots and handles that come back: as many as fit, or a short list.
constexpr CK_ULONG MOST_HANDLES = 40;

CK_RV getFunctionList(Host& host)
{
    return host.p11.C_GetFunctionList(host.room<CK_FUNCTION_LIST_PTR>());
}

/// A list that is counted first, or fetched into a room of any size.
template <typename Item, typename Call>
CK_RV fetchList(Host& host, const Call& call, std::vector<Item>& items)
{
    auto* count = host.room<CK_ULONG>();
    if (count == nullptr || host.input.ConsumeBool())
        return call(static_cast<Item*>(nullptr), count);
    const auto given = host.input.ConsumeIntegralInRange<CK_ULONG>(0, MOST_HANDLES);
    *count = given;
    auto* list = host.room<Item>(given);
    const CK_RV code = call(list, count);
    if (code != CKR_OK)
        return code;
    expect(*count <= given, "a list is no longer than its room");
    items.assign(list, list + *count);
    return code;
}

CK_RV getSlotList(Host& host)
{
    const CK_BBOOL present = host.input.ConsumeIntegralInRange<CK_BBOOL>(0, 1);
    std::vector<CK_SLOT_ID> slots;
    const auto call = [&](CK_SLOT_ID* list, CK_ULONG* count) { return host.p11.C_GetSlotList(present, list, count); };
    const CK_RV code = fetchList(host, call, slots);
    for (const CK_SLOT_ID slot : slots)
        host.learnSlot(slot);
    return code;
}

CK_RV getMechanismList(Host& host)
{
    const CK_SLOT_ID slot = host.slot();
    std::vector<CK_MECHANISM_TYPE> types;
    const auto call = [&](CK_MECHANISM_TYPE* list, CK_ULONG* count) {
        return host.p11.C_GetMechanismList(slot, list, count);
    };
    return fetchList(host, call, types);
}

CK_RV openSession(Host& host)
{
    const CK_SLOT_ID slot = host.slot();
    CK_FLAGS flags = host.isRarely() ? host.number() : CKF_SERIAL_SESSION;
    if (host.input.ConsumeBool())
        flags |= CKF_RW_SESSION;
    auto* session = host.room<CK_SESSION_HANDLE>();
    const CK_RV code = host.p11.C_OpenSession(slot, flags, nullptr, nullptr, session);
    if (code == CKR_OK)
        host.learnSession(*session);
    return code;
}

CK_RV setPin(Host& host)
{
    const CK_SESSION_HANDLE session = host.session();
    const Data oldPin = host.pin();
    const Data newPin = host.pin();
    return host.p11.C_SetPIN(session, oldPin.bytes, oldPin.length, newPin.bytes, newPin.length);
}

CK_RV login(Host& host)
{
    const CK_SESSION_HANDLE session = host.session();
    const CK_USER_TYPE user = host.isRarely() ? host.number() : host.input.ConsumeIntegralInRange<CK_USER_TYPE>(0, 2);
    const Data pin = host.pin();
    return host.p11.C_Login(session, user, pin.bytes, pin.length);
}

CK_RV createObject(Host& host)
{
    const CK_SESSION_HANDLE session = host.session();
    const Attributes wanted = host.attributes();
    auto* object = host.room<CK_OBJECT_HANDLE>();
    const CK_RV code = host.p11.C_CreateObject(session, wanted.entries, wanted.count, object);
    if (code == CKR_OK)
        host.learnObject(*object);
    return code;
}

CK_RV copyObject(Host& host)
{
    const CK_SESSION_HANDLE session = host.session();
    const CK_OBJECT_HANDLE original = host.object();
    const Attributes wanted = host.attributes();
    auto* object = host.room<CK_OBJECT_HANDLE>();
    const CK_RV code = host.p11.C_CopyObject(session, original, wanted.entries, wanted.count, object);
    if (code == CKR_OK)
        host.learnObject(*object);
    return code;
}

CK_RV getAttributeValue(Host& host)
{
    const CK_SESSION_HANDLE session = host.session();
    const CK_OBJECT_HANDLE object = host.object();
    const Attributes asked = host.questions();
    std::vector<CK_ULONG> sizes;
    for (CK_ULONG index = 0; asked.entries != nullptr && index < asked.count; ++index)
        sizes.push_back(CK_ULONG{asked.entries[index].ulValueLen});
    const CK_RV code = host.p11.C_GetAttributeValue(session, object, asked.entries, asked.count);
    Host::checkAnswers(asked, sizes);
    return code;
}

CK_RV setAttributeValue(Host& host)
{
    const CK_SESSION_HANDLE session = host.session();
    const CK_OBJECT_HANDLE object = host.object();
    const Attributes wanted = host.attributes();
    return host.p11.C_SetAttributeValue(session, object, wanted.entries, wanted.count);
}

CK_RV findObjectsInit(Host& host)
{
    const CK_SESSION_HANDLE session = host.session();
    const Attributes criteria = host.attributes();
    return host.p11.C_FindObjectsInit(session, criteria.entries, criteria.count);
}

CK_RV findObjects(Host& host)
{
    const CK_SESSION_HANDLE session = host.session();
    const auto most = host.input.ConsumeIntegralInRange<CK_ULONG>(0, MOST_HANDLES);
    auto* found = host.isRarely() ? nullptr : host.room<CK_OBJECT_HANDLE>(most);
    auto* count = host.room<CK_ULONG>();
    const CK_RV code = host.p11.C_FindObjects(session, found, most, count);
    if (code != CKR_OK)
        return code;
    expect(*count <= most, "no more objects are found than there is room for");
    for (CK_ULONG index = 0; index < *count; ++index)
        host.learnObject(found[index]);
    return code;
}

CK_RV begin(Host& host, CK_RV (*init)(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE))
{
    const CK_SESSION_HANDLE session = host.session();
    const CK_OBJECT_HANDLE key = host.object();
    return init(session, host.mechanism(), key);
}

CK_RV transform(Host& host, CipherOrSignature function)
{
    const CK_SESSION_HANDLE session = host.session();
    const Data given = host.data();
    return host.fetch(
        [&](CK_BYTE* bytes, CK_ULONG* length) { return function(session, given.bytes, given.length, bytes, length); });
}

CK_RV finish(Host& host, CK_RV (*function)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR))
{
    const CK_SESSION_HANDLE session = host.session();
    return host.fetch([&](CK_BYTE* bytes, CK_ULONG* length) { return function(session, bytes, length); });
}

CK_RV addPart(Host& host, CK_RV (*function)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG))
{
    const CK_SESSION_HANDLE session = host.session();
    const Data part = host.data();
    return function(session, part.bytes, part.length);
}

CK_RV verify(Host& host)
{
    const CK_SESSION_HANDLE session = host.session();
    const Data data = host.data();
    const Data signature = host.data();
    return host.p11.C_Verify(session, data.bytes, data.length, signature.bytes, signature.length);
}

CK_RV generateKeyPair(Host& host)
{
    const CK_SESSION_HANDLE session = host.session();
    CK_MECHANISM* mechanism = host.mechanism();
    const Attributes ofPublic = host.attributes();
    const Attributes ofPrivate = host.attributes();
    auto* publicKey = host.room<CK_OBJECT_HANDLE>();
    auto* privateKey = host.room<CK_OBJECT_HANDLE>();
    const CK_RV code = host.p11.C_GenerateKeyPair(session, mechanism, ofPublic.entries, ofPublic.count,
                                                  ofPrivate.entries, ofPrivate.count, publicKey, privateKey);
    if (code == CKR_OK) {
        host.learnObject(*publicKey);
        host.learnObject(*privateKey);
    }
    return code;
}

CK_RV deriveKey(Host& host)
{
    const CK_SESSION_HANDLE session = host.session();
    CK_MECHANISM* mechanism = host.mechanism();
    const CK_OBJECT_HANDLE key = host.object();
    const Attributes wanted = host.attributes();
    auto* derived = host.room<CK_OBJECT_HANDLE>();
    const CK_RV code = host.p11.C_DeriveKey(session, mechanism, key, wanted.entries, wanted.count, derived);
    if (code == CKR_OK)
        host.learnObject(*derived);
    return code;
}

/// Never waits: nobody would end it.
CK_RV waitForSlotEvent(Host& host)
{
    const CK_FLAGS flags = host.number() | CKF_DONT_BLOCK;
    return host.p11.C_WaitForSlotEvent(flags, host.room<CK_SLOT_ID>(), nullptr);
}

// Functions that both libraries refuse in every case are given what they do not look at.
// clang-format off
constexpr CallRow CALLS[] = {
    {"C_GetInfo",             [](Host& host) { return host.p11.C_GetInfo(host.room<CK_INFO>()); }},
    {"C_GetFunctionList",     getFunctionList},
    {"C_GetSlotList",         getSlotList},
    {"C_GetSlotInfo",         [](Host& host) { const auto slot = host.slot(); return host.p11.C_GetSlotInfo(slot, host.room<CK_SLOT_INFO>()); }},
    {"C_GetTokenInfo",        [](Host& host) { const auto slot = host.slot(); return host.p11.C_GetTokenInfo(slot, host.room<CK_TOKEN_INFO>()); }},
    {"C_GetMechanismList",    getMechanismList},
    {"C_GetMechanismInfo",    [](Host& host) { const auto slot = host.slot(); const auto type = host.number(); return host.p11.C_GetMechanismInfo(slot, type, host.room<CK_MECHANISM_INFO>()); }},
    {"C_InitToken",           [](Host& host) { return host.p11.C_InitToken(host.slot(), nullptr, 0, nullptr); }},
    {"C_InitPIN",             [](Host& host) { return host.p11.C_InitPIN(host.session(), nullptr, 0); }},
    {"C_SetPIN",              setPin},
    {"C_OpenSession",         openSession},
    {"C_CloseSession",        [](Host& host) { return host.p11.C_CloseSession(host.session()); }},
    {"C_CloseAllSessions",    [](Host& host) { return host.p11.C_CloseAllSessions(host.slot()); }},
    {"C_GetSessionInfo",      [](Host& host) { const auto session = host.session(); return host.p11.C_GetSessionInfo(session, host.room<CK_SESSION_INFO>()); }},
    {"C_GetOperationState",   [](Host& host) { return host.p11.C_GetOperationState(host.session(), nullptr, nullptr); }},
    {"C_SetOperationState",   [](Host& host) { return host.p11.C_SetOperationState(host.session(), nullptr, 0, 0, 0); }},
    {"C_Login",               login},
    {"C_Logout",              [](Host& host) { return host.p11.C_Logout(host.session()); }},
    {"C_CreateObject",        createObject},
    {"C_CopyObject",          copyObject},
    {"C_DestroyObject",       [](Host& host) { const auto session = host.session(); return host.p11.C_DestroyObject(session, host.object()); }},
    {"C_GetObjectSize",       [](Host& host) { const auto session = host.session(); const auto object = host.object(); return host.p11.C_GetObjectSize(session, object, host.room<CK_ULONG>()); }},
    {"C_GetAttributeValue",   getAttributeValue},
    {"C_SetAttributeValue",   setAttributeValue},
    {"C_FindObjectsInit",     findObjectsInit},
    {"C_FindObjects",         findObjects},
    {"C_FindObjectsFinal",    [](Host& host) { return host.p11.C_FindObjectsFinal(host.session()); }},
    {"C_EncryptInit",         [](Host& host) { return begin(host, host.p11.C_EncryptInit); }},
    {"C_Encrypt",             [](Host& host) { return transform(host, host.p11.C_Encrypt); }},
    {"C_EncryptUpdate",       [](Host& host) { return transform(host, host.p11.C_EncryptUpdate); }},
    {"C_EncryptFinal",        [](Host& host) { return finish(host, host.p11.C_EncryptFinal); }},
    {"C_DecryptInit",         [](Host& host) { return begin(host, host.p11.C_DecryptInit); }},
    {"C_Decrypt",             [](Host& host) { return transform(host, host.p11.C_Decrypt); }},
    {"C_DecryptUpdate",       [](Host& host) { return transform(host, host.p11.C_DecryptUpdate); }},
    {"C_DecryptFinal",        [](Host& host) { return finish(host, host.p11.C_DecryptFinal); }},
    {"C_DigestInit",          [](Host& host) { const auto session = host.session(); return host.p11.C_DigestInit(session, host.mechanism()); }},
    {"C_Digest",              [](Host& host) { return transform(host, host.p11.C_Digest); }},
    {"C_DigestUpdate",        [](Host& host) { return addPart(host, host.p11.C_DigestUpdate); }},
    {"C_DigestKey",           [](Host& host) { return host.p11.C_DigestKey(host.session(), 0); }},
    {"C_DigestFinal",         [](Host& host) { return finish(host, host.p11.C_DigestFinal); }},
    {"C_SignInit",            [](Host& host) { return begin(host, host.p11.C_SignInit); }},
    {"C_Sign",                [](Host& host) { return transform(host, host.p11.C_Sign); }},
    {"C_SignUpdate",          [](Host& host) { return addPart(host, host.p11.C_SignUpdate); }},
    {"C_SignFinal",           [](Host& host) { return finish(host, host.p11.C_SignFinal); }},
    {"C_SignRecoverInit",     [](Host& host) { return host.p11.C_SignRecoverInit(host.session(), nullptr, 0); }},
    {"C_SignRecover",         [](Host& host) { return host.p11.C_SignRecover(host.session(), nullptr, 0, nullptr, nullptr); }},
    {"C_VerifyInit",          [](Host& host) { return begin(host, host.p11.C_VerifyInit); }},
    {"C_Verify",              verify},
    {"C_VerifyUpdate",        [](Host& host) { return addPart(host, host.p11.C_VerifyUpdate); }},
    {"C_VerifyFinal",         [](Host& host) { return addPart(host, host.p11.C_VerifyFinal); }},
    {"C_VerifyRecoverInit",   [](Host& host) { return host.p11.C_VerifyRecoverInit(host.session(), nullptr, 0); }},
    {"C_VerifyRecover",       [](Host& host) { return host.p11.C_VerifyRecover(host.session(), nullptr, 0, nullptr, nullptr); }},
    {"C_DigestEncryptUpdate", [](Host& host) { return host.p11.C_DigestEncryptUpdate(host.session(), nullptr, 0, nullptr, nullptr); }},
    {"C_DecryptDigestUpdate", [](Host& host) { return host.p11.C_DecryptDigestUpdate(host.session(), nullptr, 0, nullptr, nullptr); }},
    {"C_SignEncryptUpdate",   [](Host& host) { return host.p11.C_SignEncryptUpdate(host.session(), nullptr, 0, nullptr, nullptr); }},
    {"C_DecryptVerifyUpdate", [](Host& host) { return host.p11.C_DecryptVerifyUpdate(host.session(), nullptr, 0, nullptr, nullptr); }},
    {"C_GenerateKey",         [](Host& host) { return host.p11.C_GenerateKey(host.session(), nullptr, nullptr, 0, nullptr); }},
    {"C_GenerateKeyPair",     generateKeyPair},
    {"C_WrapKey",             [](Host& host) { return host.p11.C_WrapKey(host.session(), nullptr, 0, 0, nullptr, nullptr); }},
    {"C_UnwrapKey",           [](Host& host) { return host.p11.C_UnwrapKey(host.session(), nullptr, 0, nullptr, 0, nullptr, 0, nullptr); }},
    {"C_DeriveKey",           deriveKey},
    {"C_SeedRandom",          [](Host& host) { return addPart(host, host.p11.C_SeedRandom); }},
    {"C_GenerateRandom",      [](Host& host) { return addPart(host, host.p11.C_GenerateRandom); }},
    {"C_GetFunctionStatus",   [](Host& host) { return host.p11.C_GetFunctionStatus(host.session()); }},
    {"C_CancelFunction",      [](Host& host) { return host.p11.C_CancelFunction(host.session()); }},
    {"C_WaitForSlotEvent",    waitForSlotEvent},
};

constexpr CallRow CALLS_WITH_TEMPLATES[] = {
    {"C_CreateObject",      createObject},
    {"C_CopyObject",        copyObject},
    {"C_GetAttributeValue", getAttributeValue},
    {"C_SetAttributeValue", setAttributeValue},
    {"C_FindObjectsInit",   findObjectsInit},
    {"C_FindObjectsFinal",  [](Host& host) { return host.p11.C_FindObjectsFinal(host.session()); }},
    {"C_EncryptInit",       [](Host& host) { return begin(host, host.p11.C_EncryptInit); }},
    {"C_DecryptInit",       [](Host& host) { return begin(host, host.p11.C_DecryptInit); }},
    {"C_DigestInit",        [](Host& host) { const auto session = host.session(); return host.p11.C_DigestInit(session, host.mechanism()); }},
    {"C_SignInit",          [](Host& host) { return begin(host, host.p11.C_SignInit); }},
    {"C_VerifyInit",        [](Host& host) { return begin(host, host.p11.C_VerifyInit); }},
    {"C_Sign",              [](Host& host) { return transform(host, host.p11.C_Sign); }},
    {"C_Encrypt",           [](Host& host) { return transform(host, host.p11.C_Encrypt); }},
    {"C_GenerateKeyPair",   generateKeyPair},
    {"C_DeriveKey",         deriveKey},
};
// clang-format on

} // namespace

std::span<const CallRow> calls()
{
    return CALLS;
}

std::span<const CallRow> callsWithTemplates()
{
    return CALLS_WITH_TEMPLATES;
}

} // namespace fuzz
