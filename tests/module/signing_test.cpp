// C_SignInit, C_Sign, C_SignUpdate and C_SignFinal.
#include <cstdio>

#include "scripted_device_fixture.h"
#include "signed_data.h"

namespace
{

const ByteVector OTHER_SIGNATURE = numbered(72, 0x77);

std::string hexadecimal(const ByteVector& bytes)
{
    std::string text;
    for (const unsigned char byte : bytes) {
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02X", byte);
        text += digits.data();
    }
    return text;
}

class SigningTest : public ScriptedDeviceTest
{
protected:
    Answer sign(const ByteVector& data, Output& output) const
    {
        return answer(C_Sign, hSession_, pointerTo(data), sizeOf(data), output.data(), &output.length);
    }

    Answer askSignLength(const ByteVector& data, CK_ULONG& length) const
    {
        return answer(C_Sign, hSession_, pointerTo(data), sizeOf(data), nullptr, &length);
    }

    Answer update(const ByteVector& data) const
    {
        return answer(C_SignUpdate, hSession_, pointerTo(data), sizeOf(data));
    }

    Answer finish(Output& output) const { return answer(C_SignFinal, hSession_, output.data(), &output.length); }

    Answer askFinalLength(CK_ULONG& length) const { return answer(C_SignFinal, hSession_, nullptr, &length); }

    /// What C_Sign writes when it computes a signature, and when it delivers a kept one.
    static Answer computed(CK_MECHANISM_TYPE type, const ByteVector& hash, int passwordEmpty = 1, int state = 2)
    {
        return success("C_Sign", {"sign echanism : " + logged(type),
                                  "Sign: password empty=" + std::to_string(passwordEmpty) + " hashLen=" +
                                      std::to_string(hash.size()) + " session state=" + std::to_string(state),
                                  "Sign input hash : " + hexadecimal(hash)});
    }

    static Answer delivered(CK_MECHANISM_TYPE type) { return success("C_Sign", {"sign echanism : " + logged(type)}); }

    static Answer failed(Answer answer, CK_RV code, const std::string& errorText)
    {
        answer.code = code;
        answer.lines.push_back("ERROR " + errorText);
        return answer;
    }

    static Answer initRefused(CK_RV code, const std::string& text) { return refusal(code, "C_SignInit", text); }

    static void expectDelivered(const Output& output, const ByteVector& signature)
    {
        EXPECT_EQ(output.length, signature.size());
        EXPECT_EQ(output.written(), signature);
    }

    /// Leaves data in the session that no operation has signed.
    void gatherAndAbandon(const ByteVector& data)
    {
        startSigning(CKM_ECDSA);
        ASSERT_EQ(update(data), UPDATED);
        abandonOperation();
    }

    const Answer UPDATED = success("C_SignUpdate");
    const Answer FINISHED = success("C_SignFinal");
};

class EverySignature : public SigningTest, public testing::WithParamInterface<SignatureMechanism>
{
protected:
    const SignatureMechanism& mechanism_ = GetParam();
    const bool isHashed_ = mechanism_.hash != NOT_HASHED;
};

INSTANTIATE_TEST_SUITE_P(By, EverySignature, testing::ValuesIn(SIGNATURE_MECHANISMS),
                         [](const auto& mechanism) { return mechanism.param.name; });

TEST_P(EverySignature, BeginsWithoutAWordButForTheFirmware)
{
    expectKeyLookup();
    EXPECT_EQ(signInit(mechanism_.type, privateKey(2)),
              mechanism_.isPss ? success("C_SignInit", {"firmware veriosn :: 2.1.0"}) : success("C_SignInit"));
    EXPECT_EQ(activeOperation(), SIGN);
}

TEST_P(EverySignature, IsMadeInOnePart)
{
    startSigning(mechanism_.type);
    const ByteVector hash = isHashed_ ? digestOf(mechanism_.hash) : DATA;
    if (isHashed_)
        expectHash(mechanism_.hash, DATA, hash);
    expectSignHash({.hash = hash, .isPss = mechanism_.isPss}, SIGNATURE);
    Output output;
    EXPECT_EQ(sign(DATA, output), computed(mechanism_.type, hash));
    expectDelivered(output, SIGNATURE);
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_P(EverySignature, IsMadeInParts)
{
    startSigning(mechanism_.type);
    ByteVector hash = joined(DATA, OTHER_DATA);
    if (isHashed_) {
        hash = digestOf(mechanism_.hash);
        expectInitHash(mechanism_.hash);
        expectUpdateHash(DATA);
        expectUpdateHash(OTHER_DATA);
        expectFinalHash(HASH_ROOM, hash);
    }
    expectSignHash({.hash = hash, .isPss = mechanism_.isPss}, SIGNATURE);
    EXPECT_EQ(update(DATA), UPDATED);
    EXPECT_EQ(update(OTHER_DATA), UPDATED);
    Output output;
    EXPECT_EQ(finish(output), FINISHED);
    expectDelivered(output, SIGNATURE);
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_P(EverySignature, BeginsOnAFipsTokenUnlessItNamesSha1)
{
    setModel("VK3 Key");
    if (mechanism_.hash == 2) {
        EXPECT_EQ(signInit(mechanism_.type, privateKey(2)),
                  initRefused(CKR_MECHANISM_INVALID, "C_SignInit: SHA1 signing not allowed on FIPS 140-3 token"));
        EXPECT_EQ(activeOperation(), NO_OPERATION);
        return;
    }
    startSigning(mechanism_.type);
    EXPECT_EQ(activeOperation(), SIGN);
}

TEST_P(EverySignature, TakesParametersForPssOnly)
{
    CK_BYTE byte = 0;
    CK_MECHANISM mechanisms[] = {
        {mechanism_.type, &byte, 1}, {mechanism_.type, &byte, 0}, {mechanism_.type, nullptr, 1}};
    for (CK_MECHANISM& each : mechanisms) {
        if (mechanism_.isPss)
            expectKeyLookup();
        const Answer result = answer(C_SignInit, hSession_, &each, privateKey(2));
        if (mechanism_.isPss)
            EXPECT_EQ(result, success("C_SignInit", {"firmware veriosn :: 2.1.0"}));
        else
            EXPECT_EQ(result,
                      initRefused(CKR_MECHANISM_PARAM_INVALID,
                                  "C_SignInit: mechanism param invalid for mechanism=" + logged(mechanism_.type)));
        EXPECT_EQ(activeOperation(), mechanism_.isPss ? SIGN : NO_OPERATION);
        abandonOperation();
    }
}

TEST_F(SigningTest, PssParametersAreNotLookedAt)
{
    expectKeyLookup();
    CK_MECHANISM mechanism = {CKM_RSA_PKCS_PSS, reinterpret_cast<CK_VOID_PTR>(1), 1000};
    EXPECT_EQ(answer(C_SignInit, hSession_, &mechanism, privateKey(2)).code, CKR_OK);
}

TEST_F(SigningTest, OtherMechanismsAreRefused)
{
    for (const CK_MECHANISM_TYPE type : NO_SIGNATURE_MECHANISMS) {
        EXPECT_EQ(signInit(type, privateKey(2)),
                  initRefused(CKR_MECHANISM_INVALID, "C_SignInit: unsupported mechanism=" + logged(type)));
        EXPECT_EQ(activeOperation(), NO_OPERATION);
    }
}

TEST_F(SigningTest, OtherMechanismsAreUnsupportedOnAFipsTokenToo)
{
    setModel("");
    EXPECT_EQ(signInit(CK_MECHANISM_TYPE{0x1046}, privateKey(2)),
              initRefused(CKR_MECHANISM_INVALID, "C_SignInit: unsupported mechanism=4166"));
}

TEST_F(SigningTest, MechanismParameterFirmwareAndKeyAreLookedAtInThisOrder)
{
    reopenWithToken([](TokenInfo& token) {
        token.model = "VK3 Key";
        token.firmwareVersion = "1.5.0";
    });
    CK_BYTE byte = 0;
    const auto firstRefusal = [&](CK_MECHANISM_TYPE type, CK_VOID_PTR pParameter) {
        CK_MECHANISM mechanism = {type, pParameter, 0};
        return answer(C_SignInit, hSession_, &mechanism, 1).lines;
    };
    using Lines = std::vector<std::string>;
    const std::string entry = "DEBUG C_SignInit";
    EXPECT_EQ(firstRefusal(CKM_SHA1_RSA_PKCS, &byte),
              (Lines{entry, "ERROR C_SignInit: SHA1 signing not allowed on FIPS 140-3 token"}));
    EXPECT_EQ(firstRefusal(CKM_SHA1_RSA_PKCS_PSS, nullptr),
              (Lines{entry, "ERROR C_SignInit: SHA1 signing not allowed on FIPS 140-3 token"}));
    EXPECT_EQ(firstRefusal(CKM_MD5, &byte), (Lines{entry, "ERROR C_SignInit: unsupported mechanism=528"}));
    EXPECT_EQ(firstRefusal(CKM_ECDSA, &byte),
              (Lines{entry, "ERROR C_SignInit: mechanism param invalid for mechanism=4161"}));
    EXPECT_EQ(firstRefusal(CKM_SHA256_RSA_PKCS_PSS, nullptr),
              (Lines{entry, "DEBUG firmware veriosn :: 1.5.0",
                     "ERROR C_SignInit: CKM_RSA_PKCS_PSS not supported on firmware 1.5.0"}));
    EXPECT_EQ(firstRefusal(CKM_ECDSA, nullptr), (Lines{entry, "ERROR C_SignInit: invalid hKey=1"}));
}

TEST_F(SigningTest, HandlesBelowThePrivateKeysAreRefusedWithoutALookup)
{
    for (const CK_OBJECT_HANDLE hKey : {0u, 1u, 0x50000001u, 0x6FFFFFFFu}) {
        EXPECT_EQ(signInit(CKM_ECDSA, hKey),
                  initRefused(CKR_OBJECT_HANDLE_INVALID, "C_SignInit: invalid hKey=" + logged(hKey)));
        EXPECT_EQ(activeOperation(), NO_OPERATION);
    }
}

TEST_F(SigningTest, HandlesWithoutAKeyPairAreRefused)
{
    for (const CK_OBJECT_HANDLE hKey : withLargeHandles(
             {0x70000000, 0x70000008, 0x70000FFF, 0x70001002, 0x70002002, 0x70003000, 0x80000002, 0xFFFFFFFF})) {
        expectKeyLookup();
        EXPECT_EQ(signInit(CKM_ECDSA, hKey),
                  initRefused(CKR_OBJECT_HANDLE_INVALID, "Invalid input handle in sign : " + logged(hKey)));
        EXPECT_EQ(activeOperation(), NO_OPERATION);
    }
}

TEST_F(SigningTest, AHandleOfAnotherRangeIsTheIdThatItsDistanceGives)
{
    first().keyPairs.push_back(makeKeyPair(0, KEY_KIND_EC_P256, "zero"));
    first().keyPairs.push_back(makeKeyPair(0x1002, KEY_KIND_EC_P256, "large"));
    for (const CK_OBJECT_HANDLE hKey : {0x70000000u, 0x70001002u}) {
        expectKeyLookup();
        EXPECT_EQ(signInit(CKM_ECDSA, hKey).code, CKR_OK);
        abandonOperation();
    }
}

TEST_F(SigningTest, ADeviceWithoutKeysRefusesEveryKey)
{
    first().keyPairs.clear();
    expectKeyLookup();
    EXPECT_EQ(signInit(CKM_ECDSA, privateKey(2)),
              initRefused(CKR_OBJECT_HANDLE_INVALID, "Invalid input handle in sign : " + logged(privateKey(2))));
}

TEST_F(SigningTest, AnRsa1024KeyIsRefusedAndLeavesTheSessionFree)
{
    for (const SignatureMechanism& mechanism : SIGNATURE_MECHANISMS) {
        expectKeyLookup();
        const Answer result = signInit(mechanism.type, privateKey(1));
        EXPECT_EQ(result.code, CKR_KEY_SIZE_RANGE) << mechanism;
        EXPECT_EQ(result.lines.back(), "ERROR C_SignInit: RSA-1024 signing not allowed \xE2\x80\x94 key size below "
                                       "112-bit security strength");
        EXPECT_EQ(activeOperation(), NO_OPERATION);
    }
    startSigning(CKM_RSA_PKCS);
}

TEST_F(SigningTest, EveryOtherKeyIsTakenForEveryMechanism)
{
    first().keyPairs.push_back(makeKeyPair(8, 0, "kind 0"));
    first().keyPairs.push_back(makeKeyPair(9, 99, "kind 99"));
    for (std::uint32_t id = 2; id <= 9; ++id) {
        for (const CK_MECHANISM_TYPE type : {CKM_SHA256_RSA_PKCS, CKM_ECDSA}) {
            startSigning(type, id);
            abandonOperation();
        }
    }
}

TEST_F(SigningTest, TheCachedPinSignsAndIsToldByItsAbsenceOnly)
{
    login();
    startSigning(CKM_SHA256_RSA_PKCS);
    expectHash(3, DATA, digestOf(3));
    expectSignHash({.pin = "1234", .hash = digestOf(3)}, SIGNATURE);
    Output output;
    EXPECT_EQ(sign(DATA, output), computed(CKM_SHA256_RSA_PKCS, digestOf(3), 0, 3));

    startSigning(CKM_ECDSA);
    expectSignHash({.pin = "1234", .hash = DATA}, SIGNATURE);
    ASSERT_EQ(update(DATA), UPDATED);
    EXPECT_EQ(finish(output), FINISHED);
}

TEST_F(SigningTest, AfterALogoutTheDeviceIsGivenAnEmptyPin)
{
    login();
    startSigning(CKM_ECDSA);
    ASSERT_EQ(C_Logout(hSession_), CKR_OK);
    expectSignHash({.pin = "", .hash = DATA}, {}, 20);
    Output output;
    EXPECT_EQ(sign(DATA, output), failed(computed(CKM_ECDSA, DATA), CKR_FUNCTION_FAILED, "Sign hash failed : 20"));
}

TEST_F(SigningTest, TheDeviceIsToldTheKeyByItsIdentifier)
{
    for (std::uint32_t id = 2; id <= 7; ++id) {
        startSigning(CKM_ECDSA, id);
        expectSignHash({.keyId = id, .hash = DATA}, SIGNATURE);
        Output output;
        EXPECT_EQ(sign(DATA, output).code, CKR_OK);
    }
}

TEST_F(SigningTest, TheDeviceFlagOfTheRecordIsNotPassed)
{
    keyPair(2).deviceFlag = true;
    startSigning(CKM_ECDSA);
    expectSignHash({.hash = DATA}, SIGNATURE);
    Output output;
    EXPECT_EQ(sign(DATA, output), computed(CKM_ECDSA, DATA));

    startSigning(CKM_ECDSA);
    expectSignHash({.hash = DATA}, SIGNATURE);
    ASSERT_EQ(update(DATA), UPDATED);
    EXPECT_EQ(finish(output), FINISHED);
}

TEST_F(SigningTest, AnEmptyHashIsLoggedAsSuch)
{
    startSigning(CKM_SHA256_RSA_PKCS);
    expectHash(3, DATA, {});
    expectSignHash({.hash = {}}, SIGNATURE);
    Output output;
    Answer expected = computed(CKM_SHA256_RSA_PKCS, {});
    expected.lines.back() = "DEBUG Sign input hash : NULL or empty";
    EXPECT_EQ(sign(DATA, output), expected);
}

TEST_F(SigningTest, ASignatureThatWasAskedForItsLengthIsFetchedWithOtherData)
{
    startSigning(CKM_SHA256_RSA_PKCS);
    expectHash(3, DATA, digestOf(3));
    expectSignHash({.hash = digestOf(3)}, SIGNATURE);
    CK_ULONG length = 0;
    EXPECT_EQ(askSignLength(DATA, length), computed(CKM_SHA256_RSA_PKCS, digestOf(3)));
    EXPECT_EQ(length, SIGNATURE.size());
    length = 0;
    EXPECT_EQ(askSignLength(OTHER_DATA, length), delivered(CKM_SHA256_RSA_PKCS));
    EXPECT_EQ(length, SIGNATURE.size());
    EXPECT_EQ(activeOperation(), SIGN);
    Output output;
    EXPECT_EQ(sign(OTHER_DATA, output), delivered(CKM_SHA256_RSA_PKCS));
    expectDelivered(output, SIGNATURE);
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_F(SigningTest, AMultiPartSignatureIsKeptBetweenLengthQueryAndFetch)
{
    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3);
    expectUpdateHash(DATA);
    expectFinalHash(HASH_ROOM, digestOf(3));
    expectSignHash({.hash = digestOf(3)}, SIGNATURE);
    ASSERT_EQ(update(DATA), UPDATED);
    for (int question = 0; question < 2; ++question) {
        CK_ULONG length = 0;
        EXPECT_EQ(askFinalLength(length), FINISHED);
        EXPECT_EQ(length, SIGNATURE.size());
        EXPECT_EQ(activeOperation(), SIGN);
    }
    Output output;
    EXPECT_EQ(finish(output), FINISHED);
    expectDelivered(output, SIGNATURE);
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_F(SigningTest, AKeptSignatureIsFetchedByEitherCall)
{
    CK_ULONG length = 0;
    startSigning(CKM_ECDSA);
    expectSignHash({.hash = DATA}, SIGNATURE);
    ASSERT_EQ(askSignLength(DATA, length).code, CKR_OK);
    Output byFinal;
    EXPECT_EQ(finish(byFinal), FINISHED);
    expectDelivered(byFinal, SIGNATURE);

    startSigning(CKM_ECDSA);
    expectSignHash({.hash = DATA}, OTHER_SIGNATURE);
    ASSERT_EQ(update(DATA), UPDATED);
    ASSERT_EQ(askFinalLength(length), FINISHED);
    Output bySign;
    EXPECT_EQ(sign(OTHER_DATA, bySign), delivered(CKM_ECDSA));
    expectDelivered(bySign, OTHER_SIGNATURE);
}

TEST_F(SigningTest, ANewOperationDropsTheKeptSignature)
{
    CK_ULONG length = 0;
    startSigning(CKM_ECDSA);
    expectSignHash({.hash = DATA}, SIGNATURE);
    ASSERT_EQ(askSignLength(DATA, length).code, CKR_OK);
    abandonOperation();
    startSigning(CKM_ECDSA);
    expectSignHash({.hash = OTHER_DATA}, OTHER_SIGNATURE);
    Output output;
    EXPECT_EQ(sign(OTHER_DATA, output), computed(CKM_ECDSA, OTHER_DATA));
    expectDelivered(output, OTHER_SIGNATURE);
}

TEST_F(SigningTest, ASearchEndsTheSigning)
{
    startSigning(CKM_ECDSA);
    startSearch();
    Output output;
    EXPECT_EQ(sign(DATA, output), notStarted("C_Sign", FIND));
    ASSERT_EQ(C_FindObjectsFinal(hSession_), CKR_OK);
    EXPECT_EQ(sign(DATA, output), notStarted("C_Sign", NO_OPERATION));
}

TEST_F(SigningTest, ALengthThatIsTooShortStillGetsTheWholeSignature)
{
    for (const CK_ULONG tooShort : {0u, 1u, 69u}) {
        startSigning(CKM_ECDSA);
        expectSignHash({.hash = DATA}, SIGNATURE);
        Output output(tooShort);
        EXPECT_EQ(sign(DATA, output), computed(CKM_ECDSA, DATA));
        expectDelivered(output, SIGNATURE);

        startSigning(CKM_ECDSA);
        expectSignHash({.hash = DATA}, SIGNATURE);
        ASSERT_EQ(update(DATA), UPDATED);
        Output finalOutput(tooShort);
        EXPECT_EQ(finish(finalOutput), FINISHED);
        expectDelivered(finalOutput, SIGNATURE);
    }
}

TEST_F(SigningTest, ASignatureMayFillTheWholeRoomOfTheDevice)
{
    const ByteVector largest = numbered(1024, 1);
    startSigning(CKM_RSA_PKCS, 4);
    expectSignHash({.keyId = 4, .hash = DATA}, largest);
    Output output;
    EXPECT_EQ(sign(DATA, output).code, CKR_OK);
    expectDelivered(output, largest);
}

TEST_F(SigningTest, ALengthThatTheSignatureCannotHaveIsCutToItsRoom)
{
    const std::pair<int, std::size_t> lengths[] = {{1025, 1024}, {-1, 0}};
    for (const auto& [told, delivered] : lengths) {
        startSigning(CKM_ECDSA);
        EXPECT_CALL(*device_, velkor_signHash)
            .WillOnce(testing::DoAll(testing::SetArgPointee<6>(told), testing::Return(0)));
        Output output;
        EXPECT_EQ(sign(DATA, output), computed(CKM_ECDSA, DATA));
        expectDelivered(output, ByteVector(delivered));
    }
}

TEST_F(SigningTest, ALengthThatTheHashCannotHaveIsCutToItsRoom)
{
    const std::pair<int, ByteVector> lengths[] = {{65, digestOf(5)}, {-1, {}}};
    for (const auto& [told, hash] : lengths) {
        startSigning(CKM_SHA512_RSA_PKCS);
        expectInitHash(5);
        expectUpdateHash(DATA);
        expectFinalHashOfLength(HASH_ROOM, told);
        expectSignHash({.hash = hash}, SIGNATURE);
        Output output;
        EXPECT_EQ(sign(DATA, output).code, CKR_OK);
    }
}

TEST_F(SigningTest, AnEmptySignatureIsNotKeptAfterALengthQuery)
{
    startSigning(CKM_ECDSA);
    expectSignHash({.hash = DATA}, {});
    CK_ULONG length = 5;
    EXPECT_EQ(askSignLength(DATA, length), computed(CKM_ECDSA, DATA));
    EXPECT_EQ(length, 0u);
    expectSignHash({.hash = OTHER_DATA}, SIGNATURE);
    Output output;
    EXPECT_EQ(sign(OTHER_DATA, output), computed(CKM_ECDSA, OTHER_DATA));
    expectDelivered(output, SIGNATURE);
}

TEST_F(SigningTest, BadArgumentsOfSignAreRefusedInTheirOrderAndKeepTheOperation)
{
    startSigning(CKM_ECDSA);
    Output output(5);
    CK_BYTE byte = 1;
    const auto refused = [](const std::string& text) { return refusal(CKR_ARGUMENTS_BAD, "C_Sign", text); };
    EXPECT_EQ(answer(C_Sign, hSession_, nullptr, 0, output.data(), nullptr), refused("C_Sign: pData is NULL"));
    EXPECT_EQ(answer(C_Sign, hSession_, nullptr, 9, nullptr, &output.length), refused("C_Sign: pData is NULL"));
    EXPECT_EQ(answer(C_Sign, hSession_, &byte, 0, output.data(), nullptr),
              refused("C_Sign: ulDataLen<=0, ulDataLen=0"));
    EXPECT_EQ(answer(C_Sign, hSession_, &byte, 1, output.data(), nullptr), refused("C_Sign: pulSignatureLen is NULL"));
    EXPECT_EQ(output.length, 5u);
    EXPECT_EQ(output.written(), ByteVector());
    EXPECT_EQ(activeOperation(), SIGN);
}

TEST_F(SigningTest, BadArgumentsOfTheFetchingCallKeepTheSignature)
{
    startSigning(CKM_ECDSA);
    expectSignHash({.hash = DATA}, SIGNATURE);
    CK_ULONG length = 0;
    ASSERT_EQ(askSignLength(DATA, length).code, CKR_OK);
    Output output;
    EXPECT_EQ(answer(C_Sign, hSession_, nullptr, 1, output.data(), &output.length).code, CKR_ARGUMENTS_BAD);
    EXPECT_EQ(answer(C_SignFinal, hSession_, output.data(), nullptr),
              refusal(CKR_ARGUMENTS_BAD, "C_SignFinal", "C_SignFinal: pulSignatureLen is NULL"));
    EXPECT_EQ(sign(DATA, output), delivered(CKM_ECDSA));
    expectDelivered(output, SIGNATURE);
}

TEST_F(SigningTest, BadArgumentsOfUpdateAndFinalKeepWhatIsGathered)
{
    startSigning(CKM_ECDSA);
    ASSERT_EQ(update(DATA), UPDATED);
    CK_BYTE byte = 1;
    const std::string text = "C_SignUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=";
    EXPECT_EQ(answer(C_SignUpdate, hSession_, nullptr, 3), refusal(CKR_ARGUMENTS_BAD, "C_SignUpdate", text + "3"));
    EXPECT_EQ(answer(C_SignUpdate, hSession_, nullptr, TOO_LARGE_FOR_INT),
              refusal(CKR_ARGUMENTS_BAD, "C_SignUpdate", text + logged(TOO_LARGE_FOR_INT)));
    EXPECT_EQ(answer(C_SignUpdate, hSession_, &byte, 0), refusal(CKR_ARGUMENTS_BAD, "C_SignUpdate", text + "0"));
    EXPECT_EQ(answer(C_SignFinal, hSession_, &byte, nullptr).code, CKR_ARGUMENTS_BAD);
    expectSignHash({.hash = DATA}, SIGNATURE);
    Output output;
    EXPECT_EQ(finish(output), FINISHED);
}

TEST_F(SigningTest, AFailedHashOfSignEndsTheOperation)
{
    const Answer begun = delivered(CKM_SHA256_RSA_PKCS);
    Output output(5);
    const auto expectFailure = [&](const std::string& text) {
        EXPECT_EQ(sign(DATA, output), failed(begun, CKR_FUNCTION_FAILED, text));
        EXPECT_EQ(sign(DATA, output), notStarted("C_Sign", NO_OPERATION));
        EXPECT_EQ(output.length, 5u);
    };
    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3, 31);
    expectFailure("init hash failed 31");

    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3);
    expectUpdateHash(DATA, -32);
    expectFailure("update hash failed -32");

    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3);
    expectUpdateHash(DATA);
    expectFinalHash(HASH_ROOM, digestOf(3), 33);
    expectFailure("final hash failed 33");
}

TEST_F(SigningTest, AFailedSignatureOfSignEndsTheOperation)
{
    startSigning(CKM_ECDSA);
    expectSignHash({.hash = DATA}, SIGNATURE, 34);
    Output output(5);
    EXPECT_EQ(sign(DATA, output), failed(computed(CKM_ECDSA, DATA), CKR_FUNCTION_FAILED, "Sign hash failed : 34"));
    EXPECT_EQ(output.length, 5u);
    EXPECT_EQ(output.written(), ByteVector());
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_F(SigningTest, AFailedLengthQueryEndsTheOperation)
{
    startSigning(CKM_ECDSA);
    expectSignHash({.hash = DATA}, {}, 34);
    CK_ULONG length = 5;
    EXPECT_EQ(askSignLength(DATA, length).code, CKR_FUNCTION_FAILED);
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_F(SigningTest, AFailedUpdateEndsTheOperationAndDropsItsContext)
{
    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3, 35);
    EXPECT_EQ(update(DATA), refusal(CKR_FUNCTION_FAILED, "C_SignUpdate", "C_SignUpdate: initHash failed 35"));
    EXPECT_EQ(activeOperation(), NO_OPERATION);

    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3);
    expectUpdateHash(DATA, 36);
    EXPECT_EQ(update(DATA), refusal(CKR_FUNCTION_FAILED, "C_SignUpdate", "C_SignUpdate: updateHash failed 36"));
    EXPECT_EQ(activeOperation(), NO_OPERATION);

    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3);
    expectUpdateHash(DATA);
    EXPECT_EQ(update(DATA), UPDATED);
}

TEST_F(SigningTest, AFailedFinalHashEndsTheOperationAndDropsContextAndData)
{
    gatherAndAbandon(OTHER_DATA);
    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3);
    expectUpdateHash(DATA);
    expectFinalHash(HASH_ROOM, digestOf(3), 37);
    ASSERT_EQ(update(DATA), UPDATED);
    Output output(5);
    EXPECT_EQ(finish(output), refusal(CKR_FUNCTION_FAILED, "C_SignFinal", "C_SignFinal: finalHash failed 37"));
    EXPECT_EQ(output.length, 5u);
    EXPECT_EQ(activeOperation(), NO_OPERATION);

    startSigning(CKM_ECDSA);
    expectSignHash({.hash = {}}, SIGNATURE);
    EXPECT_EQ(finish(output), FINISHED);
    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3);
    expectUpdateHash(DATA);
    EXPECT_EQ(update(DATA), UPDATED);
}

TEST_F(SigningTest, AFinalHashTakesThePlaceOfGatheredData)
{
    gatherAndAbandon(OTHER_DATA);
    startSigning(CKM_SHA256_RSA_PKCS);
    expectHash(3, DATA, digestOf(3));
    expectSignHash({.hash = digestOf(3)}, SIGNATURE);
    ASSERT_EQ(update(DATA), UPDATED);
    Output output;
    EXPECT_EQ(finish(output), FINISHED);

    startSigning(CKM_ECDSA);
    ASSERT_EQ(update(DATA), UPDATED);
    expectSignHash({.hash = DATA}, SIGNATURE);
    EXPECT_EQ(finish(output), FINISHED);
}

TEST_F(SigningTest, AFailedSignatureOfFinalEndsTheOperationAndDropsWhatWasGathered)
{
    startSigning(CKM_ECDSA);
    expectSignHash({.hash = DATA}, SIGNATURE, 38);
    ASSERT_EQ(update(DATA), UPDATED);
    Output output(5);
    EXPECT_EQ(finish(output), refusal(CKR_FUNCTION_FAILED, "C_SignFinal", "C_SignFinal: signHash failed 38"));
    EXPECT_EQ(output.length, 5u);
    EXPECT_EQ(output.written(), ByteVector());
    EXPECT_EQ(activeOperation(), NO_OPERATION);

    startSigning(CKM_ECDSA);
    expectSignHash({.hash = OTHER_DATA}, SIGNATURE);
    ASSERT_EQ(update(OTHER_DATA), UPDATED);
    EXPECT_EQ(finish(output), FINISHED);
}

TEST_F(SigningTest, WhatWasGatheredIsGoneAfterFinal)
{
    for (const ByteVector& data : {DATA, OTHER_DATA}) {
        startSigning(CKM_ECDSA);
        expectSignHash({.hash = data}, SIGNATURE);
        ASSERT_EQ(update(data), UPDATED);
        Output output;
        EXPECT_EQ(finish(output), FINISHED);
    }
}

TEST_F(SigningTest, SignAfterUpdateSignsItsOwnDataOnlyAndLeavesTheUpdatesContext)
{
    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3);
    expectUpdateHash(OTHER_DATA);
    void* const left = context_;
    expectHash(3, DATA, digestOf(3));
    expectSignHash({.hash = digestOf(3)}, SIGNATURE);
    ASSERT_EQ(update(OTHER_DATA), UPDATED);
    Output output;
    EXPECT_EQ(sign(DATA, output).code, CKR_OK);

    startSigning(CKM_SHA256_RSA_PKCS);
    context_ = left;
    expectUpdateHash(DATA);
    EXPECT_EQ(update(DATA), UPDATED);
}

TEST_F(SigningTest, TheContextOfSignIsNotLeftToTheNextOperation)
{
    startSigning(CKM_SHA256_RSA_PKCS);
    expectHash(3, DATA, digestOf(3));
    expectSignHash({.hash = digestOf(3)}, SIGNATURE);
    Output output;
    ASSERT_EQ(sign(DATA, output).code, CKR_OK);

    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3);
    expectUpdateHash(DATA);
    EXPECT_EQ(update(DATA), UPDATED);
}

TEST_F(SigningTest, GatheredDataThatWasNotSignedGoesBeforeThatOfTheNextOperation)
{
    startSigning(CKM_ECDSA);
    ASSERT_EQ(update(OTHER_DATA), UPDATED);
    expectSignHash({.hash = DATA}, SIGNATURE);
    Output output;
    EXPECT_EQ(sign(DATA, output).code, CKR_OK);

    startSigning(CKM_ECDSA);
    ASSERT_EQ(update(DATA), UPDATED);
    expectSignHash({.hash = joined(OTHER_DATA, DATA)}, SIGNATURE);
    EXPECT_EQ(finish(output), FINISHED);
}

TEST_F(SigningTest, ADeliveredDigestDoesNotGoBeforeTheGatheredData)
{
    startDigest();
    expectFinalHash(0, digestOf(3));
    Output output;
    ASSERT_EQ(C_DigestFinal(hSession_, output.data(), &output.length), CKR_OK);

    startSigning(CKM_ECDSA);
    ASSERT_EQ(update(DATA), UPDATED);
    expectSignHash({.hash = DATA}, SIGNATURE);
    EXPECT_EQ(finish(output), FINISHED);
}

TEST_F(SigningTest, AContextThatADigestHasLeftIsTakenForABegunHash)
{
    startDigest(CKM_SHA512, 5);
    expectFinalHash(0, digestOf(5));
    Output output;
    ASSERT_EQ(C_DigestFinal(hSession_, output.data(), &output.length), CKR_OK);

    startSigning(CKM_SHA256_RSA_PKCS);
    expectUpdateHash(DATA, 7); // The library knows no more of the ended context.
    EXPECT_EQ(update(DATA), refusal(CKR_FUNCTION_FAILED, "C_SignUpdate", "C_SignUpdate: updateHash failed 7"));
    EXPECT_EQ(activeOperation(), NO_OPERATION);

    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3);
    expectUpdateHash(DATA);
    EXPECT_EQ(update(DATA), UPDATED);
}

TEST_F(SigningTest, FinalWithoutUpdateEndsAContextThatADigestHasLeft)
{
    startDigest();
    expectFinalHash(0, digestOf(3));
    Output output;
    ASSERT_EQ(C_DigestFinal(hSession_, output.data(), &output.length), CKR_OK);

    startSigning(CKM_SHA256_RSA_PKCS);
    expectFinalHash(HASH_ROOM, digestOf(3));
    expectSignHash({.hash = digestOf(3)}, SIGNATURE);
    EXPECT_EQ(finish(output), FINISHED);

    startSigning(CKM_SHA256_RSA_PKCS);
    context_ = nullptr;
    expectFinalHash(HASH_ROOM, {}, 7);
    EXPECT_EQ(finish(output), refusal(CKR_FUNCTION_FAILED, "C_SignFinal", "C_SignFinal: finalHash failed 7"));
}

TEST_F(SigningTest, AContextThatAnAbandonedUpdateHasLeftIsTakenForABegunHash)
{
    startSigning(CKM_SHA256_RSA_PKCS);
    expectInitHash(3);
    expectUpdateHash(DATA);
    ASSERT_EQ(update(DATA), UPDATED);
    abandonOperation();
    startSigning(CKM_SHA512_RSA_PKCS);
    expectUpdateHash(OTHER_DATA);
    EXPECT_EQ(update(OTHER_DATA), UPDATED);
}

TEST_F(SigningTest, FinalOfAHashMechanismWithoutAnyContextFails)
{
    startSigning(CKM_SHA256_RSA_PKCS);
    context_ = nullptr;
    expectFinalHash(HASH_ROOM, {}, 7);
    Output output;
    EXPECT_EQ(finish(output), refusal(CKR_FUNCTION_FAILED, "C_SignFinal", "C_SignFinal: finalHash failed 7"));
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_F(SigningTest, FinalOfARawMechanismWithoutUpdateSignsNothing)
{
    startSigning(CKM_ECDSA);
    expectSignHash({.hash = {}}, SIGNATURE);
    Output output;
    EXPECT_EQ(finish(output), FINISHED);
    expectDelivered(output, SIGNATURE);
}

TEST_F(SigningTest, ALengthBeyondTheDevicesCountIsPassedAsANegativeOne)
{
    CK_BYTE byte = 1;
    Output output;
    for (const LargeLength& each : largeLengths()) {
        startSigning(CKM_SHA256_RSA_PKCS);
        expectInitHash(3);
        expectUpdateHash(&byte, each.count);
        expectFinalHash(HASH_ROOM, digestOf(3));
        expectSignHash({.hash = digestOf(3)}, SIGNATURE);
        EXPECT_EQ(answer(C_Sign, hSession_, &byte, each.length, output.data(), &output.length).code, CKR_OK);

        startSigning(CKM_SHA256_RSA_PKCS);
        expectInitHash(3);
        expectUpdateHash(&byte, each.count);
        expectFinalHash(HASH_ROOM, digestOf(3));
        expectSignHash({.hash = digestOf(3)}, SIGNATURE);
        EXPECT_EQ(answer(C_SignUpdate, hSession_, &byte, each.length), UPDATED);
        EXPECT_EQ(finish(output), FINISHED);
    }
}

/// No text of the data is made that nobody reads: there is one byte behind the pointer.
TEST_F(SigningTest, AnEnormousRawInputReachesTheDeviceWhenNothingIsLogged)
{
    setLogLevel("2");
    startSigning(CKM_ECDSA);
    CK_BYTE byte = 1;
    EXPECT_CALL(*device_,
                velkor_signHash(testing::StrEq(FIRST_DEVICE), testing::_, testing::_, &byte,
                                std::numeric_limits<int>::min(), testing::_, testing::_, false, instance_, false))
        .InSequence(script_)
        .WillOnce(testing::Return(6));
    Output output;
    EXPECT_EQ(C_Sign(hSession_, &byte, TOO_LARGE_FOR_INT, output.data(), &output.length), CKR_FUNCTION_FAILED);
}

// ---- What a FIPS token does not sign ----

const ByteVector SHA1_IDENTIFIER = {0x2B, 0x0E, 0x03, 0x02, 0x1A};
const ByteVector MD5_IDENTIFIER = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x05};
const ByteVector SHA256_DIGEST_INFO = joined(
    {0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20},
    ByteVector(32, 0xAA));

/// `size` bytes that begin as a DER sequence does, with an identifier somewhere in them.
ByteVector inputWith(const ByteVector& identifier, std::size_t offset, std::size_t size)
{
    ByteVector input(size, 0xAA);
    input.front() = 0x30;
    std::copy(identifier.begin(), identifier.end(), input.begin() + static_cast<std::ptrdiff_t>(offset));
    return input;
}

class FipsSigningTest : public SigningTest
{
protected:
    void SetUp() override
    {
        SigningTest::SetUp();
        setModel("VK3 Key");
    }

    void expectSigned(CK_MECHANISM_TYPE type, const ByteVector& data)
    {
        startSigning(type);
        expectSignHash({.hash = data, .isPss = type == CKM_RSA_PKCS_PSS}, SIGNATURE);
        Output output;
        EXPECT_EQ(sign(data, output), computed(type, data));
        expectDelivered(output, SIGNATURE);
    }

    void expectRefused(CK_MECHANISM_TYPE type, const ByteVector& data, const std::string& what)
    {
        startSigning(type);
        Output output(5);
        EXPECT_EQ(sign(data, output), failed(delivered(type), CKR_MECHANISM_INVALID,
                                             "C_Sign: " + what + " not allowed on FIPS 140-3 token"));
        EXPECT_EQ(output.length, 5u);
        EXPECT_EQ(output.written(), ByteVector());
        EXPECT_EQ(activeOperation(), NO_OPERATION);
    }

    static constexpr const char* SHA1_DIGEST_INFO_TEXT = "SHA1 DigestInfo signing";
    static constexpr const char* MD5_DIGEST_INFO_TEXT = "MD5 DigestInfo signing";
};

TEST_F(FipsSigningTest, ADigestInfoOfSha256IsSigned)
{
    expectSigned(CKM_RSA_PKCS, SHA256_DIGEST_INFO);
}

TEST_F(FipsSigningTest, DigestInfosOfSha1AndMd5AreRefused)
{
    expectRefused(CKM_RSA_PKCS, SHA1_DIGEST_INFO, SHA1_DIGEST_INFO_TEXT);
    expectRefused(CKM_RSA_PKCS, MD5_DIGEST_INFO, MD5_DIGEST_INFO_TEXT);
}

TEST_F(FipsSigningTest, TheSha1IdentifierIsFoundAtEveryOffset)
{
    for (std::size_t offset = 1; offset + SHA1_IDENTIFIER.size() <= 24; ++offset)
        expectRefused(CKM_RSA_PKCS, inputWith(SHA1_IDENTIFIER, offset, 24), SHA1_DIGEST_INFO_TEXT);
}

TEST_F(FipsSigningTest, TheMd5IdentifierIsFoundAtEveryOffset)
{
    for (std::size_t offset = 1; offset + MD5_IDENTIFIER.size() <= 24; ++offset)
        expectRefused(CKM_RSA_PKCS, inputWith(MD5_IDENTIFIER, offset, 24), MD5_DIGEST_INFO_TEXT);
}

TEST_F(FipsSigningTest, InputsOfFewerThanElevenBytesAreSigned)
{
    expectRefused(CKM_RSA_PKCS, inputWith(SHA1_IDENTIFIER, 6, 11), SHA1_DIGEST_INFO_TEXT);
    expectSigned(CKM_RSA_PKCS, inputWith(SHA1_IDENTIFIER, 5, 10));
    expectRefused(CKM_RSA_PKCS, inputWith(MD5_IDENTIFIER, 3, 11), MD5_DIGEST_INFO_TEXT);
    expectSigned(CKM_RSA_PKCS, inputWith(MD5_IDENTIFIER, 2, 10));
}

TEST_F(FipsSigningTest, InputsThatDoNotBeginAsASequenceAreSigned)
{
    for (const ByteVector& digestInfo : {SHA1_DIGEST_INFO, MD5_DIGEST_INFO}) {
        for (const unsigned char firstByte : ByteVector{0x00, 0x2F, 0x31, 0xB0}) {
            ByteVector input = digestInfo;
            input.front() = firstByte;
            expectSigned(CKM_RSA_PKCS, input);
        }
    }
    expectSigned(CKM_RSA_PKCS, inputWith(SHA1_IDENTIFIER, 0, 24));
    expectSigned(CKM_RSA_PKCS, inputWith(MD5_IDENTIFIER, 0, 24));
}

TEST_F(FipsSigningTest, IncompleteIdentifiersAreSigned)
{
    for (const ByteVector& identifier : {SHA1_IDENTIFIER, MD5_IDENTIFIER}) {
        for (std::size_t changed = 0; changed < identifier.size(); ++changed) {
            ByteVector nearMiss = identifier;
            nearMiss[changed] ^= 1;
            expectSigned(CKM_RSA_PKCS, inputWith(nearMiss, 4, 24));
        }
        const ByteVector cut(identifier.begin(), identifier.end() - 1);
        expectSigned(CKM_RSA_PKCS, inputWith(cut, 24 - cut.size(), 24));
    }
}

TEST_F(FipsSigningTest, Sha1IsToldBeforeMd5WhereverTheyStand)
{
    expectRefused(CKM_RSA_PKCS, joined(MD5_DIGEST_INFO, SHA1_DIGEST_INFO), SHA1_DIGEST_INFO_TEXT);
    expectRefused(CKM_RSA_PKCS, joined(SHA1_DIGEST_INFO, MD5_DIGEST_INFO), SHA1_DIGEST_INFO_TEXT);
}

TEST_F(FipsSigningTest, HashesOfTheLengthOfSha1AndMd5AreRefused)
{
    expectRefused(CKM_ECDSA, ByteVector(20, 0xAA), "SHA1 hash signing via CKM_ECDSA");
    expectRefused(CKM_ECDSA, ByteVector(16, 0xAA), "MD5 hash signing via CKM_ECDSA");
    expectRefused(CKM_RSA_PKCS_PSS, ByteVector(20, 0xAA), "SHA1 hash signing via CKM_RSA_PKCS_PSS");
    expectRefused(CKM_RSA_PKCS_PSS, ByteVector(16, 0xAA), "MD5 hash signing via CKM_RSA_PKCS_PSS");
}

TEST_F(FipsSigningTest, HashesOfOtherLengthsAreSigned)
{
    for (const CK_MECHANISM_TYPE type : {CKM_ECDSA, CKM_RSA_PKCS_PSS}) {
        for (const std::size_t size : {1u, 15u, 17u, 19u, 21u, 28u, 32u, 48u, 64u})
            expectSigned(type, ByteVector(size, 0xAA));
    }
}

TEST_F(FipsSigningTest, TheRulesOfOneMechanismAreNotThoseOfAnother)
{
    expectSigned(CKM_RSA_PKCS, ByteVector(20, 0xAA));
    expectSigned(CKM_RSA_PKCS, ByteVector(16, 0xAA));
    expectSigned(CKM_ECDSA, SHA1_DIGEST_INFO);
    expectSigned(CKM_RSA_PKCS_PSS, MD5_DIGEST_INFO);
}

TEST_F(FipsSigningTest, ALengthQueryIsRefusedToo)
{
    startSigning(CKM_ECDSA);
    CK_ULONG length = 5;
    EXPECT_EQ(askSignLength(ByteVector(20, 0xAA), length).code, CKR_MECHANISM_INVALID);
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_F(FipsSigningTest, AKeptSignatureIsDeliveredWhateverTheDataOfTheFetchingCall)
{
    startSigning(CKM_ECDSA);
    expectSignHash({.hash = DATA}, SIGNATURE);
    CK_ULONG length = 0;
    ASSERT_EQ(askSignLength(DATA, length).code, CKR_OK);
    Output output;
    EXPECT_EQ(sign(ByteVector(20, 0xAA), output), delivered(CKM_ECDSA));
    expectDelivered(output, SIGNATURE);
}

TEST_F(FipsSigningTest, DataOfAHashMechanismIsNotLookedAt)
{
    for (const ByteVector& data : {ByteVector(20, 0xAA), SHA1_DIGEST_INFO}) {
        startSigning(CKM_ECDSA_SHA256);
        expectHash(3, data, digestOf(3));
        expectSignHash({.hash = digestOf(3)}, SIGNATURE);
        Output output;
        EXPECT_EQ(sign(data, output), computed(CKM_ECDSA_SHA256, digestOf(3)));
    }
}

TEST_F(FipsSigningTest, MultiPartSigningRefusesNothing)
{
    const std::pair<CK_MECHANISM_TYPE, ByteVector> inputs[] = {
        {CKM_RSA_PKCS, SHA1_DIGEST_INFO},         {CKM_RSA_PKCS, MD5_DIGEST_INFO},
        {CKM_ECDSA, ByteVector(20, 0xAA)},        {CKM_ECDSA, ByteVector(16, 0xAA)},
        {CKM_RSA_PKCS_PSS, ByteVector(20, 0xAA)}, {CKM_RSA_PKCS_PSS, ByteVector(16, 0xAA)},
    };
    for (const auto& [type, data] : inputs) {
        startSigning(type);
        expectSignHash({.hash = data, .isPss = type == CKM_RSA_PKCS_PSS}, SIGNATURE);
        EXPECT_EQ(update(data), UPDATED);
        Output output;
        EXPECT_EQ(finish(output), FINISHED);
    }
}

TEST_F(FipsSigningTest, ATokenThatIsNotFipsSignsAllOfIt)
{
    setModel("VK1 Key");
    for (const ByteVector& data : {SHA1_DIGEST_INFO, MD5_DIGEST_INFO, ByteVector(20, 0xAA), ByteVector(16, 0xAA)}) {
        for (const CK_MECHANISM_TYPE type : {CKM_RSA_PKCS, CKM_ECDSA, CKM_RSA_PKCS_PSS})
            expectSigned(type, data);
    }
}

} // namespace
