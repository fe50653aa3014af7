// C_VerifyInit, C_Verify, C_VerifyUpdate and C_VerifyFinal.
#include "scripted_device_fixture.h"
#include "signed_data.h"

namespace
{

constexpr std::uint32_t EC_KEY = 5;

class VerificationTest : public ScriptedDeviceTest
{
protected:
    Answer verify(const ByteVector& data, const ByteVector& signature) const
    {
        return answer(C_Verify, hSession_, pointerTo(data), sizeOf(data), pointerTo(signature), sizeOf(signature));
    }

    Answer update(const ByteVector& data) const
    {
        return answer(C_VerifyUpdate, hSession_, pointerTo(data), sizeOf(data));
    }

    Answer finish(const ByteVector& signature) const
    {
        return answer(C_VerifyFinal, hSession_, pointerTo(signature), sizeOf(signature));
    }

    VerifyRequest ecRequest(const ByteVector& hash) const
    {
        return {
            .keyKind = KEY_KIND_EC_P256, .hash = hash, .publicKey = storedPublicKey(EC_KEY), .signature = SIGNATURE};
    }

    /// A verification whose data reaches the device's hash in one piece.
    void startHashedVerification(const CK_BYTE* data, int count)
    {
        startVerification(CKM_ECDSA_SHA256, EC_KEY);
        expectInitHash(3);
        expectUpdateHash(data, count);
        expectFinalHash(HASH_ROOM, digestOf(3));
        expectVerifySignatureHash(ecRequest(digestOf(3)));
    }

    static Answer initRefused(CK_RV code, const std::string& text) { return refusal(code, "C_VerifyInit", text); }

    /// Single-part verification with a key, the public key that the device is to be given, and how the log tells it.
    void expectPublicKeyPassed(std::uint32_t keyId, const ByteVector& passed, const Answer& told)
    {
        startVerification(CKM_ECDSA, keyId);
        expectVerifySignatureHash(
            {.keyKind = keyPair(keyId).keyKind, .hash = DATA, .publicKey = passed, .signature = SIGNATURE});
        EXPECT_EQ(verify(DATA, SIGNATURE), told);
    }

    void setPublicKey(std::uint32_t keyId, const ByteVector& bytes) const
    {
        VelkorKeyPair& changed = keyPair(keyId);
        std::copy(bytes.begin(), bytes.end(), changed.publicKey);
        changed.publicKeyLength = static_cast<std::int32_t>(bytes.size());
    }

    const Answer AS_IS = success("C_Verify", {"Public key passed as-is"});
    const Answer WRAPPED = success("C_Verify", {"Public key is not der need to convert to the der"});
    const Answer UPDATED = success("C_VerifyUpdate");
    const Answer VERIFIED = success("C_VerifyFinal");
};

class EveryVerification : public VerificationTest, public testing::WithParamInterface<SignatureMechanism>
{
protected:
    const SignatureMechanism& mechanism_ = GetParam();
};

INSTANTIATE_TEST_SUITE_P(By, EveryVerification, testing::ValuesIn(SIGNATURE_MECHANISMS),
                         [](const auto& mechanism) { return mechanism.param.name; });

TEST_P(EveryVerification, IsMadeInOnePart)
{
    expectKeyLookup();
    EXPECT_EQ(verifyInit(mechanism_.type, publicKey(EC_KEY)), success("C_VerifyInit"));
    VerifyRequest request = ecRequest(DATA);
    request.isPss = mechanism_.isPss;
    if (mechanism_.hash != NOT_HASHED) {
        request.hash = digestOf(mechanism_.hash);
        expectHash(mechanism_.hash, DATA, request.hash);
    }
    expectVerifySignatureHash(request);
    EXPECT_EQ(verify(DATA, SIGNATURE), AS_IS);
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_P(EveryVerification, IsMadeInPartsWithItsOwnHashAndNeverAsPss)
{
    startVerification(mechanism_.type, EC_KEY);
    VerifyRequest request = ecRequest(joined(DATA, OTHER_DATA));
    if (mechanism_.multiPartVerifyHash != NOT_HASHED) {
        request.hash = digestOf(mechanism_.multiPartVerifyHash);
        expectInitHash(mechanism_.multiPartVerifyHash);
        expectUpdateHash(DATA);
        expectUpdateHash(OTHER_DATA);
        expectFinalHash(HASH_ROOM, request.hash);
    }
    expectVerifySignatureHash(request);
    EXPECT_EQ(update(DATA), UPDATED);
    EXPECT_EQ(update(OTHER_DATA), UPDATED);
    EXPECT_EQ(finish(SIGNATURE), VERIFIED);
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_P(EveryVerification, BeginsWithAnyParametersAlsoOnAFipsToken)
{
    setModel("");
    expectKeyLookup();
    CK_MECHANISM mechanism = {mechanism_.type, reinterpret_cast<CK_VOID_PTR>(1), 1000};
    EXPECT_EQ(answer(C_VerifyInit, hSession_, &mechanism, publicKey(2)), success("C_VerifyInit"));
    EXPECT_EQ(activeOperation(), VERIFY);
}

TEST_F(VerificationTest, AFipsTokenVerifiesWhatItDoesNotSign)
{
    setModel("VK3 Key");
    const auto expectVerified = [&](CK_MECHANISM_TYPE type, const ByteVector& data, const ByteVector& hash) {
        VerifyRequest request = ecRequest(hash);
        request.isPss = type == CKM_RSA_PKCS_PSS;
        expectVerifySignatureHash(request);
        EXPECT_EQ(verify(data, SIGNATURE), AS_IS);
    };
    for (const CK_MECHANISM_TYPE type : {CKM_ECDSA, CKM_RSA_PKCS_PSS}) {
        for (const std::size_t size : {20u, 16u}) {
            startVerification(type, EC_KEY);
            expectVerified(type, ByteVector(size, 0xAA), ByteVector(size, 0xAA));
        }
    }
    for (const ByteVector& digestInfo : {SHA1_DIGEST_INFO, MD5_DIGEST_INFO}) {
        startVerification(CKM_RSA_PKCS, EC_KEY);
        expectVerified(CKM_RSA_PKCS, digestInfo, digestInfo);
    }
    startVerification(CKM_SHA1_RSA_PKCS, EC_KEY);
    expectHash(2, DATA, digestOf(2));
    expectVerified(CKM_SHA1_RSA_PKCS, DATA, digestOf(2));
}

TEST_F(VerificationTest, OtherMechanismsAreRefused)
{
    for (const CK_MECHANISM_TYPE type : NO_SIGNATURE_MECHANISMS) {
        EXPECT_EQ(verifyInit(type, 0),
                  initRefused(CKR_MECHANISM_INVALID, "C_VerifyInit: unsupported mechanism=" + logged(type)));
        EXPECT_EQ(activeOperation(), NO_OPERATION);
    }
}

TEST_F(VerificationTest, HandlesBelowTheKeysAreRefusedWithoutALookup)
{
    for (const CK_OBJECT_HANDLE hKey : {0u, 1u, 0x60000001u, 0x6FFFFFFFu}) {
        EXPECT_EQ(verifyInit(CKM_ECDSA, hKey),
                  initRefused(CKR_OBJECT_HANDLE_INVALID, "C_VerifyInit: invalid hKey=" + logged(hKey)));
        EXPECT_EQ(activeOperation(), NO_OPERATION);
    }
}

TEST_F(VerificationTest, HandlesWithoutAKeyPairAreRefused)
{
    for (const CK_OBJECT_HANDLE hKey : withLargeHandles({0x70000000, 0x70000008, 0x70000FFF, 0x70001000, 0x70001008,
                                                         0x70002002, 0x70003000, 0x80000002, 0xFFFFFFFF})) {
        expectKeyLookup();
        EXPECT_EQ(verifyInit(CKM_ECDSA, hKey),
                  initRefused(CKR_OBJECT_HANDLE_INVALID, "Invalid input handle in verify : " + logged(hKey)));
        EXPECT_EQ(activeOperation(), NO_OPERATION);
    }
}

TEST_F(VerificationTest, BothHandlesOfAKeyPairSelectIt)
{
    for (const CK_OBJECT_HANDLE hKey : {privateKey(EC_KEY), publicKey(EC_KEY)}) {
        expectKeyLookup();
        EXPECT_EQ(verifyInit(CKM_ECDSA, hKey), success("C_VerifyInit"));
        expectVerifySignatureHash(ecRequest(DATA));
        EXPECT_EQ(verify(DATA, SIGNATURE).code, CKR_OK);
    }
}

TEST_F(VerificationTest, TheRangesOfTheTwoHandlesMeetAtTheFirstPublicKey)
{
    const std::pair<CK_OBJECT_HANDLE, std::uint32_t> keys[] = {
        {0x70000000, 0}, {0x70000FFF, 0xFFF}, {0x70001000, 0}, {0x70001FFF, 0xFFF}, {0x70002005, 0x1005}};
    for (const std::uint32_t id : {0u, 0xFFFu, 0x1005u}) {
        first().keyPairs.push_back(makeKeyPair(id, KEY_KIND_EC_P256, "more"));
        setPublicKey(static_cast<std::uint32_t>(first().keyPairs.size()), numbered(65, static_cast<unsigned char>(id)));
    }
    for (const auto& [hKey, id] : keys) {
        expectKeyLookup();
        ASSERT_EQ(verifyInit(CKM_ECDSA, hKey).code, CKR_OK);
        VerifyRequest request = ecRequest(DATA);
        request.publicKey = numbered(65, static_cast<unsigned char>(id));
        expectVerifySignatureHash(request);
        EXPECT_EQ(verify(DATA, SIGNATURE).code, CKR_OK);
    }
}

TEST_F(VerificationTest, MechanismKeyAndFirmwareAreLookedAtInThisOrder)
{
    setFirmware("1.9");
    EXPECT_EQ(verifyInit(CKM_MD5, 1), initRefused(CKR_MECHANISM_INVALID, "C_VerifyInit: unsupported mechanism=528"));
    EXPECT_EQ(verifyInit(CKM_RSA_PKCS_PSS, 1), initRefused(CKR_OBJECT_HANDLE_INVALID, "C_VerifyInit: invalid hKey=1"));
    expectKeyLookup();
    EXPECT_EQ(verifyInit(CKM_RSA_PKCS_PSS, publicKey(99)),
              initRefused(CKR_OBJECT_HANDLE_INVALID, "Invalid input handle in verify : " + logged(publicKey(99))));
    expectKeyLookup();
    EXPECT_EQ(verifyInit(CKM_RSA_PKCS_PSS, publicKey(2)),
              initRefused(CKR_MECHANISM_INVALID, "C_VerifyInit: CKM_RSA_PKCS_PSS not supported on firmware 1.9"));
}

TEST_F(VerificationTest, EveryKindOfKeyIsTakenAndToldToTheDevice)
{
    first().keyPairs.push_back(makeKeyPair(8, 0, "kind 0"));
    first().keyPairs.push_back(makeKeyPair(9, 99, "kind 99"));
    for (std::uint32_t id = 1; id <= 9; ++id) {
        setPublicKey(id, {0x30, static_cast<unsigned char>(id)});
        expectPublicKeyPassed(id, {0x30, static_cast<unsigned char>(id)}, AS_IS);
    }
}

// ---- The public key of single-part verification ----

const ByteVector ALGORITHM = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
const ByteVector EXPONENT = {0x02, 0x03, 0x01, 0x00, 0x01};

TEST_F(VerificationTest, ABareModulusIsWrappedIntoASubjectPublicKeyInfo)
{
    const ByteVector head =
        joined(joined({0x30, 0x82, 0x01, 0x22}, ALGORITHM),
               {0x03, 0x82, 0x01, 0x0F, 0x00, 0x30, 0x82, 0x01, 0x0A, 0x02, 0x82, 0x01, 0x01, 0x00});
    ASSERT_EQ(storedPublicKey(2).front(), 0xC5);
    expectPublicKeyPassed(2, joined(joined(head, storedPublicKey(2)), EXPONENT), WRAPPED);
}

TEST_F(VerificationTest, AModulusWithoutTopBitIsWrappedAsItStands)
{
    setPublicKey(2, {0x45, 0x01});
    const ByteVector content = {0x03, 0x0C, 0x00, 0x30, 0x09, 0x02, 0x02, 0x45, 0x01};
    expectPublicKeyPassed(2, joined(joined(joined({0x30, 0x1D}, ALGORITHM), content), EXPONENT), WRAPPED);
    setPublicKey(2, {0x00, 0xC5});
    const ByteVector leadingZero = {0x03, 0x0C, 0x00, 0x30, 0x09, 0x02, 0x02, 0x00, 0xC5};
    expectPublicKeyPassed(2, joined(joined(joined({0x30, 0x1D}, ALGORITHM), leadingZero), EXPONENT), WRAPPED);
}

TEST_F(VerificationTest, RsaKeysOfEveryKindAreWrapped)
{
    first().keyPairs.push_back(makeKeyPair(8, 99, "kind 99"));
    const ByteVector wrapped =
        joined(joined(joined({0x30, 0x1C}, ALGORITHM), {0x03, 0x0B, 0x00, 0x30, 0x08, 0x02, 0x01, 0x31}), EXPONENT);
    for (const std::uint32_t id : {1u, 2u, 3u, 4u, 8u}) {
        setPublicKey(id, {0x31});
        expectPublicKeyPassed(id, wrapped, WRAPPED);
    }
}

TEST_F(VerificationTest, AKeyThatIsDerAlreadyIsPassedUnchanged)
{
    setPublicKey(2, {0x30, 0x03, 0x02, 0x01, 0x05});
    expectPublicKeyPassed(2, {0x30, 0x03, 0x02, 0x01, 0x05}, AS_IS);
}

TEST_F(VerificationTest, AnEcKeyIsPassedUnchangedWhateverItsFirstByte)
{
    for (const std::uint32_t id : {5u, 6u, 7u}) {
        expectPublicKeyPassed(id, storedPublicKey(id), AS_IS);
        setPublicKey(id, {0xC5, 0x01});
        expectPublicKeyPassed(id, {0xC5, 0x01}, AS_IS);
    }
}

TEST_F(VerificationTest, AKeyWithoutBytesIsPassedAsNone)
{
    for (const std::int32_t length : {0, -1}) {
        keyPair(2).publicKeyLength = length;
        expectPublicKeyPassed(2, {}, AS_IS);
    }
}

TEST_F(VerificationTest, InPartsTheKeyIsPassedAsStored)
{
    for (const ByteVector& stored : {ByteVector{0xC5, 0x01}, ByteVector{0x30, 0x01}, ByteVector{0x45}}) {
        setPublicKey(2, stored);
        startVerification(CKM_RSA_PKCS);
        expectVerifySignatureHash({.hash = DATA, .publicKey = stored, .signature = SIGNATURE});
        ASSERT_EQ(update(DATA), UPDATED);
        EXPECT_EQ(finish(SIGNATURE), VERIFIED);
    }
}

// ---- Verdicts and failures ----

TEST_F(VerificationTest, EveryBadVerdictIsAnInvalidSignatureAndEndsTheOperation)
{
    for (const int status : {1, 6, 40, 242, -1}) {
        startVerification(CKM_ECDSA, EC_KEY);
        expectVerifySignatureHash(ecRequest(DATA), status);
        Answer expected = AS_IS;
        expected.code = CKR_SIGNATURE_INVALID;
        expected.lines.push_back("ERROR Verify signature failed : " + std::to_string(status));
        EXPECT_EQ(verify(DATA, SIGNATURE), expected);
        EXPECT_EQ(activeOperation(), NO_OPERATION);

        startVerification(CKM_ECDSA, EC_KEY);
        expectVerifySignatureHash(ecRequest(DATA), status);
        ASSERT_EQ(update(DATA), UPDATED);
        EXPECT_EQ(finish(SIGNATURE), refusal(CKR_SIGNATURE_INVALID, "C_VerifyFinal",
                                             "C_VerifyFinal: verify failed " + std::to_string(status)));
        EXPECT_EQ(activeOperation(), NO_OPERATION);
    }
}

TEST_F(VerificationTest, ASignatureOfAWrongLengthIsJudgedByTheDevice)
{
    for (const std::size_t size : {1u, 69u, 71u, 5000u}) {
        startVerification(CKM_ECDSA, EC_KEY);
        VerifyRequest request = ecRequest(DATA);
        request.signature = ByteVector(size, 0x33);
        expectVerifySignatureHash(request, 6);
        EXPECT_EQ(verify(DATA, request.signature).code, CKR_SIGNATURE_INVALID);
        EXPECT_EQ(activeOperation(), NO_OPERATION);
    }
}

TEST_F(VerificationTest, AFailedHashOfVerifyEndsTheOperation)
{
    const auto expectFailure = [&](const std::string& text) {
        EXPECT_EQ(verify(DATA, SIGNATURE), refusal(CKR_FUNCTION_FAILED, "C_Verify", text));
        EXPECT_EQ(verify(DATA, SIGNATURE), notStarted("C_Verify", NO_OPERATION));
    };
    startVerification(CKM_SHA384_RSA_PKCS);
    expectInitHash(4, 31);
    expectFailure("C_Verify: initHash failed ret=31");

    startVerification(CKM_SHA384_RSA_PKCS);
    expectInitHash(4);
    expectUpdateHash(DATA, -32);
    expectFailure("C_Verify: updateHash failed ret=-32");

    startVerification(CKM_SHA384_RSA_PKCS);
    expectInitHash(4);
    expectUpdateHash(DATA);
    expectFinalHash(HASH_ROOM, digestOf(4), 33);
    expectFailure("C_Verify: finalHash failed ret=33");
}

TEST_F(VerificationTest, AFailedUpdateEndsTheOperationAndDropsItsContext)
{
    startVerification(CKM_SHA384_RSA_PKCS);
    expectInitHash(4, 35);
    EXPECT_EQ(update(DATA), refusal(CKR_FUNCTION_FAILED, "C_VerifyUpdate", "C_VerifyUpdate: initHash failed 35"));
    EXPECT_EQ(activeOperation(), NO_OPERATION);

    startVerification(CKM_SHA384_RSA_PKCS);
    expectInitHash(4);
    expectUpdateHash(DATA, 36);
    EXPECT_EQ(update(DATA), refusal(CKR_FUNCTION_FAILED, "C_VerifyUpdate", "C_VerifyUpdate: updateHash failed 36"));
    EXPECT_EQ(activeOperation(), NO_OPERATION);

    startVerification(CKM_SHA384_RSA_PKCS);
    expectInitHash(4);
    expectUpdateHash(DATA);
    EXPECT_EQ(update(DATA), UPDATED);
}

TEST_F(VerificationTest, AFailedFinalHashEndsTheOperationAndDropsContextAndData)
{
    startVerification(CKM_ECDSA, EC_KEY);
    ASSERT_EQ(update(OTHER_DATA), UPDATED);
    abandonOperation();

    startVerification(CKM_SHA384_RSA_PKCS);
    expectInitHash(4);
    expectUpdateHash(DATA);
    expectFinalHash(HASH_ROOM, digestOf(4), 37);
    ASSERT_EQ(update(DATA), UPDATED);
    EXPECT_EQ(finish(SIGNATURE), refusal(CKR_FUNCTION_FAILED, "C_VerifyFinal", "C_VerifyFinal: finalHash failed 37"));
    EXPECT_EQ(activeOperation(), NO_OPERATION);

    startVerification(CKM_ECDSA, EC_KEY);
    expectVerifySignatureHash(ecRequest({}));
    EXPECT_EQ(finish(SIGNATURE), VERIFIED);
    startVerification(CKM_SHA384_RSA_PKCS);
    expectInitHash(4);
    expectUpdateHash(DATA);
    EXPECT_EQ(update(DATA), UPDATED);
}

TEST_F(VerificationTest, AFinalHashTakesThePlaceOfGatheredData)
{
    startVerification(CKM_ECDSA, EC_KEY);
    ASSERT_EQ(update(OTHER_DATA), UPDATED);
    abandonOperation();

    startVerification(CKM_ECDSA_SHA256, EC_KEY);
    expectHash(3, DATA, digestOf(3));
    expectVerifySignatureHash(ecRequest(digestOf(3)));
    ASSERT_EQ(update(DATA), UPDATED);
    EXPECT_EQ(finish(SIGNATURE), VERIFIED);

    startVerification(CKM_ECDSA, EC_KEY);
    ASSERT_EQ(update(DATA), UPDATED);
    expectVerifySignatureHash(ecRequest(DATA));
    EXPECT_EQ(finish(SIGNATURE), VERIFIED);
}

TEST_F(VerificationTest, ALengthThatTheHashCannotHaveIsCutToItsRoom)
{
    const std::pair<int, ByteVector> lengths[] = {{65, digestOf(5)}, {-1, {}}};
    for (const auto& [told, hash] : lengths) {
        startVerification(CKM_SHA512_RSA_PKCS, EC_KEY);
        expectInitHash(5);
        expectUpdateHash(DATA);
        expectFinalHashOfLength(HASH_ROOM, told);
        expectVerifySignatureHash(ecRequest(hash));
        EXPECT_EQ(verify(DATA, SIGNATURE), AS_IS);
    }
}

TEST_F(VerificationTest, WhatWasGatheredIsGoneAfterAnyVerdict)
{
    for (const int status : {6, 0}) {
        startVerification(CKM_ECDSA, EC_KEY);
        ASSERT_EQ(update(DATA), UPDATED);
        expectVerifySignatureHash(ecRequest(DATA), status);
        EXPECT_EQ(finish(SIGNATURE).code, status == 0 ? CKR_OK : CKR_SIGNATURE_INVALID);
    }
}

TEST_F(VerificationTest, BadArgumentsOfVerifyAreRefusedInTheirOrderAndKeepTheOperation)
{
    startVerification(CKM_ECDSA, EC_KEY);
    CK_BYTE byte = 1;
    const auto refused = [](const std::string& text) { return refusal(CKR_ARGUMENTS_BAD, "C_Verify", text); };
    const std::string nullText = "C_Verify: pData or pSignature is NULL";
    const std::string zeroText = "C_Verify: ulDataLen or ulSignatureLen <= 0, ulDataLen=";
    EXPECT_EQ(answer(C_Verify, hSession_, nullptr, 0, &byte, 0), refused(nullText));
    EXPECT_EQ(answer(C_Verify, hSession_, &byte, 0, nullptr, 0), refused(nullText));
    EXPECT_EQ(answer(C_Verify, hSession_, &byte, 0, &byte, 9), refused(zeroText + "0 ulSignatureLen=9"));
    EXPECT_EQ(answer(C_Verify, hSession_, &byte, 8, &byte, 0), refused(zeroText + "8 ulSignatureLen=0"));
    EXPECT_EQ(answer(C_Verify, hSession_, &byte, 0, &byte, 0), refused(zeroText + "0 ulSignatureLen=0"));
    const std::string tooLarge = logged(TOO_LARGE_FOR_INT);
    EXPECT_EQ(answer(C_Verify, hSession_, &byte, 0, &byte, TOO_LARGE_FOR_INT),
              refused(zeroText + "0 ulSignatureLen=" + tooLarge));
    EXPECT_EQ(answer(C_Verify, hSession_, &byte, TOO_LARGE_FOR_INT, &byte, 0),
              refused(zeroText + tooLarge + " ulSignatureLen=0"));
    EXPECT_EQ(activeOperation(), VERIFY);
    expectVerifySignatureHash(ecRequest(DATA));
    EXPECT_EQ(verify(DATA, SIGNATURE), AS_IS);
}

TEST_F(VerificationTest, BadArgumentsOfUpdateAndFinalKeepWhatIsGathered)
{
    startVerification(CKM_ECDSA, EC_KEY);
    ASSERT_EQ(update(DATA), UPDATED);
    CK_BYTE byte = 1;
    const std::string partText = "C_VerifyUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=";
    const std::string finalText = "C_VerifyFinal: pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=";
    EXPECT_EQ(answer(C_VerifyUpdate, hSession_, nullptr, 3),
              refusal(CKR_ARGUMENTS_BAD, "C_VerifyUpdate", partText + "3"));
    EXPECT_EQ(answer(C_VerifyUpdate, hSession_, nullptr, TOO_LARGE_FOR_INT),
              refusal(CKR_ARGUMENTS_BAD, "C_VerifyUpdate", partText + logged(TOO_LARGE_FOR_INT)));
    EXPECT_EQ(answer(C_VerifyUpdate, hSession_, &byte, 0),
              refusal(CKR_ARGUMENTS_BAD, "C_VerifyUpdate", partText + "0"));
    EXPECT_EQ(answer(C_VerifyFinal, hSession_, nullptr, 3),
              refusal(CKR_ARGUMENTS_BAD, "C_VerifyFinal", finalText + "3"));
    EXPECT_EQ(answer(C_VerifyFinal, hSession_, nullptr, TOO_LARGE_FOR_INT),
              refusal(CKR_ARGUMENTS_BAD, "C_VerifyFinal", finalText + logged(TOO_LARGE_FOR_INT)));
    EXPECT_EQ(answer(C_VerifyFinal, hSession_, &byte, 0), refusal(CKR_ARGUMENTS_BAD, "C_VerifyFinal", finalText + "0"));
    EXPECT_EQ(activeOperation(), VERIFY);
    expectVerifySignatureHash(ecRequest(DATA));
    EXPECT_EQ(finish(SIGNATURE), VERIFIED);
}

// ---- What earlier operations have left ----

TEST_F(VerificationTest, VerifyAfterUpdateVerifiesItsOwnDataOnly)
{
    startVerification(CKM_ECDSA, EC_KEY);
    ASSERT_EQ(update(OTHER_DATA), UPDATED);
    expectVerifySignatureHash(ecRequest(DATA));
    EXPECT_EQ(verify(DATA, SIGNATURE), AS_IS);
}

TEST_F(VerificationTest, VerifyAfterUpdateLeavesTheUpdatesContext)
{
    startVerification(CKM_ECDSA_SHA256, EC_KEY);
    expectInitHash(3);
    expectUpdateHash(OTHER_DATA);
    void* const left = context_;
    ASSERT_EQ(update(OTHER_DATA), UPDATED);
    expectHash(3, DATA, digestOf(3));
    expectVerifySignatureHash(ecRequest(digestOf(3)));
    EXPECT_EQ(verify(DATA, SIGNATURE), AS_IS);

    startVerification(CKM_ECDSA_SHA256, EC_KEY);
    context_ = left;
    expectUpdateHash(DATA);
    EXPECT_EQ(update(DATA), UPDATED);
}

TEST_F(VerificationTest, TheContextOfVerifyIsNotLeftToTheNextOperation)
{
    startVerification(CKM_ECDSA_SHA256, EC_KEY);
    expectHash(3, DATA, digestOf(3));
    expectVerifySignatureHash(ecRequest(digestOf(3)));
    EXPECT_EQ(verify(DATA, SIGNATURE), AS_IS);

    startVerification(CKM_ECDSA_SHA256, EC_KEY);
    expectInitHash(3);
    expectUpdateHash(DATA);
    EXPECT_EQ(update(DATA), UPDATED);
}

TEST_F(VerificationTest, AKeptDigestGoesBeforeTheGatheredData)
{
    startDigest();
    expectFinalHash(0, digestOf(3));
    CK_ULONG length = 0;
    ASSERT_EQ(C_DigestFinal(hSession_, nullptr, &length), CKR_OK);
    startVerification(CKM_ECDSA, EC_KEY);
    ASSERT_EQ(update(DATA), UPDATED);
    expectVerifySignatureHash(ecRequest(joined(digestOf(3), DATA)));
    EXPECT_EQ(finish(SIGNATURE), VERIFIED);
}

TEST_F(VerificationTest, AContextOfAnAbandonedDigestIsTakenForABegunHash)
{
    startDigest(CKM_SHA512, 5);
    startVerification(CKM_ECDSA_SHA256, EC_KEY);
    expectUpdateHash(DATA);
    expectFinalHash(HASH_ROOM, digestOf(5));
    expectVerifySignatureHash(ecRequest(digestOf(5)));
    EXPECT_EQ(update(DATA), UPDATED);
    EXPECT_EQ(finish(SIGNATURE), VERIFIED);

    startVerification(CKM_ECDSA_SHA256, EC_KEY);
    expectInitHash(3);
    expectUpdateHash(DATA);
    EXPECT_EQ(update(DATA), UPDATED);
}

TEST_F(VerificationTest, FinalOfAHashMechanismWithoutAnyContextFails)
{
    startVerification(CKM_RSA_PKCS_PSS);
    context_ = nullptr;
    expectFinalHash(HASH_ROOM, {}, 7);
    EXPECT_EQ(finish(SIGNATURE), refusal(CKR_FUNCTION_FAILED, "C_VerifyFinal", "C_VerifyFinal: finalHash failed 7"));
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

// ---- Large lengths ----

TEST_F(VerificationTest, LengthsBeyondTheDevicesCountArePassedAsNegativeOnes)
{
    CK_BYTE data = 1;
    CK_BYTE signature = 2;
    for (const LargeLength& each : largeLengths()) {
        startVerification(CKM_ECDSA, EC_KEY);
        EXPECT_CALL(*device_,
                    velkor_verifySignatureHash(KEY_KIND_EC_P256, testing::StrEq(FIRST_DEVICE), &data, each.count,
                                               testing::_, 65, &signature, each.count, instance_, false))
            .InSequence(script_)
            .WillOnce(testing::Return(6));
        EXPECT_EQ(answer(C_Verify, hSession_, &data, each.length, &signature, each.length).code, CKR_SIGNATURE_INVALID);
    }
}

TEST_F(VerificationTest, ASignatureBeyondTheDevicesCountReachesFinalAsANegativeOne)
{
    CK_BYTE signature = 2;
    for (const LargeLength& each : largeLengths()) {
        startVerification(CKM_ECDSA, EC_KEY);
        ASSERT_EQ(update(DATA), UPDATED);
        EXPECT_CALL(*device_, velkor_verifySignatureHash(KEY_KIND_EC_P256, testing::StrEq(FIRST_DEVICE), testing::_, 40,
                                                         testing::_, 65, &signature, each.count, instance_, false))
            .InSequence(script_)
            .WillOnce(testing::Return(6));
        EXPECT_EQ(answer(C_VerifyFinal, hSession_, &signature, each.length).code, CKR_SIGNATURE_INVALID);
    }
}

TEST_F(VerificationTest, DataToBeHashedBeyondTheDevicesCountIsPassedAsANegativeOne)
{
    CK_BYTE byte = 1;
    for (const LargeLength& each : largeLengths()) {
        startHashedVerification(&byte, each.count);
        EXPECT_EQ(answer(C_Verify, hSession_, &byte, each.length, pointerTo(SIGNATURE), sizeOf(SIGNATURE)), AS_IS);
    }
}

TEST_F(VerificationTest, PartsBeyondTheDevicesCountArePassedAsNegativeOnes)
{
    CK_BYTE byte = 1;
    for (const LargeLength& each : largeLengths()) {
        startHashedVerification(&byte, each.count);
        EXPECT_EQ(answer(C_VerifyUpdate, hSession_, &byte, each.length), UPDATED);
        EXPECT_EQ(finish(SIGNATURE), VERIFIED);
    }
}

} // namespace
