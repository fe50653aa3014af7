// C_GetAttributeValue on key pairs and certificates: the attribute table, and how a template is answered.
#include "object_fixture.h"

namespace
{

using testing::_;
using testing::Each;
using testing::IsEmpty;
using testing::StrEq;

const ByteVector YES = {CK_TRUE};
const ByteVector NO = {CK_FALSE};
const ByteVector NOTHING;

const ByteVector P256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
const ByteVector P384 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
const ByteVector P521 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};

// ---- The attribute table ----

/// A key pair of each kind: what the kind is in Cryptoki's terms, and what stands before the point of CKA_EC_POINT.
struct KindAttributes {
    const char* name;
    std::uint32_t keyKind;
    CK_KEY_TYPE keyType;
    CK_ULONG bits;
    CK_MECHANISM_TYPE mechanism;
    ByteVector ecParams;
    ByteVector pointStart;

    friend std::ostream& operator<<(std::ostream& out, const KindAttributes& kind) { return out << kind.name; }
};

// The length of CKA_EC_POINT has one byte, also where the length needs two.
const KindAttributes kindCases[] = {
    {"Rsa1024", KEY_KIND_RSA_1024, CKK_RSA, 1024, CKM_RSA_PKCS_KEY_PAIR_GEN, {}, {0x04, 0x81, 0x80}},
    {"Rsa2048", KEY_KIND_RSA_2048, CKK_RSA, 2048, CKM_RSA_PKCS_KEY_PAIR_GEN, {}, {0x04, 0x81, 0x00}},
    {"Rsa3072", KEY_KIND_RSA_3072, CKK_RSA, 3072, CKM_RSA_PKCS_KEY_PAIR_GEN, {}, {0x04, 0x81, 0x80}},
    {"Rsa4096", KEY_KIND_RSA_4096, CKK_RSA, 4096, CKM_RSA_PKCS_KEY_PAIR_GEN, {}, {0x04, 0x81, 0x00}},
    {"P256", KEY_KIND_EC_P256, CKK_EC, 256, CKM_EC_KEY_PAIR_GEN, P256, {0x04, 0x41}},
    {"P384", KEY_KIND_EC_P384, CKK_EC, 384, CKM_EC_KEY_PAIR_GEN, P384, {0x04, 0x61}},
    {"P521", KEY_KIND_EC_P521, CKK_EC, 521, CKM_EC_KEY_PAIR_GEN, P521, {0x04, 0x81, 0x85}},
    {"KindZero", 0, CKK_RSA, 2048, CKM_RSA_PKCS_KEY_PAIR_GEN, {}, {0x04, 0x81, 0x00}},
    {"UnknownKind", 99, CKK_RSA, 2048, CKM_RSA_PKCS_KEY_PAIR_GEN, {}, {0x04, 0x81, 0x00}},
};

struct AttributeRow {
    CK_ATTRIBUTE_TYPE type;
    ByteVector privateKey;
    ByteVector publicKey;
    ByteVector certificate;
};

AttributeRow same(CK_ATTRIBUTE_TYPE type, const ByteVector& value)
{
    return {type, value, value, value};
}

/// The rows that do not depend on the kind or the record. Every usage is allowed.
const AttributeRow FIXED_ROWS[] = {
    {CKA_CLASS, bytesOf(3), bytesOf(2), bytesOf(1)},
    same(CKA_TOKEN, YES),
    {CKA_PRIVATE, YES, NO, NO},
    same(CKA_CERTIFICATE_TYPE, bytesOf(0)),
    same(CKA_TRUSTED, YES),
    {CKA_SENSITIVE, YES, NO, NO},
    {CKA_ENCRYPT, NO, YES, NO},
    {CKA_DECRYPT, YES, NO, NO},
    same(CKA_WRAP, NO),
    {CKA_SIGN, YES, NO, NO},
    {CKA_VERIFY, NO, YES, NO},
    same(CKA_VERIFY_RECOVER, NO),
    same(CKA_DERIVE, NO),
    same(CKA_PUBLIC_EXPONENT, {0x01, 0x00, 0x01}),
    {CKA_EXTRACTABLE, NO, YES, YES},
    same(CKA_LOCAL, YES),
    {CKA_MODIFIABLE, NO, NO, YES},
};

/// Types that the table does not know.
const CK_ATTRIBUTE_TYPE UNKNOWN_TYPES[] = {CKA_APPLICATION,
                                           CKA_AC_ISSUER,
                                           CKA_OWNER,
                                           CKA_ATTR_TYPES,
                                           CKA_CERTIFICATE_CATEGORY,
                                           CKA_CHECK_VALUE,
                                           CKA_UNWRAP,
                                           CKA_SIGN_RECOVER,
                                           CKA_START_DATE,
                                           CKA_END_DATE,
                                           CKA_PRIVATE_EXPONENT,
                                           CKA_PRIME_1,
                                           CKA_PRIME,
                                           CKA_VALUE_LEN,
                                           CKA_NEVER_EXTRACTABLE,
                                           CKA_ALWAYS_SENSITIVE,
                                           CKA_ALWAYS_AUTHENTICATE,
                                           CKA_VENDOR_DEFINED,
                                           MAX_ULONG};

class AttributeTest : public ObjectTest
{
protected:
    void expect(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE type, const ByteVector& value) const
    {
        EXPECT_EQ(attribute(hObject, type), value) << "type " << logged(type) << " of " << logged(hObject);
    }

    Answer get(CK_OBJECT_HANDLE hObject, Template& attributes) const
    {
        return answer(C_GetAttributeValue, hSession_, hObject, attributes.data(), attributes.size());
    }

    /// What the template's lines are behind the entry line, each entry answered with its length.
    static Answer answered(const std::vector<std::pair<CK_ATTRIBUTE_TYPE, CK_ULONG>>& entries)
    {
        Answer expected = {
            CKR_OK,
            {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : " + std::to_string(entries.size())}};
        for (const auto& [type, length] : entries) {
            expected.lines.push_back("DEBUG C_GetAttributeValue type : " + logged(type));
            expected.lines.push_back("DEBUG C_GetAttributeValue length : " + logged(length));
        }
        return expected;
    }
};

class KeyAttributeTest : public AttributeTest, public testing::WithParamInterface<KindAttributes>
{
protected:
    void SetUp() override
    {
        AttributeTest::SetUp();
        first().keyPairs = {makeKeyPair(5, GetParam().keyKind, "key label")};
        point_ = publicKeyBytes(keyPair(5));
    }

    /// The rows of the kind; the same for both halves but for the handle.
    std::vector<AttributeRow> rowsOfKind() const
    {
        const KindAttributes& kind = GetParam();
        return {
            same(CKA_LABEL, bytesOf("key label")),
            same(CKA_VALUE, point_),
            same(CKA_MODULUS, point_),
            {CKA_OBJECT_ID, bytesOf(0x70000005), bytesOf(0x70001005), {}},
            same(CKA_ISSUER, NOTHING),
            same(CKA_SERIAL_NUMBER, NOTHING),
            same(CKA_SUBJECT, NOTHING),
            same(CKA_KEY_TYPE, bytesOf(kind.keyType)),
            same(CKA_ID, {5}),
            same(CKA_MODULUS_BITS, bytesOf(kind.bits)),
            same(CKA_KEY_GEN_MECHANISM, bytesOf(kind.mechanism)),
            same(CKA_EC_PARAMS, kind.ecParams),
            same(CKA_EC_POINT, joined(kind.pointStart, point_)),
        };
    }

    ByteVector point_;
};

INSTANTIATE_TEST_SUITE_P(All, KeyAttributeTest, testing::ValuesIn(kindCases),
                         [](const auto& kind) { return kind.param.name; });

TEST_P(KeyAttributeTest, APrivateKeyAnswersEveryRowOfTheTable)
{
    for (const AttributeRow& row : FIXED_ROWS)
        expect(privateKey(5), row.type, row.privateKey);
    for (const AttributeRow& row : rowsOfKind())
        expect(privateKey(5), row.type, row.privateKey);
}

TEST_P(KeyAttributeTest, APublicKeyAnswersEveryRowOfTheTable)
{
    for (const AttributeRow& row : FIXED_ROWS)
        expect(publicKey(5), row.type, row.publicKey);
    for (const AttributeRow& row : rowsOfKind())
        expect(publicKey(5), row.type, row.publicKey);
}

TEST_P(KeyAttributeTest, NoAttributeOfAKeyIsReadFromCertificates)
{
    EXPECT_CALL(*device_, velkor_getCertificateIssuer).Times(0);
    EXPECT_CALL(*device_, velkor_getCertificateSubject).Times(0);
    EXPECT_CALL(*device_, velkor_getCertificateSerialDER).Times(0);
    EXPECT_CALL(*device_, velkor_getCertificateList).Times(0);
    for (const CK_ATTRIBUTE_TYPE type : {CKA_ISSUER, CKA_SUBJECT, CKA_SERIAL_NUMBER, CKA_LABEL})
        attribute(privateKey(5), type);
}

using CertificateAttributeTest = AttributeTest;

TEST_F(CertificateAttributeTest, ACertificateAnswersEveryRowOfTheTable)
{
    const ByteVector der = certificateRecord(2).der;
    const std::vector<std::pair<CK_ATTRIBUTE_TYPE, ByteVector>> rows = {
        {CKA_LABEL, bytesOf("certificate 2")},
        {CKA_VALUE, der},
        {CKA_MODULUS, der},
        {CKA_OBJECT_ID, bytesOf(0x70002002)},
        {CKA_ISSUER, joined(bytesOf("issuer"), der)},
        {CKA_SERIAL_NUMBER, joined(bytesOf("serial"), der)},
        {CKA_SUBJECT, joined(bytesOf("subject"), der)},
        {CKA_KEY_TYPE, bytesOf(CKK_RSA)},
        {CKA_ID, {2}},
        {CKA_MODULUS_BITS, bytesOf(2048)},
        {CKA_KEY_GEN_MECHANISM, bytesOf(CKM_RSA_PKCS_KEY_PAIR_GEN)},
        {CKA_EC_PARAMS, NOTHING},
        {CKA_EC_POINT, NOTHING},
    };
    for (const auto& [type, value] : rows)
        expect(certificate(2), type, value);
    for (const AttributeRow& row : FIXED_ROWS)
        expect(certificate(2), row.type, row.certificate);
}

TEST_F(CertificateAttributeTest, IssuerSubjectAndSerialNumberAreAskedOfTheLibrary)
{
    const ByteVector der = certificateRecord(2).der;
    const auto length = static_cast<int>(der.size());
    EXPECT_CALL(*device_, velkor_getCertificateIssuer(PointsTo(der), length, instance_))
        .WillOnce(testing::Return(ByteVector{1}));
    EXPECT_CALL(*device_, velkor_getCertificateSubject(PointsTo(der), length, instance_))
        .WillOnce(testing::Return(ByteVector{2}));
    EXPECT_CALL(*device_, velkor_getCertificateSerialDER(PointsTo(der), length, instance_))
        .WillOnce(testing::Return(ByteVector{3}));
    Template attributes;
    attributes.addRoom(CKA_ISSUER, 1).addRoom(CKA_SUBJECT, 1).addRoom(CKA_SERIAL_NUMBER, 1);
    EXPECT_EQ(get(certificate(2), attributes).code, CKR_OK);
    EXPECT_EQ(attributes.value(0), ByteVector{1});
    EXPECT_EQ(attributes.value(1), ByteVector{2});
    EXPECT_EQ(attributes.value(2), ByteVector{3});
}

TEST_F(CertificateAttributeTest, WhatCannotBeParsedIsEmpty)
{
    EXPECT_CALL(*device_, velkor_getCertificateIssuer).WillRepeatedly(testing::Return(ByteVector()));
    EXPECT_CALL(*device_, velkor_getCertificateSubject).WillRepeatedly(testing::Return(ByteVector()));
    EXPECT_CALL(*device_, velkor_getCertificateSerialDER).WillRepeatedly(testing::Return(ByteVector()));
    for (const CK_ATTRIBUTE_TYPE type : {CKA_ISSUER, CKA_SUBJECT, CKA_SERIAL_NUMBER})
        expect(certificate(2), type, NOTHING);
}

TEST_F(AttributeTest, UnknownTypesAnswerLengthZero)
{
    for (const CK_ATTRIBUTE_TYPE type : UNKNOWN_TYPES) {
        for (const CK_OBJECT_HANDLE hObject : {privateKey(2), publicKey(2), certificate(2)})
            expect(hObject, type, NOTHING);
    }
}

TEST_F(AttributeTest, AnObjectIdOfSeveralBytesIsAnsweredWhole)
{
    std::fill(std::begin(keyPair(2).objectId), std::end(keyPair(2).objectId), 0xAB);
    keyPair(2).objectIdLength = OBJECT_ID_CAPACITY;
    certificateRecord(2).objectIdLength = 0;
    expect(privateKey(2), CKA_ID, ByteVector(128, 0xAB));
    expect(publicKey(2), CKA_ID, ByteVector(128, 0xAB));
    expect(certificate(2), CKA_ID, NOTHING);
}

struct PointCase {
    std::int32_t length;
    ByteVector start;

    friend std::ostream& operator<<(std::ostream& out, const PointCase& point) { return out << point.length; }
};

class EcPointTest : public AttributeTest, public testing::WithParamInterface<PointCase>
{
};

INSTANTIATE_TEST_SUITE_P(Lengths, EcPointTest,
                         testing::Values(PointCase{0, {0x04, 0x00}}, PointCase{1, {0x04, 0x01}},
                                         PointCase{127, {0x04, 0x7F}}, PointCase{128, {0x04, 0x81, 0x80}},
                                         PointCase{133, {0x04, 0x81, 0x85}}, PointCase{255, {0x04, 0x81, 0xFF}}));

TEST_P(EcPointTest, IsWrappedWithItsLength)
{
    keyPair(7).publicKeyLength = GetParam().length;
    expect(publicKey(7), CKA_EC_POINT, joined(GetParam().start, publicKeyBytes(keyPair(7))));
}

class UsageTest : public AttributeTest, public testing::WithParamInterface<std::uint32_t>
{
protected:
    static ByteVector usage(std::uint32_t bit) { return (GetParam() & bit) != 0 ? YES : NO; }
};

INSTANTIATE_TEST_SUITE_P(Flags, UsageTest, testing::Values(0u, 1u, 2u, 3u, 0xFFFFFFFCu));

TEST_P(UsageTest, DecidesWhatEachHalfOfAPairMayDo)
{
    keyPair(2).usageFlags = GetParam();
    expect(privateKey(2), CKA_SIGN, usage(1));
    expect(publicKey(2), CKA_VERIFY, usage(1));
    expect(privateKey(2), CKA_DECRYPT, usage(2));
    expect(publicKey(2), CKA_ENCRYPT, usage(2));
    for (const CK_ATTRIBUTE_TYPE type : {CKA_VERIFY, CKA_ENCRYPT})
        expect(privateKey(2), type, NO);
    for (const CK_ATTRIBUTE_TYPE type : {CKA_SIGN, CKA_DECRYPT})
        expect(publicKey(2), type, NO);
}

// ---- Answering a template ----

TEST_F(AttributeTest, ALengthQueryAnswersEveryEntryAndCopiesNothing)
{
    Template attributes;
    attributes.addRaw(CKA_CLASS, nullptr, 0).addRaw(CKA_LABEL, nullptr, 1).addRaw(CKA_MODULUS, nullptr, MAX_ULONG);
    attributes.addRaw(CKA_SUBJECT, nullptr, 5);
    EXPECT_EQ(get(publicKey(2), attributes),
              answered({{CKA_CLASS, sizeof(CK_ULONG)}, {CKA_LABEL, 6}, {CKA_MODULUS, 256}, {CKA_SUBJECT, 0}}));
    EXPECT_EQ(attributes.length(0), sizeof(CK_ULONG));
    EXPECT_EQ(attributes.length(1), 6u);
    EXPECT_EQ(attributes.length(2), 256u);
    EXPECT_EQ(attributes.length(3), 0u);
}

TEST_F(AttributeTest, ABufferOfTheExactSizeIsFilled)
{
    Template attributes;
    attributes.addRoom(CKA_LABEL, 6).addRoom(CKA_PUBLIC_EXPONENT, 3);
    EXPECT_EQ(get(publicKey(2), attributes), answered({{CKA_LABEL, 6}, {CKA_PUBLIC_EXPONENT, 3}}));
    EXPECT_EQ(attributes.value(0), bytesOf("pair 2"));
    EXPECT_EQ(attributes.value(1), (ByteVector{1, 0, 1}));
}

TEST_F(AttributeTest, ALargerBufferKeepsTheBytesBehindTheValue)
{
    Template attributes;
    attributes.addRoom(CKA_LABEL, 9).addRoom(CKA_ISSUER, 2);
    EXPECT_EQ(get(publicKey(2), attributes), answered({{CKA_LABEL, 6}, {CKA_ISSUER, 0}}));
    EXPECT_EQ(attributes.length(0), 6u);
    EXPECT_EQ(attributes.value(0), joined(bytesOf("pair 2"), ByteVector(3, 0xEE)));
    EXPECT_EQ(attributes.length(1), 0u);
    EXPECT_THAT(attributes.value(1), Each(0xEE));
}

TEST_F(AttributeTest, AnEmptyBufferIsEnoughForAnEmptyValueOnly)
{
    CK_BYTE room = 0xEE;
    Template fits;
    fits.addRaw(CKA_ISSUER, &room, 0);
    EXPECT_EQ(get(publicKey(2), fits), answered({{CKA_ISSUER, 0}}));
    Template tooSmall;
    tooSmall.addRaw(CKA_TOKEN, &room, 0);
    EXPECT_EQ(get(publicKey(2), tooSmall),
              (Answer{CKR_BUFFER_TOO_SMALL,
                      {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 1",
                       "DEBUG C_GetAttributeValue type : 1",
                       "ERROR C_GetAttributeValue: buffer too small at index=0 type=1 provided=0 required=1"}}));
    EXPECT_EQ(room, 0xEE);
}

TEST_F(AttributeTest, AShortBufferEndsTheCallWithLaterLengthsUnchanged)
{
    Template attributes;
    attributes.addRoom(CKA_LABEL, 20).addRoom(CKA_MODULUS, 255).addRoom(CKA_TOKEN, 7);
    EXPECT_EQ(get(publicKey(2), attributes),
              (Answer{CKR_BUFFER_TOO_SMALL,
                      {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 3",
                       "DEBUG C_GetAttributeValue type : 3", "DEBUG C_GetAttributeValue length : 6",
                       "DEBUG C_GetAttributeValue type : 288",
                       "ERROR C_GetAttributeValue: buffer too small at index=1 type=288 provided=255 required=256"}}));
    EXPECT_EQ(attributes.length(0), 6u);
    EXPECT_EQ(attributes.value(0), joined(bytesOf("pair 2"), ByteVector(14, 0xEE)));
    EXPECT_EQ(attributes.length(1), 255u);
    EXPECT_EQ(attributes.length(2), 7u);
    EXPECT_THAT(attributes.value(1), Each(0xEE));
    EXPECT_THAT(attributes.value(2), Each(0xEE));
}

TEST_F(AttributeTest, AnEntryMayComeTwice)
{
    Template attributes;
    attributes.addRaw(CKA_LABEL, nullptr, 0).addRoom(CKA_LABEL, 6);
    EXPECT_EQ(get(publicKey(2), attributes), answered({{CKA_LABEL, 6}, {CKA_LABEL, 6}}));
    EXPECT_EQ(attributes.length(0), 6u);
    EXPECT_EQ(attributes.value(0), bytesOf("pair 2"));
}

TEST_F(AttributeTest, TenThousandEntriesAreAnswered)
{
    setLogLevel("2");
    std::vector<CK_ATTRIBUTE> entries(10000, CK_ATTRIBUTE{CKA_LABEL, nullptr, 0});
    ASSERT_EQ(C_GetAttributeValue(hSession_, publicKey(2), entries.data(), 10000), CKR_OK);
    EXPECT_TRUE(
        std::all_of(entries.begin(), entries.end(), [](const CK_ATTRIBUTE& each) { return each.ulValueLen == 6; }));
}

TEST_F(AttributeTest, OneLookupAnswersTheWholeTemplate)
{
    EXPECT_CALL(*device_, velkor_getKeyPairList(StrEq(FIRST_DEVICE), instance_)).Times(1);
    EXPECT_CALL(*device_, velkor_getCertificateList).Times(0);
    Template attributes;
    attributes.addRoom(CKA_LABEL, 9).addRoom(CKA_TOKEN, 1).addRoom(CKA_ID, 1);
    EXPECT_EQ(get(publicKey(2), attributes).code, CKR_OK);
}

TEST_F(CertificateAttributeTest, OneLookupAnswersTheWholeTemplate)
{
    EXPECT_CALL(*device_, velkor_getCertificateList(StrEq(FIRST_DEVICE), instance_)).Times(1);
    EXPECT_CALL(*device_, velkor_getKeyPairList).Times(0);
    Template attributes;
    attributes.addRoom(CKA_LABEL, 20).addRoom(CKA_SUBJECT, 20).addRoom(CKA_VALUE, 20);
    EXPECT_EQ(get(certificate(2), attributes).code, CKR_OK);
}

TEST_F(AttributeTest, ANullTemplateIsRefusedBeforeItsCount)
{
    for (const CK_ULONG count : {0u, 3u})
        EXPECT_EQ(answer(C_GetAttributeValue, hSession_, publicKey(2), nullptr, count),
                  refusal(CKR_ARGUMENTS_BAD, "C_GetAttributeValue", "C_GetAttributeValue template is null"));
}

TEST_F(AttributeTest, AnEmptyTemplateIsRefusedBeforeTheHandle)
{
    CK_ATTRIBUTE entry = {CKA_CLASS, nullptr, 77};
    EXPECT_EQ(answer(C_GetAttributeValue, hSession_, 0, &entry, 0),
              (Answer{CKR_ARGUMENTS_BAD,
                      {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 0",
                       "ERROR C_GetAttributeValue: ulCount<=0"}}));
    EXPECT_EQ(CK_ULONG{entry.ulValueLen}, 77u);
}

class AttributeStateTest : public AttributeTest, public testing::WithParamInterface<CK_STATE>
{
};

INSTANTIATE_TEST_SUITE_P(All, AttributeStateTest,
                         testing::Values(CKS_RO_PUBLIC_SESSION, CKS_RO_USER_FUNCTIONS, CKS_RW_PUBLIC_SESSION,
                                         CKS_RW_USER_FUNCTIONS, CKS_RW_SO_FUNCTIONS));

TEST_P(AttributeStateTest, AttributesAreAnsweredInEveryState)
{
    enterState(GetParam());
    expect(privateKey(2), CKA_LABEL, bytesOf("pair 2"));
    expect(certificate(2), CKA_LABEL, bytesOf("certificate 2"));
}

TEST_F(AttributeTest, AnswersLeaveTheSearchInProgress)
{
    ASSERT_EQ(C_FindObjectsInit(hSession_, nullptr, 0), CKR_OK);
    EXPECT_EQ(page(1), Handles{publicKey(1)});
    expect(publicKey(2), CKA_LABEL, bytesOf("pair 2"));
    EXPECT_EQ(page(1), Handles{publicKey(2)});
}

} // namespace
