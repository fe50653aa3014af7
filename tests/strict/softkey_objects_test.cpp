// Objects of the strict front over the software key: made, read, changed, found and destroyed; and what is refused.
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "softkey_fixture.h"
#include "template_values.h"

namespace
{

using Handles = std::vector<CK_OBJECT_HANDLE>;

template <typename Value>
CK_ATTRIBUTE attributeOf(CK_ATTRIBUTE_TYPE type, Value& value)
{
    return {type, &value, static_cast<CK_ULONG>(sizeof value)};
}

CK_ATTRIBUTE attributeOf(CK_ATTRIBUTE_TYPE type, ByteVector& value)
{
    return {type, value.data(), sizeOf(value)};
}

CK_ATTRIBUTE attributeOf(CK_ATTRIBUTE_TYPE type, std::string& value)
{
    return {type, value.data(), static_cast<CK_ULONG>(value.size())};
}

ByteVector bytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

class StrictSoftkeyObjectsTest : public StrictSoftkeyTest, protected TemplateValues
{
protected:
    CK_RV create(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE> entries, CK_OBJECT_HANDLE& object) const
    {
        return p11().C_CreateObject(session, entries.data(), static_cast<CK_ULONG>(entries.size()), &object);
    }

    CK_RV ask(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const
    {
        CK_ATTRIBUTE entry = {type, nullptr, 0};
        return p11().C_GetAttributeValue(session, object, &entry, 1);
    }

    CK_RV signInit(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key) const
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        return p11().C_SignInit(session, &mechanism, key);
    }

    /// A self-signed certificate of a fresh key, in DER.
    ByteVector makeCertificate(const std::string& subject) const
    {
        const std::string base = (world() / "certificate").string();
        const std::string command = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " +
                                    base + ".key -outform DER -out " + base + ".der -subj " + subject + " -days 30 2>" +
                                    NULL_DEVICE;
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
        std::ifstream stream(base + ".der", std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
};

TEST_F(StrictSoftkeyObjectsTest, AGeneratedPairHasWhatBothTemplatesSay)
{
    const CK_SESSION_HANDLE session = userSession();
    std::string label = "of public";
    ByteVector id{7, 7};
    CK_ATTRIBUTE ofPublic[] = {attributeOf(CKA_MODULUS_BITS, bits), attributeOf(CKA_LABEL, label)};
    CK_ATTRIBUTE ofPrivate[] = {attributeOf(CKA_TOKEN, yes), attributeOf(CKA_ID, id), attributeOf(CKA_DECRYPT, no)};
    CK_MECHANISM mechanism = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    KeyPair pair;
    ASSERT_EQ(
        p11().C_GenerateKeyPair(session, &mechanism, ofPublic, 2, ofPrivate, 3, &pair.publicKey, &pair.privateKey),
        CKR_OK);
    EXPECT_EQ(value(session, pair.privateKey, CKA_LABEL), bytesOf(label));
    EXPECT_EQ(value(session, pair.publicKey, CKA_ID), id);
    EXPECT_EQ(value(session, pair.publicKey, CKA_MODULUS).size(), 256U);
    EXPECT_EQ(value(session, pair.publicKey, CKA_PUBLIC_EXPONENT), (ByteVector{1, 0, 1}));
    EXPECT_EQ(value(session, pair.privateKey, CKA_SIGN), ByteVector{CK_TRUE});
    EXPECT_EQ(value(session, pair.privateKey, CKA_DECRYPT), ByteVector{CK_FALSE});
    EXPECT_EQ(value(session, pair.publicKey, CKA_ENCRYPT), ByteVector{CK_FALSE});
    EXPECT_EQ(ask(session, pair.privateKey, CKA_PRIVATE_EXPONENT), CKR_ATTRIBUTE_SENSITIVE);
    EXPECT_EQ(ask(session, pair.privateKey, CKA_EC_PARAMS), CKR_ATTRIBUTE_TYPE_INVALID);
    CK_MECHANISM cipher = {CKM_RSA_PKCS, nullptr, 0};
    EXPECT_EQ(p11().C_EncryptInit(session, &cipher, pair.publicKey), CKR_KEY_FUNCTION_NOT_PERMITTED);
    EXPECT_EQ(find(session, {attributeOf(CKA_CLASS, privateClass), attributeOf(CKA_LABEL, label)}),
              Handles{pair.privateKey});
}

TEST_F(StrictSoftkeyObjectsTest, SignsAndDecryptsInParts)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair pair = generateRsa(session);
    ByteVector data(100, 0x42);
    const ByteVector whole = sign(session, {CKM_SHA256_RSA_PKCS, nullptr, 0}, pair.privateKey, data);
    ASSERT_EQ(signInit(session, CKM_SHA256_RSA_PKCS, pair.privateKey), CKR_OK);
    ASSERT_EQ(p11().C_SignUpdate(session, data.data(), 99), CKR_OK);
    ASSERT_EQ(p11().C_SignUpdate(session, data.data() + 99, 1), CKR_OK);
    const GuardedBuffer signature(256);
    CK_ULONG length = 255;
    EXPECT_EQ(p11().C_SignFinal(session, signature.data(), &length), CKR_BUFFER_TOO_SMALL);
    ASSERT_EQ(p11().C_SignFinal(session, signature.data(), &length), CKR_OK);
    EXPECT_EQ(ByteVector(signature.data(), signature.data() + length), whole);

    CK_MECHANISM cipher = {CKM_RSA_PKCS, nullptr, 0};
    ByteVector encrypted(256);
    length = 256;
    ASSERT_EQ(p11().C_EncryptInit(session, &cipher, pair.publicKey), CKR_OK);
    ASSERT_EQ(p11().C_EncryptUpdate(session, data.data(), 60, encrypted.data(), &length), CKR_OK);
    length = 256;
    ASSERT_EQ(p11().C_EncryptUpdate(session, data.data() + 60, 40, encrypted.data(), &length), CKR_OK);
    length = 256;
    ASSERT_EQ(p11().C_EncryptFinal(session, encrypted.data(), &length), CKR_OK);
    ASSERT_EQ(p11().C_DecryptInit(session, &cipher, pair.privateKey), CKR_OK);
    const GuardedBuffer text(100);
    for (const CK_ULONG begin : {CK_ULONG{0}, CK_ULONG{128}}) {
        length = 100;
        ASSERT_EQ(p11().C_DecryptUpdate(session, encrypted.data() + begin, 128, text.data(), &length), CKR_OK);
        EXPECT_EQ(length, 0U);
    }
    length = 99;
    EXPECT_EQ(p11().C_DecryptFinal(session, text.data(), &length), CKR_BUFFER_TOO_SMALL);
    ASSERT_EQ(length, 100U);
    ASSERT_EQ(p11().C_DecryptFinal(session, text.data(), &length), CKR_OK);
    EXPECT_EQ(ByteVector(text.data(), text.data() + length), data);
}

TEST_F(StrictSoftkeyObjectsTest, EveryCurveSignsAndDerivesFromBothFormsOfAPoint)
{
    const CK_SESSION_HANDLE session = userSession();
    const std::pair<ByteVector*, std::size_t> curves[] = {{&p256, 32}, {&p384, 48}, {&p521, 66}};
    for (const auto& [curve, size] : curves) {
        const KeyPair one = generate(session, CKM_EC_KEY_PAIR_GEN, attributeOf(CKA_EC_PARAMS, *curve), CK_FALSE);
        const KeyPair other = generate(session, CKM_EC_KEY_PAIR_GEN, attributeOf(CKA_EC_PARAMS, *curve), CK_FALSE);
        expectSignatures({CKM_ECDSA_SHA512, nullptr, 0}, session, one);
        const auto derive = [&](CK_OBJECT_HANDLE base, ByteVector point, CK_ULONG wanted) {
            CK_ECDH1_DERIVE_PARAMS parameter{CKD_NULL, 0, nullptr, sizeOf(point), point.data()};
            CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
            CK_ATTRIBUTE entry = attributeOf(CKA_VALUE_LEN, wanted);
            CK_OBJECT_HANDLE secret = 0;
            EXPECT_EQ(p11().C_DeriveKey(session, &mechanism, base, &entry, 1, &secret), CKR_OK);
            return value(session, secret, CKA_VALUE);
        };
        const auto whole = static_cast<CK_ULONG>(size);
        const ByteVector inDer = value(session, other.publicKey, CKA_EC_POINT);
        const ByteVector secret = derive(one.privateKey, inDer, whole);
        EXPECT_EQ(secret.size(), size);
        const ByteVector bare(inDer.end() - static_cast<std::ptrdiff_t>(2 * size + 1), inDer.end());
        EXPECT_EQ(derive(one.privateKey, bare, whole), secret);
        EXPECT_EQ(derive(other.privateKey, value(session, one.publicKey, CKA_EC_POINT), 16),
                  ByteVector(secret.begin(), secret.begin() + 16));
    }
}

TEST_F(StrictSoftkeyObjectsTest, AChangedPinIsUsedOnItsTokenAlone)
{
    const CK_SESSION_HANDLE session = userSession(0);
    const CK_SESSION_HANDLE other = userSession(1);
    const KeyPair key = generateEc(session);
    const KeyPair otherKey = generateEc(other);
    const int before = refusedPins();
    ASSERT_EQ(setPin(session, "first-pin", "changed-pin"), CKR_OK);
    for (int round = 0; round < 2; ++round) {
        sign(session, {CKM_ECDSA_SHA256, nullptr, 0}, key.privateKey, ByteVector(9));
        sign(other, {CKM_ECDSA_SHA256, nullptr, 0}, otherKey.privateKey, ByteVector(9));
    }
    ASSERT_EQ(p11().C_Logout(session), CKR_OK);
    EXPECT_EQ(login(session, "changed-pin"), CKR_OK);
    EXPECT_EQ(refusedPins(), before);
    EXPECT_EQ(setPin(session, "changed-pin", "short"), CKR_OK);
    EXPECT_EQ(setPin(session, "short", "no"), CKR_PIN_LEN_RANGE);
    CK_SESSION_HANDLE readOnly = 0;
    ASSERT_EQ(p11().C_OpenSession(slot(0), CKF_SERIAL_SESSION, nullptr, nullptr, &readOnly), CKR_OK);
    EXPECT_EQ(setPin(readOnly, "short", "first-pin"), CKR_SESSION_READ_ONLY);
}

TEST_F(StrictSoftkeyObjectsTest, ANewLoginHasNewHandlesOfPrivateObjects)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair old = generateEc(session);
    std::string label = "hidden";
    CK_OBJECT_HANDLE note = 0;
    ASSERT_EQ(create(session,
                     {attributeOf(CKA_CLASS, dataClass), attributeOf(CKA_LABEL, label), attributeOf(CKA_PRIVATE, yes)},
                     note),
              CKR_OK);
    ASSERT_EQ(p11().C_Logout(session), CKR_OK);
    EXPECT_EQ(signInit(session, CKM_ECDSA, old.privateKey), CKR_USER_NOT_LOGGED_IN);
    EXPECT_TRUE(find(session, {attributeOf(CKA_CLASS, privateClass)}).empty());
    EXPECT_EQ(find(session, {attributeOf(CKA_CLASS, publicClass)}), Handles{old.publicKey});
    ASSERT_EQ(login(session, "first-pin"), CKR_OK);
    EXPECT_EQ(signInit(session, CKM_ECDSA, old.privateKey), CKR_KEY_HANDLE_INVALID);
    EXPECT_TRUE(find(session, {attributeOf(CKA_LABEL, label)}).empty());
    const Handles found = find(session, {attributeOf(CKA_CLASS, privateClass)});
    ASSERT_EQ(found.size(), 1U);
    sign(session, {CKM_ECDSA_SHA256, nullptr, 0}, found.front(), ByteVector(9));
}

TEST_F(StrictSoftkeyObjectsTest, CertificatesComeAndGo)
{
    REQUIRE_OPENSSL_PROGRAM();
    const CK_SESSION_HANDLE session = userSession();
    ByteVector der = makeCertificate("/CN=Stored");
    std::string label = "stored";
    ByteVector id{3, 3};
    CK_OBJECT_HANDLE stored = 0;
    ASSERT_EQ(create(session,
                     {attributeOf(CKA_CLASS, certificateClass), attributeOf(CKA_TOKEN, yes),
                      attributeOf(CKA_VALUE, der), attributeOf(CKA_LABEL, label), attributeOf(CKA_ID, id)},
                     stored),
              CKR_OK);
    EXPECT_EQ(value(session, stored, CKA_VALUE), der);
    ByteVector subject = value(session, stored, CKA_SUBJECT);
    EXPECT_EQ(value(session, stored, CKA_ISSUER), subject);
    EXPECT_EQ(value(session, stored, CKA_SERIAL_NUMBER).front(), 0x02);
    EXPECT_EQ(find(session, {attributeOf(CKA_SUBJECT, subject)}), Handles{stored});
    EXPECT_EQ(find(session, {attributeOf(CKA_ID, id), attributeOf(CKA_LABEL, label)}), Handles{stored});
    CK_ATTRIBUTE entry = attributeOf(CKA_LABEL, label);
    EXPECT_EQ(p11().C_SetAttributeValue(session, stored, &entry, 1), CKR_ATTRIBUTE_READ_ONLY);
    CK_OBJECT_HANDLE copy = 0;
    CK_ATTRIBUTE ofSession = attributeOf(CKA_TOKEN, no);
    ASSERT_EQ(p11().C_CopyObject(session, stored, &ofSession, 1, &copy), CKR_OK);
    EXPECT_EQ(value(session, copy, CKA_VALUE), der);
    EXPECT_EQ(p11().C_DestroyObject(session, stored), CKR_OK);
    EXPECT_EQ(ask(session, stored, CKA_VALUE), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(value(session, copy, CKA_VALUE), der);
    EXPECT_EQ(find(session, {attributeOf(CKA_SUBJECT, subject)}), Handles{copy});
    ByteVector noDer{1, 2, 3};
    EXPECT_EQ(
        create(session,
               {attributeOf(CKA_CLASS, certificateClass), attributeOf(CKA_TOKEN, yes), attributeOf(CKA_VALUE, noDer)},
               stored),
        CKR_ATTRIBUTE_VALUE_INVALID);
}

TEST_F(StrictSoftkeyObjectsTest, SessionObjectsLiveInTheirSession)
{
    const CK_SESSION_HANDLE keeper = userSession();
    const CK_SESSION_HANDLE session = userSession();
    std::string label = "note";
    ByteVector content{1, 2, 3};
    ByteVector der{0x30, 0x03, 0x02, 0x01, 0x05};
    CK_OBJECT_HANDLE note = 0;
    CK_OBJECT_HANDLE certificate = 0;
    ASSERT_EQ(
        create(session,
               {attributeOf(CKA_CLASS, dataClass), attributeOf(CKA_LABEL, label), attributeOf(CKA_VALUE, content)},
               note),
        CKR_OK);
    ASSERT_EQ(create(session, {attributeOf(CKA_CLASS, certificateClass), attributeOf(CKA_VALUE, der)}, certificate),
              CKR_OK);
    EXPECT_EQ(find(keeper, {attributeOf(CKA_LABEL, label)}), Handles{note});
    EXPECT_EQ(value(keeper, note, CKA_VALUE), content);
    EXPECT_EQ(p11().C_CloseSession(session), CKR_OK);
    EXPECT_EQ(ask(keeper, note, CKA_VALUE), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_TRUE(find(keeper, {}).empty());
}

TEST_F(StrictSoftkeyObjectsTest, PublicKeysOfTheHostVerifyWithTheTokensPair)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair pair = generateEc(session);
    ByteVector point = value(session, pair.publicKey, CKA_EC_POINT);
    CK_OBJECT_HANDLE known = 0;
    ASSERT_EQ(create(session,
                     {attributeOf(CKA_CLASS, publicClass), attributeOf(CKA_KEY_TYPE, ec),
                      attributeOf(CKA_EC_POINT, point), attributeOf(CKA_EC_PARAMS, p256)},
                     known),
              CKR_OK);
    const ByteVector signature = sign(session, {CKM_ECDSA_SHA256, nullptr, 0}, pair.privateKey, ByteVector(30, 3));
    EXPECT_EQ(verify(session, {CKM_ECDSA_SHA256, nullptr, 0}, known, ByteVector(30, 3), signature), CKR_OK);
    ByteVector modulus(256, 0x99);
    ByteVector exponent{1, 0, 1};
    CK_OBJECT_HANDLE unknown = 0;
    ASSERT_EQ(create(session,
                     {attributeOf(CKA_CLASS, publicClass), attributeOf(CKA_KEY_TYPE, rsa),
                      attributeOf(CKA_MODULUS, modulus), attributeOf(CKA_PUBLIC_EXPONENT, exponent)},
                     unknown),
              CKR_OK);
    EXPECT_EQ(value(session, unknown, CKA_VERIFY), ByteVector{CK_FALSE});
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    EXPECT_EQ(p11().C_VerifyInit(session, &mechanism, unknown), CKR_KEY_FUNCTION_NOT_PERMITTED);
}

TEST_F(StrictSoftkeyObjectsTest, APairIsDestroyedByItsPrivateHalf)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair pair = generateEc(session);
    const KeyPair other = generateEc(session);
    EXPECT_EQ(p11().C_DestroyObject(session, pair.privateKey), CKR_OK);
    EXPECT_EQ(p11().C_DestroyObject(session, pair.publicKey), CKR_OK);
    EXPECT_EQ(p11().C_DestroyObject(session, pair.publicKey), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(p11().C_DestroyObject(session, other.publicKey), CKR_OK);
    EXPECT_EQ(find(session, {}), Handles{other.privateKey});
}

TEST_F(StrictSoftkeyObjectsTest, WhatDoesNotSuitIsToldApart)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair rsaPair = generateRsa(session);
    const KeyPair ecPair = generateEc(session);
    EXPECT_EQ(signInit(session, CKM_ECDSA, rsaPair.privateKey), CKR_KEY_TYPE_INCONSISTENT);
    EXPECT_EQ(signInit(session, CKM_ECDSA, 9999), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(signInit(session, CKM_RSA_PKCS_PSS, rsaPair.privateKey), CKR_MECHANISM_PARAM_INVALID);
    ByteVector data(32, 1);
    ByteVector out(256);
    CK_ULONG length = 256;
    ASSERT_EQ(signInit(session, CKM_RSA_PKCS, rsaPair.privateKey), CKR_OK);
    EXPECT_EQ(p11().C_Sign(session, data.data(), 32, out.data(), &length), CKR_DATA_LEN_RANGE);
    EXPECT_EQ(verify(session, {CKM_ECDSA, nullptr, 0}, ecPair.publicKey, data, ByteVector(63)),
              CKR_SIGNATURE_LEN_RANGE);
    EXPECT_EQ(verify(session, {CKM_ECDSA, nullptr, 0}, ecPair.publicKey, data, ByteVector(64, 1)),
              CKR_SIGNATURE_INVALID);
    CK_MECHANISM cipher = {CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(p11().C_DecryptInit(session, &cipher, rsaPair.privateKey), CKR_OK);
    EXPECT_EQ(p11().C_Decrypt(session, data.data(), 32, out.data(), &length), CKR_ENCRYPTED_DATA_LEN_RANGE);
    ByteVector point(65, 0x31); // On no curve.
    point[0] = 0x04;
    CK_ECDH1_DERIVE_PARAMS parameter{CKD_NULL, 0, nullptr, 65, point.data()};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
    CK_OBJECT_HANDLE secret = 0;
    EXPECT_EQ(p11().C_DeriveKey(session, &mechanism, ecPair.privateKey, nullptr, 0, &secret),
              CKR_MECHANISM_PARAM_INVALID);
}

} // namespace
