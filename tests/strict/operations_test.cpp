// Digests, signatures and ciphers.
#include "strict_fixture.h"

namespace
{

class StrictOperationsTest : public StrictTest
{
protected:
    void SetUp() override
    {
        start();
        session = userSession();
        rsaKey = privateKey(session, 2);
        rsaPublic = publicKey(session, 2);
        ecKey = privateKey(session, 5);
        ecPublic = publicKey(session, 5);
    }

    static CK_MECHANISM plain(CK_MECHANISM_TYPE type) { return {type, nullptr, 0}; }
    CK_RV digestInit(CK_MECHANISM_TYPE type) const
    {
        CK_MECHANISM mechanism = plain(type);
        return p11.C_DigestInit(session, &mechanism);
    }
    CK_RV signInit(CK_MECHANISM mechanism, CK_OBJECT_HANDLE key) const
    {
        return p11.C_SignInit(session, &mechanism, key);
    }
    ByteVector lastSigned() const { return device->signatures().back().input; }

    CK_SESSION_HANDLE session = 0;
    CK_OBJECT_HANDLE rsaKey = 0;
    CK_OBJECT_HANDLE rsaPublic = 0;
    CK_OBJECT_HANDLE ecKey = 0;
    CK_OBJECT_HANDLE ecPublic = 0;
    ByteVector data = ByteVector(100, 0x42);
};

TEST_F(StrictOperationsTest, DigestsWorkInPublicReadOnlySessions)
{
    const CK_SESSION_HANDLE other = open(slots()[1], READ_ONLY);
    CK_MECHANISM mechanism = plain(CKM_SHA256);
    ASSERT_EQ(p11.C_DigestInit(other, &mechanism), CKR_OK);
    ByteVector hash(32);
    CK_ULONG length = 32;
    EXPECT_EQ(p11.C_Digest(other, data.data(), 100, hash.data(), &length), CKR_OK);
    EXPECT_EQ(hash, ByteVector(32, 0x42));
}

TEST_F(StrictOperationsTest, ALengthIsToldAndAShortBufferLeavesTheDigestActive)
{
    ASSERT_EQ(digestInit(CKM_SHA256), CKR_OK);
    EXPECT_EQ(digestInit(CKM_SHA256), CKR_OPERATION_ACTIVE);
    CK_ULONG length = 0;
    EXPECT_EQ(p11.C_Digest(session, data.data(), 100, nullptr, &length), CKR_OK);
    EXPECT_EQ(length, 32U);
    ByteVector hash(32, 0xEE);
    length = 31;
    EXPECT_EQ(p11.C_Digest(session, data.data(), 100, hash.data(), &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 32U);
    EXPECT_EQ(hash, ByteVector(32, 0xEE));
    ByteVector other(100, 0x43);
    EXPECT_EQ(p11.C_Digest(session, other.data(), 100, hash.data(), &length), CKR_OK);
    EXPECT_EQ(hash, ByteVector(32, 0x43));
    EXPECT_EQ(p11.C_Digest(session, data.data(), 100, hash.data(), &length), CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(StrictOperationsTest, SinglePartAndMultiPartDoNotMix)
{
    ByteVector out(512);
    CK_ULONG length = 512;
    ASSERT_EQ(digestInit(CKM_SHA256), CKR_OK);
    ASSERT_EQ(p11.C_DigestUpdate(session, data.data(), 10), CKR_OK);
    EXPECT_EQ(p11.C_Digest(session, data.data(), 10, out.data(), &length), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(p11.C_DigestFinal(session, out.data(), &length), CKR_OPERATION_NOT_INITIALIZED);
    ASSERT_EQ(signInit(plain(CKM_SHA256_RSA_PKCS), rsaKey), CKR_OK);
    ASSERT_EQ(p11.C_SignUpdate(session, data.data(), 10), CKR_OK);
    EXPECT_EQ(p11.C_Sign(session, data.data(), 10, out.data(), &length), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(signInit(plain(CKM_SHA256_RSA_PKCS), rsaKey), CKR_OK);
}

TEST_F(StrictOperationsTest, PartsDoNotFollowAWhole)
{
    ByteVector out(512);
    CK_ULONG length = 0;
    using Answers = std::vector<CK_RV>; // In braces they are asked for in their order.
    const Answers ended{CKR_OPERATION_ACTIVE, CKR_OPERATION_NOT_INITIALIZED};
    const auto digestFinal = [&] { return p11.C_DigestFinal(session, out.data(), &(length = 512)); };
    ASSERT_EQ(digestInit(CKM_SHA256), CKR_OK);
    ASSERT_EQ(p11.C_Digest(session, data.data(), 100, nullptr, &length), CKR_OK);
    EXPECT_EQ((Answers{digestFinal(), digestFinal()}), ended);
    ASSERT_EQ(digestInit(CKM_SHA256), CKR_OK);
    length = 1;
    ASSERT_EQ(p11.C_Digest(session, data.data(), 100, out.data(), &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ((Answers{p11.C_DigestUpdate(session, data.data(), 10), digestFinal()}), ended);

    const auto signFinal = [&] { return p11.C_SignFinal(session, out.data(), &(length = 512)); };
    ASSERT_EQ(signInit(plain(CKM_SHA256_RSA_PKCS), rsaKey), CKR_OK);
    ASSERT_EQ(p11.C_Sign(session, data.data(), 100, nullptr, &length), CKR_OK);
    EXPECT_EQ((Answers{signFinal(), signFinal()}), ended);
    ASSERT_EQ(signInit(plain(CKM_SHA256_RSA_PKCS), rsaKey), CKR_OK);
    length = 1;
    ASSERT_EQ(p11.C_Sign(session, data.data(), 100, out.data(), &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ((Answers{p11.C_SignUpdate(session, data.data(), 10), signFinal()}), ended);
    EXPECT_TRUE(device->signatures().empty());
}

TEST_F(StrictOperationsTest, PartsDoNotFollowAWholeOfACipher)
{
    CK_MECHANISM mechanism = plain(CKM_RSA_PKCS);
    ByteVector cipher(256);
    CK_ULONG length = 256;
    ASSERT_EQ(p11.C_EncryptInit(session, &mechanism, rsaPublic), CKR_OK);
    ASSERT_EQ(p11.C_Encrypt(session, data.data(), 100, cipher.data(), &length), CKR_OK);
    struct Direction {
        CK_C_EncryptInit init;
        CK_C_Encrypt whole;
        CK_C_EncryptUpdate update;
        CK_C_EncryptFinal final;
        CK_OBJECT_HANDLE key;
        ByteVector input;
    };
    const Direction directions[] = {
        {p11.C_EncryptInit, p11.C_Encrypt, p11.C_EncryptUpdate, p11.C_EncryptFinal, rsaPublic, data},
        {p11.C_DecryptInit, p11.C_Decrypt, p11.C_DecryptUpdate, p11.C_DecryptFinal, rsaKey, cipher}};
    for (Direction direction : directions) {
        auto* const input = direction.input.data();
        const auto size = static_cast<CK_ULONG>(direction.input.size());
        ByteVector out(512);
        ASSERT_EQ(direction.init(session, &mechanism, direction.key), CKR_OK);
        ASSERT_EQ(direction.whole(session, input, size, nullptr, &length), CKR_OK);
        EXPECT_EQ(direction.update(session, input, 10, nullptr, &length), CKR_OPERATION_ACTIVE);
        EXPECT_EQ(direction.final(session, out.data(), &length), CKR_OPERATION_NOT_INITIALIZED);
        ASSERT_EQ(direction.init(session, &mechanism, direction.key), CKR_OK);
        length = 1;
        ASSERT_EQ(direction.whole(session, input, size, out.data(), &length), CKR_BUFFER_TOO_SMALL);
        EXPECT_EQ(direction.final(session, out.data(), &length), CKR_OPERATION_ACTIVE);
        ASSERT_EQ(direction.init(session, &mechanism, direction.key), CKR_OK);
        ASSERT_EQ(direction.update(session, input, 10, out.data(), &(length = 512)), CKR_OK);
        EXPECT_EQ(direction.whole(session, input, size, out.data(), &(length = 512)), CKR_OPERATION_ACTIVE);
    }
}

TEST_F(StrictOperationsTest, AnyOtherFailureEndsTheOperation)
{
    ASSERT_EQ(digestInit(CKM_SHA256), CKR_OK);
    EXPECT_EQ(p11.C_Digest(session, nullptr, 10, nullptr, nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p11.C_DigestUpdate(session, data.data(), 10), CKR_OPERATION_NOT_INITIALIZED);
    ASSERT_EQ(signInit(plain(CKM_RSA_PKCS), rsaKey), CKR_OK);
    ByteVector out(256);
    CK_ULONG length = 256;
    EXPECT_EQ(p11.C_Sign(session, data.data(), 32, out.data(), &length), CKR_DATA_LEN_RANGE);
    EXPECT_EQ(p11.C_Sign(session, data.data(), 51, out.data(), &length), CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(StrictOperationsTest, PartsAreDigestedTogetherAndNothingHasItsConstant)
{
    ASSERT_EQ(digestInit(CKM_SHA256), CKR_OK);
    ASSERT_EQ(p11.C_DigestUpdate(session, data.data(), 20), CKR_OK);
    ASSERT_EQ(p11.C_DigestUpdate(session, data.data(), 0), CKR_OK);
    ASSERT_EQ(p11.C_DigestUpdate(session, data.data(), 20), CKR_OK);
    ByteVector hash(32);
    CK_ULONG length = 32;
    ASSERT_EQ(p11.C_DigestFinal(session, hash.data(), &length), CKR_OK);
    EXPECT_EQ(hash, ByteVector(32, 0x42));
    ASSERT_EQ(digestInit(CKM_SHA_1), CKR_OK);
    length = 32;
    ASSERT_EQ(p11.C_Digest(session, nullptr, 0, hash.data(), &length), CKR_OK);
    EXPECT_EQ(length, 20U);
    EXPECT_EQ(ByteVector(hash.begin(), hash.begin() + 4), (ByteVector{0xDA, 0x39, 0xA3, 0xEE}));
}

TEST_F(StrictOperationsTest, UnknownDigestsAreRefused)
{
    EXPECT_EQ(digestInit(CKM_MD5), CKR_MECHANISM_INVALID);
    CK_MECHANISM mechanism = {CKM_SHA256, data.data(), 1};
    EXPECT_EQ(p11.C_DigestInit(session, &mechanism), CKR_MECHANISM_PARAM_INVALID);
    EXPECT_EQ(p11.C_DigestInit(session, nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p11.C_DigestUpdate(session, data.data(), 1), CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(StrictOperationsTest, EveryMechanismSignsAndVerifies)
{
    const CK_MECHANISM_TYPE types[] = {
        CKM_SHA1_RSA_PKCS, CKM_SHA224_RSA_PKCS, CKM_SHA256_RSA_PKCS, CKM_SHA384_RSA_PKCS, CKM_SHA512_RSA_PKCS,
        CKM_ECDSA_SHA1,    CKM_ECDSA_SHA224,    CKM_ECDSA_SHA256,    CKM_ECDSA_SHA384,    CKM_ECDSA_SHA512};
    for (const CK_MECHANISM_TYPE type : types) {
        const bool isEc = type >= CKM_ECDSA;
        ByteVector signature;
        ASSERT_EQ(sign(session, plain(type), isEc ? ecKey : rsaKey, data, signature), CKR_OK) << type;
        EXPECT_EQ(signature.size(), isEc ? 64U : 256U);
        EXPECT_EQ(verify(session, plain(type), isEc ? ecPublic : rsaPublic, data, signature), CKR_OK) << type;
        EXPECT_EQ(verify(session, plain(type), isEc ? ecPublic : rsaPublic, ByteVector(100, 0x41), signature),
                  CKR_SIGNATURE_INVALID);
    }
}

TEST_F(StrictOperationsTest, PartsAndWholesGiveTheSameSignature)
{
    const CK_MECHANISM_TYPE types[] = {CKM_SHA384_RSA_PKCS, CKM_ECDSA_SHA512, CKM_ECDSA};
    for (const CK_MECHANISM_TYPE type : types) {
        const CK_OBJECT_HANDLE key = type == CKM_SHA384_RSA_PKCS ? rsaKey : ecKey;
        const CK_OBJECT_HANDLE pub = type == CKM_SHA384_RSA_PKCS ? rsaPublic : ecPublic;
        ByteVector whole;
        ASSERT_EQ(sign(session, plain(type), key, data, whole), CKR_OK);
        ASSERT_EQ(signInit(plain(type), key), CKR_OK);
        ASSERT_EQ(p11.C_SignUpdate(session, data.data(), 60), CKR_OK);
        ASSERT_EQ(p11.C_SignUpdate(session, data.data() + 60, 40), CKR_OK);
        CK_ULONG length = 0;
        ASSERT_EQ(p11.C_SignFinal(session, nullptr, &length), CKR_OK);
        ByteVector parts(length);
        ASSERT_EQ(p11.C_SignFinal(session, parts.data(), &length), CKR_OK);
        EXPECT_EQ(parts, whole);
        CK_MECHANISM mechanism = plain(type);
        ASSERT_EQ(p11.C_VerifyInit(session, &mechanism, pub), CKR_OK);
        ASSERT_EQ(p11.C_VerifyUpdate(session, data.data(), 1), CKR_OK);
        ASSERT_EQ(p11.C_VerifyUpdate(session, data.data() + 1, 99), CKR_OK);
        EXPECT_EQ(p11.C_VerifyFinal(session, whole.data(), static_cast<CK_ULONG>(whole.size())), CKR_OK);
    }
}

TEST_F(StrictOperationsTest, PssIsVerifiedInPartsWithItsOwnHash)
{
    CK_RSA_PKCS_PSS_PARAMS parameter{CKM_SHA384, CKG_MGF1_SHA384, 48};
    CK_MECHANISM mechanism = {CKM_SHA384_RSA_PKCS_PSS, &parameter, sizeof parameter};
    ByteVector signature;
    ASSERT_EQ(sign(session, mechanism, rsaKey, data, signature), CKR_OK);
    EXPECT_TRUE(device->signatures().back().isPss);
    ASSERT_EQ(p11.C_VerifyInit(session, &mechanism, rsaPublic), CKR_OK);
    ASSERT_EQ(p11.C_VerifyUpdate(session, data.data(), 100), CKR_OK);
    EXPECT_EQ(p11.C_VerifyFinal(session, signature.data(), 256), CKR_OK);
}

TEST_F(StrictOperationsTest, ADigestDoesNotLeakIntoASignature)
{
    ASSERT_EQ(digestInit(CKM_SHA256), CKR_OK);
    ASSERT_EQ(p11.C_DigestUpdate(session, data.data(), 50), CKR_OK);
    ASSERT_EQ(signInit(plain(CKM_SHA256_RSA_PKCS), rsaKey), CKR_OK);
    ByteVector part(40, 0x11);
    ASSERT_EQ(p11.C_SignUpdate(session, part.data(), 40), CKR_OK);
    ByteVector signature(256);
    CK_ULONG length = 256;
    ASSERT_EQ(p11.C_SignFinal(session, signature.data(), &length), CKR_OK);
    EXPECT_EQ(lastSigned(), ByteVector(32, 0x11));
    ByteVector hash(32);
    length = 32;
    ASSERT_EQ(p11.C_DigestFinal(session, hash.data(), &length), CKR_OK);
    EXPECT_EQ(hash, ByteVector(32, 0x42));
}

TEST_F(StrictOperationsTest, OperationsOfAllKindsRunSideBySide)
{
    CK_MECHANISM rsa = plain(CKM_RSA_PKCS);
    ASSERT_EQ(digestInit(CKM_SHA256), CKR_OK);
    ASSERT_EQ(signInit(plain(CKM_SHA256_RSA_PKCS), rsaKey), CKR_OK);
    ASSERT_EQ(p11.C_VerifyInit(session, &rsa, rsaPublic), CKR_OK);
    ASSERT_EQ(p11.C_EncryptInit(session, &rsa, rsaPublic), CKR_OK);
    ASSERT_EQ(p11.C_DecryptInit(session, &rsa, rsaKey), CKR_OK);
    ASSERT_EQ(p11.C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    ByteVector out(256);
    CK_ULONG length = 256;
    EXPECT_EQ(p11.C_Encrypt(session, data.data(), 20, out.data(), &length), CKR_OK);
    length = 256;
    EXPECT_EQ(p11.C_Sign(session, data.data(), 20, out.data(), &length), CKR_OK);
    length = 256;
    EXPECT_EQ(p11.C_Digest(session, data.data(), 20, out.data(), &length), CKR_OK);
}

TEST_F(StrictOperationsTest, SessionsSignWithTheirOwnKeys)
{
    const CK_SESSION_HANDLE other = open(slots()[0]);
    const CK_OBJECT_HANDLE otherKey = privateKey(other, 6);
    CK_MECHANISM mechanism = plain(CKM_ECDSA);
    ASSERT_EQ(p11.C_SignInit(session, &mechanism, ecKey), CKR_OK);
    ASSERT_EQ(p11.C_SignInit(other, &mechanism, otherKey), CKR_OK);
    value(session, rsaPublic, CKA_MODULUS);
    ByteVector out(96);
    CK_ULONG length = 96;
    ASSERT_EQ(p11.C_Sign(session, data.data(), 40, out.data(), &length), CKR_OK);
    EXPECT_EQ(device->signatures().back().keyIdentifier, ByteVector(16, 0xA5));
    length = 96;
    ASSERT_EQ(p11.C_Sign(other, data.data(), 40, out.data(), &length), CKR_OK);
    EXPECT_EQ(device->signatures().back().keyIdentifier, ByteVector(16, 0xA6));
}

TEST_F(StrictOperationsTest, TheKeyUsedLastIsNotLookedUpAgain)
{
    ByteVector signature;
    ASSERT_EQ(sign(session, plain(CKM_ECDSA), ecKey, data, signature), CKR_OK);
    int before = device->keyListReads;
    ASSERT_EQ(sign(session, plain(CKM_ECDSA), ecKey, data, signature), CKR_OK);
    EXPECT_EQ(device->keyListReads, before + 1); // The module's own look-up as it begins.
    const CK_OBJECT_HANDLE otherKey = privateKey(session, 6);
    value(session, otherKey, CKA_ID);
    before = device->keyListReads;
    ASSERT_EQ(sign(session, plain(CKM_ECDSA), ecKey, data, signature), CKR_OK);
    EXPECT_EQ(device->keyListReads, before + 2);
}

TEST_F(StrictOperationsTest, NothingIsWrittenPastTheCallersLength)
{
    ASSERT_EQ(signInit(plain(CKM_SHA256_RSA_PKCS), rsaKey), CKR_OK);
    ByteVector signature(256, 0xEE);
    CK_ULONG length = 255;
    EXPECT_EQ(p11.C_Sign(session, data.data(), 100, signature.data(), &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 256U);
    EXPECT_EQ(signature, ByteVector(256, 0xEE));
    EXPECT_EQ(device->signatures().size(), 0U);
    EXPECT_EQ(p11.C_Sign(session, data.data(), 100, signature.data(), &length), CKR_OK);
}

TEST_F(StrictOperationsTest, EmptyMessagesAreSigned)
{
    ByteVector signature;
    ASSERT_EQ(sign(session, plain(CKM_SHA256_RSA_PKCS), rsaKey, {}, signature), CKR_OK);
    EXPECT_EQ(lastSigned()[0], 0xE3);
    EXPECT_EQ(verify(session, plain(CKM_SHA256_RSA_PKCS), rsaPublic, {}, signature), CKR_OK);
    ASSERT_EQ(signInit(plain(CKM_ECDSA_SHA384), ecKey), CKR_OK);
    signature.resize(64);
    CK_ULONG length = 64;
    EXPECT_EQ(p11.C_SignFinal(session, signature.data(), &length), CKR_OK);
    EXPECT_EQ(lastSigned().size(), 48U);
}

TEST_F(StrictOperationsTest, AValueThatTheDeviceWouldWrapIsRefused)
{
    ByteVector signature;
    for (const std::size_t size : {20U, 28U, 32U, 48U, 64U})
        EXPECT_EQ(sign(session, plain(CKM_RSA_PKCS), rsaKey, ByteVector(size, 1), signature), CKR_DATA_LEN_RANGE);
    EXPECT_EQ(sign(session, plain(CKM_RSA_PKCS), rsaKey, ByteVector(246, 1), signature), CKR_DATA_LEN_RANGE);
    EXPECT_EQ(sign(session, plain(CKM_RSA_PKCS), rsaKey, ByteVector(51, 1), signature), CKR_OK);
    EXPECT_EQ(sign(session, plain(CKM_RSA_PKCS), rsaKey, ByteVector(245, 1), signature), CKR_OK);
    EXPECT_EQ(sign(session, plain(CKM_ECDSA), ecKey, {}, signature), CKR_DATA_LEN_RANGE);
}

TEST_F(StrictOperationsTest, KeysHaveToSuit)
{
    ByteVector signature;
    EXPECT_EQ(sign(session, plain(CKM_ECDSA), rsaKey, data, signature), CKR_KEY_TYPE_INCONSISTENT);
    EXPECT_EQ(sign(session, plain(CKM_ECDSA), ecPublic, data, signature), CKR_KEY_TYPE_INCONSISTENT);
    EXPECT_EQ(sign(session, plain(CKM_ECDSA), 9999, data, signature), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(sign(session, plain(CKM_SHA256_RSA_PKCS), privateKey(session, 1), data, signature), CKR_KEY_SIZE_RANGE);
    EXPECT_EQ(sign(session, plain(CKM_AES_CBC), rsaKey, data, signature), CKR_MECHANISM_INVALID);
    EXPECT_EQ(p11.C_SignInit(session, nullptr, rsaKey), CKR_ARGUMENTS_BAD);
    CK_MECHANISM mechanism = plain(CKM_RSA_PKCS);
    EXPECT_EQ(p11.C_VerifyInit(session, &mechanism, rsaKey), CKR_KEY_TYPE_INCONSISTENT);
    EXPECT_EQ(verify(session, plain(CKM_SHA256_RSA_PKCS), rsaPublic, data, ByteVector(255)), CKR_SIGNATURE_LEN_RANGE);
    EXPECT_EQ(verify(session, plain(CKM_ECDSA), ecPublic, data, ByteVector(63)), CKR_SIGNATURE_LEN_RANGE);
}

TEST_F(StrictOperationsTest, ParametersHaveToSayWhatTheDeviceDoes)
{
    ByteVector signature;
    CK_RSA_PKCS_PSS_PARAMS pss{CKM_SHA256, CKG_MGF1_SHA256, 32};
    CK_MECHANISM mechanism = {CKM_RSA_PKCS_PSS, &pss, sizeof pss};
    EXPECT_EQ(sign(session, mechanism, rsaKey, ByteVector(32), signature), CKR_OK);
    EXPECT_EQ(sign(session, mechanism, rsaKey, ByteVector(20), signature), CKR_DATA_LEN_RANGE);
    pss.sLen = 20;
    EXPECT_EQ(sign(session, mechanism, rsaKey, ByteVector(32), signature), CKR_MECHANISM_PARAM_INVALID);
    pss = {CKM_SHA256, CKG_MGF1_SHA1, 32};
    EXPECT_EQ(sign(session, mechanism, rsaKey, ByteVector(32), signature), CKR_MECHANISM_PARAM_INVALID);
    pss = {CKM_SHA256, CKG_MGF1_SHA256, 32};
    mechanism.mechanism = CKM_SHA512_RSA_PKCS_PSS;
    EXPECT_EQ(sign(session, mechanism, rsaKey, data, signature), CKR_MECHANISM_PARAM_INVALID);
    EXPECT_EQ(sign(session, plain(CKM_RSA_PKCS_PSS), rsaKey, ByteVector(32), signature), CKR_MECHANISM_PARAM_INVALID);
    mechanism = {CKM_SHA256_RSA_PKCS, &pss, sizeof pss};
    EXPECT_EQ(sign(session, mechanism, rsaKey, data, signature), CKR_MECHANISM_PARAM_INVALID);
    CK_RSA_PKCS_OAEP_PARAMS oaep{CKM_SHA256, CKG_MGF1_SHA256, CKZ_DATA_SPECIFIED, nullptr, 0};
    mechanism = {CKM_RSA_PKCS_OAEP, &oaep, sizeof oaep};
    EXPECT_EQ(p11.C_EncryptInit(session, &mechanism, rsaPublic), CKR_MECHANISM_PARAM_INVALID);
    oaep = {CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, data.data(), 3};
    EXPECT_EQ(p11.C_DecryptInit(session, &mechanism, rsaKey), CKR_MECHANISM_PARAM_INVALID);
    oaep = {CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, nullptr, 0};
    EXPECT_EQ(p11.C_DecryptInit(session, &mechanism, rsaKey), CKR_OK);
}

TEST_F(StrictOperationsTest, AFipsTokenDoesNotSignWithSha1)
{
    device->devices[SECOND_DEVICE].token.model = "VK2 Key";
    p11.C_Finalize(nullptr);
    start();
    session = open(slots()[1]);
    ASSERT_EQ(login(session), CKR_OK);
    const CK_OBJECT_HANDLE key = findOne(session, CKO_PRIVATE_KEY, "other pair");
    const CK_OBJECT_HANDLE pub = findOne(session, CKO_PUBLIC_KEY, "other pair");
    ByteVector signature;
    EXPECT_EQ(sign(session, plain(CKM_SHA1_RSA_PKCS), key, data, signature), CKR_MECHANISM_INVALID);
    CK_MECHANISM mechanism = plain(CKM_SHA1_RSA_PKCS);
    EXPECT_EQ(p11.C_VerifyInit(session, &mechanism, pub), CKR_OK);
    ByteVector info = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2B, 0x0E, 0x03, 0x02, 0x1A, 0x05, 0x00, 0x04, 0x14};
    info.resize(35);
    EXPECT_EQ(sign(session, plain(CKM_RSA_PKCS), key, info, signature), CKR_DATA_INVALID);
}

TEST_F(StrictOperationsTest, EncryptsAndDecrypts)
{
    CK_MECHANISM mechanism = plain(CKM_RSA_PKCS);
    ASSERT_EQ(p11.C_EncryptInit(session, &mechanism, rsaPublic), CKR_OK);
    CK_ULONG length = 0;
    ASSERT_EQ(p11.C_Encrypt(session, data.data(), 100, nullptr, &length), CKR_OK);
    EXPECT_EQ(length, 256U);
    ByteVector cipher(256);
    length = 255;
    EXPECT_EQ(p11.C_Encrypt(session, data.data(), 100, cipher.data(), &length), CKR_BUFFER_TOO_SMALL);
    ASSERT_EQ(p11.C_Encrypt(session, data.data(), 100, cipher.data(), &length), CKR_OK);
    ASSERT_EQ(p11.C_DecryptInit(session, &mechanism, rsaKey), CKR_OK);
    ASSERT_EQ(p11.C_Decrypt(session, cipher.data(), 256, nullptr, &length), CKR_OK);
    EXPECT_GE(length, 100U);
    ByteVector text(100, 0xEE);
    length = 99;
    EXPECT_EQ(p11.C_Decrypt(session, cipher.data(), 256, text.data(), &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 100U);
    EXPECT_EQ(text, ByteVector(100, 0xEE));
    ASSERT_EQ(p11.C_Decrypt(session, cipher.data(), 256, text.data(), &length), CKR_OK);
    EXPECT_EQ(text, data);
}

TEST_F(StrictOperationsTest, AShortBufferKeepsNoPlaintextForOtherData)
{
    CK_MECHANISM mechanism = plain(CKM_RSA_PKCS);
    const auto encrypted = [&](ByteVector text) {
        ByteVector cipher(256);
        CK_ULONG length = 256;
        EXPECT_EQ(p11.C_EncryptInit(session, &mechanism, rsaPublic), CKR_OK);
        EXPECT_EQ(p11.C_Encrypt(session, text.data(), static_cast<CK_ULONG>(text.size()), cipher.data(), &length),
                  CKR_OK);
        return cipher;
    };
    ByteVector first = encrypted(ByteVector(30, 1));
    ByteVector second = encrypted(ByteVector(20, 2));
    ASSERT_EQ(p11.C_DecryptInit(session, &mechanism, rsaKey), CKR_OK);
    ByteVector text(25);
    CK_ULONG length = 25;
    EXPECT_EQ(p11.C_Decrypt(session, first.data(), 256, text.data(), &length), CKR_BUFFER_TOO_SMALL);
    length = 25;
    ASSERT_EQ(p11.C_Decrypt(session, second.data(), 256, text.data(), &length), CKR_OK);
    EXPECT_EQ(length, 20U);
    EXPECT_EQ(text[0], 2);
    ASSERT_EQ(p11.C_DecryptInit(session, &mechanism, rsaKey), CKR_OK);
    EXPECT_EQ(p11.C_Decrypt(session, first.data(), 256, text.data(), &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(p11.C_DecryptUpdate(session, second.data(), 256, text.data(), &length), CKR_OPERATION_ACTIVE);
}

TEST_F(StrictOperationsTest, PartsOfCiphersAreGathered)
{
    CK_MECHANISM mechanism = plain(CKM_RSA_PKCS);
    ByteVector out(256);
    CK_ULONG length = 256;
    ASSERT_EQ(p11.C_EncryptInit(session, &mechanism, rsaPublic), CKR_OK);
    ASSERT_EQ(p11.C_EncryptUpdate(session, data.data(), 60, out.data(), &length), CKR_OK);
    EXPECT_EQ(length, 0U);
    length = 256;
    ASSERT_EQ(p11.C_EncryptUpdate(session, data.data(), 40, out.data(), &length), CKR_OK);
    length = 10;
    EXPECT_EQ(p11.C_EncryptFinal(session, out.data(), &length), CKR_BUFFER_TOO_SMALL);
    ASSERT_EQ(p11.C_EncryptFinal(session, out.data(), &length), CKR_OK);
    EXPECT_EQ(length, 256U);
    ByteVector text(256);
    ASSERT_EQ(p11.C_DecryptInit(session, &mechanism, rsaKey), CKR_OK);
    length = 256;
    ASSERT_EQ(p11.C_DecryptUpdate(session, out.data(), 200, text.data(), &length), CKR_OK);
    length = 256;
    ASSERT_EQ(p11.C_DecryptUpdate(session, out.data() + 200, 56, text.data(), &length), CKR_OK);
    length = 256;
    ASSERT_EQ(p11.C_DecryptFinal(session, text.data(), &length), CKR_OK);
    EXPECT_EQ(length, 100U);
    EXPECT_EQ(ByteVector(text.begin(), text.begin() + 100), data);
}

TEST_F(StrictOperationsTest, CiphersHaveTheirLimits)
{
    CK_MECHANISM mechanism = plain(CKM_RSA_PKCS);
    ByteVector out(512);
    CK_ULONG length = 512;
    ASSERT_EQ(p11.C_EncryptInit(session, &mechanism, rsaPublic), CKR_OK);
    EXPECT_EQ(p11.C_Encrypt(session, out.data(), 246, out.data(), &length), CKR_DATA_LEN_RANGE);
    ASSERT_EQ(p11.C_DecryptInit(session, &mechanism, rsaKey), CKR_OK);
    EXPECT_EQ(p11.C_Decrypt(session, out.data(), 255, out.data(), &length), CKR_ENCRYPTED_DATA_LEN_RANGE);
    ASSERT_EQ(p11.C_DecryptInit(session, &mechanism, rsaKey), CKR_OK);
    EXPECT_EQ(p11.C_Decrypt(session, out.data(), 256, out.data(), &length), CKR_ENCRYPTED_DATA_INVALID);
    // The failure has left nothing behind.
    ASSERT_EQ(p11.C_DecryptInit(session, &mechanism, rsaKey), CKR_OK);
    EXPECT_EQ(p11.C_EncryptInit(session, &mechanism, ecPublic), CKR_KEY_TYPE_INCONSISTENT);
    EXPECT_EQ(p11.C_EncryptInit(session, &mechanism, rsaKey), CKR_KEY_TYPE_INCONSISTENT);
}

TEST_F(StrictOperationsTest, ADeviceThatGoesIsTold)
{
    ASSERT_EQ(signInit(plain(CKM_ECDSA), ecKey), CKR_OK);
    {
        // As a device that has gone: it neither answers nor is listed.
        device->setUserPin(FIRST_DEVICE, "gone");
        device->setConnected({SECOND_DEVICE});
    }
    ByteVector out(64);
    CK_ULONG length = 64;
    EXPECT_EQ(p11.C_Sign(session, data.data(), 40, out.data(), &length), CKR_DEVICE_REMOVED);
    CK_SESSION_INFO info;
    EXPECT_EQ(p11.C_GetSessionInfo(session, &info), CKR_SESSION_HANDLE_INVALID);
}

} // namespace
