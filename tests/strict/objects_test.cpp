// Objects that come and go: generated, created, copied, destroyed.
#include "strict_fixture.h"
#include "template_values.h"

namespace
{

constexpr CK_RV ACTION_PROHIBITED = 0x1B;

class StrictObjectsTest : public StrictTest, protected TemplateValues
{
protected:
    void SetUp() override
    {
        start();
        session = userSession();
    }

    std::size_t pairsOnDevice() const { return device->devices[FIRST_DEVICE].keyPairs.size(); }

    KeyPair generateP256(CK_BBOOL onToken, std::string label = "fresh")
    {
        KeyPair pair;
        EXPECT_EQ(generate(session, CKM_EC_KEY_PAIR_GEN,
                           {attribute(CKA_EC_PARAMS, p256), attribute(CKA_TOKEN, onToken)},
                           {attribute(CKA_TOKEN, onToken), attribute(CKA_LABEL, label)}, pair),
                  CKR_OK);
        return pair;
    }

    CK_RV create(std::vector<CK_ATTRIBUTE> entries, CK_OBJECT_HANDLE& object) const
    {
        return p11.C_CreateObject(session, entries.data(), static_cast<CK_ULONG>(entries.size()), &object);
    }

    CK_RV copy(CK_OBJECT_HANDLE source, std::vector<CK_ATTRIBUTE> entries, CK_OBJECT_HANDLE& object) const
    {
        return p11.C_CopyObject(session, source, entries.data(), static_cast<CK_ULONG>(entries.size()), &object);
    }

    CK_RV signWith(CK_OBJECT_HANDLE key) const
    {
        ByteVector signature;
        return sign(session, {CKM_ECDSA, nullptr, 0}, key, ByteVector(32), signature);
    }

    CK_SESSION_HANDLE session = 0;
};

TEST_F(StrictObjectsTest, KeyPairsTakeTheirTypeFromTheMechanism)
{
    KeyPair pair;
    ASSERT_EQ(generate(session, CKM_RSA_PKCS_KEY_PAIR_GEN, {attribute(CKA_MODULUS_BITS, bits)}, {}, pair), CKR_OK);
    EXPECT_EQ(number(session, pair.privateKey, CKA_KEY_TYPE), CKK_RSA);
    pair = generateP256(CK_TRUE);
    EXPECT_EQ(number(session, pair.privateKey, CKA_KEY_TYPE), CKK_EC);
    EXPECT_EQ(value(session, pair.publicKey, CKA_EC_PARAMS), p256);
    EXPECT_EQ(
        generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256)}, {attribute(CKA_KEY_TYPE, rsa)}, pair),
        CKR_TEMPLATE_INCONSISTENT);
}

TEST_F(StrictObjectsTest, IdAndLabelComeFromBothTemplates)
{
    std::string label = "of public";
    ByteVector id{7, 7};
    KeyPair pair;
    ASSERT_EQ(generate(session, CKM_EC_KEY_PAIR_GEN,
                       {attribute(CKA_EC_PARAMS, p256), attribute(CKA_LABEL, label), attribute(CKA_TOKEN, yes)},
                       {attribute(CKA_ID, id), attribute(CKA_TOKEN, yes)}, pair),
              CKR_OK);
    EXPECT_EQ(value(session, pair.privateKey, CKA_LABEL), ByteVector(label.begin(), label.end()));
    EXPECT_EQ(value(session, pair.publicKey, CKA_ID), id);
}

TEST_F(StrictObjectsTest, UsageComesFromTheTemplates)
{
    KeyPair pair;
    ASSERT_EQ(generate(session, CKM_RSA_PKCS_KEY_PAIR_GEN, {attribute(CKA_MODULUS_BITS, bits)},
                       {attribute(CKA_SIGN, no), attribute(CKA_DECRYPT, yes)}, pair),
              CKR_OK);
    EXPECT_FALSE(flag(session, pair.privateKey, CKA_SIGN));
    EXPECT_TRUE(flag(session, pair.privateKey, CKA_DECRYPT));
    EXPECT_FALSE(flag(session, pair.publicKey, CKA_VERIFY));
    ByteVector signature;
    EXPECT_EQ(sign(session, {CKM_SHA256_RSA_PKCS, nullptr, 0}, pair.privateKey, ByteVector(5), signature),
              CKR_KEY_FUNCTION_NOT_PERMITTED);
}

TEST_F(StrictObjectsTest, WhatTheTokenCannotGenerateIsRefused)
{
    KeyPair pair;
    ByteVector curve = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x0A};
    EXPECT_EQ(generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, curve)}, {}, pair),
              CKR_DOMAIN_PARAMS_INVALID);
    EXPECT_EQ(generate(session, CKM_EC_KEY_PAIR_GEN, {}, {}, pair), CKR_TEMPLATE_INCOMPLETE);
    EXPECT_EQ(generate(session, CKM_RSA_PKCS_KEY_PAIR_GEN, {}, {}, pair), CKR_TEMPLATE_INCOMPLETE);
    bits = 1024;
    EXPECT_EQ(generate(session, CKM_RSA_PKCS_KEY_PAIR_GEN, {attribute(CKA_MODULUS_BITS, bits)}, {}, pair),
              CKR_KEY_SIZE_RANGE);
    ByteVector three{3};
    bits = 2048;
    EXPECT_EQ(generate(session, CKM_RSA_PKCS_KEY_PAIR_GEN,
                       {attribute(CKA_MODULUS_BITS, bits), attribute(CKA_PUBLIC_EXPONENT, three)}, {}, pair),
              CKR_ATTRIBUTE_VALUE_INVALID);
    EXPECT_EQ(generate(session, CKM_AES_KEY_GEN, {}, {}, pair), CKR_MECHANISM_INVALID);
    EXPECT_EQ(generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_MODULUS, three)}, {}, pair),
              CKR_ATTRIBUTE_TYPE_INVALID);
    const CK_SESSION_HANDLE readOnly = open(slots()[0], READ_ONLY);
    EXPECT_EQ(
        generate(readOnly, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256)}, {attribute(CKA_TOKEN, yes)}, pair),
        CKR_SESSION_READ_ONLY);
    const CK_SESSION_HANDLE other = open(slots()[1]);
    EXPECT_EQ(generate(other, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256)}, {}, pair), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(pairsOnDevice(), 7U);
}

TEST_F(StrictObjectsTest, AFreshPairThatCannotBeReadIsNotLeft)
{
    device->blindLooksAfterGeneration = 1;
    for (CK_BBOOL onToken : {no, yes}) {
        KeyPair pair;
        EXPECT_EQ(generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256)},
                           {attribute(CKA_TOKEN, onToken)}, pair),
                  CKR_FUNCTION_FAILED);
        EXPECT_EQ(pair.privateKey, 0U);
        EXPECT_EQ(pairsOnDevice(), 7U);
    }
    EXPECT_EQ(find(session, {attribute(CKA_CLASS, privateClass)}).size(), 7U);
    EXPECT_FALSE(isLogged("can be neither read nor deleted"));
    device->blindLooksAfterGeneration = 2;
    KeyPair pair;
    EXPECT_EQ(generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256)}, {}, pair), CKR_FUNCTION_FAILED);
    EXPECT_TRUE(isLogged("C_GenerateKeyPair: the new key pair can be neither read nor deleted, number=8"));
}

TEST_F(StrictObjectsTest, AKeyWithoutAnyUseIsRefused)
{
    KeyPair pair;
    EXPECT_EQ(generate(session, CKM_RSA_PKCS_KEY_PAIR_GEN, {attribute(CKA_MODULUS_BITS, bits)},
                       {attribute(CKA_SIGN, no), attribute(CKA_DECRYPT, no)}, pair),
              CKR_TEMPLATE_INCONSISTENT);
    ASSERT_EQ(generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256)}, {attribute(CKA_SIGN, no)}, pair),
              CKR_OK);
    EXPECT_FALSE(flag(session, pair.privateKey, CKA_SIGN));
    EXPECT_TRUE(flag(session, pair.privateKey, CKA_DERIVE));
}

TEST_F(StrictObjectsTest, WhatTheTokenSaysItselfIsNotTaken)
{
    KeyPair pair;
    for (const CK_ATTRIBUTE_TYPE type : {CKA_LOCAL, CKA_ALWAYS_SENSITIVE, CKA_NEVER_EXTRACTABLE})
        EXPECT_EQ(
            generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256)}, {attribute(type, yes)}, pair),
            CKR_ATTRIBUTE_READ_ONLY);
    CK_MECHANISM_TYPE mechanism = CKM_ECDSA;
    EXPECT_EQ(generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256)},
                       {attribute(CKA_ALLOWED_MECHANISMS, mechanism)}, pair),
              CKR_ATTRIBUTE_VALUE_INVALID);
    EXPECT_EQ(pairsOnDevice(), 7U);
}

TEST_F(StrictObjectsTest, WhatTheDeviceDoesNotHoldAKeyToIsRefused)
{
    KeyPair pair;
    for (const CK_ATTRIBUTE_TYPE type : {CKA_ALWAYS_AUTHENTICATE, CKA_WRAP_WITH_TRUSTED})
        EXPECT_EQ(
            generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256)}, {attribute(type, yes)}, pair),
            CKR_TEMPLATE_INCONSISTENT);
    EXPECT_EQ(
        generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256), attribute(CKA_TRUSTED, yes)}, {}, pair),
        CKR_ATTRIBUTE_READ_ONLY);
    EXPECT_EQ(pairsOnDevice(), 7U);
    EXPECT_EQ(generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256), attribute(CKA_TRUSTED, no)},
                       {attribute(CKA_ALWAYS_AUTHENTICATE, no), attribute(CKA_WRAP_WITH_TRUSTED, no)}, pair),
              CKR_OK);
    ByteVector modulus(256, 0x99);
    ByteVector exponent{1, 0, 1};
    CK_OBJECT_HANDLE object = 0;
    EXPECT_EQ(create({attribute(CKA_CLASS, publicClass), attribute(CKA_KEY_TYPE, rsa), attribute(CKA_MODULUS, modulus),
                      attribute(CKA_PUBLIC_EXPONENT, exponent), attribute(CKA_TRUSTED, yes)},
                     object),
              CKR_ATTRIBUTE_READ_ONLY);
    EXPECT_EQ(
        create({attribute(CKA_CLASS, certificateClass), attribute(CKA_VALUE, modulus), attribute(CKA_TRUSTED, yes)},
               object),
        CKR_ATTRIBUTE_READ_ONLY);
}

TEST_F(StrictObjectsTest, ASessionPairGoesWithItsSession)
{
    const CK_SESSION_HANDLE other = open(slots()[0]);
    const KeyPair pair = generateP256(CK_FALSE);
    EXPECT_FALSE(flag(session, pair.privateKey, CKA_TOKEN));
    EXPECT_EQ(signWith(pair.privateKey), CKR_OK);
    EXPECT_EQ(find(other, {attribute(CKA_TOKEN, no)}).size(), 2U);
    EXPECT_EQ(pairsOnDevice(), 8U);
    EXPECT_EQ(p11.C_CloseSession(session), CKR_OK);
    EXPECT_EQ(pairsOnDevice(), 7U);
    EXPECT_EQ(ask(other, pair.privateKey, CKA_LABEL), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(device->triesLeft(FIRST_DEVICE), 10);
}

TEST_F(StrictObjectsTest, ASessionPairGoesWithItsLogin)
{
    generateP256(CK_FALSE);
    EXPECT_EQ(p11.C_Logout(session), CKR_OK);
    EXPECT_EQ(pairsOnDevice(), 7U);
}

TEST_F(StrictObjectsTest, ASessionPairGoesWithTheLastSessionAndAtTheEnd)
{
    generateP256(CK_FALSE);
    EXPECT_EQ(p11.C_CloseAllSessions(slots()[0]), CKR_OK);
    EXPECT_EQ(pairsOnDevice(), 7U);
    session = userSession();
    generateP256(CK_FALSE);
    EXPECT_EQ(p11.C_Finalize(nullptr), CKR_OK);
    start();
    EXPECT_EQ(pairsOnDevice(), 7U);
}

TEST_F(StrictObjectsTest, CopyingMakesASessionPairStay)
{
    const KeyPair pair = generateP256(CK_FALSE);
    std::string label = "kept";
    CK_OBJECT_HANDLE kept = 0;
    ASSERT_EQ(copy(pair.privateKey, {attribute(CKA_TOKEN, yes), attribute(CKA_LABEL, label)}, kept), CKR_OK);
    EXPECT_NE(kept, pair.privateKey);
    EXPECT_TRUE(flag(session, kept, CKA_TOKEN));
    EXPECT_EQ(
        find(session, {attribute(CKA_CLASS, privateClass), attribute(CKA_LABEL, label), attribute(CKA_TOKEN, yes)}),
        Handles{kept});
    // Destroying what the session had leaves the copy alone.
    EXPECT_EQ(p11.C_DestroyObject(session, pair.privateKey), CKR_OK);
    EXPECT_EQ(p11.C_DestroyObject(session, pair.publicKey), CKR_OK);
    EXPECT_EQ(signWith(kept), CKR_OK);
    const CK_SESSION_HANDLE other = open(slots()[0]);
    p11.C_CloseSession(session);
    session = other;
    EXPECT_EQ(signWith(kept), CKR_OK);
    EXPECT_EQ(pairsOnDevice(), 8U);
}

TEST_F(StrictObjectsTest, BothHalvesOfASessionPairAreCopiedInAnyOrder)
{
    for (const bool isPrivateFirst : {true, false}) {
        const std::size_t before = pairsOnDevice();
        const KeyPair pair = generateP256(CK_FALSE);
        const CK_OBJECT_HANDLE halves[] = {isPrivateFirst ? pair.privateKey : pair.publicKey,
                                           isPrivateFirst ? pair.publicKey : pair.privateKey};
        std::string label = isPrivateFirst ? "private first" : "public first";
        CK_OBJECT_HANDLE kept[2] = {};
        ASSERT_EQ(copy(halves[0], {attribute(CKA_TOKEN, yes)}, kept[0]), CKR_OK);
        ASSERT_EQ(copy(halves[1], {attribute(CKA_TOKEN, yes), attribute(CKA_LABEL, label)}, kept[1]), CKR_OK);
        EXPECT_TRUE(flag(session, kept[0], CKA_TOKEN));
        EXPECT_TRUE(flag(session, kept[1], CKA_TOKEN));
        EXPECT_EQ(
            find(session, {attribute(CKA_CLASS, privateClass), attribute(CKA_LABEL, label), attribute(CKA_TOKEN, yes)}),
            Handles{isPrivateFirst ? kept[0] : kept[1]});
        EXPECT_EQ(
            find(session, {attribute(CKA_CLASS, publicClass), attribute(CKA_LABEL, label), attribute(CKA_TOKEN, yes)}),
            Handles{isPrivateFirst ? kept[1] : kept[0]});
        for (const CK_OBJECT_HANDLE half : halves)
            EXPECT_EQ(copy(half, {attribute(CKA_TOKEN, yes)}, kept[0]), CKR_TEMPLATE_INCONSISTENT);
        const CK_SESSION_HANDLE other = open(slots()[0]);
        EXPECT_EQ(p11.C_CloseSession(session), CKR_OK);
        session = other;
        EXPECT_EQ(pairsOnDevice(), before + 1);
        EXPECT_EQ(signWith(findOne(session, CKO_PRIVATE_KEY, label)), CKR_OK);
    }
}

TEST_F(StrictObjectsTest, TheSecondHalfIsCopiedInASessionThatMayWrite)
{
    const KeyPair pair = generateP256(CK_FALSE);
    CK_OBJECT_HANDLE kept = 0;
    ASSERT_EQ(copy(pair.privateKey, {attribute(CKA_TOKEN, yes)}, kept), CKR_OK);
    CK_ATTRIBUTE onToken = attribute(CKA_TOKEN, yes);
    EXPECT_EQ(p11.C_CopyObject(open(slots()[0], READ_ONLY), pair.publicKey, &onToken, 1, &kept), CKR_SESSION_READ_ONLY);
    EXPECT_EQ(copy(pair.publicKey, {onToken}, kept), CKR_OK);
}

TEST_F(StrictObjectsTest, CopiesForTheSessionHaveNamesOfTheirOwn)
{
    const CK_OBJECT_HANDLE key = privateKey(session, 5);
    std::string label = "alias";
    CK_OBJECT_HANDLE alias = 0;
    ASSERT_EQ(copy(key, {attribute(CKA_TOKEN, no), attribute(CKA_LABEL, label)}, alias), CKR_OK);
    EXPECT_EQ(signWith(alias), CKR_OK);
    EXPECT_EQ(value(session, alias, CKA_LABEL), ByteVector(label.begin(), label.end()));
    EXPECT_EQ(value(session, alias, CKA_ID), ByteVector{5});
    EXPECT_EQ(findOne(session, CKO_PRIVATE_KEY, label), alias);
    EXPECT_EQ(p11.C_DestroyObject(session, alias), CKR_OK);
    EXPECT_EQ(signWith(key), CKR_OK);
}

TEST_F(StrictObjectsTest, ATokenObjectCannotBeThereTwice)
{
    std::string label = "twin";
    CK_OBJECT_HANDLE twin = 0;
    EXPECT_EQ(copy(privateKey(session, 5), {attribute(CKA_LABEL, label)}, twin), CKR_TEMPLATE_INCONSISTENT);
    EXPECT_EQ(copy(privateKey(session, 5), {attribute(CKA_TOKEN, no), attribute(CKA_SIGN, no)}, twin),
              CKR_ATTRIBUTE_READ_ONLY);
    EXPECT_EQ(copy(9999, {}, twin), CKR_OBJECT_HANDLE_INVALID);
}

TEST_F(StrictObjectsTest, ACopyMayBePrivateWhereTheFrontKeepsIt)
{
    std::string label = "note";
    CK_OBJECT_HANDLE object = 0;
    CK_OBJECT_HANDLE hidden = 0;
    ASSERT_EQ(create({attribute(CKA_CLASS, dataClass), attribute(CKA_LABEL, label)}, object), CKR_OK);
    ASSERT_EQ(copy(object, {attribute(CKA_PRIVATE, yes)}, hidden), CKR_OK);
    EXPECT_TRUE(flag(session, hidden, CKA_PRIVATE));
    EXPECT_EQ(copy(publicKey(session, 5), {attribute(CKA_TOKEN, no), attribute(CKA_PRIVATE, yes)}, hidden),
              CKR_ATTRIBUTE_READ_ONLY);
    EXPECT_EQ(p11.C_Logout(session), CKR_OK);
    EXPECT_EQ(find(session, {attribute(CKA_LABEL, label)}), Handles{object});
    EXPECT_EQ(copy(object, {attribute(CKA_PRIVATE, yes)}, hidden), CKR_USER_NOT_LOGGED_IN);
}

TEST_F(StrictObjectsTest, ModifiableAndCopyableAreHonoured)
{
    CK_OBJECT_HANDLE object = 0;
    CK_OBJECT_HANDLE twin = 0;
    std::string label = "note";
    ASSERT_EQ(create({attribute(CKA_CLASS, dataClass), attribute(CKA_LABEL, label), attribute(CKA_MODIFIABLE, no),
                      attribute(COPYABLE, no)},
                     object),
              CKR_OK);
    CK_ATTRIBUTE entry = attribute(CKA_LABEL, label);
    EXPECT_EQ(p11.C_SetAttributeValue(session, object, &entry, 1), CKR_ATTRIBUTE_READ_ONLY);
    EXPECT_EQ(copy(object, {}, twin), ACTION_PROHIBITED);
}

TEST_F(StrictObjectsTest, ModifiableAndCopyableOfTokenObjectsAreHonoured)
{
    const auto expectTiedDown = [&](CK_OBJECT_HANDLE object) {
        std::string label = "other";
        CK_ATTRIBUTE entry = attribute(CKA_LABEL, label);
        CK_OBJECT_HANDLE twin = 0;
        EXPECT_FALSE(flag(session, object, CKA_MODIFIABLE));
        EXPECT_FALSE(flag(session, object, COPYABLE));
        EXPECT_EQ(p11.C_SetAttributeValue(session, object, &entry, 1), CKR_ATTRIBUTE_READ_ONLY);
        EXPECT_EQ(copy(object, {attribute(CKA_TOKEN, no)}, twin), ACTION_PROHIBITED);
    };
    KeyPair pair;
    ASSERT_EQ(generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256)},
                       {attribute(CKA_TOKEN, yes), attribute(CKA_MODIFIABLE, no), attribute(COPYABLE, no)}, pair),
              CKR_OK);
    expectTiedDown(pair.privateKey);
    EXPECT_TRUE(flag(session, pair.publicKey, CKA_MODIFIABLE));

    ByteVector der{0x30, 0x03, 0x02, 0x01, 79};
    device->detailsOf(der).subjectCommonName = "Fresh";
    CK_OBJECT_HANDLE object = 0;
    ASSERT_EQ(create({attribute(CKA_CLASS, certificateClass), attribute(CKA_TOKEN, yes), attribute(CKA_VALUE, der),
                      attribute(COPYABLE, no)},
                     object),
              CKR_OK);
    expectTiedDown(object);

    ByteVector point = value(session, publicKey(session, 5), CKA_EC_POINT);
    std::string label = "named";
    ASSERT_EQ(create({attribute(CKA_CLASS, publicClass), attribute(CKA_KEY_TYPE, ec), attribute(CKA_EC_POINT, point),
                      attribute(CKA_EC_PARAMS, p256), attribute(CKA_TOKEN, yes), attribute(CKA_LABEL, label),
                      attribute(CKA_MODIFIABLE, no), attribute(COPYABLE, no)},
                     object),
              CKR_OK);
    EXPECT_EQ(findOne(session, CKO_PUBLIC_KEY, label), object);
    expectTiedDown(object);

    pair = generateP256(CK_FALSE);
    for (const CK_OBJECT_HANDLE half : {pair.privateKey, pair.publicKey}) {
        ASSERT_EQ(
            copy(half, {attribute(CKA_TOKEN, yes), attribute(CKA_MODIFIABLE, no), attribute(COPYABLE, no)}, object),
            CKR_OK);
        expectTiedDown(object);
    }
}

TEST_F(StrictObjectsTest, DestroyingAPublicHalfHidesIt)
{
    const CK_OBJECT_HANDLE pub = publicKey(session, 5);
    const CK_OBJECT_HANDLE priv = privateKey(session, 5);
    EXPECT_EQ(p11.C_DestroyObject(session, pub), CKR_OK);
    EXPECT_EQ(ask(session, pub, CKA_LABEL), CKR_OBJECT_HANDLE_INVALID);
    std::string label = "pair 5";
    EXPECT_TRUE(find(session, {attribute(CKA_CLASS, publicClass), attribute(CKA_LABEL, label)}).empty());
    EXPECT_EQ(p11.C_DestroyObject(session, pub), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(signWith(priv), CKR_OK);
    EXPECT_EQ(pairsOnDevice(), 7U);
}

TEST_F(StrictObjectsTest, APublicHalfIsDestroyedOnceAfterItsPrivateHalf)
{
    const CK_OBJECT_HANDLE pub = publicKey(session, 5);
    const CK_OBJECT_HANDLE priv = privateKey(session, 5);
    EXPECT_EQ(p11.C_DestroyObject(session, priv), CKR_OK);
    EXPECT_EQ(pairsOnDevice(), 6U);
    EXPECT_EQ(p11.C_DestroyObject(session, priv), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(p11.C_DestroyObject(session, pub), CKR_OK);
    EXPECT_EQ(p11.C_DestroyObject(session, pub), CKR_OBJECT_HANDLE_INVALID);
}

TEST_F(StrictObjectsTest, ANumberThatIsUsedAgainGetsNewHandles)
{
    const KeyPair old = generateP256(CK_TRUE);
    ASSERT_EQ(p11.C_DestroyObject(session, old.privateKey), CKR_OK);
    const KeyPair fresh = generateP256(CK_TRUE);
    EXPECT_NE(fresh.privateKey, old.privateKey);
    EXPECT_EQ(signWith(old.privateKey), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(signWith(fresh.privateKey), CKR_OK);
}

TEST_F(StrictObjectsTest, DestroyingNeedsTheRightSession)
{
    const CK_OBJECT_HANDLE certificate = findOne(session, CKO_CERTIFICATE, "certificate 1");
    const CK_SESSION_HANDLE readOnly = open(slots()[0], READ_ONLY);
    EXPECT_EQ(p11.C_DestroyObject(readOnly, certificate), CKR_SESSION_READ_ONLY);
    const CK_SESSION_HANDLE other = open(slots()[1]);
    EXPECT_EQ(p11.C_DestroyObject(other, certificate), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(p11.C_DestroyObject(session, certificate), CKR_OK);
    EXPECT_EQ(ask(session, certificate, CKA_VALUE), CKR_OBJECT_HANDLE_INVALID);
}

TEST_F(StrictObjectsTest, CertificatesAreStored)
{
    ByteVector der{0x30, 0x03, 0x02, 0x01, 77};
    device->detailsOf(der).subjectCommonName = "Fresh";
    std::string label = "stored";
    ByteVector id{3, 3};
    CK_OBJECT_HANDLE object = 0;
    ASSERT_EQ(create({attribute(CKA_CLASS, certificateClass), attribute(CKA_TOKEN, yes), attribute(CKA_VALUE, der),
                      attribute(CKA_LABEL, label), attribute(CKA_ID, id)},
                     object),
              CKR_OK);
    EXPECT_EQ(value(session, object, CKA_VALUE), der);
    EXPECT_EQ(findOne(session, CKO_CERTIFICATE, label), object);
    EXPECT_EQ(create({attribute(CKA_CLASS, certificateClass), attribute(CKA_TOKEN, yes)}, object),
              CKR_TEMPLATE_INCOMPLETE);
    ByteVector noDer{1, 2, 3};
    EXPECT_EQ(create({attribute(CKA_CLASS, certificateClass), attribute(CKA_TOKEN, yes), attribute(CKA_VALUE, noDer)},
                     object),
              CKR_ATTRIBUTE_VALUE_INVALID);
}

TEST_F(StrictObjectsTest, ACertificateOfTheSessionStaysInTheFront)
{
    ByteVector der{0x30, 0x03, 0x02, 0x01, 78};
    ByteVector subject{0x30, 0x00};
    CK_OBJECT_HANDLE object = 0;
    ASSERT_EQ(
        create({attribute(CKA_CLASS, certificateClass), attribute(CKA_VALUE, der), attribute(CKA_SUBJECT, subject)},
               object),
        CKR_OK);
    EXPECT_EQ(value(session, object, CKA_SUBJECT), subject);
    EXPECT_EQ(find(session, {attribute(CKA_CLASS, certificateClass), attribute(CKA_VALUE, der)}), Handles{object});
    EXPECT_EQ(device->devices[FIRST_DEVICE].certificates.size(), 3U);
}

TEST_F(StrictObjectsTest, ACopyOfACertificateOutlivesIt)
{
    const CK_OBJECT_HANDLE certificate = findOne(session, CKO_CERTIFICATE, "certificate 1");
    const ByteVector der = value(session, certificate, CKA_VALUE);
    CK_OBJECT_HANDLE kept = 0;
    ASSERT_EQ(copy(certificate, {attribute(CKA_TOKEN, no)}, kept), CKR_OK);
    ASSERT_EQ(p11.C_DestroyObject(session, certificate), CKR_OK);
    EXPECT_EQ(value(session, kept, CKA_VALUE), der);
    EXPECT_EQ(findOne(session, CKO_CERTIFICATE, "certificate 1"), kept);
    EXPECT_EQ(p11.C_DestroyObject(session, kept), CKR_OK);
}

TEST_F(StrictObjectsTest, APublicKeyOfAPairVerifies)
{
    ByteVector modulus = value(session, publicKey(session, 2), CKA_MODULUS);
    ByteVector exponent{1, 0, 1};
    CK_OBJECT_HANDLE object = 0;
    ASSERT_EQ(create({attribute(CKA_CLASS, publicClass), attribute(CKA_KEY_TYPE, rsa), attribute(CKA_MODULUS, modulus),
                      attribute(CKA_PUBLIC_EXPONENT, exponent)},
                     object),
              CKR_OK);
    EXPECT_TRUE(flag(session, object, CKA_VERIFY));
    ByteVector signature;
    ASSERT_EQ(sign(session, {CKM_SHA256_RSA_PKCS, nullptr, 0}, privateKey(session, 2), ByteVector(9), signature),
              CKR_OK);
    EXPECT_EQ(verify(session, {CKM_SHA256_RSA_PKCS, nullptr, 0}, object, ByteVector(9), signature), CKR_OK);
    ByteVector point = value(session, publicKey(session, 5), CKA_EC_POINT);
    ASSERT_EQ(create({attribute(CKA_CLASS, publicClass), attribute(CKA_KEY_TYPE, ec), attribute(CKA_EC_POINT, point),
                      attribute(CKA_EC_PARAMS, p256)},
                     object),
              CKR_OK);
    ASSERT_EQ(sign(session, {CKM_ECDSA, nullptr, 0}, privateKey(session, 5), ByteVector(32), signature), CKR_OK);
    EXPECT_EQ(verify(session, {CKM_ECDSA, nullptr, 0}, object, ByteVector(32), signature), CKR_OK);
}

TEST_F(StrictObjectsTest, APublicKeyThatIsOnNoTokenCanBeReadButNotUsed)
{
    ByteVector modulus(256, 0x99);
    ByteVector exponent{1, 0, 1};
    CK_OBJECT_HANDLE object = 0;
    const std::vector<CK_ATTRIBUTE> key = {attribute(CKA_CLASS, publicClass), attribute(CKA_KEY_TYPE, rsa),
                                           attribute(CKA_MODULUS, modulus), attribute(CKA_PUBLIC_EXPONENT, exponent)};
    ASSERT_EQ(create(key, object), CKR_OK);
    EXPECT_EQ(value(session, object, CKA_MODULUS), modulus);
    EXPECT_EQ(number(session, object, CKA_MODULUS_BITS), 2048U);
    EXPECT_FALSE(flag(session, object, CKA_VERIFY));
    EXPECT_EQ(verify(session, {CKM_SHA256_RSA_PKCS, nullptr, 0}, object, ByteVector(9), ByteVector(256)),
              CKR_KEY_FUNCTION_NOT_PERMITTED);
    EXPECT_TRUE(isLogged("C_VerifyInit: the pair of this public key is not on the token"));
    std::vector<CK_ATTRIBUTE> onToken = key;
    onToken.push_back(attribute(CKA_TOKEN, yes));
    EXPECT_EQ(create(onToken, object), CKR_ATTRIBUTE_VALUE_INVALID);
}

TEST_F(StrictObjectsTest, DataObjectsLiveInTheirSession)
{
    std::string label = "note";
    std::string application = "test";
    ByteVector content{1, 2, 3};
    CK_OBJECT_HANDLE object = 0;
    ASSERT_EQ(create({attribute(CKA_CLASS, dataClass), attribute(CKA_LABEL, label),
                      attribute(CKA_APPLICATION, application), attribute(CKA_VALUE, content)},
                     object),
              CKR_OK);
    EXPECT_EQ(value(session, object, CKA_VALUE), content);
    EXPECT_EQ(find(session, {attribute(CKA_APPLICATION, application)}), Handles{object});
    label = "other";
    CK_ATTRIBUTE entry = attribute(CKA_LABEL, label);
    EXPECT_EQ(p11.C_SetAttributeValue(session, object, &entry, 1), CKR_OK);
    EXPECT_EQ(findOne(session, CKO_DATA, label), object);
    const CK_SESSION_HANDLE other = open(slots()[0]);
    p11.C_CloseSession(session);
    EXPECT_EQ(ask(other, object, CKA_VALUE), CKR_OBJECT_HANDLE_INVALID);
    session = other;
    EXPECT_EQ(create({attribute(CKA_CLASS, dataClass), attribute(CKA_TOKEN, yes)}, object),
              CKR_ATTRIBUTE_VALUE_INVALID);
}

TEST_F(StrictObjectsTest, WhatCannotBeCreatedIsRefused)
{
    CK_OBJECT_HANDLE object = 0;
    CK_OBJECT_CLASS secret = CKO_SECRET_KEY;
    ByteVector some{1};
    EXPECT_EQ(create({}, object), CKR_TEMPLATE_INCOMPLETE);
    EXPECT_EQ(create({attribute(CKA_CLASS, secret)}, object), CKR_ATTRIBUTE_VALUE_INVALID);
    EXPECT_EQ(create({attribute(CKA_CLASS, privateClass), attribute(CKA_KEY_TYPE, ec)}, object),
              CKR_ATTRIBUTE_VALUE_INVALID);
    EXPECT_EQ(create({attribute(CKA_CLASS, privateClass), attribute(CKA_KEY_TYPE, rsa)}, object),
              CKR_TEMPLATE_INCOMPLETE);
    ByteVector small(128, 0xC1);
    EXPECT_EQ(create({attribute(CKA_CLASS, privateClass), attribute(CKA_KEY_TYPE, rsa), attribute(CKA_MODULUS, small),
                      attribute(CKA_PRIVATE_EXPONENT, some), attribute(CKA_PRIME_1, some)},
                     object),
              CKR_ATTRIBUTE_VALUE_INVALID);
    EXPECT_EQ(create({attribute(CKA_CLASS, dataClass), attribute(CKA_MODULUS, some)}, object),
              CKR_ATTRIBUTE_TYPE_INVALID);
    EXPECT_EQ(p11.C_CreateObject(session, nullptr, 1, &object), CKR_ARGUMENTS_BAD);
}

TEST_F(StrictObjectsTest, DerivedKeysAreSessionObjectsOfTheirTemplate)
{
    ByteVector point(65, 0x31);
    point[0] = 0x04;
    std::string label = "secret";
    CK_ULONG length = 16;
    CK_ECDH1_DERIVE_PARAMS parameter{CKD_NULL, 0, nullptr, 65, point.data()};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
    CK_ATTRIBUTE entries[] = {attribute(CKA_LABEL, label), attribute(CKA_VALUE_LEN, length)};
    CK_OBJECT_HANDLE secret = 0;
    ASSERT_EQ(p11.C_DeriveKey(session, &mechanism, privateKey(session, 5), entries, 2, &secret), CKR_OK);
    EXPECT_EQ(value(session, secret, CKA_VALUE), ByteVector(16, 0x31));
    EXPECT_EQ(number(session, secret, CKA_VALUE_LEN), 16U);
    EXPECT_EQ(number(session, secret, CKA_CLASS), CKO_SECRET_KEY);
    EXPECT_FALSE(flag(session, secret, CKA_LOCAL));
    EXPECT_EQ(number(session, secret, CKA_KEY_GEN_MECHANISM), CK_UNAVAILABLE_INFORMATION);
    EXPECT_FALSE(flag(session, secret, CKA_ALWAYS_SENSITIVE));
    EXPECT_FALSE(flag(session, secret, CKA_NEVER_EXTRACTABLE));
    EXPECT_EQ(findOne(session, CKO_SECRET_KEY, label), secret);
    EXPECT_EQ(p11.C_DestroyObject(session, secret), CKR_OK);
    EXPECT_EQ(ask(session, secret, CKA_VALUE), CKR_OBJECT_HANDLE_INVALID);
    length = 99;
    EXPECT_EQ(p11.C_DeriveKey(session, &mechanism, privateKey(session, 5), entries, 2, &secret),
              CKR_ATTRIBUTE_VALUE_INVALID);
}

TEST_F(StrictObjectsTest, APeersPointMayBeBareOrInDer)
{
    ByteVector der{0x04, 0x41, 0x04};
    der.resize(67, 0x31);
    CK_ECDH1_DERIVE_PARAMS parameter{CKD_NULL, 0, nullptr, 67, der.data()};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
    CK_OBJECT_HANDLE secret = 0;
    ASSERT_EQ(p11.C_DeriveKey(session, &mechanism, privateKey(session, 5), nullptr, 0, &secret), CKR_OK);
    EXPECT_EQ(value(session, secret, CKA_VALUE), ByteVector(64, 0x31));
}

TEST_F(StrictObjectsTest, APointThatLooksLikeDerIsBareAllTheSame)
{
    ByteVector point(65, 0x31);
    point[0] = 0x04; // An octet string
    point[1] = 0x3F; // of the 63 bytes that follow.
    CK_ECDH1_DERIVE_PARAMS parameter{CKD_NULL, 0, nullptr, 65, point.data()};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
    CK_OBJECT_HANDLE secret = 0;
    EXPECT_EQ(p11.C_DeriveKey(session, &mechanism, privateKey(session, 5), nullptr, 0, &secret), CKR_OK);
    CK_OBJECT_HANDLE object = 0;
    ASSERT_EQ(create({attribute(CKA_CLASS, publicClass), attribute(CKA_KEY_TYPE, ec), attribute(CKA_EC_POINT, point),
                      attribute(CKA_EC_PARAMS, p256)},
                     object),
              CKR_OK);
    EXPECT_EQ(value(session, object, CKA_EC_POINT).size(), 67U);
}

TEST_F(StrictObjectsTest, ASensitiveSecretIsNotShown)
{
    ByteVector point(65, 0x31);
    point[0] = 0x04;
    CK_ECDH1_DERIVE_PARAMS parameter{CKD_NULL, 0, nullptr, 65, point.data()};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
    CK_ATTRIBUTE entries[] = {attribute(CKA_SENSITIVE, yes), attribute(CKA_EXTRACTABLE, no)};
    CK_OBJECT_HANDLE secret = 0;
    ASSERT_EQ(p11.C_DeriveKey(session, &mechanism, privateKey(session, 5), entries, 2, &secret), CKR_OK);
    EXPECT_EQ(ask(session, secret, CKA_VALUE), CKR_ATTRIBUTE_SENSITIVE);
    EXPECT_TRUE(flag(session, secret, CKA_ALWAYS_SENSITIVE));
    EXPECT_TRUE(flag(session, secret, CKA_NEVER_EXTRACTABLE));
}

TEST_F(StrictObjectsTest, WhatTheDeviceWouldDeriveOtherwiseIsRefused)
{
    ByteVector point(65, 0x31);
    point[0] = 0x04;
    CK_ECDH1_DERIVE_PARAMS parameter{CKD_SHA256_KDF, 0, nullptr, 65, point.data()};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
    CK_OBJECT_HANDLE secret = 0;
    const auto derive = [&](CK_OBJECT_HANDLE base) {
        return p11.C_DeriveKey(session, &mechanism, base, nullptr, 0, &secret);
    };
    const CK_OBJECT_HANDLE base = privateKey(session, 5);
    EXPECT_EQ(derive(base), CKR_MECHANISM_PARAM_INVALID);
    parameter = {CKD_NULL, 1, point.data(), 65, point.data()};
    EXPECT_EQ(derive(base), CKR_MECHANISM_PARAM_INVALID);
    parameter = {CKD_NULL, 0, nullptr, 64, point.data()};
    EXPECT_EQ(derive(base), CKR_MECHANISM_PARAM_INVALID);
    parameter = {CKD_NULL, 0, nullptr, 65, point.data()};
    EXPECT_EQ(derive(privateKey(session, 2)), CKR_KEY_TYPE_INCONSISTENT);
    EXPECT_EQ(derive(publicKey(session, 5)), CKR_KEY_TYPE_INCONSISTENT);
    EXPECT_EQ(derive(9999), CKR_KEY_HANDLE_INVALID);
    mechanism.ulParameterLen = 3;
    EXPECT_EQ(derive(base), CKR_MECHANISM_PARAM_INVALID);
    mechanism = {CKM_ECDSA, nullptr, 0};
    EXPECT_EQ(derive(base), CKR_MECHANISM_INVALID);
}

} // namespace
