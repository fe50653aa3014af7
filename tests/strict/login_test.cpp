// Sessions and logins.
#include "strict_fixture.h"

namespace
{

class StrictLoginTest : public StrictTest
{
protected:
    void SetUp() override
    {
        start();
        first = slots()[0];
        second = slots()[1];
    }

    CK_RV signWith(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key) const
    {
        ByteVector signature;
        return sign(session, {CKM_SHA256_RSA_PKCS, nullptr, 0}, key, ByteVector(10), signature);
    }

    CK_SLOT_ID first = 0;
    CK_SLOT_ID second = 0;
};

TEST_F(StrictLoginTest, ASessionHasToBeSerial)
{
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(p11.C_OpenSession(first, CKF_RW_SESSION, nullptr, nullptr, &session), CKR_SESSION_PARALLEL_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_OpenSession(first, READ_WRITE, nullptr, nullptr, nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p11.C_OpenSession(99, READ_WRITE, nullptr, nullptr, &session), CKR_SLOT_ID_INVALID);
}

TEST_F(StrictLoginTest, HandlesAreNotUsedAgain)
{
    const CK_SESSION_HANDLE session = open(first);
    EXPECT_EQ(p11.C_CloseSession(session), CKR_OK);
    EXPECT_EQ(p11.C_CloseSession(session), CKR_SESSION_HANDLE_INVALID);
    EXPECT_NE(open(first), session);
}

TEST_F(StrictLoginTest, SessionsTellTheirState)
{
    const CK_SESSION_HANDLE readOnly = open(first, READ_ONLY);
    const CK_SESSION_HANDLE readWrite = open(first);
    EXPECT_EQ(stateOf(readOnly), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(stateOf(readWrite), CKS_RW_PUBLIC_SESSION);
    ASSERT_EQ(login(readOnly), CKR_OK);
    EXPECT_EQ(stateOf(readOnly), CKS_RO_USER_FUNCTIONS);
    EXPECT_EQ(stateOf(readWrite), CKS_RW_USER_FUNCTIONS);
    EXPECT_EQ(stateOf(open(first)), CKS_RW_USER_FUNCTIONS);
    CK_SESSION_INFO info{};
    ASSERT_EQ(p11.C_GetSessionInfo(readOnly, &info), CKR_OK);
    EXPECT_EQ(info.slotID, first);
    EXPECT_EQ(info.flags, CKF_SERIAL_SESSION);
    EXPECT_EQ(p11.C_GetSessionInfo(readOnly, nullptr), CKR_ARGUMENTS_BAD);
}

TEST_F(StrictLoginTest, ALoginBelongsToItsToken)
{
    const CK_SESSION_HANDLE one = open(first);
    const CK_SESSION_HANDLE other = open(second);
    ASSERT_EQ(login(one), CKR_OK);
    EXPECT_EQ(stateOf(other), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(stateOf(open(second)), CKS_RW_PUBLIC_SESSION);
}

TEST_F(StrictLoginTest, TwoTokensAreLoggedInAtOnceEachWithItsOwnPin)
{
    device->setUserPin(SECOND_DEVICE, "secret-2");
    const CK_SESSION_HANDLE one = open(first);
    const CK_SESSION_HANDLE other = open(second);
    ASSERT_EQ(login(one), CKR_OK);
    ASSERT_EQ(login(other, "secret-2"), CKR_OK);
    const CK_OBJECT_HANDLE firstKey = privateKey(one, 2);
    const CK_OBJECT_HANDLE secondKey = findOne(other, CKO_PRIVATE_KEY, "other pair");
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(signWith(one, firstKey), CKR_OK);
        EXPECT_EQ(signWith(other, secondKey), CKR_OK);
    }
    EXPECT_EQ(device->pinsSeen(FIRST_DEVICE), std::vector<std::string>{"1234"});
    EXPECT_EQ(device->pinsSeen(SECOND_DEVICE), std::vector<std::string>{"secret-2"});
    EXPECT_EQ(device->triesLeft(FIRST_DEVICE), 10);
    EXPECT_EQ(device->triesLeft(SECOND_DEVICE), 10);
}

TEST_F(StrictLoginTest, LookingAtAnotherTokenGivesItNoForeignPin)
{
    // A key without a label makes the module write one, with the PIN that it holds.
    auto& records = device->devices[SECOND_DEVICE];
    records.keyPairs[0].label[0] = '\0';
    records.certificates.push_back(makeCertificate(9, "certificate 9"));
    CertificateDetails& details = device->detailsOf(records.certificates[0].der);
    details.subjectCommonName = "Subject";
    details.publicKey.assign(records.keyPairs[0].publicKey,
                             records.keyPairs[0].publicKey + records.keyPairs[0].publicKeyLength);
    const CK_SESSION_HANDLE one = open(first);
    ASSERT_EQ(login(one), CKR_OK);
    ASSERT_EQ(signWith(one, privateKey(one, 2)), CKR_OK);
    const CK_SESSION_HANDLE other = open(second, READ_ONLY);
    CK_OBJECT_CLASS objectClass = CKO_PUBLIC_KEY;
    std::string label = "Subject_";
    EXPECT_EQ(find(other, {attribute(CKA_CLASS, objectClass), attribute(CKA_LABEL, label)}).size(), 1U);
    const Handles keys = find(other, {attribute(CKA_CLASS, objectClass)});
    ASSERT_EQ(keys.size(), 1U);
    EXPECT_EQ(value(other, keys[0], CKA_LABEL), ByteVector(label.begin(), label.end()));
    EXPECT_EQ(device->pinsSeen(SECOND_DEVICE), std::vector<std::string>{});
    EXPECT_EQ(signWith(one, privateKey(one, 2)), CKR_OK);
}

TEST_F(StrictLoginTest, ConflictsAreRefusedBeforeTheDeviceSeesAPin)
{
    const CK_SESSION_HANDLE session = open(first);
    ASSERT_EQ(login(session), CKR_OK);
    const int checks = device->pinChecks;
    EXPECT_EQ(login(session, "wrong"), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_EQ(login(open(first, READ_ONLY), "wrong"), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_EQ(login(session, "wrong", CKU_SO), CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
    EXPECT_EQ(login(session, "wrong", CKU_CONTEXT_SPECIFIC), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(login(session, "wrong", 77), CKR_USER_TYPE_INVALID);
    const CK_SESSION_HANDLE other = open(second);
    open(second, READ_ONLY);
    EXPECT_EQ(login(other, "wrong", CKU_SO), CKR_SESSION_READ_ONLY_EXISTS);
    EXPECT_EQ(p11.C_Login(other, CKU_USER, nullptr, 4), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(login(other, "123"), CKR_PIN_INCORRECT);
    EXPECT_EQ(login(other, std::string(64, '1')), CKR_PIN_INCORRECT);
    EXPECT_EQ(login(other, std::string("1234\0x", 6)), CKR_PIN_INCORRECT);
    EXPECT_EQ(device->pinChecks, checks);
    EXPECT_EQ(device->triesLeft(SECOND_DEVICE), 10);
}

TEST_F(StrictLoginTest, TheSecurityOfficerLogsIn)
{
    const CK_SESSION_HANDLE session = open(first);
    ASSERT_EQ(login(session, "12345678", CKU_SO), CKR_OK);
    EXPECT_EQ(stateOf(session), CKS_RW_SO_FUNCTIONS);
    EXPECT_EQ(stateOf(open(first)), CKS_RW_SO_FUNCTIONS);
    CK_SESSION_HANDLE readOnly = 0;
    EXPECT_EQ(p11.C_OpenSession(first, READ_ONLY, nullptr, nullptr, &readOnly), CKR_SESSION_READ_WRITE_SO_EXISTS);
    EXPECT_EQ(login(session), CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
    EXPECT_EQ(login(session, "12345678", CKU_SO), CKR_USER_ALREADY_LOGGED_IN);
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    EXPECT_TRUE(find(session, {attribute(CKA_CLASS, objectClass)}).empty());
    EXPECT_EQ(p11.C_Logout(session), CKR_OK);
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(login(session), CKR_OK);
}

TEST_F(StrictLoginTest, LogoutTakesPrivateObjectsAway)
{
    const CK_SESSION_HANDLE session = open(first);
    EXPECT_EQ(p11.C_Logout(session), CKR_USER_NOT_LOGGED_IN);
    ASSERT_EQ(login(session), CKR_OK);
    const CK_OBJECT_HANDLE key = privateKey(session, 2);
    EXPECT_EQ(p11.C_Logout(session), CKR_OK);
    EXPECT_EQ(signWith(session, key), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(ask(session, key, CKA_LABEL), CKR_USER_NOT_LOGGED_IN);
    ASSERT_EQ(login(session), CKR_OK);
    EXPECT_EQ(signWith(session, key), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(signWith(session, privateKey(session, 2)), CKR_OK);
}

TEST_F(StrictLoginTest, ClosingTheLastSessionOfATokenLogsOut)
{
    const CK_SESSION_HANDLE one = open(first);
    const CK_SESSION_HANDLE two = open(first);
    open(second);
    ASSERT_EQ(login(one), CKR_OK);
    p11.C_CloseSession(one);
    EXPECT_EQ(stateOf(two), CKS_RW_USER_FUNCTIONS);
    p11.C_CloseSession(two);
    EXPECT_EQ(stateOf(open(first)), CKS_RW_PUBLIC_SESSION);
}

TEST_F(StrictLoginTest, CloseAllSessionsClosesThoseOfOneSlot)
{
    const CK_SESSION_HANDLE one = open(first);
    const CK_SESSION_HANDLE other = open(second);
    ASSERT_EQ(login(one), CKR_OK);
    ASSERT_EQ(login(other), CKR_OK);
    EXPECT_EQ(p11.C_CloseAllSessions(first), CKR_OK);
    CK_SESSION_INFO info;
    EXPECT_EQ(p11.C_GetSessionInfo(one, &info), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(stateOf(other), CKS_RW_USER_FUNCTIONS);
    EXPECT_EQ(stateOf(open(first)), CKS_RW_PUBLIC_SESSION);
}

TEST_F(StrictLoginTest, AChangeOfThePinTellsWhatIsWrong)
{
    const CK_SESSION_HANDLE session = open(first);
    EXPECT_EQ(setPin(open(first, READ_ONLY), "1234", "5678"), CKR_SESSION_READ_ONLY);
    EXPECT_EQ(setPin(session, "1234", "567"), CKR_PIN_LEN_RANGE);
    EXPECT_EQ(setPin(session, "123", "5678"), CKR_PIN_LEN_RANGE);
    EXPECT_EQ(setPin(session, "1234",
                     std::string("56\0"
                                 "78",
                                 5)),
              CKR_PIN_INVALID);
    EXPECT_EQ(p11.C_SetPIN(session, nullptr, 4, nullptr, 4), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(device->triesLeft(FIRST_DEVICE), 10);
    EXPECT_EQ(setPin(session, "4321", "5678"), CKR_PIN_INCORRECT);
    EXPECT_EQ(device->triesLeft(FIRST_DEVICE), 9);
    device->setTriesLeft(FIRST_DEVICE, 1);
    EXPECT_EQ(setPin(session, "4321", "5678"), CKR_PIN_LOCKED);
    device->setTriesLeft(FIRST_DEVICE, 10);
    EXPECT_EQ(setPin(session, "1234", "5678"), CKR_OK);
    EXPECT_EQ(login(session, "5678"), CKR_OK);
}

TEST_F(StrictLoginTest, AChangedPinIsUsedFromThenOn)
{
    const CK_SESSION_HANDLE session = open(first);
    const CK_SESSION_HANDLE other = open(second);
    ASSERT_EQ(login(session), CKR_OK);
    ASSERT_EQ(login(other), CKR_OK);
    ASSERT_EQ(setPin(session, "1234", "567890"), CKR_OK);
    EXPECT_EQ(signWith(other, findOne(other, CKO_PRIVATE_KEY, "other pair")), CKR_OK);
    EXPECT_EQ(signWith(session, privateKey(session, 2)), CKR_OK);
    EXPECT_EQ(device->triesLeft(FIRST_DEVICE), 10);
    EXPECT_EQ(device->triesLeft(SECOND_DEVICE), 10);
}

TEST_F(StrictLoginTest, TheSecurityOfficerCannotSpendAUsersTry)
{
    const CK_SESSION_HANDLE session = open(first);
    ASSERT_EQ(login(session, "12345678", CKU_SO), CKR_OK);
    EXPECT_EQ(setPin(session, "12345678", "87654321"), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(device->triesLeft(FIRST_DEVICE), 10);
}

TEST_F(StrictLoginTest, APinThatWasChangedElsewhereCostsOneTryAndEndsTheLogin)
{
    const CK_SESSION_HANDLE session = open(first);
    const CK_SESSION_HANDLE other = open(second);
    ASSERT_EQ(login(session), CKR_OK);
    ASSERT_EQ(login(other), CKR_OK);
    const CK_OBJECT_HANDLE key = privateKey(session, 2);
    ASSERT_EQ(signWith(other, findOne(other, CKO_PRIVATE_KEY, "other pair")), CKR_OK);
    device->setUserPin(FIRST_DEVICE, "new-pin");
    EXPECT_EQ(signWith(session, key), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(signWith(session, key), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(device->triesLeft(FIRST_DEVICE), 9);
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
}

TEST_F(StrictLoginTest, APinThatWasChangedElsewhereCostsTwoTriesAtMost)
{
    const CK_SESSION_HANDLE session = open(first);
    ASSERT_EQ(login(session), CKR_OK);
    const CK_OBJECT_HANDLE key = privateKey(session, 2);
    ASSERT_EQ(signWith(session, key), CKR_OK);
    device->setUserPin(FIRST_DEVICE, "new-pin");
    EXPECT_EQ(signWith(session, key), CKR_FUNCTION_FAILED);
    for (int round = 0; round < 5; ++round)
        EXPECT_EQ(signWith(session, key), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(device->triesLeft(FIRST_DEVICE), 8);
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
}

TEST_F(StrictLoginTest, AnOperationThatWasBegunBeforeTheLogoutDoesNotReachTheDevice)
{
    const CK_SESSION_HANDLE session = open(first);
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ByteVector data(256, 1);
    ByteVector out(256);
    CK_ULONG length = 256;
    ASSERT_EQ(login(session), CKR_OK);
    const CK_OBJECT_HANDLE key = privateKey(session, 2);
    ASSERT_EQ(p11.C_SignInit(session, &mechanism, key), CKR_OK);
    ASSERT_EQ(p11.C_DecryptInit(session, &mechanism, key), CKR_OK);
    ASSERT_EQ(p11.C_Logout(session), CKR_OK);
    EXPECT_EQ(p11.C_Sign(session, data.data(), 51, out.data(), &length), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(p11.C_Sign(session, data.data(), 51, out.data(), &length), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(p11.C_Decrypt(session, data.data(), 256, out.data(), &length), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(p11.C_Decrypt(session, data.data(), 256, out.data(), &length), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(device->pinsSeen(FIRST_DEVICE), std::vector<std::string>{"1234"});
}

TEST_F(StrictLoginTest, APinThatWasChangedElsewhereIsNoFaultOfTheData)
{
    const CK_SESSION_HANDLE session = open(first);
    ByteVector cipher(256, 1);
    ByteVector point(65, 0x31);
    point[0] = 0x04;
    CK_ECDH1_DERIVE_PARAMS parameter{CKD_NULL, 0, nullptr, 65, point.data()};
    const auto use = [&](bool derives) {
        CK_MECHANISM cipherMechanism = {CKM_RSA_PKCS, nullptr, 0};
        CK_MECHANISM derivation = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
        const CK_OBJECT_HANDLE key = privateKey(session, derives ? 5 : 2);
        ByteVector out(256);
        CK_ULONG length = 256;
        CK_OBJECT_HANDLE secret = 0;
        device->setUserPin(FIRST_DEVICE, "new-pin");
        if (derives)
            return p11.C_DeriveKey(session, &derivation, key, nullptr, 0, &secret);
        EXPECT_EQ(p11.C_DecryptInit(session, &cipherMechanism, key), CKR_OK);
        return p11.C_Decrypt(session, cipher.data(), 256, out.data(), &length);
    };
    for (const bool derives : {false, true}) {
        device->setUserPin(FIRST_DEVICE, "1234");
        ASSERT_EQ(login(session), CKR_OK);
        ASSERT_EQ(signWith(session, privateKey(session, 2)), CKR_OK);
        EXPECT_EQ(use(derives), CKR_USER_NOT_LOGGED_IN);
        EXPECT_EQ(device->triesLeft(FIRST_DEVICE), 8);
        EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
    }
}

TEST_F(StrictLoginTest, ATokenThatHasGoneIsNoWrongPin)
{
    const CK_SESSION_HANDLE session = open(first);
    device->setUserPin(FIRST_DEVICE, "gone"); // A device that is not there takes no PIN.
    device->setConnected({SECOND_DEVICE});
    const CK_RV code = login(session);
    if (code != CKR_DEVICE_REMOVED) { // The module's own look at the devices, once a second, was faster.
        EXPECT_EQ(code, CKR_SESSION_HANDLE_INVALID);
    }
    EXPECT_EQ(login(session), CKR_SESSION_HANDLE_INVALID);
    device->setConnected({FIRST_DEVICE, SECOND_DEVICE});
    EXPECT_EQ(tokenInfo(first).flags & CKF_USER_PIN_COUNT_LOW, 0U);
}

TEST_F(StrictLoginTest, ATokenThatGoesTakesItsSessionsAlong)
{
    const CK_SESSION_HANDLE one = open(first);
    const CK_SESSION_HANDLE other = open(second);
    ASSERT_EQ(login(one), CKR_OK);
    ASSERT_EQ(login(other), CKR_OK);
    device->setConnected({SECOND_DEVICE});
    CK_SLOT_ID slot = 0;
    EXPECT_EQ(p11.C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr), CKR_OK);
    CK_SESSION_INFO info;
    EXPECT_EQ(p11.C_GetSessionInfo(one, &info), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(stateOf(other), CKS_RW_USER_FUNCTIONS);
    EXPECT_EQ(signWith(other, findOne(other, CKO_PRIVATE_KEY, "other pair")), CKR_OK);
    device->setConnected({FIRST_DEVICE, SECOND_DEVICE});
    const CK_SESSION_HANDLE again = open(first);
    EXPECT_EQ(stateOf(again), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(login(again), CKR_OK);
    EXPECT_EQ(signWith(again, privateKey(again, 2)), CKR_OK);
}

} // namespace
