// C_DigestInit, C_Digest, C_DigestUpdate and C_DigestFinal.
#include "scripted_device_fixture.h"

namespace
{

const ByteVector DATA = {1, 2, 3};
const ByteVector OTHER_DATA = {4, 5, 6, 7};

class DigestTest : public ScriptedDeviceTest
{
protected:
    Answer digest(const ByteVector& data, Output& output) const
    {
        return answer(C_Digest, hSession_, pointerTo(data), sizeOf(data), output.data(), &output.length);
    }

    Answer askDigestLength(const ByteVector& data, CK_ULONG& length) const
    {
        return answer(C_Digest, hSession_, pointerTo(data), sizeOf(data), nullptr, &length);
    }

    Answer update(const ByteVector& data) const
    {
        return answer(C_DigestUpdate, hSession_, pointerTo(data), sizeOf(data));
    }

    Answer finish(Output& output) const { return answer(C_DigestFinal, hSession_, output.data(), &output.length); }

    Answer askFinalLength(CK_ULONG& length) const { return answer(C_DigestFinal, hSession_, nullptr, &length); }

    void keepDigestOfData()
    {
        expectUpdateHash(DATA);
        expectFinalHash(0, digestOf(3));
        CK_ULONG length = 0;
        ASSERT_EQ(askDigestLength(DATA, length).code, CKR_OK);
    }

    const Answer DIGESTED = success("C_Digest", {"C_Digest Success"});
    const Answer UPDATED = success("C_DigestUpdate");
    const Answer FINISHED = success("C_DigestFinal", {"C_DigestFinal Success"});
};

struct DigestMechanism {
    const char* name;
    CK_MECHANISM_TYPE type;
    int hash;

    friend std::ostream& operator<<(std::ostream& out, const DigestMechanism& each) { return out << each.name; }
};

class EveryDigest : public DigestTest, public testing::WithParamInterface<DigestMechanism>
{
};

constexpr DigestMechanism DIGEST_MECHANISMS[] = {
    {"SHA_1", 0x220, 2}, {"SHA224", 0x255, 6}, {"SHA256", 0x250, 3}, {"SHA384", 0x260, 4}, {"SHA512", 0x270, 5}};

INSTANTIATE_TEST_SUITE_P(Of, EveryDigest, testing::ValuesIn(DIGEST_MECHANISMS),
                         [](const auto& mechanism) { return mechanism.param.name; });

TEST_P(EveryDigest, IsMadeInOnePart)
{
    expectInitHash(GetParam().hash);
    expectUpdateHash(DATA);
    expectFinalHash(0, digestOf(GetParam().hash));
    EXPECT_EQ(digestInit(GetParam().type), success("C_DigestInit"));
    Output output;
    EXPECT_EQ(digest(DATA, output), DIGESTED);
    EXPECT_EQ(output.length, digestOf(GetParam().hash).size());
    EXPECT_EQ(output.written(), digestOf(GetParam().hash));
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_P(EveryDigest, IsMadeInParts)
{
    startDigest(GetParam().type, GetParam().hash);
    expectUpdateHash(DATA);
    expectUpdateHash(OTHER_DATA);
    expectFinalHash(0, digestOf(GetParam().hash));
    EXPECT_EQ(update(DATA), UPDATED);
    EXPECT_EQ(update(OTHER_DATA), UPDATED);
    CK_ULONG length = 0;
    EXPECT_EQ(askFinalLength(length), FINISHED);
    EXPECT_EQ(length, digestOf(GetParam().hash).size());
    Output output;
    EXPECT_EQ(finish(output), FINISHED);
    EXPECT_EQ(output.length, digestOf(GetParam().hash).size());
    EXPECT_EQ(output.written(), digestOf(GetParam().hash));
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_P(EveryDigest, IsMadeOnFipsTokensAndOldFirmware)
{
    setModel("");
    setFirmware("");
    startDigest(GetParam().type, GetParam().hash);
    expectUpdateHash(DATA);
    expectFinalHash(0, digestOf(GetParam().hash));
    Output output;
    EXPECT_EQ(digest(DATA, output), DIGESTED);
    EXPECT_EQ(output.written(), digestOf(GetParam().hash));
}

TEST_F(DigestTest, OtherMechanismsAreRefused)
{
    for (const CK_MECHANISM_TYPE type :
         {CKM_MD5, CKM_RSA_PKCS, CKM_SHA256_RSA_PKCS, CKM_EC_KEY_PAIR_GEN, CK_MECHANISM_TYPE{0xFFFFFFFF}}) {
        EXPECT_EQ(digestInit(type),
                  refusal(CKR_MECHANISM_INVALID, "C_DigestInit", "C_DigestInit mechanism not supported"));
        EXPECT_EQ(activeOperation(), NO_OPERATION);
    }
}

TEST_F(DigestTest, MechanismParametersAreNotLookedAt)
{
    expectInitHash(3);
    CK_MECHANISM mechanism = {CKM_SHA256, reinterpret_cast<CK_VOID_PTR>(1), 1000};
    EXPECT_EQ(answer(C_DigestInit, hSession_, &mechanism), success("C_DigestInit"));
}

TEST_F(DigestTest, AHashThatCannotBeginLeavesNoDigest)
{
    expectInitHash(3, 33);
    EXPECT_EQ(digestInit(CKM_SHA256),
              refusal(CKR_FUNCTION_FAILED, "C_DigestInit", "Init hash in diges init failed : 33"));
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_F(DigestTest, ARestartThatFailsKeepsTheDigestAndItsResult)
{
    startDigest();
    keepDigestOfData();
    expectInitHash(5, -7);
    EXPECT_EQ(digestInit(CKM_SHA512),
              refusal(CKR_FUNCTION_FAILED, "C_DigestInit", "Init hash in diges init failed : -7"));
    EXPECT_EQ(digestInit(CKM_MD5).code, CKR_MECHANISM_INVALID);
    EXPECT_EQ(answer(C_DigestInit, hSession_, nullptr).code, CKR_ARGUMENTS_BAD);
    EXPECT_EQ(activeOperation(), DIGEST);
    Output output;
    EXPECT_EQ(finish(output), FINISHED);
    EXPECT_EQ(output.written(), digestOf(3));
}

TEST_F(DigestTest, ARestartThatFailsKeepsTheContext)
{
    startDigest();
    expectInitHash(5, -7);
    ASSERT_EQ(digestInit(CKM_SHA512).code, CKR_FUNCTION_FAILED);
    expectUpdateHash(DATA);
    expectFinalHash(0, digestOf(3));
    EXPECT_EQ(update(DATA), UPDATED);
    Output output;
    EXPECT_EQ(finish(output), FINISHED);
    EXPECT_EQ(output.written(), digestOf(3));
}

TEST_F(DigestTest, DataGatheredForASignatureIsNoKeptDigest)
{
    startSigning(CKM_ECDSA);
    ASSERT_EQ(C_SignUpdate(hSession_, pointerTo(OTHER_DATA), sizeOf(OTHER_DATA)), CKR_OK);
    abandonOperation();
    startDigest();
    expectUpdateHash(DATA);
    expectFinalHash(0, digestOf(3));
    Output output;
    EXPECT_EQ(digest(DATA, output), DIGESTED);
    EXPECT_EQ(output.written(), digestOf(3));
}

TEST_F(DigestTest, ARestartTakesANewContextAndDropsTheKeptDigest)
{
    startDigest();
    keepDigestOfData();
    startDigest(CKM_SHA512, 5);
    expectUpdateHash(OTHER_DATA);
    expectFinalHash(0, digestOf(5));
    Output output;
    EXPECT_EQ(digest(OTHER_DATA, output), DIGESTED);
    EXPECT_EQ(output.written(), digestOf(5));
}

TEST_F(DigestTest, ADigestThatWasAskedForItsLengthIsFetchedWithOtherData)
{
    startDigest();
    expectUpdateHash(DATA);
    expectFinalHash(0, digestOf(3));
    for (int question = 0; question < 2; ++question) {
        CK_ULONG length = 0;
        EXPECT_EQ(askDigestLength(DATA, length), DIGESTED);
        EXPECT_EQ(length, 32u);
        EXPECT_EQ(activeOperation(), DIGEST);
    }
    Output output;
    EXPECT_EQ(digest(OTHER_DATA, output), DIGESTED);
    EXPECT_EQ(output.written(), digestOf(3));
}

TEST_F(DigestTest, AKeptDigestIsFetchedByEitherCall)
{
    startDigest();
    keepDigestOfData();
    Output byFinal;
    EXPECT_EQ(finish(byFinal), FINISHED);
    EXPECT_EQ(byFinal.written(), digestOf(3));

    startDigest();
    expectFinalHash(0, digestOf(3));
    CK_ULONG length = 0;
    ASSERT_EQ(askFinalLength(length), FINISHED);
    Output byDigest;
    EXPECT_EQ(digest(OTHER_DATA, byDigest), DIGESTED);
    EXPECT_EQ(byDigest.written(), digestOf(3));
}

TEST_F(DigestTest, AnUpdateAfterALengthQueryReachesTheDeviceButNotTheKeptDigest)
{
    startDigest();
    keepDigestOfData();
    expectUpdateHash(OTHER_DATA);
    EXPECT_EQ(update(OTHER_DATA), UPDATED);
    Output output;
    EXPECT_EQ(finish(output), FINISHED);
    EXPECT_EQ(output.written(), digestOf(3));
}

TEST_F(DigestTest, DigestAfterAnUpdateAddsItsData)
{
    startDigest();
    expectUpdateHash(DATA);
    expectUpdateHash(OTHER_DATA);
    expectFinalHash(0, digestOf(3));
    EXPECT_EQ(update(DATA), UPDATED);
    Output output;
    EXPECT_EQ(digest(OTHER_DATA, output), DIGESTED);
}

TEST_F(DigestTest, AnEmptyDigestIsNotKeptAfterALengthQuery)
{
    startDigest();
    expectUpdateHash(DATA);
    expectFinalHash(0, {});
    CK_ULONG length = 5;
    EXPECT_EQ(askDigestLength(DATA, length), DIGESTED);
    EXPECT_EQ(length, 0u);
    expectUpdateHash(OTHER_DATA);
    expectFinalHash(0, digestOf(3));
    Output output;
    EXPECT_EQ(digest(OTHER_DATA, output), DIGESTED);
    EXPECT_EQ(output.written(), digestOf(3));
}

TEST_F(DigestTest, ALengthThatADigestCannotHaveIsCutToItsRoom)
{
    const std::pair<int, ByteVector> lengths[] = {{65, digestOf(5)}, {-1, {}}};
    for (const auto& [told, delivered] : lengths) {
        startDigest(CKM_SHA512, 5);
        expectUpdateHash(DATA);
        expectFinalHashOfLength(0, told);
        Output output;
        EXPECT_EQ(digest(DATA, output), DIGESTED);
        EXPECT_EQ(output.length, delivered.size());
        EXPECT_EQ(output.written(), delivered);
    }
}

TEST_F(DigestTest, ALengthThatIsTooShortStillGetsTheWholeDigest)
{
    for (const CK_ULONG tooShort : {0u, 1u, 63u}) {
        startDigest(CKM_SHA512, 5);
        expectUpdateHash(DATA);
        expectFinalHash(0, digestOf(5));
        Output output(tooShort);
        EXPECT_EQ(digest(DATA, output), DIGESTED);
        EXPECT_EQ(output.length, 64u);
        EXPECT_EQ(output.written(), digestOf(5));

        startDigest(CKM_SHA512, 5);
        expectFinalHash(0, digestOf(5));
        Output finalOutput(tooShort);
        EXPECT_EQ(finish(finalOutput), FINISHED);
        EXPECT_EQ(finalOutput.length, 64u);
        EXPECT_EQ(finalOutput.written(), digestOf(5));
    }
}

TEST_F(DigestTest, BadArgumentsOfDigestAreRefusedInTheirOrderAndKeepTheDigest)
{
    startDigest();
    Output output(5);
    CK_BYTE byte = 1;
    const auto refused = [](const std::string& text) { return refusal(CKR_ARGUMENTS_BAD, "C_Digest", text); };
    const std::string dataText = "C_Digest: pData is NULL or ulDataLen<=0, ulDataLen=";
    EXPECT_EQ(answer(C_Digest, hSession_, nullptr, 8, output.data(), nullptr), refused(dataText + "8"));
    EXPECT_EQ(answer(C_Digest, hSession_, nullptr, TOO_LARGE_FOR_INT, output.data(), &output.length),
              refused(dataText + logged(TOO_LARGE_FOR_INT)));
    EXPECT_EQ(answer(C_Digest, hSession_, nullptr, 0, output.data(), &output.length), refused(dataText + "0"));
    EXPECT_EQ(answer(C_Digest, hSession_, &byte, 0, output.data(), nullptr), refused(dataText + "0"));
    EXPECT_EQ(answer(C_Digest, hSession_, &byte, 1, output.data(), nullptr), refused("C_Digest: pulDigestLen is NULL"));
    EXPECT_EQ(activeOperation(), DIGEST);
    EXPECT_EQ(output.length, 5u);
    EXPECT_EQ(output.written(), ByteVector());
}

TEST_F(DigestTest, BadArgumentsOfTheFetchingCallKeepTheDigestAndItsResult)
{
    startDigest();
    keepDigestOfData();
    Output output;
    CK_BYTE byte = 1;
    EXPECT_EQ(answer(C_Digest, hSession_, &byte, 0, output.data(), &output.length).code, CKR_ARGUMENTS_BAD);
    EXPECT_EQ(answer(C_Digest, hSession_, nullptr, 1, output.data(), &output.length).code, CKR_ARGUMENTS_BAD);
    EXPECT_EQ(answer(C_DigestFinal, hSession_, output.data(), nullptr),
              refusal(CKR_ARGUMENTS_BAD, "C_DigestFinal", "C_DigestFinal: pulDigestLen is NULL"));
    EXPECT_EQ(output.written(), ByteVector());
    EXPECT_EQ(finish(output), FINISHED);
    EXPECT_EQ(output.written(), digestOf(3));
}

TEST_F(DigestTest, BadArgumentsOfUpdateKeepTheDigest)
{
    startDigest();
    CK_BYTE byte = 1;
    const std::string text = "C_DigestUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=";
    EXPECT_EQ(answer(C_DigestUpdate, hSession_, nullptr, 3), refusal(CKR_ARGUMENTS_BAD, "C_DigestUpdate", text + "3"));
    EXPECT_EQ(answer(C_DigestUpdate, hSession_, nullptr, TOO_LARGE_FOR_INT),
              refusal(CKR_ARGUMENTS_BAD, "C_DigestUpdate", text + logged(TOO_LARGE_FOR_INT)));
    EXPECT_EQ(answer(C_DigestUpdate, hSession_, &byte, 0), refusal(CKR_ARGUMENTS_BAD, "C_DigestUpdate", text + "0"));
    EXPECT_EQ(activeOperation(), DIGEST);
}

TEST_F(DigestTest, AFailedUpdateKeepsTheDigestForAnotherTry)
{
    startDigest();
    expectUpdateHash(DATA, 40);
    expectUpdateHash(DATA);
    expectFinalHash(0, digestOf(3));
    Output output;
    EXPECT_EQ(digest(DATA, output), refusal(CKR_FUNCTION_FAILED, "C_Digest", "Update hash data in diget failed : 40"));
    EXPECT_EQ(output.written(), ByteVector());
    EXPECT_EQ(output.length, 2048u);
    EXPECT_EQ(activeOperation(), DIGEST);
    EXPECT_EQ(digest(DATA, output), DIGESTED);
    EXPECT_EQ(output.written(), digestOf(3));
}

TEST_F(DigestTest, AfterAFailedFinalStepBothStepsAreDoneAgainOnTheSameContext)
{
    startDigest();
    expectUpdateHash(DATA);
    expectFinalHash(0, digestOf(5), 41);
    expectUpdateHash(DATA);
    expectFinalHash(0, digestOf(3));
    Output output;
    EXPECT_EQ(digest(DATA, output), refusal(CKR_FUNCTION_FAILED, "C_Digest", "Final hash data in diget failed : 41"));
    EXPECT_EQ(output.length, 2048u);
    EXPECT_EQ(output.written(), ByteVector());
    EXPECT_EQ(activeOperation(), DIGEST);
    EXPECT_EQ(digest(DATA, output), DIGESTED);
    EXPECT_EQ(output.written(), digestOf(3));
}

TEST_F(DigestTest, AFailedPartKeepsTheDigestForAnotherTry)
{
    startDigest();
    expectUpdateHash(DATA, 42);
    expectUpdateHash(DATA);
    EXPECT_EQ(update(DATA),
              refusal(CKR_FUNCTION_FAILED, "C_DigestUpdate", "Update hash data in digest update failed : 42"));
    EXPECT_EQ(activeOperation(), DIGEST);
    EXPECT_EQ(update(DATA), UPDATED);
}

TEST_F(DigestTest, AFailedDigestFinalKeepsTheDigestForAnotherTry)
{
    startDigest();
    expectFinalHash(0, digestOf(5), 43);
    expectFinalHash(0, digestOf(3));
    Output output;
    EXPECT_EQ(finish(output), refusal(CKR_FUNCTION_FAILED, "C_DigestFinal", "Final hash data in diget failed : 43"));
    EXPECT_EQ(output.length, 2048u);
    EXPECT_EQ(output.written(), ByteVector());
    EXPECT_EQ(activeOperation(), DIGEST);
    EXPECT_EQ(finish(output), FINISHED);
    EXPECT_EQ(output.written(), digestOf(3));
}

TEST_F(DigestTest, AFailedDigestMayBeRestarted)
{
    startDigest();
    expectFinalHash(0, {}, 43);
    Output output;
    ASSERT_EQ(finish(output).code, CKR_FUNCTION_FAILED);
    startDigest();
    expectFinalHash(0, digestOf(3));
    EXPECT_EQ(finish(output), FINISHED);
}

TEST_F(DigestTest, ALengthBeyondTheDevicesCountIsPassedAsANegativeOne)
{
    CK_BYTE byte = 1;
    for (const LargeLength& each : largeLengths()) {
        startDigest();
        expectUpdateHash(&byte, each.count);
        expectUpdateHash(&byte, each.count);
        expectFinalHash(0, digestOf(3));
        Output output;
        EXPECT_EQ(answer(C_DigestUpdate, hSession_, &byte, each.length), UPDATED);
        EXPECT_EQ(answer(C_Digest, hSession_, &byte, each.length, output.data(), &output.length), DIGESTED);
    }
}

TEST_F(DigestTest, LoginMakesNoDifference)
{
    login();
    startDigest();
    expectFinalHash(0, digestOf(3));
    Output output;
    EXPECT_EQ(finish(output), FINISHED);
}

} // namespace
