// What objects say of themselves, and what searches find.
#include "strict_fixture.h"
#include "template_values.h"

namespace
{

class StrictAttributesTest : public StrictTest, protected TemplateValues
{
protected:
    void SetUp() override
    {
        start();
        session = userSession();
    }

    ByteVector modulusOf(int number) const { return value(session, publicKey(session, number), CKA_MODULUS); }

    CK_SESSION_HANDLE session = 0;
};

TEST_F(StrictAttributesTest, AnRsaPairHasTheStandardsAttributes)
{
    const CK_OBJECT_HANDLE pub = publicKey(session, 2);
    const CK_OBJECT_HANDLE priv = privateKey(session, 2);
    EXPECT_EQ(number(session, pub, CKA_CLASS), CKO_PUBLIC_KEY);
    EXPECT_EQ(number(session, priv, CKA_CLASS), CKO_PRIVATE_KEY);
    EXPECT_EQ(number(session, pub, CKA_KEY_TYPE), CKK_RSA);
    EXPECT_EQ(number(session, pub, CKA_MODULUS_BITS), 2048U);
    EXPECT_EQ(value(session, pub, CKA_MODULUS).size(), 256U);
    EXPECT_EQ(value(session, priv, CKA_MODULUS), value(session, pub, CKA_MODULUS));
    EXPECT_EQ(value(session, priv, CKA_PUBLIC_EXPONENT), (ByteVector{1, 0, 1}));
    EXPECT_EQ(value(session, pub, CKA_ID), ByteVector{2});
    EXPECT_EQ(number(session, priv, CKA_KEY_GEN_MECHANISM), CKM_RSA_PKCS_KEY_PAIR_GEN);
    EXPECT_TRUE(flag(session, pub, CKA_VERIFY));
    EXPECT_TRUE(flag(session, pub, CKA_ENCRYPT));
    EXPECT_FALSE(flag(session, pub, CKA_DERIVE));
    EXPECT_FALSE(flag(session, pub, CKA_PRIVATE));
    EXPECT_TRUE(flag(session, priv, CKA_PRIVATE));
    EXPECT_TRUE(flag(session, priv, CKA_SIGN));
    EXPECT_TRUE(flag(session, priv, CKA_DECRYPT));
    EXPECT_TRUE(flag(session, priv, CKA_SENSITIVE));
    EXPECT_TRUE(flag(session, priv, CKA_ALWAYS_SENSITIVE));
    EXPECT_TRUE(flag(session, priv, CKA_NEVER_EXTRACTABLE));
    EXPECT_FALSE(flag(session, priv, CKA_EXTRACTABLE));
    EXPECT_FALSE(flag(session, priv, CKA_ALWAYS_AUTHENTICATE));
    EXPECT_FALSE(flag(session, priv, CKA_UNWRAP));
    EXPECT_TRUE(flag(session, priv, CKA_MODIFIABLE));
    EXPECT_TRUE(flag(session, priv, COPYABLE));
    EXPECT_TRUE(flag(session, priv, CKA_TOKEN));
    EXPECT_EQ(value(session, priv, CKA_ALLOWED_MECHANISMS).size(), 13 * sizeof(CK_MECHANISM_TYPE));
    EXPECT_TRUE(value(session, pub, CKA_WRAP_TEMPLATE).empty());
    EXPECT_TRUE(value(session, priv, CKA_UNWRAP_TEMPLATE).empty());
    for (const CK_ATTRIBUTE_TYPE type :
         {CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2, CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT})
        EXPECT_EQ(ask(session, priv, type), CKR_ATTRIBUTE_SENSITIVE);
    EXPECT_EQ(ask(session, pub, CKA_EC_POINT), CKR_ATTRIBUTE_TYPE_INVALID);
    EXPECT_EQ(ask(session, priv, CKA_MODULUS_BITS), CKR_ATTRIBUTE_TYPE_INVALID);
    EXPECT_EQ(ask(session, pub, CKA_VALUE), CKR_ATTRIBUTE_TYPE_INVALID);
}

TEST_F(StrictAttributesTest, AnEcPairHasTheStandardsAttributes)
{
    const CK_OBJECT_HANDLE pub = publicKey(session, 7);
    const CK_OBJECT_HANDLE priv = privateKey(session, 7);
    EXPECT_EQ(number(session, priv, CKA_KEY_TYPE), CKK_EC);
    const ByteVector point = value(session, pub, CKA_EC_POINT);
    ASSERT_EQ(point.size(), 136U);
    EXPECT_EQ(ByteVector(point.begin(), point.begin() + 4), (ByteVector{0x04, 0x81, 0x85, 0x04}));
    EXPECT_EQ(value(session, pub, CKA_EC_PARAMS), (ByteVector{0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23}));
    EXPECT_EQ(value(session, priv, CKA_EC_PARAMS), value(session, pub, CKA_EC_PARAMS));
    EXPECT_TRUE(flag(session, pub, CKA_DERIVE));
    EXPECT_TRUE(flag(session, priv, CKA_DERIVE));
    EXPECT_FALSE(flag(session, priv, CKA_DECRYPT));
    EXPECT_FALSE(flag(session, pub, CKA_ENCRYPT));
    EXPECT_EQ(value(session, pub, CKA_ALLOWED_MECHANISMS).size(), 7 * sizeof(CK_MECHANISM_TYPE));
    EXPECT_EQ(ask(session, priv, CKA_VALUE), CKR_ATTRIBUTE_SENSITIVE);
    EXPECT_EQ(ask(session, pub, CKA_MODULUS), CKR_ATTRIBUTE_TYPE_INVALID);
}

TEST_F(StrictAttributesTest, ACertificateHasTheStandardsAttributes)
{
    const CK_OBJECT_HANDLE certificate = findOne(session, CKO_CERTIFICATE, "certificate 2");
    const ByteVector der{0x30, 0x03, 0x02, 0x01, 2};
    EXPECT_EQ(number(session, certificate, CKA_CERTIFICATE_TYPE), CKC_X_509);
    EXPECT_EQ(value(session, certificate, CKA_VALUE), der);
    EXPECT_EQ(value(session, certificate, CKA_SUBJECT).size(), 7 + der.size());
    EXPECT_EQ(value(session, certificate, CKA_ISSUER).size(), 6 + der.size());
    EXPECT_EQ(value(session, certificate, CKA_SERIAL_NUMBER).size(), 6 + der.size());
    EXPECT_EQ(value(session, certificate, CKA_ID), ByteVector{2});
    EXPECT_FALSE(flag(session, certificate, CKA_TRUSTED));
    EXPECT_FALSE(flag(session, certificate, CKA_MODIFIABLE));
    EXPECT_EQ(number(session, certificate, CKA_CERTIFICATE_CATEGORY), 0U);
    EXPECT_TRUE(value(session, certificate, CKA_START_DATE).empty());
    EXPECT_EQ(ask(session, certificate, CKA_MODULUS), CKR_ATTRIBUTE_TYPE_INVALID);
}

TEST_F(StrictAttributesTest, AKeyThatTheDeviceHoldsInDerIsTakenApart)
{
    // SubjectPublicKeyInfo of a modulus of 256 bytes, which begins with 0xC9.
    ByteVector der = {0x30, 0x82, 0x01, 0x22, 0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                      0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00, 0x03, 0x82, 0x01, 0x0F, 0x00,
                      0x30, 0x82, 0x01, 0x0A, 0x02, 0x82, 0x01, 0x01, 0x00, 0xC9};
    der.resize(der.size() + 255, 0x77);
    der.insert(der.end(), {0x02, 0x03, 0x01, 0x00, 0x01});
    p11.C_Finalize(nullptr);
    auto& pair = device->devices[FIRST_DEVICE].keyPairs[1];
    std::copy(der.begin(), der.end(), pair.publicKey);
    pair.publicKeyLength = static_cast<std::int32_t>(der.size());
    start();
    session = userSession();
    ByteVector modulus{0xC9};
    modulus.resize(256, 0x77);
    EXPECT_EQ(modulusOf(2), modulus);
    EXPECT_EQ(find(session, {attribute(CKA_CLASS, publicClass), attribute(CKA_MODULUS, modulus)}).size(), 1U);
}

TEST_F(StrictAttributesTest, EveryEntryOfATemplateIsTreated)
{
    const CK_OBJECT_HANDLE priv = privateKey(session, 2);
    ByteVector modulus(256);
    ByteVector shortLabel(2);
    CK_ULONG keyType = 0;
    CK_ATTRIBUTE entries[] = {{CKA_PRIVATE_EXPONENT, modulus.data(), 256},
                              {CKA_EC_POINT, modulus.data(), 256},
                              {CKA_LABEL, shortLabel.data(), 2},
                              {CKA_MODULUS, modulus.data(), 256},
                              {CKA_ID, nullptr, 0},
                              attribute(CKA_KEY_TYPE, keyType)};
    const CK_RV result = p11.C_GetAttributeValue(session, priv, entries, 6);
    EXPECT_TRUE(result == CKR_ATTRIBUTE_SENSITIVE || result == CKR_ATTRIBUTE_TYPE_INVALID ||
                result == CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(entries[0].ulValueLen, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(entries[1].ulValueLen, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(entries[2].ulValueLen, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(entries[3].ulValueLen, 256U);
    EXPECT_EQ(modulus[0], 0xC5);
    EXPECT_EQ(entries[4].ulValueLen, 1U);
    EXPECT_EQ(keyType, CKK_RSA);
    EXPECT_EQ(shortLabel, ByteVector(2));
    EXPECT_EQ(p11.C_GetAttributeValue(session, priv, nullptr, 1), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p11.C_GetAttributeValue(session, 9999, entries, 1), CKR_OBJECT_HANDLE_INVALID);
}

TEST_F(StrictAttributesTest, OneCallOfTheHostIsOneLookAtTheKeys)
{
    const CK_OBJECT_HANDLE priv = privateKey(session, 2);
    value(session, priv, CKA_ID);
    CK_ATTRIBUTE entries[] = {{CKA_LABEL, nullptr, 0}, {CKA_ID, nullptr, 0}, {CKA_MODULUS, nullptr, 0}};
    const int before = device->keyListReads;
    ASSERT_EQ(p11.C_GetAttributeValue(session, priv, entries, 3), CKR_OK);
    EXPECT_EQ(device->keyListReads, before + 1);
}

TEST_F(StrictAttributesTest, ASearchByKeyTypeReadsEachPairOnce)
{
    const auto looksOf = [&](std::vector<CK_ATTRIBUTE> criteria) {
        const int before = device->keyListReads;
        find(session, std::move(criteria));
        return device->keyListReads - before;
    };
    const int first = looksOf({attribute(CKA_KEY_TYPE, ec)});
    const int later = looksOf({attribute(CKA_KEY_TYPE, ec)});
    EXPECT_EQ(first - later, 7);
    EXPECT_EQ(looksOf({attribute(CKA_CLASS, privateClass), attribute(CKA_KEY_TYPE, rsa)}), 1);
}

TEST_F(StrictAttributesTest, PrivateKeysAreFoundByTheUserOnly)
{
    const CK_SESSION_HANDLE other = open(slots()[1]);
    EXPECT_EQ(find(other, {attribute(CKA_CLASS, publicClass)}).size(), 1U);
    EXPECT_TRUE(find(other, {attribute(CKA_CLASS, privateClass)}).empty());
    EXPECT_EQ(find(session, {attribute(CKA_CLASS, privateClass)}).size(), 7U);
}

TEST_F(StrictAttributesTest, AnEmptyTemplateFindsAll)
{
    EXPECT_EQ(find(session, {}).size(), 17U);
}

TEST_F(StrictAttributesTest, EveryAttributeOfATemplateIsHonoured)
{
    std::string label = "pair 5";
    ByteVector id{5};
    ByteVector otherId{6};
    EXPECT_EQ(find(session, {attribute(CKA_LABEL, label)}).size(), 2U);
    EXPECT_EQ(find(session, {attribute(CKA_ID, id)}).size(), 2U);
    EXPECT_EQ(
        find(session, {attribute(CKA_CLASS, privateClass), attribute(CKA_ID, id), attribute(CKA_LABEL, label)}).size(),
        1U);
    EXPECT_TRUE(find(session, {attribute(CKA_LABEL, label), attribute(CKA_ID, otherId)}).empty());
    EXPECT_EQ(find(session, {attribute(CKA_CLASS, privateClass), attribute(CKA_KEY_TYPE, ec)}).size(), 3U);
    EXPECT_EQ(find(session, {attribute(CKA_KEY_TYPE, rsa), attribute(CKA_SIGN, yes)}).size(), 4U);
    EXPECT_TRUE(find(session, {attribute(CKA_CLASS, privateClass), attribute(CKA_SIGN, no)}).empty());
    EXPECT_TRUE(find(session, {attribute(CKA_TOKEN, no)}).empty());
    EXPECT_EQ(find(session, {attribute(CKA_TOKEN, yes), attribute(CKA_PRIVATE, yes)}).size(), 7U);
    ByteVector modulus = modulusOf(3);
    EXPECT_EQ(find(session, {attribute(CKA_MODULUS, modulus)}).size(), 2U);
    ByteVector point = value(session, publicKey(session, 6), CKA_EC_POINT);
    EXPECT_EQ(find(session, {attribute(CKA_EC_POINT, point)}), Handles{publicKey(session, 6)});
    ByteVector subject = value(session, findOne(session, CKO_CERTIFICATE, "certificate 1"), CKA_SUBJECT);
    ByteVector issuer = value(session, findOne(session, CKO_CERTIFICATE, "certificate 1"), CKA_ISSUER);
    EXPECT_EQ(find(session, {attribute(CKA_SUBJECT, subject)}).size(), 1U);
    EXPECT_EQ(find(session, {attribute(CKA_CLASS, certificateClass), attribute(CKA_ISSUER, issuer)}).size(), 1U);
    CK_OBJECT_CLASS secret = CKO_SECRET_KEY;
    EXPECT_TRUE(find(session, {attribute(CKA_CLASS, secret)}).empty());
}

TEST_F(StrictAttributesTest, ALabelNeedsNoZeroByteBehindIt)
{
    ByteVector label = {'p', 'a', 'i', 'r', ' ', '5', '!', '!'};
    CK_ATTRIBUTE entry = {CKA_LABEL, label.data(), 6};
    EXPECT_EQ(find(session, {entry}).size(), 2U);
}

TEST_F(StrictAttributesTest, ASearchIsOneOperation)
{
    ASSERT_EQ(p11.C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(p11.C_FindObjectsInit(session, nullptr, 0), CKR_OPERATION_ACTIVE);
    Handles found(10);
    CK_ULONG count = 0;
    ASSERT_EQ(p11.C_FindObjects(session, found.data(), 10, &count), CKR_OK);
    EXPECT_EQ(count, 10U);
    ASSERT_EQ(p11.C_FindObjects(session, found.data(), 10, &count), CKR_OK);
    EXPECT_EQ(count, 7U);
    ASSERT_EQ(p11.C_FindObjects(session, found.data(), 10, &count), CKR_OK);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(p11.C_FindObjects(session, nullptr, 10, &count), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p11.C_FindObjectsFinal(session), CKR_OK);
    EXPECT_EQ(p11.C_FindObjectsFinal(session), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(p11.C_FindObjects(session, found.data(), 10, &count), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(p11.C_FindObjectsInit(session, nullptr, 1), CKR_ARGUMENTS_BAD);
}

TEST_F(StrictAttributesTest, ASearchFindsTheSameHandlesAgain)
{
    EXPECT_EQ(find(session, {}), find(session, {}));
    EXPECT_EQ(privateKey(session, 4), privateKey(session, 4));
}

TEST_F(StrictAttributesTest, LabelAndIdChangeOneByOne)
{
    const CK_OBJECT_HANDLE priv = privateKey(session, 5);
    std::string label = "new label";
    ByteVector id{9, 9};
    CK_ATTRIBUTE entry = attribute(CKA_LABEL, label);
    ASSERT_EQ(p11.C_SetAttributeValue(session, priv, &entry, 1), CKR_OK);
    EXPECT_EQ(value(session, priv, CKA_LABEL), ByteVector(label.begin(), label.end()));
    EXPECT_EQ(value(session, priv, CKA_ID), ByteVector{5});
    entry = attribute(CKA_ID, id);
    ASSERT_EQ(p11.C_SetAttributeValue(session, priv, &entry, 1), CKR_OK);
    EXPECT_EQ(value(session, priv, CKA_ID), id);
    EXPECT_EQ(findOne(session, CKO_PRIVATE_KEY, label), priv);
}

TEST_F(StrictAttributesTest, TheRestIsRefusedByName)
{
    const CK_OBJECT_HANDLE priv = privateKey(session, 5);
    const auto set = [&](CK_OBJECT_HANDLE object, CK_ATTRIBUTE entry) {
        return p11.C_SetAttributeValue(session, object, &entry, 1);
    };
    std::string label = "x";
    std::string empty;
    EXPECT_EQ(set(priv, attribute(CKA_SIGN, no)), CKR_ATTRIBUTE_READ_ONLY);
    EXPECT_TRUE(isLogged("C_SetAttributeValue: cannot be changed, type=264"));
    EXPECT_EQ(set(priv, attribute(CKA_EC_POINT, no)), CKR_ATTRIBUTE_TYPE_INVALID);
    EXPECT_EQ(set(priv, attribute(CKA_LABEL, empty)), CKR_ATTRIBUTE_VALUE_INVALID);
    EXPECT_EQ(set(findOne(session, CKO_CERTIFICATE, "certificate 1"), attribute(CKA_LABEL, label)),
              CKR_ATTRIBUTE_READ_ONLY);
    CK_ATTRIBUTE both[] = {attribute(CKA_LABEL, label), attribute(CKA_SIGN, no)};
    EXPECT_EQ(p11.C_SetAttributeValue(session, priv, both, 2), CKR_ATTRIBUTE_READ_ONLY);
    EXPECT_EQ(privateKey(session, 5), priv);
    const CK_SESSION_HANDLE readOnly = open(slots()[0], READ_ONLY);
    CK_ATTRIBUTE entry = attribute(CKA_LABEL, label);
    EXPECT_EQ(p11.C_SetAttributeValue(readOnly, priv, &entry, 1), CKR_SESSION_READ_ONLY);
}

TEST_F(StrictAttributesTest, AHandleNeverStandsForAnotherObject)
{
    const CK_OBJECT_HANDLE priv = privateKey(session, 5);
    const CK_OBJECT_HANDLE pub = publicKey(session, 5);
    ASSERT_EQ(flag(session, pub, CKA_VERIFY), true);
    // Another process puts another key in the same place.
    auto& pair = device->devices[FIRST_DEVICE].keyPairs[4];
    pair.publicKey[10] ^= 0xFF;
    EXPECT_EQ(ask(session, priv, CKA_LABEL), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_NE(privateKey(session, 5), priv);
    pair.publicKey[10] ^= 0xFF;
    ByteVector signature;
    EXPECT_EQ(sign(session, {CKM_ECDSA, nullptr, 0}, priv, ByteVector(32), signature), CKR_KEY_HANDLE_INVALID);
}

TEST_F(StrictAttributesTest, AnObjectHasASize)
{
    CK_ULONG size = 0;
    EXPECT_EQ(p11.C_GetObjectSize(session, publicKey(session, 2), &size), CKR_OK);
    EXPECT_GT(size, 256U);
    EXPECT_EQ(p11.C_GetObjectSize(session, publicKey(session, 2), nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p11.C_GetObjectSize(session, 9999, &size), CKR_OBJECT_HANDLE_INVALID);
}

} // namespace
