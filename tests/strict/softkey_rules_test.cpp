// The rules that hold over any device, over the software key: life, slots, logins, templates, and what is written
// where.
#include <chrono>
#include <iterator>
#include <string>
#include <vector>

#include "softkey_fixture.h"
#include "template_values.h"

namespace
{

constexpr CK_RV ACTION_PROHIBITED = 0x1B;

class StrictSoftkeyRulesTest : public StrictSoftkeyTest, protected TemplateValues
{
protected:
    static CK_SESSION_HANDLE open(std::size_t index, CK_FLAGS flags = CKF_SERIAL_SESSION | CKF_RW_SESSION)
    {
        CK_SESSION_HANDLE session = 0;
        EXPECT_EQ(p11().C_OpenSession(slot(index), flags, nullptr, nullptr, &session), CKR_OK);
        return session;
    }

    static CK_RV loginAs(CK_USER_TYPE user, CK_SESSION_HANDLE session, std::string pin)
    {
        return p11().C_Login(session, user, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                             static_cast<CK_ULONG>(pin.size()));
    }

    static CK_STATE stateOf(CK_SESSION_HANDLE session)
    {
        CK_SESSION_INFO info{};
        EXPECT_EQ(p11().C_GetSessionInfo(session, &info), CKR_OK);
        return info.state;
    }

    static CK_ULONG slotCount(CK_BBOOL tokenPresent)
    {
        CK_ULONG count = 0;
        EXPECT_EQ(p11().C_GetSlotList(tokenPresent, nullptr, &count), CKR_OK);
        return count;
    }

    static CK_RV nextEvent(CK_SLOT_ID& event) { return p11().C_WaitForSlotEvent(CKF_DONT_BLOCK, &event, nullptr); }
};

CK_RV anyMutex(CK_VOID_PTR /*mutex*/)
{
    return CKR_OK;
}

CK_RV anyCreate(CK_VOID_PTR_PTR /*mutex*/)
{
    return CKR_OK;
}

TEST_F(StrictSoftkeyRulesTest, BeginsAsToldAndEnds)
{
    const CK_SESSION_HANDLE session = userSession();
    generateEc(session);
    EXPECT_EQ(p11().C_Finalize(nullptr), CKR_OK);
    CK_INFO info;
    EXPECT_EQ(p11().C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(p11().C_InitToken(0, nullptr, 0, nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    CK_C_INITIALIZE_ARGS reserved{nullptr, nullptr, nullptr, nullptr, 0, this};
    EXPECT_EQ(p11().C_Initialize(&reserved), CKR_ARGUMENTS_BAD);
    CK_C_INITIALIZE_ARGS some{anyCreate, anyMutex, nullptr, anyMutex, CKF_OS_LOCKING_OK, nullptr};
    EXPECT_EQ(p11().C_Initialize(&some), CKR_ARGUMENTS_BAD);
    CK_C_INITIALIZE_ARGS callbacks{anyCreate, anyMutex, anyMutex, anyMutex, 0, nullptr};
    EXPECT_EQ(p11().C_Initialize(&callbacks), CKR_CANT_LOCK);
    callbacks.flags = CKF_OS_LOCKING_OK;
    EXPECT_EQ(p11().C_Initialize(&callbacks), CKR_OK);
    EXPECT_EQ(p11().C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
    CK_SESSION_INFO sessionInfo;
    EXPECT_EQ(p11().C_GetSessionInfo(session, &sessionInfo), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(stateOf(open(0)), CKS_RW_PUBLIC_SESSION);
}

TEST_F(StrictSoftkeyRulesTest, SlotsStayAndEachThatChangesIsAnEvent)
{
    const std::vector<CK_SLOT_ID> all{slot(0), slot(1)};
    EXPECT_EQ(slotCount(CK_TRUE), 2U);
    CK_SLOT_ID list[2] = {};
    CK_ULONG count = 1;
    EXPECT_EQ(p11().C_GetSlotList(CK_TRUE, list, &count), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(p11().C_GetSlotList(CK_TRUE, list, &count), CKR_OK);
    EXPECT_EQ(std::vector<CK_SLOT_ID>(list, list + count), all);
    CK_SLOT_ID event = 0;
    EXPECT_EQ(nextEvent(event), CKR_NO_EVENT);
    tool("unplug STRICT1");
    tool("unplug STRICT2");
    for (const CK_SLOT_ID gone : all) {
        EXPECT_EQ(nextEvent(event), CKR_OK);
        EXPECT_EQ(event, gone);
    }
    EXPECT_EQ(nextEvent(event), CKR_NO_EVENT);
    EXPECT_EQ(slotCount(CK_TRUE), 0U);
    EXPECT_EQ(slotCount(CK_FALSE), 2U);
    tool("plug STRICT2");
    EXPECT_EQ(nextEvent(event), CKR_OK);
    EXPECT_EQ(event, all[1]);
    EXPECT_EQ(slot(0), all[1]);
    EXPECT_EQ(nextEvent(event), CKR_NO_EVENT);
}

TEST_F(StrictSoftkeyRulesTest, LoginsOfOneSlotEndWithItsSessionsAndTheOfficerHasItsOwn)
{
    const CK_SESSION_HANDLE one = userSession(0);
    const CK_SESSION_HANDLE other = userSession(1);
    ASSERT_EQ(p11().C_CloseAllSessions(slot(0)), CKR_OK);
    CK_SESSION_INFO info;
    EXPECT_EQ(p11().C_GetSessionInfo(one, &info), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(stateOf(other), CKS_RW_USER_FUNCTIONS);
    const CK_SESSION_HANDLE readOnly = open(0, CKF_SERIAL_SESSION);
    EXPECT_EQ(stateOf(readOnly), CKS_RO_PUBLIC_SESSION);
    const CK_SESSION_HANDLE officer = open(0);
    EXPECT_EQ(loginAs(CKU_SO, officer, "officer-pin"), CKR_SESSION_READ_ONLY_EXISTS);
    ASSERT_EQ(p11().C_CloseSession(readOnly), CKR_OK);
    EXPECT_EQ(loginAs(CKU_SO, officer, "wrong-officer"), CKR_PIN_INCORRECT);
    ASSERT_EQ(loginAs(CKU_SO, officer, "officer-pin"), CKR_OK);
    EXPECT_EQ(stateOf(officer), CKS_RW_SO_FUNCTIONS);
    EXPECT_EQ(login(officer, "first-pin"), CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
    EXPECT_EQ(setPin(officer, "first-pin", "other-pin"), CKR_FUNCTION_NOT_SUPPORTED);
    ASSERT_EQ(p11().C_Logout(officer), CKR_OK);
    EXPECT_EQ(login(officer, "first-pin"), CKR_OK);
}

TEST_F(StrictSoftkeyRulesTest, ALockedPinIsNoWrongOne)
{
    const CK_SESSION_HANDLE session = open(0);
    CK_RV result = CKR_PIN_INCORRECT;
    int wrong = 0;
    while (result == CKR_PIN_INCORRECT && wrong < 20)
        result = setPin(session, "wrong-pin-" + std::to_string(++wrong), "other-pin");
    EXPECT_EQ(result, CKR_PIN_LOCKED);
    EXPECT_EQ(wrong, 5);
    EXPECT_EQ(setPin(session, "first-pin", "other-pin"), CKR_PIN_LOCKED);
    EXPECT_EQ(login(session, "first-pin"), CKR_PIN_LOCKED);
    EXPECT_EQ(pinFlags(0) & CKF_USER_PIN_LOCKED, CKF_USER_PIN_LOCKED);
    EXPECT_EQ(login(open(1), "second-pin"), CKR_OK);
}

TEST_F(StrictSoftkeyRulesTest, TemplatesAreHeldToAndEveryEntryIsTreated)
{
    const CK_SESSION_HANDLE session = userSession();
    CK_MECHANISM mechanism = {CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    ByteVector koblitz = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x0A};
    CK_ATTRIBUTE curve = {CKA_EC_PARAMS, koblitz.data(), sizeOf(koblitz)};
    CK_ATTRIBUTE ties[] = {{CKA_TOKEN, &yes, sizeof yes}, {CKA_MODIFIABLE, &no, sizeof no}, {COPYABLE, &no, sizeof no}};
    KeyPair pair;
    EXPECT_EQ(p11().C_GenerateKeyPair(session, &mechanism, &curve, 1, ties, 3, &pair.publicKey, &pair.privateKey),
              CKR_DOMAIN_PARAMS_INVALID);
    curve = {CKA_EC_PARAMS, p256.data(), sizeOf(p256)};
    ASSERT_EQ(p11().C_GenerateKeyPair(session, &mechanism, &curve, 1, ties, 3, &pair.publicKey, &pair.privateKey),
              CKR_OK);
    std::string label = "other";
    CK_ATTRIBUTE entry = {CKA_LABEL, label.data(), 5};
    EXPECT_EQ(p11().C_SetAttributeValue(session, pair.privateKey, &entry, 1), CKR_ATTRIBUTE_READ_ONLY);
    CK_ATTRIBUTE ofSession = {CKA_TOKEN, &no, sizeof no};
    CK_OBJECT_HANDLE copy = 0;
    EXPECT_EQ(p11().C_CopyObject(session, pair.privateKey, &ofSession, 1, &copy), ACTION_PROHIBITED);
    EXPECT_EQ(p11().C_CopyObject(session, pair.publicKey, &ofSession, 1, &copy), CKR_OK);

    ByteVector room(64);
    CK_KEY_TYPE keyType = 0;
    CK_ATTRIBUTE entries[] = {{CKA_VALUE, room.data(), 64},
                              {CKA_MODULUS, room.data(), 64},
                              {CKA_EC_PARAMS, room.data(), 1},
                              {CKA_EC_PARAMS, nullptr, 0},
                              {CKA_KEY_TYPE, &keyType, sizeof keyType}};
    const CK_RV result = p11().C_GetAttributeValue(session, pair.privateKey, entries, 5);
    EXPECT_TRUE(result == CKR_ATTRIBUTE_SENSITIVE || result == CKR_ATTRIBUTE_TYPE_INVALID ||
                result == CKR_BUFFER_TOO_SMALL);
    for (std::size_t index = 0; index < 3; ++index)
        EXPECT_EQ(entries[index].ulValueLen, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(entries[3].ulValueLen, p256.size());
    EXPECT_EQ(keyType, CKK_EC);
    EXPECT_EQ(room, ByteVector(64));
}

TEST_F(StrictSoftkeyRulesTest, ListsEndAtTheirBuffers)
{
    const CK_SESSION_HANDLE session = userSession();
    generateEc(session);
    const auto numbers = [](const GuardedBuffer& buffer) { return reinterpret_cast<CK_ULONG*>(buffer.data()); };
    const GuardedBuffer oneNumber(sizeof(CK_ULONG));
    const GuardedBuffer twoNumbers(2 * sizeof(CK_ULONG));
    CK_ULONG count = 1;
    EXPECT_EQ(p11().C_GetSlotList(CK_TRUE, numbers(oneNumber), &count), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(p11().C_GetSlotList(CK_TRUE, numbers(twoNumbers), &count), CKR_OK);
    EXPECT_EQ(count, 2U);
    ASSERT_EQ(p11().C_GetMechanismList(slot(0), nullptr, &count), CKR_OK);
    const CK_ULONG all = count;
    const GuardedBuffer mechanisms(all * sizeof(CK_ULONG));
    const GuardedBuffer tooFew((all - 1) * sizeof(CK_ULONG));
    count = all - 1;
    EXPECT_EQ(p11().C_GetMechanismList(slot(0), numbers(tooFew), &count), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, all);
    EXPECT_EQ(p11().C_GetMechanismList(slot(0), numbers(mechanisms), &count), CKR_OK);
    for (const GuardedBuffer* room : {&oneNumber, &twoNumbers}) {
        const CK_ULONG wanted = room == &oneNumber ? 1 : 2;
        ASSERT_EQ(p11().C_FindObjectsInit(session, nullptr, 0), CKR_OK);
        EXPECT_EQ(p11().C_FindObjects(session, numbers(*room), wanted, &count), CKR_OK);
        EXPECT_EQ(count, wanted);
        EXPECT_EQ(p11().C_FindObjectsFinal(session), CKR_OK);
    }
    for (const CK_ULONG size : {32U, 33U}) {
        const GuardedBuffer random(size);
        EXPECT_EQ(p11().C_GenerateRandom(session, random.data(), size), CKR_OK);
    }
}

TEST_F(StrictSoftkeyRulesTest, AttributesEndAtTheirBuffers)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair pair = generateEc(session);
    const GuardedBuffer exact(67);
    const GuardedBuffer tooShort(66);
    CK_ATTRIBUTE entry = {CKA_EC_POINT, tooShort.data(), 66};
    EXPECT_EQ(p11().C_GetAttributeValue(session, pair.publicKey, &entry, 1), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(entry.ulValueLen, CK_UNAVAILABLE_INFORMATION);
    entry = {CKA_EC_POINT, exact.data(), 67};
    EXPECT_EQ(p11().C_GetAttributeValue(session, pair.publicKey, &entry, 1), CKR_OK);
    EXPECT_EQ(entry.ulValueLen, 67U);
}

TEST_F(StrictSoftkeyRulesTest, OperationsInPartsEndAtTheirBuffers)
{
    const CK_SESSION_HANDLE session = userSession();
    ByteVector data(100, 0x42);
    CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
    const GuardedBuffer hash(32);
    const GuardedBuffer shortHash(31);
    CK_ULONG length = 31;
    ASSERT_EQ(p11().C_DigestInit(session, &mechanism), CKR_OK);
    ASSERT_EQ(p11().C_DigestUpdate(session, data.data(), 100), CKR_OK);
    EXPECT_EQ(p11().C_DigestFinal(session, shortHash.data(), &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(p11().C_DigestFinal(session, hash.data(), &length), CKR_OK);
    EXPECT_EQ(length, 32U);

    const KeyPair pair = generateRsa(session);
    mechanism = {CKM_RSA_PKCS, nullptr, 0};
    const GuardedBuffer cipher(256);
    const GuardedBuffer shortCipher(255);
    const GuardedBuffer none(0);
    length = 255;
    ASSERT_EQ(p11().C_EncryptInit(session, &mechanism, pair.publicKey), CKR_OK);
    EXPECT_EQ(p11().C_Encrypt(session, data.data(), 100, shortCipher.data(), &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(p11().C_Encrypt(session, data.data(), 100, cipher.data(), &length), CKR_OK);
    ASSERT_EQ(p11().C_EncryptInit(session, &mechanism, pair.publicKey), CKR_OK);
    length = 0;
    EXPECT_EQ(p11().C_EncryptUpdate(session, data.data(), 60, none.data(), &length), CKR_OK);
    length = 256;
    EXPECT_EQ(p11().C_EncryptUpdate(session, data.data(), 40, cipher.data(), &length), CKR_OK);
    EXPECT_EQ(length, 0U);
    length = 255;
    EXPECT_EQ(p11().C_EncryptFinal(session, shortCipher.data(), &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(p11().C_EncryptFinal(session, cipher.data(), &length), CKR_OK);
    EXPECT_EQ(length, 256U);
}

TEST_F(StrictSoftkeyRulesTest, WhatIsNotSupportedSaysSoAndRandomNumbersMayBeNone)
{
    const CK_SESSION_HANDLE session = open(0, CKF_SERIAL_SESSION);
    EXPECT_EQ(p11().C_InitToken(0, nullptr, 0, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11().C_GetOperationState(session, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11().C_DigestKey(session, 0), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11().C_WrapKey(session, nullptr, 0, 0, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11().C_GetFunctionStatus(session), CKR_FUNCTION_NOT_PARALLEL);
    EXPECT_EQ(p11().C_CancelFunction(session), CKR_FUNCTION_NOT_PARALLEL);
    ByteVector random(64);
    EXPECT_EQ(p11().C_GenerateRandom(session, random.data(), 64), CKR_OK);
    EXPECT_NE(random, ByteVector(64));
    EXPECT_EQ(p11().C_GenerateRandom(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(p11().C_SeedRandom(session, random.data(), 64), CKR_RANDOM_SEED_NOT_SUPPORTED);
}

} // namespace
