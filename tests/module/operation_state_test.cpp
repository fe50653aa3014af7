// What all operations share: which call is taken in which state, and what a token may do by its model and firmware.
#include "scripted_device_fixture.h"

namespace
{

class OperationStateTest : public ScriptedDeviceTest
{
protected:
    void start(int operation)
    {
        if (operation == FIND)
            startSearch();
        else if (operation == SIGN)
            startSigning(CKM_ECDSA);
        else if (operation == VERIFY)
            startVerification(CKM_ECDSA);
        if (operation == DIGEST || operation == DIGEST_ENCRYPT || operation == DIGEST_DECRYPT)
            startDigest();
        if (operation == ENCRYPT || operation == DIGEST_ENCRYPT)
            startCipher(C_EncryptInit, publicKey(2));
        else if (operation == DECRYPT || operation == DIGEST_DECRYPT)
            startCipher(C_DecryptInit, privateKey(2));
    }

    void startCipher(CK_RV (*init)(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE), CK_OBJECT_HANDLE hKey)
    {
        expectKeyLookup();
        CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
        ASSERT_EQ(init(hSession_, &mechanism, hKey), CKR_OK);
    }

    /// Another session, which takes the place of the present one until `hSession_` is set back.
    CK_SESSION_HANDLE useAnotherSession()
    {
        const CK_SESSION_HANDLE before = hSession_;
        hSession_ = openSession(READ_WRITE);
        return before;
    }

    void useSession(CK_FLAGS flags)
    {
        ASSERT_EQ(C_CloseSession(hSession_), CKR_OK);
        hSession_ = openSession(flags);
    }

    static constexpr CK_FLAGS READ_ONLY = CKF_SERIAL_SESSION;
};

TEST_F(OperationStateTest, APublicReadOnlySessionNeitherDigestsNorSigns)
{
    useSession(READ_ONLY);
    EXPECT_EQ(digestInit(CKM_SHA256),
              refusal(CKR_SESSION_HANDLE_INVALID, "C_DigestInit", "C_DigestInit: invalid session state=0"));
    EXPECT_EQ(signInit(CKM_ECDSA, privateKey(5)),
              refusal(CKR_SESSION_HANDLE_INVALID, "C_SignInit", "C_SignInit: invalid session state=0"));
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_F(OperationStateTest, APublicReadOnlySessionVerifies)
{
    useSession(READ_ONLY);
    startVerification(CKM_ECDSA, 5);
    EXPECT_EQ(activeOperation(), VERIFY);
}

TEST_F(OperationStateTest, EveryOtherSessionStateDigestsAndSigns)
{
    const auto expectAccepted = [&](CK_STATE state) {
        CK_SESSION_INFO info;
        ASSERT_EQ(C_GetSessionInfo(hSession_, &info), CKR_OK);
        ASSERT_EQ(CK_STATE{info.state}, state);
        startSigning(CKM_ECDSA, 5);
        startSearch();
        ASSERT_EQ(C_FindObjectsFinal(hSession_), CKR_OK);
        startDigest();
    };
    expectAccepted(2);
    useSession(READ_ONLY);
    login();
    expectAccepted(1);
    useSession(READ_ONLY | CKF_RW_SESSION);
    expectAccepted(3);
    ASSERT_EQ(C_Logout(hSession_), CKR_OK);
    useSession(READ_ONLY | CKF_RW_SESSION);
    login(CKU_SO);
    expectAccepted(4);
}

TEST_F(OperationStateTest, TheSessionStateIsLookedAtFirst)
{
    useSession(READ_ONLY);
    startSearch();
    EXPECT_EQ(answer(C_DigestInit, hSession_, nullptr).lines.back(), "ERROR C_DigestInit: invalid session state=0");
    EXPECT_EQ(answer(C_SignInit, hSession_, nullptr, 0).lines.back(), "ERROR C_SignInit: invalid session state=0");
    EXPECT_EQ(activeOperation(), FIND);
}

struct ContinuingCall {
    const char* name;
    int operation;
    CK_RV (*call)(CK_SESSION_HANDLE);
    CK_RV (*callWithoutArguments)(CK_SESSION_HANDLE);
};

CK_BYTE anyByte = 1;

template <typename Call>
CK_RV withDataAndOutput(Call call, CK_SESSION_HANDLE session)
{
    Output output;
    return call(session, &anyByte, 1, output.data(), &output.length);
}

template <typename Call>
CK_RV withOutput(Call call, CK_SESSION_HANDLE session)
{
    Output output;
    return call(session, output.data(), &output.length);
}

const ContinuingCall CONTINUING_CALLS[] = {
    {"C_Encrypt", 2, [](CK_SESSION_HANDLE session) { return withDataAndOutput(C_Encrypt, session); },
     [](CK_SESSION_HANDLE session) { return C_Encrypt(session, nullptr, 0, nullptr, nullptr); }},
    {"C_Decrypt", 3, [](CK_SESSION_HANDLE session) { return withDataAndOutput(C_Decrypt, session); },
     [](CK_SESSION_HANDLE session) { return C_Decrypt(session, nullptr, 0, nullptr, nullptr); }},
    {"C_Digest", 4, [](CK_SESSION_HANDLE session) { return withDataAndOutput(C_Digest, session); },
     [](CK_SESSION_HANDLE session) { return C_Digest(session, nullptr, 0, nullptr, nullptr); }},
    {"C_DigestUpdate", 4, [](CK_SESSION_HANDLE session) { return C_DigestUpdate(session, &anyByte, 1); },
     [](CK_SESSION_HANDLE session) { return C_DigestUpdate(session, nullptr, 0); }},
    {"C_DigestFinal", 4, [](CK_SESSION_HANDLE session) { return withOutput(C_DigestFinal, session); },
     [](CK_SESSION_HANDLE session) { return C_DigestFinal(session, nullptr, nullptr); }},
    {"C_Sign", 5, [](CK_SESSION_HANDLE session) { return withDataAndOutput(C_Sign, session); },
     [](CK_SESSION_HANDLE session) { return C_Sign(session, nullptr, 0, nullptr, nullptr); }},
    {"C_SignUpdate", 5, [](CK_SESSION_HANDLE session) { return C_SignUpdate(session, &anyByte, 1); },
     [](CK_SESSION_HANDLE session) { return C_SignUpdate(session, nullptr, 0); }},
    {"C_SignFinal", 5, [](CK_SESSION_HANDLE session) { return withOutput(C_SignFinal, session); },
     [](CK_SESSION_HANDLE session) { return C_SignFinal(session, nullptr, nullptr); }},
    {"C_Verify", 7, [](CK_SESSION_HANDLE session) { return C_Verify(session, &anyByte, 1, &anyByte, 1); },
     [](CK_SESSION_HANDLE session) { return C_Verify(session, nullptr, 0, nullptr, 0); }},
    {"C_VerifyUpdate", 7, [](CK_SESSION_HANDLE session) { return C_VerifyUpdate(session, &anyByte, 1); },
     [](CK_SESSION_HANDLE session) { return C_VerifyUpdate(session, nullptr, 0); }},
    {"C_VerifyFinal", 7, [](CK_SESSION_HANDLE session) { return C_VerifyFinal(session, &anyByte, 1); },
     [](CK_SESSION_HANDLE session) { return C_VerifyFinal(session, nullptr, 0); }},
};

class EveryOperation : public OperationStateTest, public testing::WithParamInterface<int>
{
};

std::string nameOf(const testing::TestParamInfo<int>& operation)
{
    static const std::map<int, std::string> names = {{0, "None"},    {1, "Find"},          {2, "Encrypt"},
                                                     {3, "Decrypt"}, {4, "Digest"},        {5, "Sign"},
                                                     {7, "Verify"},  {9, "DigestEncrypt"}, {10, "DigestDecrypt"}};
    return names.at(operation.param);
}

INSTANTIATE_TEST_SUITE_P(Is, EveryOperation, testing::Values(0, 1, 2, 3, 4, 5, 7, 9, 10), nameOf);

/// No call at all continues what an encryption or decryption begun during a digest leads to. What a call is given is
/// looked at later.
TEST_P(EveryOperation, IsContinuedByItsOwnCallsOnly)
{
    start(GetParam());
    EXPECT_EQ(activeOperation(), GetParam());
    for (const ContinuingCall& each : CONTINUING_CALLS) {
        if (each.operation == GetParam())
            continue;
        EXPECT_EQ(answer(each.call, hSession_), notStarted(each.name, GetParam()));
        EXPECT_EQ(answer(each.callWithoutArguments, hSession_), notStarted(each.name, GetParam()));
        EXPECT_EQ(activeOperation(), GetParam()) << each.name;
    }
}

/// The refusals come before a look at the mechanism, which is null here.
TEST_P(EveryOperation, IsRefusedByTheInitsThatItExcludes)
{
    start(GetParam());
    const bool replaceable = GetParam() == NO_OPERATION || GetParam() == DIGEST;
    const auto expected = [&](const std::string& function, bool accepted, const std::string& nullText) {
        if (accepted)
            return refusal(CKR_ARGUMENTS_BAD, function, nullText);
        return refusal(CKR_OPERATION_ACTIVE, function,
                       function + ": operation already active, activeOperation=" + std::to_string(GetParam()));
    };
    EXPECT_EQ(answer(C_DigestInit, hSession_, nullptr),
              expected("C_DigestInit", replaceable, "C_DigestInit mechanism pointer in NULL"));
    EXPECT_EQ(answer(C_SignInit, hSession_, nullptr, privateKey(2)),
              expected("C_SignInit", GetParam() == NO_OPERATION, "C_SignInit: pMechanism is NULL"));
    EXPECT_EQ(answer(C_VerifyInit, hSession_, nullptr, privateKey(2)),
              expected("C_VerifyInit", replaceable, "C_VerifyInit: pMechanism is NULL"));
    EXPECT_EQ(answer(C_EncryptInit, hSession_, nullptr, publicKey(2)),
              expected("C_EncryptInit", replaceable, "C_EncryptInit: pMechanism is NULL"));
    EXPECT_EQ(answer(C_DecryptInit, hSession_, nullptr, privateKey(2)),
              expected("C_DecryptInit", replaceable, "C_DecryptInit: pMechanism is NULL"));
    EXPECT_EQ(activeOperation(), GetParam());
}

TEST_P(EveryOperation, IsReplacedByASearch)
{
    start(GetParam());
    startSearch();
    EXPECT_EQ(activeOperation(), FIND);
}

TEST_P(EveryOperation, EndsWithItsSession)
{
    start(GetParam());
    const CK_SESSION_HANDLE before = hSession_;
    useSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    ASSERT_EQ(hSession_, before);
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_P(EveryOperation, BelongsToItsSessionAlone)
{
    start(GetParam());
    const CK_SESSION_HANDLE started = useAnotherSession();
    EXPECT_EQ(activeOperation(), NO_OPERATION);
    startVerification(CKM_ECDSA);
    hSession_ = started;
    EXPECT_EQ(activeOperation(), GetParam());
}

TEST_F(OperationStateTest, ASessionDoesNotInheritWhatAnEarlierOneOfItsHandleHasLeft)
{
    startDigest();
    abandonOperation();
    startSigning(CKM_ECDSA);
    ASSERT_EQ(C_SignUpdate(hSession_, &anyByte, 1), CKR_OK);
    const CK_SESSION_HANDLE before = hSession_;
    useSession(READ_WRITE);
    ASSERT_EQ(hSession_, before);

    startSigning(CKM_ECDSA);
    expectSignHash({.hash = {}}, {7});
    Output output;
    EXPECT_EQ(C_SignFinal(hSession_, output.data(), &output.length), CKR_OK);
    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3);
    expectUpdateHash({1});
    EXPECT_EQ(C_SignUpdate(hSession_, &anyByte, 1), CKR_OK);
}

TEST_F(OperationStateTest, EveryCallNamesTheDeviceOfItsSession)
{
    deviceId_ = SECOND_DEVICE;
    hSession_ = openSession(READ_WRITE, SECOND_SLOT);
    keyPair(1).publicKey[0] = 0x30; // C_Verify passes it as it stands then, as C_VerifyFinal always does.
    const ByteVector hash = digestOf(3);
    const SignRequest signature = {.keyId = 1, .hash = hash};
    const VerifyRequest verdict = {.hash = hash, .publicKey = storedPublicKey(1), .signature = {1}};
    Output output;

    startSigning(CKM_SHA256_RSA_PKCS, 1);
    expectHash(3, {1}, hash);
    expectSignHash(signature, {7});
    EXPECT_EQ(C_Sign(hSession_, &anyByte, 1, output.data(), &output.length), CKR_OK);
    startSigning(CKM_SHA256_RSA_PKCS, 1);
    expectHash(3, {1}, hash);
    expectSignHash(signature, {7});
    EXPECT_EQ(C_SignUpdate(hSession_, &anyByte, 1), CKR_OK);
    EXPECT_EQ(C_SignFinal(hSession_, output.data(), &output.length), CKR_OK);

    startVerification(CKM_SHA256_RSA_PKCS, 1);
    expectHash(3, {1}, hash);
    expectVerifySignatureHash(verdict);
    EXPECT_EQ(C_Verify(hSession_, &anyByte, 1, &anyByte, 1), CKR_OK);
    startVerification(CKM_SHA256_RSA_PKCS, 1);
    expectHash(3, {1}, hash);
    expectVerifySignatureHash(verdict);
    EXPECT_EQ(C_VerifyUpdate(hSession_, &anyByte, 1), CKR_OK);
    EXPECT_EQ(C_VerifyFinal(hSession_, &anyByte, 1), CKR_OK);
    startDigest();
}

TEST_F(OperationStateTest, ADigestIsRestartedByADigest)
{
    startDigest();
    startDigest(CKM_SHA512, 5);
    EXPECT_EQ(activeOperation(), DIGEST);
}

TEST_F(OperationStateTest, ADigestIsAbandonedForAVerification)
{
    startDigest();
    startVerification(CKM_ECDSA);
    EXPECT_EQ(activeOperation(), VERIFY);
    EXPECT_EQ(answer(C_DigestFinal, hSession_, nullptr, nullptr), notStarted("C_DigestFinal", VERIFY));
}

TEST_F(OperationStateTest, AFailedVerifyInitKeepsTheDigestAndItsResult)
{
    setFirmware("1.9");
    startDigest();
    expectUpdateHash({1});
    expectFinalHash(0, digestOf(3));
    CK_ULONG length = 0;
    ASSERT_EQ(C_Digest(hSession_, &anyByte, 1, nullptr, &length), CKR_OK);
    expectKeyLookup();
    expectKeyLookup();
    EXPECT_EQ(verifyInit(CKM_MD5, publicKey(2)).code, CKR_MECHANISM_INVALID);
    EXPECT_EQ(verifyInit(CKM_ECDSA, 1).code, CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(verifyInit(CKM_ECDSA, publicKey(99)).code, CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(verifyInit(CKM_RSA_PKCS_PSS, publicKey(2)).code, CKR_MECHANISM_INVALID);
    EXPECT_EQ(activeOperation(), DIGEST);
    Output output;
    EXPECT_EQ(C_DigestFinal(hSession_, output.data(), &output.length), CKR_OK);
    EXPECT_EQ(output.written(), digestOf(3));
}

TEST_F(OperationStateTest, TheKeyOfASigningIsTheOneLookedUpLast)
{
    const auto lookUpInAnotherSession = [&] {
        const CK_SESSION_HANDLE signing = useAnotherSession();
        startVerification(CKM_ECDSA, 6);
        hSession_ = signing;
    };
    startSigning(CKM_ECDSA, 2);
    lookUpInAnotherSession();
    expectSignHash({.keyId = 6, .hash = {1}}, {7});
    Output output;
    EXPECT_EQ(C_Sign(hSession_, &anyByte, 1, output.data(), &output.length), CKR_OK);

    startSigning(CKM_ECDSA, 2);
    ASSERT_EQ(C_SignUpdate(hSession_, &anyByte, 1), CKR_OK);
    lookUpInAnotherSession();
    expectSignHash({.keyId = 6, .hash = {1}}, {7});
    EXPECT_EQ(C_SignFinal(hSession_, output.data(), &output.length), CKR_OK);
}

TEST_F(OperationStateTest, TheKeyOfAVerificationIsTheOneLookedUpLast)
{
    const auto lookUpInAnotherSession = [&] {
        const CK_SESSION_HANDLE verifying = useAnotherSession();
        startSigning(CKM_ECDSA, 6);
        hSession_ = verifying;
    };
    const VerifyRequest request = {
        .keyKind = KEY_KIND_EC_P384, .hash = {1}, .publicKey = storedPublicKey(6), .signature = {1}};
    startVerification(CKM_ECDSA, 5);
    lookUpInAnotherSession();
    expectVerifySignatureHash(request);
    EXPECT_EQ(C_Verify(hSession_, &anyByte, 1, &anyByte, 1), CKR_OK);

    startVerification(CKM_ECDSA, 5);
    ASSERT_EQ(C_VerifyUpdate(hSession_, &anyByte, 1), CKR_OK);
    lookUpInAnotherSession();
    expectVerifySignatureHash(request);
    EXPECT_EQ(C_VerifyFinal(hSession_, &anyByte, 1), CKR_OK);
}

TEST_F(OperationStateTest, ALookupThatFindsNothingKeepsTheKeyOfAnotherSessionsOperation)
{
    startSigning(CKM_ECDSA, 2);
    const CK_SESSION_HANDLE signing = useAnotherSession();
    expectKeyLookup();
    ASSERT_EQ(signInit(CKM_ECDSA, privateKey(99)).code, CKR_OBJECT_HANDLE_INVALID);
    hSession_ = signing;
    expectSignHash({.keyId = 2, .hash = {1}}, {7});
    Output output;
    EXPECT_EQ(C_Sign(hSession_, &anyByte, 1, output.data(), &output.length), CKR_OK);
}

TEST_F(OperationStateTest, OldFirmwareDoesNotSignWithPss)
{
    for (const Firmware& firmware : FIRMWARES) {
        setFirmware(firmware.version);
        const std::string version = firmware.version;
        if (firmware.recent)
            expectKeyLookup();
        Answer expected = success("C_SignInit", {"firmware veriosn :: " + version});
        if (!firmware.recent) {
            expected.code = CKR_MECHANISM_INVALID;
            expected.lines.push_back("ERROR C_SignInit: CKM_RSA_PKCS_PSS not supported on firmware " + version);
        }
        EXPECT_EQ(signInit(CKM_SHA256_RSA_PKCS_PSS, privateKey(2)), expected);
        EXPECT_EQ(activeOperation(), firmware.recent ? SIGN : NO_OPERATION);
    }
}

TEST_F(OperationStateTest, OldFirmwareDoesNotVerifyPss)
{
    for (const Firmware& firmware : FIRMWARES) {
        setFirmware(firmware.version);
        const std::string version = firmware.version;
        expectKeyLookup();
        const Answer refused = refusal(CKR_MECHANISM_INVALID, "C_VerifyInit",
                                       "C_VerifyInit: CKM_RSA_PKCS_PSS not supported on firmware " + version);
        EXPECT_EQ(verifyInit(CKM_SHA256_RSA_PKCS_PSS, publicKey(2)),
                  firmware.recent ? success("C_VerifyInit") : refused);
        EXPECT_EQ(activeOperation(), firmware.recent ? VERIFY : NO_OPERATION);
    }
}

TEST_F(OperationStateTest, TheFirmwareGateIsForThePssMechanismsOnly)
{
    for (const SignatureMechanism& mechanism : SIGNATURE_MECHANISMS) {
        setFirmware("1.9");
        if (!mechanism.isPss)
            expectKeyLookup();
        EXPECT_EQ(signInit(mechanism.type, privateKey(2)).code, mechanism.isPss ? CKR_MECHANISM_INVALID : CKR_OK)
            << mechanism;
        setFirmware("1.9");
        expectKeyLookup();
        EXPECT_EQ(verifyInit(mechanism.type, publicKey(2)).code, mechanism.isPss ? CKR_MECHANISM_INVALID : CKR_OK)
            << mechanism;
    }
}

TEST_F(OperationStateTest, OnlyAModelWithAOneInThirdPlaceSignsWithSha1)
{
    for (const char* model : {"AB0", "A", "AB", "", "1", "11", "111x", "AB1", "AB12", "AB 1", "AB\xC2\xB9"}) {
        setModel(model);
        const bool isFips = std::string(model).substr(0, 3) != "AB1" && std::string(model) != "111x";
        if (!isFips)
            expectKeyLookup();
        EXPECT_EQ(signInit(CKM_SHA1_RSA_PKCS, privateKey(2)).code, isFips ? CKR_MECHANISM_INVALID : CKR_OK) << model;
    }
}

TEST_F(OperationStateTest, ASessionGoesByTheTokenAsItWasWhenItWasOpened)
{
    first().token.model = "VK3 Key";
    listSlots();
    startSigning(CKM_SHA1_RSA_PKCS);
    hSession_ = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    EXPECT_EQ(signInit(CKM_SHA1_RSA_PKCS, privateKey(2)).code, CKR_MECHANISM_INVALID);
}

} // namespace
