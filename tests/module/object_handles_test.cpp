// Handles and what they stand for: derived keys, the ranges and their ends, lookups, labels and sizes.
#include "object_fixture.h"
#include "velkor/record_fields.h"

namespace
{

using testing::_;
using testing::Each;
using testing::StrEq;
using velkor::copyInto;
using velkor::setLabel;

// ---- Derived keys ----

using DerivedKeyHandleTest = ObjectTest;

// Comes before every other test that derives: the handles go on until the process ends.
TEST_F(DerivedKeyHandleTest, HandlesCountUpwardsAcrossSessionsAndSlots)
{
    EXPECT_EQ(derive(hSession_, 5, {1}), FIRST_DERIVED_KEY);
    EXPECT_EQ(derive(openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION), 5, {2}), FIRST_DERIVED_KEY + 1);
    EXPECT_EQ(derive(openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION, SECOND_SLOT), 1, {3}), FIRST_DERIVED_KEY + 2);
    EXPECT_EQ(attribute(FIRST_DERIVED_KEY, CKA_VALUE), ByteVector{1});
    EXPECT_EQ(attribute(FIRST_DERIVED_KEY + 1, CKA_VALUE), ByteVector{2});
    EXPECT_EQ(attribute(FIRST_DERIVED_KEY + 2, CKA_VALUE), ByteVector{3});
}

TEST_F(DerivedKeyHandleTest, AnswersItsValueAndNothingElse)
{
    const CK_OBJECT_HANDLE hKey = derive(hSession_, 5, {1, 2, 3});
    Template attributes;
    attributes.addRoom(CKA_CLASS, 9).addRoom(CKA_VALUE, 4).addRaw(CKA_LABEL, nullptr, 5).addRaw(CKA_VALUE, nullptr, 6);
    EXPECT_EQ(answer(C_GetAttributeValue, hSession_, hKey, attributes.data(), attributes.size()),
              (Answer{CKR_OK,
                      {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 4",
                       "DEBUG C_GetAttributeValue length : 3", "DEBUG C_GetAttributeValue length : 3"}}));
    EXPECT_EQ(attributes.length(0), CK_UNAVAILABLE_INFORMATION);
    EXPECT_THAT(attributes.value(0), Each(0xEE));
    EXPECT_EQ(attributes.length(1), 3u);
    EXPECT_EQ(attributes.value(1), (ByteVector{1, 2, 3, 0xEE}));
    EXPECT_EQ(attributes.length(2), CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(attributes.length(3), 3u);
}

TEST_F(DerivedKeyHandleTest, AShortBufferEndsTheCallWithLaterLengthsUnchanged)
{
    const CK_OBJECT_HANDLE hKey = derive(hSession_, 5, {1, 2, 3});
    Template attributes;
    attributes.addRoom(CKA_CLASS, 9).addRoom(CKA_VALUE, 2).addRoom(CKA_LABEL, 7);
    EXPECT_EQ(answer(C_GetAttributeValue, hSession_, hKey, attributes.data(), attributes.size()),
              (Answer{CKR_BUFFER_TOO_SMALL,
                      {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 3",
                       "ERROR C_GetAttributeValue: buffer too small at index=1 type=17 provided=2 required=3"}}));
    EXPECT_EQ(attributes.length(0), CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(attributes.length(1), 2u);
    EXPECT_THAT(attributes.value(1), Each(0xEE));
    EXPECT_EQ(attributes.length(2), 7u);
}

TEST_F(DerivedKeyHandleTest, IsReadWithoutTheDevice)
{
    const CK_OBJECT_HANDLE hKey = derive(hSession_, 5, {1, 2, 3});
    EXPECT_CALL(*device_, velkor_getKeyPairList).Times(0);
    EXPECT_CALL(*device_, velkor_getCertificateList).Times(0);
    EXPECT_EQ(attribute(hKey, CKA_VALUE), (ByteVector{1, 2, 3}));
}

TEST_F(DerivedKeyHandleTest, OutlivesItsSessionAndTheModulesFinalizing)
{
    const CK_OBJECT_HANDLE hKey = derive(hSession_, 5, {1, 2, 3});
    ASSERT_EQ(C_CloseAllSessions(FIRST_SLOT), CKR_OK);
    hSession_ = openSession(CKF_SERIAL_SESSION, SECOND_SLOT);
    EXPECT_EQ(attribute(hKey, CKA_VALUE), (ByteVector{1, 2, 3}));
    ASSERT_EQ(finalize(), CKR_OK);
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    listSlots();
    hSession_ = openSession(CKF_SERIAL_SESSION);
    EXPECT_EQ(attribute(hKey, CKA_VALUE), (ByteVector{1, 2, 3}));
}

TEST_F(DerivedKeyHandleTest, CannotBeDestroyedChangedOrMeasured)
{
    const CK_OBJECT_HANDLE hKey = derive(hSession_, 5, {1, 2, 3});
    EXPECT_EQ(answer(C_DestroyObject, hSession_, hKey),
              (Answer{CKR_OBJECT_HANDLE_INVALID,
                      {"DEBUG C_DestroyObject", "DEBUG Delete key pair id : " + logged(hKey),
                       "DEBUG Input certificate not found in destroy : " + logged(hKey)}}));
    Template changes;
    changes.add(CKA_LABEL, "label");
    EXPECT_EQ(answer(C_SetAttributeValue, hSession_, hKey, changes.data(), changes.size()),
              refusal(CKR_OBJECT_HANDLE_INVALID, "C_SetAttributeValue",
                      "C_SetAttributeValue: invalid hObject=" + logged(hKey)));
    CK_ULONG size = 77;
    EXPECT_EQ(answer(C_GetObjectSize, hSession_, hKey, &size),
              refusal(CKR_OBJECT_HANDLE_INVALID, "C_GetObjectSize",
                      "Certificate not found in get object size : " + logged(hKey)));
    EXPECT_EQ(size, 77u);
    EXPECT_EQ(attribute(hKey, CKA_VALUE), (ByteVector{1, 2, 3}));
}

// ---- Ranges ----

const std::string NO_OBJECT = "Input hobject not valid in get attribute : ";
const std::string NO_KEY = "Key pair not found in get attribute : ";
const std::string NO_CERTIFICATE = "Certificate not found in get attribute : ";
const std::string NO_DERIVED_KEY = "C_GetAttributeValue: derived key handle not found=";
const std::string CANNOT_CHANGE = "C_SetAttributeValue: invalid hObject=";
const std::string NO_KEY_TO_CHANGE = "Key pair not found in Set attribute : ";
const std::string NO_PRIVATE_SIZE = "Private key not found in get object size : ";
const std::string NO_PUBLIC_SIZE = "Public key not found in get object size : ";
const std::string NO_CERTIFICATE_SIZE = "Certificate not found in get object size : ";

struct Object {
    CK_OBJECT_CLASS objectClass = CKO_DATA;
    std::uint32_t id = 0;
    CK_ULONG size = 0;
};

/// The error of each function for a handle, without the handle; empty where the object is there.
struct HandleCase {
    CK_OBJECT_HANDLE handle;
    std::string get;
    std::string set;
    std::string size;
    Object object = {}; ///< What the handle stands for, where any function answers.

    friend std::ostream& operator<<(std::ostream& out, const HandleCase& each)
    {
        return out << std::hex << each.handle << std::dec;
    }
};

/// On a device with key pairs and certificates of the ids 0, 1, 4095 and 4096, told apart by object ID and DER length.
const HandleCase handleCases[] = {
    {0, NO_OBJECT, CANNOT_CHANGE, NO_CERTIFICATE_SIZE},
    {0x50000001, NO_OBJECT, CANNOT_CHANGE, NO_CERTIFICATE_SIZE},
    {0x6FFFFFFF, NO_OBJECT, CANNOT_CHANGE, NO_CERTIFICATE_SIZE},
    {0x70000000, "", "", "", {CKO_PRIVATE_KEY, 0, 512}},
    {0x70000001, "", "", "", {CKO_PRIVATE_KEY, 1, 512}},
    {0x70000002, NO_KEY, NO_KEY_TO_CHANGE, NO_PRIVATE_SIZE},
    {0x70000FFE, NO_KEY, NO_KEY_TO_CHANGE, NO_PRIVATE_SIZE},
    {0x70000FFF, "", "", "", {CKO_PRIVATE_KEY, 4095, 512}},
    {0x70001000, "", "", "", {CKO_PUBLIC_KEY, 0, 256}},
    {0x70001001, "", "", "", {CKO_PUBLIC_KEY, 1, 256}},
    {0x70001002, NO_KEY, NO_KEY_TO_CHANGE, NO_PUBLIC_SIZE},
    {0x70001FFF, "", "", "", {CKO_PUBLIC_KEY, 4095, 256}},
    {0x70002000, NO_OBJECT, CANNOT_CHANGE, "", {CKO_CERTIFICATE, 0, 100}},
    {0x70002001, "", CANNOT_CHANGE, "", {CKO_CERTIFICATE, 1, 101}},
    {0x70002002, NO_CERTIFICATE, CANNOT_CHANGE, NO_CERTIFICATE_SIZE},
    {0x70002FFF, "", CANNOT_CHANGE, "", {CKO_CERTIFICATE, 4095, 4195}},
    {0x70003FFF, NO_DERIVED_KEY, CANNOT_CHANGE, NO_CERTIFICATE_SIZE},
    {0x80000000, NO_DERIVED_KEY, CANNOT_CHANGE, NO_CERTIFICATE_SIZE},
#ifdef CRYPTOKI_HOST_LAYOUT
    {0x170000001, NO_DERIVED_KEY, CANNOT_CHANGE, NO_CERTIFICATE_SIZE},
    {0x170002001, NO_DERIVED_KEY, CANNOT_CHANGE, NO_CERTIFICATE_SIZE},
#endif
    {MAX_ULONG, NO_DERIVED_KEY, CANNOT_CHANGE, NO_CERTIFICATE_SIZE},
};

class HandleRangeTest : public ObjectTest, public testing::WithParamInterface<HandleCase>
{
protected:
    void SetUp() override
    {
        ObjectTest::SetUp();
        first().keyPairs.clear();
        first().certificates.clear();
        for (const std::uint32_t id : {0u, 1u, 4095u, 4096u}) {
            first().keyPairs.push_back(makeKeyPair(id, KEY_KIND_RSA_2048, "pair " + std::to_string(id)));
            first().certificates.push_back(makeCertificate(id, "certificate " + std::to_string(id)));
            first().keyPairs.back().objectIdLength = copyInto(first().keyPairs.back().objectId, objectIdFor(id));
            first().certificates.back().objectIdLength =
                copyInto(first().certificates.back().objectId, objectIdFor(id));
            first().certificates.back().der.resize(100 + id);
        }
    }

    static ByteVector objectIdFor(std::uint32_t id)
    {
        return {static_cast<unsigned char>(id >> 8), static_cast<unsigned char>(id)};
    }

    static CK_RV code(const std::string& error) { return error.empty() ? CKR_OK : CKR_OBJECT_HANDLE_INVALID; }

    static std::string errorLine(const std::string& error) { return "ERROR " + error + logged(GetParam().handle); }
};

INSTANTIATE_TEST_SUITE_P(All, HandleRangeTest, testing::ValuesIn(handleCases));

TEST_P(HandleRangeTest, DecideWhatIsRead)
{
    Template attributes;
    attributes.addRoom(CKA_TOKEN, 8);
    const Answer read = answer(C_GetAttributeValue, hSession_, GetParam().handle, attributes.data(), 1);
    EXPECT_EQ(read.code, code(GetParam().get));
    if (GetParam().get.empty()) {
        EXPECT_EQ(attributes.length(0), 1u);
        EXPECT_EQ(attribute(GetParam().handle, CKA_CLASS), bytesOf(GetParam().object.objectClass));
        EXPECT_EQ(attribute(GetParam().handle, CKA_ID), objectIdFor(GetParam().object.id));
        return;
    }
    EXPECT_THAT(read.lines, testing::ElementsAre("DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 1",
                                                 errorLine(GetParam().get)));
    EXPECT_EQ(attributes.length(0), 8u);
    EXPECT_THAT(attributes.value(0), Each(0xEE));
}

TEST_P(HandleRangeTest, DecideWhatIsChanged)
{
    EXPECT_CALL(*device_, velkor_updateKeyPairDetails).Times(0);
    if (GetParam().set.empty()) {
        const ByteVector identifier = identifierBytes(keyPair(GetParam().object.id));
        EXPECT_CALL(*device_, velkor_updateKeyPairDetails(StrEq(FIRST_DEVICE), PointsTo(identifier), StrEq(""),
                                                          StrEq("new"), _, 0, instance_));
    }
    Template changes;
    changes.add(CKA_LABEL, "new");
    const Answer changed = answer(C_SetAttributeValue, hSession_, GetParam().handle, changes.data(), 1);
    EXPECT_EQ(changed.code, code(GetParam().set));
    if (!GetParam().set.empty()) {
        EXPECT_THAT(changed.lines, testing::ElementsAre("DEBUG C_SetAttributeValue", errorLine(GetParam().set)));
    }
}

TEST_P(HandleRangeTest, DecideWhatIsMeasured)
{
    CK_ULONG size = 77;
    const Answer measured = answer(C_GetObjectSize, hSession_, GetParam().handle, &size);
    EXPECT_EQ(measured.code, code(GetParam().size));
    if (GetParam().size.empty()) {
        EXPECT_THAT(measured.lines, testing::ElementsAre("DEBUG C_GetObjectSize"));
        EXPECT_EQ(size, GetParam().object.size);
        return;
    }
    EXPECT_THAT(measured.lines, testing::ElementsAre("DEBUG C_GetObjectSize", errorLine(GetParam().size)));
    EXPECT_EQ(size, 77u);
}

class ObjectHandleTest : public ObjectTest
{
protected:
    void expectLabel(CK_OBJECT_HANDLE hObject, const std::string& label) const
    {
        EXPECT_EQ(attribute(hObject, CKA_LABEL), bytesOf(label)) << logged(hObject);
    }

    void expectSize(CK_OBJECT_HANDLE hObject, CK_ULONG expected) const
    {
        CK_ULONG size = 0;
        EXPECT_EQ(answer(C_GetObjectSize, hSession_, hObject, &size), (Answer{CKR_OK, {"DEBUG C_GetObjectSize"}}));
        EXPECT_EQ(size, expected) << logged(hObject);
    }

    Handles find(CK_OBJECT_CLASS objectClass) const
    {
        Template criteria;
        return search(criteria.add(CKA_CLASS, objectClass));
    }
};

TEST_F(ObjectHandleTest, KeyPairFiveAndCertificateFiveHaveThreeHandles)
{
    first().keyPairs = {makeKeyPair(5, KEY_KIND_EC_P256, "pair")};
    first().certificates = {makeCertificate(5, "certificate")};
    login();
    EXPECT_EQ(find(CKO_PRIVATE_KEY), Handles{0x70000005});
    EXPECT_EQ(find(CKO_PUBLIC_KEY), Handles{0x70001005});
    EXPECT_EQ(find(CKO_CERTIFICATE), Handles{0x70002005});
    expectLabel(0x70000005, "pair");
    expectLabel(0x70001005, "pair");
    expectLabel(0x70002005, "certificate");
}

TEST_F(ObjectHandleTest, IdsAtTheEndsOfTheirRangeAreToldApart)
{
    for (const std::uint32_t id : {0u, 4095u}) {
        first().keyPairs.push_back(makeKeyPair(id, KEY_KIND_EC_P256, "edge pair " + std::to_string(id)));
        first().certificates.push_back(makeCertificate(id, "edge certificate " + std::to_string(id)));
    }
    expectLabel(0x70000000, "edge pair 0");
    expectLabel(0x70000001, "pair 1");
    expectLabel(0x70000FFF, "edge pair 4095");
    expectLabel(0x70001000, "edge pair 0");
    expectLabel(0x70001001, "pair 1");
    expectLabel(0x70001FFF, "edge pair 4095");
    expectLabel(0x70002001, "certificate 1");
    expectLabel(0x70002FFF, "edge certificate 4095");
}

TEST_F(ObjectHandleTest, AnIdTooLargeForItsRangeLeadsIntoTheNextOne)
{
    first().keyPairs = {makeKeyPair(0, KEY_KIND_EC_P256, "zero"), makeKeyPair(4096, KEY_KIND_EC_P256, "large")};
    login();
    EXPECT_EQ(find(CKO_PRIVATE_KEY), (Handles{0x70000000, 0x70001000}));
    expectLabel(0x70001000, "zero");
}

TEST_F(ObjectHandleTest, TheFirstCertificateHandleIsMeasuredButNotRead)
{
    first().certificates = {makeCertificate(0, "zero")};
    EXPECT_EQ(find(CKO_CERTIFICATE), Handles{0x70002000});
    CK_ATTRIBUTE entry = {CKA_LABEL, nullptr, 77};
    EXPECT_EQ(answer(C_GetAttributeValue, hSession_, 0x70002000, &entry, 1),
              (Answer{CKR_OBJECT_HANDLE_INVALID,
                      {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 1",
                       "ERROR Input hobject not valid in get attribute : 1879056384"}}));
    EXPECT_EQ(CK_ULONG{entry.ulValueLen}, 77u);
    expectSize(0x70002000, 5);
}

// ---- Lookups ----

TEST_F(ObjectHandleTest, EveryCallFetchesTheListAnew)
{
    EXPECT_CALL(*device_, velkor_getKeyPairList(StrEq(FIRST_DEVICE), instance_)).Times(4);
    EXPECT_CALL(*device_, velkor_getCertificateList(StrEq(FIRST_DEVICE), instance_)).Times(4);
    expectLabel(privateKey(2), "pair 2"); // A length query and a fetch.
    expectLabel(certificate(2), "certificate 2");
    setLabel(keyPair(2), std::string("new"));
    setLabel(certificateRecord(2), std::string("newer"));
    expectLabel(privateKey(2), "new");
    expectLabel(certificate(2), "newer");
}

TEST_F(ObjectHandleTest, TheFirstRecordOfAnIdCounts)
{
    first().keyPairs.push_back(makeKeyPair(2, KEY_KIND_EC_P256, "another"));
    first().certificates.push_back(makeCertificate(2, "another"));
    expectLabel(privateKey(2), "pair 2");
    expectLabel(certificate(2), "certificate 2");
}

TEST_F(ObjectHandleTest, AHandleIsLookedUpOnItsSessionsDevice)
{
    hSession_ = openSession(CKF_SERIAL_SESSION, SECOND_SLOT);
    EXPECT_CALL(*device_, velkor_getKeyPairList(StrEq(SECOND_DEVICE), instance_)).Times(2);
    expectLabel(privateKey(1), "other pair");
}

TEST_F(ObjectHandleTest, EveryObjectCallAsksItsSessionsDevice)
{
    second().keyPairs.push_back(makeKeyPair(2, KEY_KIND_EC_P256, ""));
    second().certificates.push_back(makeCertificate(9, "other certificate"));
    CertificateDetails& details = device_->defaults.detailsOf(second().certificates.front().der);
    details.subjectCommonName = "Other";
    details.issuerCommonName = "Issuer";
    details.publicKey = publicKeyBytes(second().keyPairs.back());
    hSession_ = openSession(READ_WRITE, SECOND_SLOT);
    login();
    const auto expectUpdate = [&](const VelkorKeyPair& record, const char* label) {
        EXPECT_CALL(*device_, velkor_updateKeyPairDetails(StrEq(SECOND_DEVICE), PointsTo(identifierBytes(record)),
                                                          StrEq("1234"), StrEq(label), _, 0, instance_));
    };
    EXPECT_CALL(*device_, velkor_getKeyPairList).Times(0);
    EXPECT_CALL(*device_, velkor_getCertificateList).Times(0);
    EXPECT_CALL(*device_, velkor_updateKeyPairDetails).Times(0);
    EXPECT_CALL(*device_, velkor_getKeyPairList(StrEq(SECOND_DEVICE), instance_)).Times(6);
    EXPECT_CALL(*device_, velkor_getCertificateList(StrEq(SECOND_DEVICE), instance_)).Times(4);
    expectUpdate(second().keyPairs.back(), "Other_Issuer");
    expectUpdate(second().keyPairs.front(), "new");
    expectLabel(privateKey(1), "other pair");
    expectLabel(certificate(9), "other certificate");
    expectLabel(publicKey(2), "Other_Issuer");
    Template changes;
    EXPECT_EQ(C_SetAttributeValue(hSession_, privateKey(1), changes.add(CKA_LABEL, "new").data(), 1), CKR_OK);
    expectSize(privateKey(1), 512);
    expectSize(certificate(9), 5);
}

TEST_F(ObjectHandleTest, RefusedArgumentsAskNoDevice)
{
    const CK_OBJECT_HANDLE derivedKey = derive(hSession_, 5, {1});
    EXPECT_CALL(*device_, velkor_getKeyPairList).Times(0);
    EXPECT_CALL(*device_, velkor_getCertificateList).Times(0);
    Template attributes;
    attributes.add(CKA_LABEL, "new");
    for (const CK_OBJECT_HANDLE hObject : {privateKey(2), certificate(2)}) {
        EXPECT_EQ(C_GetAttributeValue(hSession_, hObject, nullptr, 1), CKR_ARGUMENTS_BAD);
        EXPECT_EQ(C_GetAttributeValue(hSession_, hObject, attributes.data(), 0), CKR_ARGUMENTS_BAD);
        EXPECT_EQ(C_SetAttributeValue(hSession_, hObject, nullptr, 1), CKR_ARGUMENTS_BAD);
        EXPECT_EQ(C_SetAttributeValue(hSession_, hObject, attributes.data(), 0), CKR_ARGUMENTS_BAD);
    }
    for (const CK_OBJECT_HANDLE hObject : {CK_OBJECT_HANDLE{0}, CK_OBJECT_HANDLE{0x6FFFFFFF}, certificate(0)})
        EXPECT_EQ(C_GetAttributeValue(hSession_, hObject, attributes.data(), 1), CKR_OBJECT_HANDLE_INVALID);
    for (const CK_OBJECT_HANDLE hObject : {CK_OBJECT_HANDLE{0x6FFFFFFF}, certificate(0), certificate(1), derivedKey})
        EXPECT_EQ(C_SetAttributeValue(hSession_, hObject, attributes.data(), 1), CKR_OBJECT_HANDLE_INVALID);
    CK_ULONG size = 77;
    for (const CK_OBJECT_HANDLE hObject : {CK_OBJECT_HANDLE{0}, CK_OBJECT_HANDLE{0x6FFFFFFF}})
        EXPECT_EQ(C_GetObjectSize(hSession_, hObject, &size), CKR_OBJECT_HANDLE_INVALID);
}

TEST_F(ObjectHandleTest, OnAnEmptyDeviceNothingIsFoundAndItIsNotInitialized)
{
    first().keyPairs.clear();
    first().certificates.clear();
    EXPECT_CALL(*device_, velkor_initDevice).Times(0);
    Template attributes;
    attributes.add(CKA_LABEL, "new");
    const auto read = [&](CK_OBJECT_HANDLE hObject, const std::string& error) {
        EXPECT_EQ(answer(C_GetAttributeValue, hSession_, hObject, attributes.data(), 1),
                  (Answer{CKR_OBJECT_HANDLE_INVALID,
                          {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 1",
                           "ERROR " + error + logged(hObject)}}));
    };
    const auto change = [&](CK_OBJECT_HANDLE hObject) {
        EXPECT_EQ(answer(C_SetAttributeValue, hSession_, hObject, attributes.data(), 1),
                  refusal(CKR_OBJECT_HANDLE_INVALID, "C_SetAttributeValue", NO_KEY_TO_CHANGE + logged(hObject)));
    };
    const auto measure = [&](CK_OBJECT_HANDLE hObject, const std::string& error) {
        CK_ULONG size = 77;
        EXPECT_EQ(answer(C_GetObjectSize, hSession_, hObject, &size),
                  refusal(CKR_OBJECT_HANDLE_INVALID, "C_GetObjectSize", error + logged(hObject)));
        EXPECT_EQ(size, 77u);
    };
    read(privateKey(1), NO_KEY);
    read(publicKey(1), NO_KEY);
    read(certificate(1), NO_CERTIFICATE);
    change(privateKey(1));
    change(publicKey(1));
    measure(privateKey(1), NO_PRIVATE_SIZE);
    measure(publicKey(1), NO_PUBLIC_SIZE);
    measure(certificate(1), NO_CERTIFICATE_SIZE);
}

TEST_F(ObjectHandleTest, AnExceptionOfTheLibraryBecomesAReturnCode)
{
    EXPECT_CALL(*device_, velkor_getKeyPairList(_, _)).WillOnce(testing::Throw(std::runtime_error("gone")));
    CK_ULONG size = 77;
    EXPECT_EQ(answer(C_GetObjectSize, hSession_, privateKey(2), &size),
              refusal(CKR_GENERAL_ERROR, "C_GetObjectSize", "C_GetObjectSize: unexpected exception: gone"));
    EXPECT_EQ(size, 77u);
}

/// The record of the last lookup is seen through a signature, which uses what the record holds when it is made.
class LookupRecordTest : public ObjectTest
{
protected:
    void SetUp() override
    {
        ObjectTest::SetUp();
        CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
        ASSERT_EQ(C_SignInit(hSession_, &mechanism, privateKey(5)), CKR_OK);
    }

    void expectSignatureWith(const VelkorKeyPair& record) const
    {
        EXPECT_CALL(*device_, velkor_signHash(_, PointsTo(identifierBytes(record)), _, _, _, _, _, _, _, _));
        ByteVector hash(32, 1);
        ByteVector signature(1024);
        auto length = static_cast<CK_ULONG>(signature.size());
        EXPECT_EQ(C_Sign(hSession_, hash.data(), 32, signature.data(), &length), CKR_OK);
    }
};

TEST_F(LookupRecordTest, StaysAsItIsWithoutAnotherLookup)
{
    expectSignatureWith(keyPair(5));
}

TEST_F(LookupRecordTest, IsOverwrittenWhenAnotherKeyIsRead)
{
    EXPECT_EQ(attribute(publicKey(6), CKA_ID), ByteVector{6});
    expectSignatureWith(keyPair(6));
}

TEST_F(LookupRecordTest, IsOverwrittenWhenAnotherKeyIsMeasured)
{
    CK_ULONG size = 0;
    EXPECT_EQ(C_GetObjectSize(hSession_, privateKey(6), &size), CKR_OK);
    expectSignatureWith(keyPair(6));
}

TEST_F(LookupRecordTest, IsOverwrittenWhenAnotherKeyIsChanged)
{
    Template changes;
    changes.add(CKA_TOKEN, ByteVector{1});
    EXPECT_EQ(C_SetAttributeValue(hSession_, privateKey(6), changes.data(), changes.size()), CKR_OK);
    expectSignatureWith(keyPair(6));
}

TEST_F(LookupRecordTest, IsOverwrittenWhenAnotherKeyIsDeleted)
{
    const VelkorKeyPair deleted = keyPair(6);
    EXPECT_EQ(C_DestroyObject(hSession_, privateKey(6)), CKR_OK);
    expectSignatureWith(deleted);
}

TEST_F(LookupRecordTest, IsSharedByAllSessionsAndDevices)
{
    VelkorKeyPair& other = device_->defaults.devices.at(SECOND_DEVICE).keyPairs.front();
    other.keyIdentifier[0] = 0x77;
    CK_ULONG size = 0;
    EXPECT_EQ(C_GetObjectSize(openSession(CKF_SERIAL_SESSION, SECOND_SLOT), privateKey(1), &size), CKR_OK);
    expectSignatureWith(other);
}

TEST_F(LookupRecordTest, StaysAsItIsWhenNothingIsFound)
{
    CK_ULONG size = 0;
    EXPECT_EQ(C_GetObjectSize(hSession_, privateKey(99), &size), CKR_OBJECT_HANDLE_INVALID);
    expectSignatureWith(keyPair(5));
}

TEST_F(LookupRecordTest, StaysAsItIsWhenACertificateIsRead)
{
    EXPECT_EQ(attribute(certificate(1), CKA_ID), ByteVector{1});
    expectSignatureWith(keyPair(5));
}

TEST_F(LookupRecordTest, StaysAsItIsWhenACertificateIsImported)
{
    const ByteVector der = {1, 2, 3};
    device_->defaults.detailsOf(der).publicKey = publicKeyBytes(keyPair(6)); // The import looks for this key pair.
    Template entries;
    entries.add(CKA_VALUE, der);
    CK_OBJECT_HANDLE hObject = 0;
    EXPECT_EQ(C_CreateObject(hSession_, entries.data(), entries.size(), &hObject), CKR_OK);
    expectSignatureWith(keyPair(5));
}

TEST_F(LookupRecordTest, StaysAsItIsWhenAnotherSessionSearches)
{
    EXPECT_EQ(C_FindObjectsInit(openSession(CKF_SERIAL_SESSION), nullptr, 0), CKR_OK);
    expectSignatureWith(keyPair(5));
}

// ---- Labels ----

class ObjectLabelTest : public ObjectHandleTest
{
protected:
    void SetUp() override
    {
        ObjectHandleTest::SetUp();
        clearLabel(keyPair(2)); // Certificate 1 has its public key.
        clearLabel(certificateRecord(1));
    }

    void expectNoUpdate() const { EXPECT_CALL(*device_, velkor_updateKeyPairDetails).Times(0); }

    auto& expectUpdate(const std::string& label) const
    {
        return EXPECT_CALL(*device_,
                           velkor_updateKeyPairDetails(StrEq(FIRST_DEVICE), PointsTo(identifierBytes(keyPair(2))),
                                                       StrEq("1234"), StrEq(label), nullptr, 0, instance_));
    }

    /// A parsing of the certificate, which is done without the instance.
    auto& expectParsing(std::uint32_t certificateId) const
    {
        const ByteVector der = certificateRecord(certificateId).der;
        return EXPECT_CALL(*device_,
                           velkor_getCertificateDetails(PointsTo(der), static_cast<int>(der.size()), _, nullptr));
    }

    Answer read(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE type = CKA_LABEL) const
    {
        CK_ATTRIBUTE entry = {type, nullptr, 0};
        return answer(C_GetAttributeValue, hSession_, hObject, &entry, 1);
    }

    static Answer readWith(const std::vector<std::string>& computed, CK_ULONG length)
    {
        Answer expected = {CKR_OK, {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 1"}};
        expected.lines.insert(expected.lines.end(), computed.begin(), computed.end());
        expected.lines.push_back("DEBUG C_GetAttributeValue type : 3");
        expected.lines.push_back("DEBUG C_GetAttributeValue length : " + logged(length));
        return expected;
    }
};

TEST_F(ObjectLabelTest, OfACertificateIsComputedFromSubjectAndIssuerAndNotWrittenBack)
{
    login();
    expectNoUpdate();
    expectParsing(1);
    EXPECT_EQ(read(certificate(1)), readWith({"DEBUG Empty certificate label, computed: Subject 1_Issuer"}, 16));
    testing::Mock::VerifyAndClearExpectations(device_.get());
    expectLabel(certificate(1), "Subject 1_Issuer");
}

TEST_F(ObjectLabelTest, OfACertificateThatIsNotEmptyIsNotComputed)
{
    EXPECT_CALL(*device_, velkor_getCertificateDetails).Times(0);
    expectLabel(certificate(2), "certificate 2");
}

TEST_F(ObjectLabelTest, OfACertificateWithoutDerStaysEmptyUnparsed)
{
    EXPECT_CALL(*device_, velkor_getCertificateDetails).Times(0);
    certificateRecord(1).der.clear();
    EXPECT_EQ(read(certificate(1)), readWith({}, 0));
}

TEST_F(ObjectLabelTest, OfACertificateThatCannotBeParsedStaysEmpty)
{
    expectParsing(1).WillOnce(testing::Return(-1));
    EXPECT_EQ(read(certificate(1)), readWith({}, 0));
}

TEST_F(ObjectLabelTest, OfAKeyPairIsThatOfTheCertificateOfTheSameKey)
{
    expectNoUpdate();
    EXPECT_CALL(*device_, velkor_getCertificateList(StrEq(FIRST_DEVICE), instance_)).Times(1);
    expectParsing(1);
    EXPECT_EQ(read(privateKey(2)), readWith({"DEBUG Empty key pair label, computed: Subject 1_Issuer"}, 16));
    testing::Mock::VerifyAndClearExpectations(device_.get());
    expectLabel(privateKey(2), "Subject 1_Issuer");
    expectLabel(publicKey(2), "Subject 1_Issuer");
    EXPECT_STREQ(keyPair(2).label, "");
}

TEST_F(ObjectLabelTest, OfAKeyPairIsWrittenBackForAUser)
{
    login();
    expectUpdate("Subject 1_Issuer");
    EXPECT_EQ(read(publicKey(2)), readWith({"DEBUG Empty key pair label, computed: Subject 1_Issuer"}, 16));
    EXPECT_STREQ(keyPair(2).label, "Subject 1_Issuer");
    EXPECT_EQ(read(publicKey(2)), readWith({}, 16));
}

TEST_F(ObjectLabelTest, OfAKeyPairIsAnsweredThoughItCannotBeWrittenBack)
{
    login();
    for (const int status : {7, STATUS_DEVICE_REMOVED}) {
        expectUpdate("Subject 1_Issuer").Times(2).WillRepeatedly(testing::Return(status));
        expectLabel(privateKey(2), "Subject 1_Issuer");
    }
}

TEST_F(ObjectLabelTest, OfAKeyPairIsWrittenBackWhateverAttributeIsRead)
{
    login();
    expectUpdate("Subject 1_Issuer");
    EXPECT_EQ(read(privateKey(2), CKA_CLASS).code, CKR_OK);
}

TEST_F(ObjectLabelTest, OfAKeyPairIsNotWrittenBackForASecurityOfficer)
{
    expectNoUpdate();
    login(CKU_SO);
    expectLabel(privateKey(2), "Subject 1_Issuer");
}

TEST_F(ObjectLabelTest, ALabelIsWrittenBackFromAPublicSessionWithTheCachedPin)
{
    logInOnTheOtherToken();
    expectUpdate("Subject 1_Issuer").Times(1);
    EXPECT_EQ(read(publicKey(2)), readWith({"DEBUG Empty key pair label, computed: Subject 1_Issuer"}, 16));
}

TEST_F(ObjectLabelTest, ALabelIsWrittenBackForASecurityOfficerWithTheCachedPin)
{
    logInAsUserThenAsSecurityOfficer();
    expectUpdate("Subject 1_Issuer").Times(1);
    EXPECT_EQ(read(publicKey(2)), readWith({"DEBUG Empty key pair label, computed: Subject 1_Issuer"}, 16));
}

TEST_F(ObjectLabelTest, ALabelIsNotWrittenBackFromAUserSessionWithoutAPin)
{
    logInAndLoseThePin();
    expectNoUpdate();
    EXPECT_EQ(read(privateKey(2)), readWith({"DEBUG Empty key pair label, computed: Subject 1_Issuer"}, 16));
}

TEST_F(ObjectLabelTest, OfAKeyPairThatIsNotEmptyIsNotComputed)
{
    EXPECT_CALL(*device_, velkor_getCertificateList).Times(0);
    expectLabel(privateKey(3), "pair 3");
}

TEST_F(ObjectLabelTest, OfAKeyPairWithoutACertificateStaysEmpty)
{
    login();
    expectNoUpdate();
    first().certificates.erase(first().certificates.begin());
    EXPECT_EQ(read(privateKey(2)), readWith({}, 0));
}

TEST_F(ObjectLabelTest, OfAKeyPairComesFromTheFirstCertificateThatParsesAndMatches)
{
    const ByteVector key = publicKeyBytes(keyPair(2));
    first().certificates.clear();
    addCertificate(11, key); // Will not be parsed.
    addCertificate(12, {key.begin(), key.end() - 1});
    ByteVector other = key;
    other.back() ^= 1;
    addCertificate(13, other);
    addCertificate(14, key);
    addCertificate(15, key);
    const testing::InSequence order;
    expectParsing(11).WillOnce(testing::Return(7));
    expectParsing(12);
    expectParsing(13);
    expectParsing(14);
    EXPECT_EQ(read(privateKey(2)), readWith({"DEBUG Empty key pair label, computed: Subject 14_Issuer"}, 17));
}

TEST_F(ObjectLabelTest, ACertificateWithoutDerIsParsedAndPassedOver)
{
    login();
    certificateRecord(1).der.clear();
    addCertificate(11, publicKeyBytes(keyPair(2)));
    const testing::InSequence order;
    expectParsing(1).WillOnce(testing::Return(7));
    expectParsing(2);
    expectParsing(3);
    expectParsing(11);
    expectUpdate("Subject 11_Issuer");
    EXPECT_EQ(read(privateKey(2)), readWith({"DEBUG Empty key pair label, computed: Subject 11_Issuer"}, 17));
}

TEST_F(ObjectLabelTest, AnEmptyPublicKeyMatchesAnEmptyOne)
{
    login();
    keyPair(2).publicKeyLength = 0;
    addCertificate(11, {});
    expectUpdate("Subject 11_Issuer");
    EXPECT_EQ(read(privateKey(2)), readWith({"DEBUG Empty key pair label, computed: Subject 11_Issuer"}, 17));
}

struct LabelCase {
    std::size_t subject;
    std::size_t issuer;
    std::string label;

    friend std::ostream& operator<<(std::ostream& out, const LabelCase& each)
    {
        return out << each.subject << " and " << each.issuer;
    }
};

class ComputedLabelTest : public ObjectLabelTest, public testing::WithParamInterface<LabelCase>
{
};

std::string letters(std::size_t subject, std::size_t issuer)
{
    return std::string(subject, 's') + "_" + std::string(issuer, 'i');
}

INSTANTIATE_TEST_SUITE_P(Lengths, ComputedLabelTest,
                         testing::Values(LabelCase{0, 0, "_"}, LabelCase{5, 0, "sssss_"}, LabelCase{0, 3, "_iii"},
                                         LabelCase{64, 63, letters(64, 63)}, LabelCase{64, 64, letters(64, 63)},
                                         LabelCase{100, 29, letters(100, 27)}, LabelCase{127, 1, letters(127, 0)},
                                         LabelCase{128, 1, std::string(128, 's')},
                                         LabelCase{300, 300, std::string(128, 's')}));

TEST_P(ComputedLabelTest, IsCutTo128Bytes)
{
    login();
    CertificateDetails& details = detailsOf(1);
    details.subjectCommonName = std::string(GetParam().subject, 's');
    details.issuerCommonName = std::string(GetParam().issuer, 'i');
    const std::string& label = GetParam().label;
    const auto length = static_cast<CK_ULONG>(label.size());
    expectUpdate(label);
    EXPECT_EQ(read(privateKey(2)), readWith({"DEBUG Empty key pair label, computed: " + label}, length));
    EXPECT_EQ(read(certificate(1)), readWith({"DEBUG Empty certificate label, computed: " + label}, length));
    expectLabel(privateKey(2), label);
    expectLabel(certificate(1), label);
}

// ---- Sizes ----

TEST_F(ObjectHandleTest, APrivateKeyCountsTwiceItsPublicKey)
{
    const CK_ULONG sizes[] = {128, 256, 384, 512, 65, 97, 133};
    for (CK_ULONG id = 1; id <= 7; ++id) {
        expectSize(privateKey(id), 2 * sizes[id - 1]);
        expectSize(publicKey(id), sizes[id - 1]);
    }
}

TEST_F(ObjectHandleTest, ACertificateCountsItsDer)
{
    certificateRecord(1).der.resize(2000);
    certificateRecord(2).der.clear();
    expectSize(certificate(1), 2000);
    expectSize(certificate(2), 0);
    expectSize(certificate(3), 5);
}

TEST_F(ObjectHandleTest, ACertificateIsMeasuredByAHandleBehindItsRange)
{
    first().certificates.push_back(makeCertificate(4096, "large"));
    expectSize(0x70003000, 5);
}

TEST_F(ObjectHandleTest, MeasuringLooksTheObjectUpOnce)
{
    EXPECT_CALL(*device_, velkor_getKeyPairList(StrEq(FIRST_DEVICE), instance_)).Times(2);
    EXPECT_CALL(*device_, velkor_getCertificateList(StrEq(FIRST_DEVICE), instance_)).Times(1);
    expectSize(privateKey(2), 512);
    expectSize(publicKey(2), 256);
    expectSize(certificate(2), 5);
}

TEST_F(ObjectHandleTest, ANullSizeIsRefusedBehindTheHandle)
{
    EXPECT_EQ(answer(C_GetObjectSize, hSession_, privateKey(2), nullptr),
              refusal(CKR_ARGUMENTS_BAD, "C_GetObjectSize", "C_GetObjectSize: pulSize is NULL"));
    EXPECT_EQ(answer(C_GetObjectSize, hSession_, privateKey(99), nullptr),
              refusal(CKR_OBJECT_HANDLE_INVALID, "C_GetObjectSize",
                      "Private key not found in get object size : " + logged(privateKey(99))));
}

class ObjectSizeStateTest : public ObjectHandleTest, public testing::WithParamInterface<CK_STATE>
{
};

INSTANTIATE_TEST_SUITE_P(All, ObjectSizeStateTest,
                         testing::Values(CKS_RO_PUBLIC_SESSION, CKS_RO_USER_FUNCTIONS, CKS_RW_PUBLIC_SESSION,
                                         CKS_RW_USER_FUNCTIONS, CKS_RW_SO_FUNCTIONS));

TEST_P(ObjectSizeStateTest, SizesAreAnsweredInEveryState)
{
    enterState(GetParam());
    expectSize(privateKey(2), 512);
    expectSize(publicKey(2), 256);
    expectSize(certificate(2), 5);
}

TEST_F(ObjectHandleTest, MeasuringLeavesTheSearchInProgress)
{
    ASSERT_EQ(C_FindObjectsInit(hSession_, nullptr, 0), CKR_OK);
    EXPECT_EQ(page(1), Handles{publicKey(1)});
    expectSize(publicKey(2), 256);
    EXPECT_EQ(page(1), Handles{publicKey(2)});
}

} // namespace
