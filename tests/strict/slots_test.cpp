// Slots, tokens, their texts and events, and mechanisms.
#include <thread>

#include "eventually.h"
#include "strict_fixture.h"

namespace
{

class StrictSlotsTest : public StrictTest
{
protected:
    CK_SLOT_INFO slotInfo(CK_SLOT_ID slot) const
    {
        CK_SLOT_INFO info{};
        EXPECT_EQ(p11.C_GetSlotInfo(slot, &info), CKR_OK);
        return info;
    }

    /// Waits for an event beside the test, and has looked for one when this comes back.
    std::thread waitBeside(CK_SLOT_ID& slot, CK_RV expected)
    {
        device->forgetLooks();
        std::thread waiter([&slot, expected, this] { EXPECT_EQ(p11.C_WaitForSlotEvent(0, &slot, nullptr), expected); });
        EXPECT_TRUE(test_system::eventually([&] { return device->hasLooked(waiter.get_id()); }));
        return waiter;
    }

    CK_RV nextEvent(CK_SLOT_ID& slot) const { return p11.C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr); }

    std::vector<CK_MECHANISM_TYPE> mechanisms(CK_SLOT_ID slot) const
    {
        CK_ULONG count = 0;
        EXPECT_EQ(p11.C_GetMechanismList(slot, nullptr, &count), CKR_OK);
        std::vector<CK_MECHANISM_TYPE> list(count);
        EXPECT_EQ(p11.C_GetMechanismList(slot, list.data(), &count), CKR_OK);
        return list;
    }

    bool offers(CK_SLOT_ID slot, CK_MECHANISM_TYPE type) const
    {
        const auto list = mechanisms(slot);
        return std::find(list.begin(), list.end(), type) != list.end();
    }
};

TEST_F(StrictSlotsTest, TheListIsThereFromTheStart)
{
    start();
    CK_SLOT_INFO info;
    const CK_SLOT_ID first = 1;
    EXPECT_EQ(p11.C_GetSlotInfo(first, &info), CKR_OK);
    EXPECT_EQ(slots().size(), 2U);
}

TEST_F(StrictSlotsTest, CountAndListAgreeThoughADeviceHasNoSerialNumber)
{
    device->devices["VK0"].token.label = "no token";
    device->setConnected({"VK0", FIRST_DEVICE});
    start();
    EXPECT_EQ(slots().size(), 1U);
}

TEST_F(StrictSlotsTest, ADeviceThatIsListedTwiceIsOneSlot)
{
    device->setConnected({FIRST_DEVICE, FIRST_DEVICE, SECOND_DEVICE});
    start();
    const auto list = slots();
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(textIn(tokenInfo(list[0]).serialNumber), padded(FIRST_DEVICE, 16));
    EXPECT_EQ(textIn(tokenInfo(list[1]).serialNumber), padded(SECOND_DEVICE, 16));
}

TEST_F(StrictSlotsTest, AShortListTellsTheCountNeeded)
{
    start();
    CK_SLOT_ID slot = 0;
    CK_ULONG count = 1;
    EXPECT_EQ(p11.C_GetSlotList(CK_TRUE, &slot, &count), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(p11.C_GetSlotList(CK_TRUE, nullptr, nullptr), CKR_ARGUMENTS_BAD);
}

TEST_F(StrictSlotsTest, SlotsKeepTheirIdsWhateverTheDevicesDo)
{
    start();
    const std::vector<CK_SLOT_ID> before = slots();
    device->setConnected({SECOND_DEVICE});
    EXPECT_EQ(slots(), std::vector{before[1]});
    EXPECT_EQ(slots(CK_FALSE), before);
    EXPECT_EQ(slotInfo(before[0]).flags & CKF_TOKEN_PRESENT, 0U);
    CK_TOKEN_INFO info;
    EXPECT_EQ(p11.C_GetTokenInfo(before[0], &info), CKR_TOKEN_NOT_PRESENT);
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(p11.C_OpenSession(before[0], READ_ONLY, nullptr, nullptr, &session), CKR_TOKEN_NOT_PRESENT);
    device->setConnected({SECOND_DEVICE, FIRST_DEVICE});
    EXPECT_EQ(slots(), before);
    EXPECT_EQ(textIn(tokenInfo(before[0]).serialNumber), padded(FIRST_DEVICE, 16));
    EXPECT_EQ(textIn(tokenInfo(before[1]).serialNumber), padded(SECOND_DEVICE, 16));
}

TEST_F(StrictSlotsTest, SlotsKeepTheirIdsFromOneLifeToTheNext)
{
    start();
    const CK_SLOT_ID second = slots()[1];
    p11.C_Finalize(nullptr);
    device->setConnected({SECOND_DEVICE});
    start();
    EXPECT_EQ(slots(), std::vector{second});
}

TEST_F(StrictSlotsTest, UnknownSlotsAreRefused)
{
    start();
    CK_SLOT_INFO slot;
    CK_TOKEN_INFO token;
    CK_ULONG count = 0;
    CK_MECHANISM_INFO mechanism;
    EXPECT_EQ(p11.C_GetSlotInfo(77, &slot), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(p11.C_GetTokenInfo(77, &token), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(p11.C_GetMechanismList(77, nullptr, &count), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(p11.C_GetMechanismInfo(77, CKM_ECDSA, &mechanism), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(p11.C_CloseAllSessions(77), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(p11.C_GetSlotInfo(1, nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p11.C_GetTokenInfo(1, nullptr), CKR_ARGUMENTS_BAD);
}

TEST_F(StrictSlotsTest, TextsArePaddedWithBlanksAndLabelsAreWhole)
{
    device->devices[FIRST_DEVICE].token.label = "A label of thirty-two characters";
    device->devices[SECOND_DEVICE].token.label = "A label that is far too long for its field";
    start();
    const CK_SLOT_INFO slot = slotInfo(slots()[0]);
    EXPECT_EQ(textIn(slot.slotDescription), padded("A label of thirty-two characters", 64));
    EXPECT_EQ(textIn(slot.manufacturerID), padded("Brenmoor", 32));
    const CK_TOKEN_INFO first = tokenInfo(slots()[0]);
    EXPECT_EQ(textIn(first.label), "A label of thirty-two characters");
    EXPECT_EQ(textIn(first.manufacturerID), padded("Brenmoor", 32));
    EXPECT_EQ(textIn(first.model), padded("VK1 Key", 16));
    EXPECT_EQ(textIn(first.serialNumber), padded(FIRST_DEVICE, 16));
    const CK_TOKEN_INFO second = tokenInfo(slots()[1]);
    EXPECT_EQ(textIn(second.label), "A label that is far too long for");
    EXPECT_EQ(textIn(second.model), padded("VK1 Key", 16));
}

TEST_F(StrictSlotsTest, ALabelIsNotCutInTheMidstOfACharacter)
{
    device->devices[FIRST_DEVICE].token.label = "1234567890123456789012345678901\xC3\xA4";
    start();
    EXPECT_EQ(textIn(tokenInfo(slots()[0]).label), "1234567890123456789012345678901 ");
}

TEST_F(StrictSlotsTest, SessionCountsAreThoseOfTheToken)
{
    start();
    const auto list = slots();
    open(list[0], READ_ONLY);
    const CK_SESSION_HANDLE session = open(list[0]);
    open(list[1]);
    ASSERT_EQ(login(session), CKR_OK);
    EXPECT_EQ(tokenInfo(list[0]).ulSessionCount, 2U);
    EXPECT_EQ(tokenInfo(list[0]).ulRwSessionCount, 1U);
    EXPECT_EQ(tokenInfo(list[1]).ulSessionCount, 1U);
    EXPECT_EQ(tokenInfo(list[0]).ulMaxSessionCount, CK_EFFECTIVELY_INFINITE);
}

TEST_F(StrictSlotsTest, PinFlagsAreFreshAfterEveryUseOfAPin)
{
    start();
    const CK_SLOT_ID slot = slots()[0];
    const CK_SESSION_HANDLE session = open(slot);
    device->setTriesLeft(FIRST_DEVICE, 4);
    const auto flags = [&] {
        return tokenInfo(slot).flags & (CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_LOCKED);
    };
    EXPECT_EQ(flags(), 0U);
    EXPECT_EQ(login(session, "wrong"), CKR_PIN_INCORRECT);
    EXPECT_EQ(flags(), CKF_USER_PIN_COUNT_LOW); // One wrong PIN is enough.
    EXPECT_EQ(login(session, "wrong"), CKR_PIN_INCORRECT);
    EXPECT_EQ(login(session, "wrong"), CKR_PIN_INCORRECT);
    EXPECT_EQ(flags(), CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY);
    EXPECT_EQ(login(session, "wrong"), CKR_PIN_LOCKED);
    EXPECT_EQ(flags(), CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_LOCKED);
    device->setTriesLeft(FIRST_DEVICE, 10);
    EXPECT_EQ(login(session), CKR_OK);
    EXPECT_EQ(flags(), 0U);
    EXPECT_EQ(setPin(session, "wrong", "other"), CKR_PIN_INCORRECT);
    EXPECT_EQ(flags(), CKF_USER_PIN_COUNT_LOW);
    EXPECT_EQ(setPin(session, "1234", "12345"), CKR_OK);
    EXPECT_EQ(flags(), 0U);
}

TEST_F(StrictSlotsTest, TriesThatAnotherProcessSpentShowWhenFewAreLeft)
{
    start();
    const CK_SLOT_ID slot = slots()[0];
    device->setTriesLeft(FIRST_DEVICE, 2);
    EXPECT_NE(tokenInfo(slot).flags & CKF_USER_PIN_COUNT_LOW, 0U);
    device->setTriesLeft(FIRST_DEVICE, 1);
    EXPECT_NE(tokenInfo(slot).flags & CKF_USER_PIN_COUNT_LOW, 0U);
}

TEST_F(StrictSlotsTest, AWrongPinOfTheSecurityOfficerShows)
{
    start();
    const CK_SLOT_ID slot = slots()[0];
    const CK_SESSION_HANDLE session = open(slot);
    EXPECT_EQ(login(session, "wrong-pin", CKU_SO), CKR_PIN_INCORRECT);
    EXPECT_EQ(tokenInfo(slot).flags & (CKF_SO_PIN_COUNT_LOW | CKF_SO_PIN_LOCKED), CKF_SO_PIN_COUNT_LOW);
    EXPECT_EQ(tokenInfo(slot).flags & CKF_USER_PIN_COUNT_LOW, 0U);
    EXPECT_EQ(login(session, "12345678", CKU_SO), CKR_OK);
    EXPECT_EQ(tokenInfo(slot).flags & CKF_SO_PIN_COUNT_LOW, 0U);
}

TEST_F(StrictSlotsTest, EachSlotThatChangesIsAnEventOfItsOwn)
{
    start();
    const auto list = slots();
    CK_SLOT_ID slot = 0;
    EXPECT_EQ(nextEvent(slot), CKR_NO_EVENT);
    device->setConnected({});
    EXPECT_EQ(nextEvent(slot), CKR_OK);
    EXPECT_EQ(slot, list[0]);
    EXPECT_EQ(nextEvent(slot), CKR_OK);
    EXPECT_EQ(slot, list[1]);
    EXPECT_EQ(nextEvent(slot), CKR_NO_EVENT);
    device->setConnected({SECOND_DEVICE});
    EXPECT_EQ(nextEvent(slot), CKR_OK);
    EXPECT_EQ(slot, list[1]);
    EXPECT_EQ(slots(), std::vector{list[1]});
    EXPECT_EQ(p11.C_WaitForSlotEvent(CKF_DONT_BLOCK, nullptr, nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p11.C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, this), CKR_ARGUMENTS_BAD);
}

TEST_F(StrictSlotsTest, ADeviceThatTakesThePlaceOfAnotherIsTwoEvents)
{
    device->setConnected({FIRST_DEVICE});
    start();
    const CK_SLOT_ID first = slots().front();
    device->setConnected({SECOND_DEVICE});
    CK_SLOT_ID slot = 0;
    EXPECT_EQ(nextEvent(slot), CKR_OK);
    EXPECT_EQ(slot, first);
    EXPECT_EQ(nextEvent(slot), CKR_OK);
    EXPECT_EQ(slot, slots().front());
}

TEST_F(StrictSlotsTest, AWaiterIsToldOfAnEvent)
{
    start();
    const auto list = slots();
    CK_SLOT_ID slot = 0;
    std::thread waiter = waitBeside(slot, CKR_OK);
    device->setConnected({FIRST_DEVICE});
    waiter.join();
    EXPECT_EQ(slot, list[1]);
}

TEST_F(StrictSlotsTest, AWaiterIsToldOfTheFirstDevice)
{
    device->setConnected({});
    start();
    CK_SLOT_ID slot = 0;
    std::thread waiter = waitBeside(slot, CKR_OK);
    device->setConnected({FIRST_DEVICE});
    waiter.join();
    EXPECT_EQ(slots(), std::vector{slot});
}

TEST_F(StrictSlotsTest, FinalizeWakesThoseWhoWait)
{
    for (const bool isAnyThere : {true, false}) {
        device->setConnected(isAnyThere ? std::vector<std::string>{FIRST_DEVICE} : std::vector<std::string>{});
        start();
        CK_SLOT_ID slot = 0;
        std::thread waiter = waitBeside(slot, CKR_CRYPTOKI_NOT_INITIALIZED);
        EXPECT_EQ(p11.C_Finalize(nullptr), CKR_OK);
        waiter.join();
    }
}

TEST_F(StrictSlotsTest, MechanismsAreThoseThatTheTokenReallyHas)
{
    device->devices[FIRST_DEVICE].token.firmwareVersion = "1.9.9";
    start();
    const auto list = slots();
    EXPECT_TRUE(offers(list[0], CKM_ECDSA_SHA512));
    EXPECT_FALSE(offers(list[0], CKM_SHA256_RSA_PKCS_PSS));
    EXPECT_FALSE(offers(list[0], CKM_RSA_PKCS_OAEP));
    EXPECT_FALSE(offers(list[0], CKM_ECDH1_DERIVE));
    EXPECT_TRUE(offers(list[1], CKM_SHA256_RSA_PKCS_PSS));
    CK_MECHANISM_INFO info;
    EXPECT_EQ(p11.C_GetMechanismInfo(list[0], CKM_RSA_PKCS_PSS, &info), CKR_MECHANISM_INVALID);
    EXPECT_EQ(p11.C_GetMechanismInfo(list[0], CKM_MD5, &info), CKR_MECHANISM_INVALID);
    EXPECT_EQ(p11.C_GetMechanismInfo(list[0], CKM_ECDSA, nullptr), CKR_ARGUMENTS_BAD);
    ASSERT_EQ(p11.C_GetMechanismInfo(list[0], CKM_ECDSA_SHA512, &info), CKR_OK);
    EXPECT_EQ(info.ulMinKeySize, 256U);
    EXPECT_EQ(info.ulMaxKeySize, 521U);
    EXPECT_EQ(info.flags, CKF_SIGN | CKF_VERIFY | CKF_EC_F_P | CKF_EC_NAMEDCURVE | CKF_EC_UNCOMPRESS);
    ASSERT_EQ(p11.C_GetMechanismInfo(list[0], CKM_RSA_PKCS_KEY_PAIR_GEN, &info), CKR_OK);
    EXPECT_EQ(info.ulMinKeySize, 2048U);
}

TEST_F(StrictSlotsTest, AShortMechanismListTellsTheCountNeeded)
{
    start();
    CK_MECHANISM_TYPE one = 0;
    CK_ULONG count = 1;
    EXPECT_EQ(p11.C_GetMechanismList(slots()[0], &one, &count), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 27U);
}

} // namespace
