// C_FindObjectsInit, C_FindObjects and C_FindObjectsFinal.
#include "object_fixture.h"

namespace
{

using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;

const Handles PUBLIC_KEYS = {publicKey(1), publicKey(2), publicKey(3), publicKey(4),
                             publicKey(5), publicKey(6), publicKey(7)};
const Handles PRIVATE_KEYS = {privateKey(1), privateKey(2), privateKey(3), privateKey(4),
                              privateKey(5), privateKey(6), privateKey(7)};
const Handles CERTIFICATES = {certificate(1), certificate(2), certificate(3)};

Handles together(const std::vector<Handles>& groups)
{
    Handles all;
    for (const Handles& group : groups)
        all.insert(all.end(), group.begin(), group.end());
    return all;
}

class ObjectSearchTest : public ObjectTest
{
protected:
    Handles searchAll() const
    {
        Template none;
        return search(none);
    }

    Handles searchClass(CK_OBJECT_CLASS objectClass) const
    {
        Template criteria;
        return search(criteria.add(CKA_CLASS, objectClass));
    }

    Answer begin(Template& criteria) const
    {
        return answer(C_FindObjectsInit, hSession_, criteria.data(), criteria.size());
    }

    void beginAll() const { ASSERT_EQ(C_FindObjectsInit(hSession_, nullptr, 0), CKR_OK); }

    void beginDigest() const
    {
        CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
        ASSERT_EQ(C_DigestInit(hSession_, &mechanism), CKR_OK);
    }

    /// Three key pairs and two certificates.
    void keepFew() const
    {
        first().keyPairs.resize(3);
        first().certificates.resize(2);
    }

    void expectNoSearch() const
    {
        CK_OBJECT_HANDLE handle = 0;
        CK_ULONG count = 0;
        EXPECT_EQ(C_FindObjects(hSession_, &handle, 1, &count), CKR_OPERATION_NOT_INITIALIZED);
    }
};

// ---- Beginning a search ----

TEST_F(ObjectSearchTest, BeginningFetchesEachListOnce)
{
    EXPECT_CALL(*device_, velkor_getCertificateList(StrEq(FIRST_DEVICE), instance_)).Times(1);
    EXPECT_CALL(*device_, velkor_getKeyPairList(StrEq(FIRST_DEVICE), instance_)).Times(1);
    EXPECT_CALL(*device_, velkor_initDevice).Times(0);
    EXPECT_EQ(answer(C_FindObjectsInit, hSession_, nullptr, 0),
              (Answer{CKR_OK, {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 0"}}));
}

TEST_F(ObjectSearchTest, ATemplateOfWhichNoEntryCountsFindsEverything)
{
    CK_ATTRIBUTE unread = {CKA_CLASS, nullptr, 0};
    EXPECT_EQ(answer(C_FindObjectsInit, hSession_, &unread, 0),
              (Answer{CKR_OK, {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 0"}}));
    EXPECT_EQ(page(100), together({PUBLIC_KEYS, CERTIFICATES}));
}

TEST_F(ObjectSearchTest, EveryEntryIsLoggedAndSomeValuesAre)
{
    Template criteria;
    criteria.add(CKA_CLASS, CKO_PUBLIC_KEY).add(CKA_MODULUS, ByteVector{1, 2, 3}).add(CKA_ID, ByteVector{0xAB, 0x0C});
    criteria.add(CKA_TOKEN, ByteVector{CK_TRUE})
        .addTerminated(CKA_LABEL, "pair 1")
        .add(CKA_VENDOR_DEFINED, ByteVector{1});
    EXPECT_EQ(begin(criteria),
              (Answer{CKR_OK,
                      {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 6", "DEBUG Find object init type : 0",
                       "DEBUG Find object class : 2", "DEBUG Find object init type : 288",
                       "DEBUG Modulus provided length : 3", "DEBUG Find object init type : 258",
                       "DEBUG Find object init type : 1", "DEBUG Find object init type : 3",
                       "DEBUG Find object init type : " + logged(CKA_VENDOR_DEFINED), "DEBUG Find init id : AB0C"}}));
}

TEST_F(ObjectSearchTest, NullTemplateWithACountIsRefusedAndLeavesTheSearchInProgress)
{
    beginAll();
    EXPECT_EQ(page(2), (Handles{publicKey(1), publicKey(2)}));
    EXPECT_EQ(answer(C_FindObjectsInit, hSession_, nullptr, 2),
              refusal(CKR_ARGUMENTS_BAD, "C_FindObjectsInit", "C_FindObjectsInit: pTemplate is NULL with ulCount=2"));
    EXPECT_EQ(page(1), Handles{publicKey(3)});
}

TEST_F(ObjectSearchTest, AnExceptionOfTheLibraryBeginsNoSearch)
{
    EXPECT_CALL(*device_, velkor_getKeyPairList(_, _)).WillOnce(testing::Throw(std::runtime_error("gone")));
    EXPECT_EQ(C_FindObjectsInit(hSession_, nullptr, 0), CKR_GENERAL_ERROR);
    expectNoSearch();
}

struct BadEntry {
    const char* name;
    CK_ATTRIBUTE_TYPE type;
    bool hasValue;
    CK_ULONG length;
    std::vector<std::string> lines;

    friend std::ostream& operator<<(std::ostream& out, const BadEntry& entry) { return out << entry.name; }
};

/// A class of 8 bytes where a CK_ULONG has 4, and the other way round.
constexpr CK_ULONG OTHER_INTEGER_SIZE = sizeof(CK_ULONG) == 4 ? 8 : 4;

BadEntry badClassSize(const char* name, CK_ULONG length)
{
    return {name,
            CKA_CLASS,
            true,
            length,
            {"DEBUG Find object init type : 0",
             "ERROR C_FindObjectsInit: wrong size for CKA_CLASS at index=1 ulValueLen=" + logged(length)}};
}

const BadEntry badEntries[] = {
    {"NullValue", CKA_ID, false, 1, {"ERROR C_FindObjectsInit: pValue is NULL at attribute index=1 type=258"}},
    {"NullValueOfLengthZero",
     CKA_LABEL,
     false,
     0,
     {"ERROR C_FindObjectsInit: pValue is NULL at attribute index=1 type=3"}},
    {"NullClassOfWrongSize",
     CKA_CLASS,
     false,
     1,
     {"ERROR C_FindObjectsInit: pValue is NULL at attribute index=1 type=0"}},
    {"NullValueOfAnIgnoredType",
     CKA_TOKEN,
     false,
     1,
     {"ERROR C_FindObjectsInit: pValue is NULL at attribute index=1 type=1"}},
    {"LengthZero", CKA_VALUE, true, 0, {"ERROR C_FindObjectsInit: ulValueLen<=0 at attribute index=1 type=17"}},
    {"ClassOfLengthZero", CKA_CLASS, true, 0, {"ERROR C_FindObjectsInit: ulValueLen<=0 at attribute index=1 type=0"}},
    badClassSize("ClassOfTheOtherLayoutsSize", OTHER_INTEGER_SIZE),
    badClassSize("ClassOfOneByte", 1),
    badClassSize("ClassOneByteTooShort", sizeof(CK_ULONG) - 1),
    badClassSize("ClassOneByteTooLong", sizeof(CK_ULONG) + 1),
};

class BadEntryTest : public ObjectSearchTest, public testing::WithParamInterface<BadEntry>
{
protected:
    Answer refused()
    {
        const BadEntry& entry = GetParam();
        criteria_.add(CKA_TOKEN, ByteVector{CK_TRUE})
            .addRaw(entry.type, entry.hasValue ? room_ : nullptr, entry.length);
        criteria_.addRaw(CKA_CLASS, nullptr, 0); // Not reached.
        return begin(criteria_);
    }

    Answer expected() const
    {
        Answer result = {
            CKR_ATTRIBUTE_VALUE_INVALID,
            {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 3", "DEBUG Find object init type : 1"}};
        result.lines.insert(result.lines.end(), GetParam().lines.begin(), GetParam().lines.end());
        return result;
    }

    Template criteria_;
    unsigned char room_[16] = {};
};

INSTANTIATE_TEST_SUITE_P(All, BadEntryTest, testing::ValuesIn(badEntries),
                         [](const auto& entry) { return entry.param.name; });

TEST_P(BadEntryTest, IsRefusedWithoutADeviceCall)
{
    EXPECT_CALL(*device_, velkor_getCertificateList).Times(0);
    EXPECT_CALL(*device_, velkor_getKeyPairList).Times(0);
    EXPECT_EQ(refused(), expected());
    expectNoSearch();
}

TEST_P(BadEntryTest, EmptiesTheSearchInProgressButDoesNotEndIt)
{
    beginAll();
    EXPECT_EQ(page(2).size(), 2u);
    EXPECT_EQ(refused(), expected());
    EXPECT_THAT(page(100), IsEmpty());
    EXPECT_EQ(C_FindObjectsFinal(hSession_), CKR_OK);
}

TEST_F(ObjectSearchTest, ARefusedTemplateLeavesAnotherOperationInProgress)
{
    beginDigest();
    Template criteria;
    EXPECT_EQ(begin(criteria.addRaw(CKA_LABEL, nullptr, 0)).code, CKR_ATTRIBUTE_VALUE_INVALID);
    CK_BYTE data = 1;
    EXPECT_EQ(C_DigestUpdate(hSession_, &data, 1), CKR_OK);
}

TEST_F(ObjectSearchTest, BeginningSilentlyReplacesASignature)
{
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(C_SignInit(hSession_, &mechanism, privateKey(2)), CKR_OK);
    EXPECT_EQ(answer(C_FindObjectsInit, hSession_, nullptr, 0),
              (Answer{CKR_OK, {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 0"}}));
    CK_BYTE data = 1;
    CK_ULONG length = 0;
    EXPECT_EQ(answer(C_Sign, hSession_, &data, 1, nullptr, &length),
              refusal(CKR_OPERATION_NOT_INITIALIZED, "C_Sign", "C_Sign: operation not initialized, activeOperation=1"));
    EXPECT_EQ(page(1), Handles{publicKey(1)});
}

TEST_F(ObjectSearchTest, ANewSearchReplacesTheOneInProgress)
{
    beginAll();
    EXPECT_EQ(page(5).size(), 5u);
    EXPECT_EQ(searchClass(CKO_CERTIFICATE), CERTIFICATES);
}

TEST_F(ObjectSearchTest, TenThousandEntriesAreRead)
{
    setLogLevel("2");
    Template criteria;
    for (int entry = 0; entry < 9999; ++entry)
        criteria.add(CKA_TOKEN, ByteVector{CK_TRUE});
    criteria.add(CKA_CLASS, CKO_CERTIFICATE);
    EXPECT_EQ(search(criteria), CERTIFICATES);
}

TEST_F(ObjectSearchTest, AClassNeedNotBeAligned)
{
    ByteVector room = bytesOf(CKO_CERTIFICATE);
    room.insert(room.begin(), 0xFF);
    Template criteria;
    EXPECT_EQ(search(criteria.addRaw(CKA_CLASS, room.data() + 1, sizeof(CK_OBJECT_CLASS))), CERTIFICATES);
}

// ---- Devices that have not been read ----

struct EmptyLists {
    const char* name;
    bool certificates;
    bool keyPairs;

    friend std::ostream& operator<<(std::ostream& out, const EmptyLists& lists) { return out << lists.name; }
};

class EmptyListsTest : public ObjectSearchTest, public testing::WithParamInterface<EmptyLists>
{
protected:
    void SetUp() override
    {
        ObjectSearchTest::SetUp();
        full_ = first();
        if (GetParam().certificates)
            first().certificates.clear();
        if (GetParam().keyPairs)
            first().keyPairs.clear();
    }

    void expectFetch() const
    {
        EXPECT_CALL(*device_, velkor_getCertificateList(StrEq(FIRST_DEVICE), instance_)).Times(1);
        EXPECT_CALL(*device_, velkor_getKeyPairList(StrEq(FIRST_DEVICE), instance_)).Times(1);
    }

    auto& expectInitialization() const
    {
        return EXPECT_CALL(*device_, velkor_initDevice(StrEq(FIRST_DEVICE), true, instance_));
    }

    /// What is found in the lists as they are.
    static Handles rest()
    {
        return together(
            {GetParam().keyPairs ? Handles() : PUBLIC_KEYS, GetParam().certificates ? Handles() : CERTIFICATES});
    }

    DeviceRecords full_;
};

INSTANTIATE_TEST_SUITE_P(All, EmptyListsTest,
                         testing::Values(EmptyLists{"NoCertificates", true, false},
                                         EmptyLists{"NoKeyPairs", false, true}, EmptyLists{"Nothing", true, true}),
                         [](const auto& lists) { return lists.param.name; });

TEST_P(EmptyListsTest, InitializeTheDeviceAndAreFetchedAgain)
{
    const testing::InSequence order;
    expectFetch();
    expectInitialization().WillOnce([&] {
        first() = full_;
        return 0;
    });
    expectFetch();
    Template none;
    EXPECT_EQ(begin(none), (Answer{CKR_OK, {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 0"}}));
    EXPECT_EQ(page(100), together({PUBLIC_KEYS, CERTIFICATES}));
}

TEST_P(EmptyListsTest, MayStillBeEmptyAfterTheInitialization)
{
    const testing::InSequence order;
    expectFetch();
    expectInitialization().WillOnce(testing::Return(0));
    expectFetch();
    EXPECT_EQ(searchAll(), rest());
}

TEST_P(EmptyListsTest, AreSearchedAsTheyAreWhenTheInitializationFails)
{
    const testing::InSequence order;
    expectFetch();
    expectInitialization().WillOnce(testing::Return(-5));
    Template criteria;
    EXPECT_EQ(
        begin(criteria.add(CKA_ID, ByteVector{1})),
        (Answer{CKR_OK,
                {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 1", "DEBUG Find object init type : 258",
                 "ERROR Init device for certificates in find objects failed : -5", "DEBUG Find init id : 01"}}));
    EXPECT_EQ(page(100), rest());
}

TEST_P(EmptyListsTest, InitializeTheDeviceWhateverClassIsSearched)
{
    for (const CK_OBJECT_CLASS objectClass : {CKO_CERTIFICATE, CKO_PUBLIC_KEY, CKO_PRIVATE_KEY, CKO_DATA}) {
        EXPECT_CALL(*device_, velkor_getCertificateList(StrEq(FIRST_DEVICE), instance_)).Times(2);
        EXPECT_CALL(*device_, velkor_getKeyPairList(StrEq(FIRST_DEVICE), instance_)).Times(2);
        expectInitialization().Times(1);
        searchClass(objectClass);
        testing::Mock::VerifyAndClearExpectations(device_.get());
    }
}

// ---- Classes and session states ----

class SearchStateTest : public ObjectSearchTest, public testing::WithParamInterface<CK_STATE>
{
protected:
    void SetUp() override
    {
        ObjectSearchTest::SetUp();
        enterState(GetParam());
    }

    /// Private keys are found while a user is logged in, which an SO is not.
    static Handles privateKeys()
    {
        const bool user = GetParam() == CKS_RO_USER_FUNCTIONS || GetParam() == CKS_RW_USER_FUNCTIONS;
        return user ? PRIVATE_KEYS : Handles();
    }
};

INSTANTIATE_TEST_SUITE_P(All, SearchStateTest,
                         testing::Values(CKS_RO_PUBLIC_SESSION, CKS_RO_USER_FUNCTIONS, CKS_RW_PUBLIC_SESSION,
                                         CKS_RW_USER_FUNCTIONS, CKS_RW_SO_FUNCTIONS));

TEST_P(SearchStateTest, AnEmptyTemplateFindsEverythingButPrivateKeysOnlyForAUser)
{
    EXPECT_EQ(searchAll(), together({PUBLIC_KEYS, privateKeys(), CERTIFICATES}));
}

TEST_P(SearchStateTest, PrivateKeysAreFoundForAUserOnly)
{
    EXPECT_EQ(searchClass(CKO_PRIVATE_KEY), privateKeys());
}

TEST_P(SearchStateTest, PublicKeysAndCertificatesAreFoundInEveryState)
{
    EXPECT_EQ(searchClass(CKO_PUBLIC_KEY), PUBLIC_KEYS);
    EXPECT_EQ(searchClass(CKO_CERTIFICATE), CERTIFICATES);
}

TEST_F(ObjectSearchTest, PrivateKeysAreHiddenFromAPublicSessionThoughAPinIsCached)
{
    logInOnTheOtherToken();
    EXPECT_THAT(searchClass(CKO_PRIVATE_KEY), IsEmpty());
    EXPECT_EQ(searchAll(), together({PUBLIC_KEYS, CERTIFICATES}));
}

TEST_F(ObjectSearchTest, PrivateKeysAreHiddenFromASecurityOfficerThoughAPinIsCached)
{
    logInAsUserThenAsSecurityOfficer();
    EXPECT_THAT(searchClass(CKO_PRIVATE_KEY), IsEmpty());
    EXPECT_EQ(searchAll(), together({PUBLIC_KEYS, CERTIFICATES}));
}

TEST_F(ObjectSearchTest, PrivateKeysAreFoundInAUserSessionWithoutAPin)
{
    logInAndLoseThePin();
    EXPECT_EQ(searchClass(CKO_PRIVATE_KEY), PRIVATE_KEYS);
    EXPECT_EQ(searchAll(), together({PUBLIC_KEYS, PRIVATE_KEYS, CERTIFICATES}));
}

TEST_F(ObjectSearchTest, OtherClassesFindNothing)
{
    login();
    for (const CK_OBJECT_CLASS other :
         {CKO_DATA, CKO_SECRET_KEY, CKO_HW_FEATURE, CKO_DOMAIN_PARAMETERS, CKO_VENDOR_DEFINED + 1, MAX_ULONG})
        EXPECT_THAT(searchClass(other), IsEmpty()) << logged(other);
}

TEST_F(ObjectSearchTest, TheVendorDefinedClassStandsForNoClass)
{
    EXPECT_EQ(searchClass(CKO_VENDOR_DEFINED), searchAll());
}

TEST_F(ObjectSearchTest, ALabelWithoutAClassFindsEverything)
{
    Template criteria;
    EXPECT_EQ(search(criteria.addTerminated(CKA_LABEL, "no such label")), together({PUBLIC_KEYS, CERTIFICATES}));
}

TEST_F(ObjectSearchTest, CriteriaWithoutAClassFindEverything)
{
    for (const CK_ATTRIBUTE_TYPE type : {CKA_VALUE, CKA_SUBJECT, CKA_ID, CKA_MODULUS}) {
        Template criteria;
        EXPECT_EQ(search(criteria.add(type, ByteVector{0xFF})), together({PUBLIC_KEYS, CERTIFICATES})) << logged(type);
    }
}

TEST_F(ObjectSearchTest, OtherAttributesAreIgnored)
{
    Template criteria;
    criteria.add(CKA_CLASS, CKO_CERTIFICATE).add(CKA_TOKEN, ByteVector{CK_FALSE}).add(CKA_ISSUER, ByteVector{1});
    criteria.add(CKA_KEY_TYPE, CKK_EC).add(MAX_ULONG, ByteVector{1});
    EXPECT_EQ(search(criteria), CERTIFICATES);
}

TEST_F(ObjectSearchTest, ASearchAsksItsSessionsDevice)
{
    EXPECT_CALL(*device_, velkor_getCertificateList(StrEq(SECOND_DEVICE), instance_)).Times(2);
    EXPECT_CALL(*device_, velkor_getKeyPairList(StrEq(SECOND_DEVICE), instance_)).Times(2);
    EXPECT_CALL(*device_, velkor_initDevice(StrEq(SECOND_DEVICE), true, instance_)).Times(1);
    hSession_ = openSession(CKF_SERIAL_SESSION, SECOND_SLOT);
    EXPECT_EQ(searchAll(), Handles{publicKey(1)});
}

TEST_F(ObjectSearchTest, DerivedKeysAreNeverFound)
{
    derive(hSession_, 5, {1, 2, 3});
    EXPECT_EQ(searchAll(), together({PUBLIC_KEYS, CERTIFICATES}));
    EXPECT_THAT(searchClass(CKO_SECRET_KEY), IsEmpty());
}

// ---- Criteria ----

/// How the objects of a class are searched for: criteria in the order of their precedence, and what their values are.
struct SearchedClass {
    const char* name;
    CK_OBJECT_CLASS objectClass;
    CK_OBJECT_HANDLE (*handle)(CK_ULONG id);
    std::vector<CK_ATTRIBUTE_TYPE> criteria;
    CK_ATTRIBUTE_TYPE ignored; ///< A criterion of the other kind of object.

    friend std::ostream& operator<<(std::ostream& out, const SearchedClass& searched) { return out << searched.name; }
};

const std::vector<CK_ATTRIBUTE_TYPE> KEY_CRITERIA = {CKA_LABEL, CKA_VALUE, CKA_ID, CKA_MODULUS};
const std::vector<CK_ATTRIBUTE_TYPE> CERTIFICATE_CRITERIA = {CKA_LABEL, CKA_VALUE, CKA_SUBJECT, CKA_ID};

const SearchedClass searchedClasses[] = {
    {"PublicKeys", CKO_PUBLIC_KEY, publicKey, KEY_CRITERIA, CKA_SUBJECT},
    {"PrivateKeys", CKO_PRIVATE_KEY, privateKey, KEY_CRITERIA, CKA_SUBJECT},
    {"Certificates", CKO_CERTIFICATE, certificate, CERTIFICATE_CRITERIA, CKA_MODULUS},
};

class SearchCriteriaTest : public ObjectSearchTest, public testing::WithParamInterface<SearchedClass>
{
protected:
    void SetUp() override
    {
        ObjectSearchTest::SetUp();
        login();
        for (std::uint32_t id = 1; id <= 3; ++id) {
            setObjectId(keyPair(id), static_cast<unsigned char>(0x10 + id));
            setObjectId(certificateRecord(id), static_cast<unsigned char>(0x20 + id));
        }
    }

    static void setObjectId(auto& record, unsigned char start)
    {
        const ByteVector id = {start, 0x00, 0xFE};
        std::copy(id.begin(), id.end(), record.objectId);
        record.objectIdLength = 3;
    }

    /// What the object has of a criterion.
    ByteVector valueOf(CK_ATTRIBUTE_TYPE type, std::uint32_t id) const
    {
        return GetParam().objectClass == CKO_CERTIFICATE ? certificateValue(type, certificateRecord(id))
                                                         : keyValue(type, keyPair(id));
    }

    static ByteVector keyValue(CK_ATTRIBUTE_TYPE type, const VelkorKeyPair& record)
    {
        if (type == CKA_LABEL)
            return bytesOf(record.label);
        return type == CKA_ID ? ByteVector(record.objectId, record.objectId + 3) : publicKeyBytes(record);
    }

    static ByteVector certificateValue(CK_ATTRIBUTE_TYPE type, const VelkorCertificate& record)
    {
        if (type == CKA_LABEL)
            return bytesOf(record.label);
        if (type == CKA_ID)
            return {record.objectId, record.objectId + 3};
        ByteVector value = type == CKA_SUBJECT ? bytesOf("subject") : ByteVector();
        value.insert(value.end(), record.der.begin(), record.der.end());
        return value;
    }

    static void add(Template& criteria, CK_ATTRIBUTE_TYPE type, const ByteVector& value)
    {
        if (type == CKA_LABEL)
            criteria.addTerminated(type, std::string(value.begin(), value.end()));
        else
            criteria.add(type, value);
    }

    /// Finds with the class and the criteria, each with its value.
    Handles find(const std::vector<std::pair<CK_ATTRIBUTE_TYPE, ByteVector>>& values) const
    {
        Template criteria;
        criteria.add(CKA_CLASS, GetParam().objectClass);
        for (const auto& [type, value] : values)
            add(criteria, type, value);
        return search(criteria);
    }

    Handles only(CK_ULONG id) const { return {GetParam().handle(id)}; }
};

INSTANTIATE_TEST_SUITE_P(All, SearchCriteriaTest, testing::ValuesIn(searchedClasses),
                         [](const auto& searched) { return searched.param.name; });

TEST_P(SearchCriteriaTest, EachFindsTheObjectThatHasItsValue)
{
    for (const CK_ATTRIBUTE_TYPE type : GetParam().criteria) {
        for (std::uint32_t id = 1; id <= 3; ++id)
            EXPECT_EQ(find({{type, valueOf(type, id)}}), only(id)) << logged(type);
    }
}

TEST_P(SearchCriteriaTest, EachWantsTheWholeValueAndNoMore)
{
    for (const CK_ATTRIBUTE_TYPE type : GetParam().criteria) {
        const ByteVector value = valueOf(type, 1);
        ByteVector longer = value;
        longer.push_back('1');
        ByteVector changed = value;
        changed.back() ^= 0x20;
        for (const ByteVector& other : {longer, ByteVector(value.begin(), value.end() - 1), changed})
            EXPECT_THAT(find({{type, other}}), IsEmpty()) << logged(type);
    }
}

TEST_P(SearchCriteriaTest, AnEarlierOneInThePrecedenceDecidesAlone)
{
    const std::vector<CK_ATTRIBUTE_TYPE>& criteria = GetParam().criteria;
    for (std::size_t deciding = 0; deciding < criteria.size(); ++deciding) {
        for (std::size_t other = deciding + 1; other < criteria.size(); ++other) {
            const std::pair decides(criteria[deciding], valueOf(criteria[deciding], 1));
            const std::pair loses(criteria[other], valueOf(criteria[other], 2));
            EXPECT_EQ(find({decides, loses}), only(1)) << deciding << other;
            EXPECT_EQ(find({loses, decides}), only(1)) << deciding << other;
        }
    }
}

TEST_P(SearchCriteriaTest, ThoseOfOtherClassesAreIgnored)
{
    EXPECT_EQ(find({{GetParam().ignored, ByteVector{1}}}), searchClass(GetParam().objectClass));
    const CK_ATTRIBUTE_TYPE last = GetParam().criteria.back();
    EXPECT_EQ(find({{GetParam().ignored, ByteVector{1}}, {last, valueOf(last, 2)}}), only(2));
}

TEST_P(SearchCriteriaTest, ALaterOneOfTheSameTypeReplacesTheEarlier)
{
    for (const CK_ATTRIBUTE_TYPE type : GetParam().criteria)
        EXPECT_EQ(find({{type, valueOf(type, 1)}, {type, valueOf(type, 2)}}), only(2)) << logged(type);
}

TEST_P(SearchCriteriaTest, ALaterClassReplacesTheEarlier)
{
    const CK_OBJECT_CLASS other = GetParam().objectClass == CKO_CERTIFICATE ? CKO_PUBLIC_KEY : CKO_CERTIFICATE;
    Template criteria;
    criteria.add(CKA_CLASS, GetParam().objectClass).add(CKA_CLASS, other);
    EXPECT_EQ(search(criteria), searchClass(other));
}

TEST_P(SearchCriteriaTest, SeveralObjectsMayMatch)
{
    const ByteVector label = valueOf(CKA_LABEL, 3);
    std::copy(label.begin(), label.end(), keyPair(1).label);
    std::copy(label.begin(), label.end(), certificateRecord(1).label);
    EXPECT_EQ(find({{CKA_LABEL, label}}), (Handles{GetParam().handle(1), GetParam().handle(3)}));
}

TEST_P(SearchCriteriaTest, ALabelEndsAtItsZeroByteWhateverItsLength)
{
    ByteVector label = valueOf(CKA_LABEL, 2);
    label.resize(label.size() + 5);
    for (const CK_ULONG length : {CK_ULONG{1}, static_cast<CK_ULONG>(label.size())}) {
        Template criteria;
        criteria.add(CKA_CLASS, GetParam().objectClass).addRaw(CKA_LABEL, label.data(), length);
        EXPECT_EQ(search(criteria), only(2)) << length;
    }
}

TEST_P(SearchCriteriaTest, AnEmptyLabelFindsWhatHasNone)
{
    clearLabel(keyPair(1));
    clearLabel(certificateRecord(1));
    certificateRecord(1).der = {0x30, 0x00}; // Neither can a label be computed.
    char nothing = '\0';
    Template criteria;
    EXPECT_EQ(search(criteria.add(CKA_CLASS, GetParam().objectClass).addRaw(CKA_LABEL, &nothing, 1)), only(1));
}

TEST_F(ObjectSearchTest, TheSubjectOfEveryCertificateIsAskedOf)
{
    for (std::uint32_t id = 1; id <= 3; ++id) {
        const ByteVector der = certificateRecord(id).der;
        EXPECT_CALL(*device_, velkor_getCertificateSubject(PointsTo(der), static_cast<int>(der.size()), instance_))
            .WillOnce(testing::Return(ByteVector{static_cast<unsigned char>(id / 2)}));
    }
    Template criteria;
    criteria.add(CKA_CLASS, CKO_CERTIFICATE).add(CKA_SUBJECT, ByteVector{1});
    EXPECT_EQ(search(criteria), (Handles{certificate(2), certificate(3)}));
}

// ---- Computed labels ----

class ComputedLabelSearchTest : public ObjectSearchTest
{
protected:
    void SetUp() override
    {
        ObjectSearchTest::SetUp();
        clearLabel(keyPair(2)); // Certificate 1 has its public key.
        clearLabel(certificateRecord(1));
    }

    Answer beginWithLabel(CK_OBJECT_CLASS objectClass, const char* label = "Subject 1_Issuer")
    {
        criteria_.add(CKA_CLASS, objectClass).addTerminated(CKA_LABEL, label);
        return begin(criteria_);
    }

    Handles searchLabel(CK_OBJECT_CLASS objectClass, const std::string& label) const
    {
        Template criteria;
        return search(criteria.add(CKA_CLASS, objectClass).addTerminated(CKA_LABEL, label));
    }

    auto& expectUpdate() const
    {
        return EXPECT_CALL(*device_, velkor_updateKeyPairDetails(StrEq(FIRST_DEVICE),
                                                                 PointsTo(identifierBytes(keyPair(2))), StrEq("1234"),
                                                                 StrEq("Subject 1_Issuer"), nullptr, 0, instance_));
    }

    /// A parsing of the first certificate, which is done without the instance.
    auto& expectParsing() const
    {
        const ByteVector der = certificateRecord(1).der;
        return EXPECT_CALL(*device_,
                           velkor_getCertificateDetails(PointsTo(der), static_cast<int>(der.size()), _, nullptr));
    }

    static Answer begunAndLogged(CK_OBJECT_CLASS objectClass, const std::string& line)
    {
        return {CKR_OK,
                {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 2", "DEBUG Find object init type : 0",
                 "DEBUG Find object class : " + logged(objectClass), "DEBUG Find object init type : 3", line}};
    }

    Template criteria_;
};

TEST_F(ComputedLabelSearchTest, AKeyPairIsFoundByIt)
{
    EXPECT_CALL(*device_, velkor_updateKeyPairDetails).Times(0);
    // One for the search, one for the label.
    EXPECT_CALL(*device_, velkor_getCertificateList(StrEq(FIRST_DEVICE), instance_)).Times(2);
    expectParsing();
    EXPECT_EQ(beginWithLabel(CKO_PUBLIC_KEY),
              begunAndLogged(CKO_PUBLIC_KEY, "DEBUG Empty key pair label, computed: Subject 1_Issuer"));
    EXPECT_EQ(page(100), Handles{publicKey(2)});
}

TEST_F(ComputedLabelSearchTest, AComputedLabelIsComparedAfterTheCut)
{
    detailsOf(1).subjectCommonName = std::string(64, 's');
    detailsOf(1).issuerCommonName = std::string(65, 'i');
    const std::string whole = std::string(64, 's') + "_" + std::string(65, 'i');
    const std::string cut = whole.substr(0, 128);
    EXPECT_EQ(searchLabel(CKO_PUBLIC_KEY, cut), Handles{publicKey(2)});
    EXPECT_EQ(searchLabel(CKO_CERTIFICATE, cut), Handles{certificate(1)});
    EXPECT_THAT(searchLabel(CKO_PUBLIC_KEY, whole), IsEmpty());
    EXPECT_THAT(searchLabel(CKO_CERTIFICATE, whole), IsEmpty());
}

TEST_F(ComputedLabelSearchTest, AKeyPairsIsWrittenBackForAUserEvenWhenItDoesNotMatch)
{
    login();
    expectUpdate().WillOnce(testing::Return(STATUS_DEVICE_REMOVED));
    EXPECT_EQ(beginWithLabel(CKO_PRIVATE_KEY, "another").code, CKR_OK);
    EXPECT_THAT(page(100), IsEmpty());
}

TEST_F(ComputedLabelSearchTest, ALabelIsWrittenBackFromAPublicSessionWithTheCachedPin)
{
    logInOnTheOtherToken();
    expectUpdate().Times(1);
    EXPECT_EQ(searchLabel(CKO_PUBLIC_KEY, "Subject 1_Issuer"), Handles{publicKey(2)});
}

TEST_F(ComputedLabelSearchTest, ALabelIsWrittenBackForASecurityOfficerWithTheCachedPin)
{
    logInAsUserThenAsSecurityOfficer();
    expectUpdate().Times(1);
    EXPECT_EQ(searchLabel(CKO_PUBLIC_KEY, "Subject 1_Issuer"), Handles{publicKey(2)});
}

TEST_F(ComputedLabelSearchTest, ALabelIsNotWrittenBackFromAUserSessionWithoutAPin)
{
    logInAndLoseThePin();
    EXPECT_CALL(*device_, velkor_updateKeyPairDetails).Times(0);
    EXPECT_EQ(searchLabel(CKO_PRIVATE_KEY, "Subject 1_Issuer"), Handles{privateKey(2)});
}

TEST_F(ComputedLabelSearchTest, ACertificateIsFoundByItAndItIsNotWrittenBack)
{
    login();
    EXPECT_CALL(*device_, velkor_updateKeyPairDetails).Times(0);
    EXPECT_CALL(*device_, velkor_getCertificateList(StrEq(FIRST_DEVICE), instance_)).Times(1);
    expectParsing();
    EXPECT_EQ(beginWithLabel(CKO_CERTIFICATE),
              begunAndLogged(CKO_CERTIFICATE, "DEBUG Empty certificate label, computed: Subject 1_Issuer"));
    EXPECT_EQ(page(100), Handles{certificate(1)});
}

TEST_F(ComputedLabelSearchTest, IsNotComputedWithoutALabelCriterion)
{
    EXPECT_CALL(*device_, velkor_getCertificateDetails).Times(0);
    EXPECT_EQ(searchClass(CKO_PUBLIC_KEY), PUBLIC_KEYS);
    EXPECT_EQ(searchClass(CKO_CERTIFICATE), CERTIFICATES);
    EXPECT_EQ(searchAll(), together({PUBLIC_KEYS, CERTIFICATES}));
}

// ---- Handing out ----

TEST_F(ObjectSearchTest, PagesOfThreeGiveEachKindInTurn)
{
    keepFew();
    login();
    beginAll();
    EXPECT_EQ(page(3), (Handles{publicKey(1), publicKey(2), publicKey(3)}));
    EXPECT_EQ(page(3), (Handles{privateKey(1), privateKey(2), privateKey(3)}));
    EXPECT_EQ(page(3), (Handles{certificate(1), certificate(2)}));
    EXPECT_THAT(page(3), IsEmpty());
    EXPECT_THAT(page(3), IsEmpty());
}

TEST_F(ObjectSearchTest, EveryPageSizeGivesTheSameObjects)
{
    keepFew();
    login();
    const Handles all = searchAll();
    ASSERT_EQ(all.size(), 8u);
    for (CK_ULONG size = 1; size <= 9; ++size) {
        beginAll();
        Handles given;
        for (Handles handles = page(size); !handles.empty(); handles = page(size)) {
            EXPECT_EQ(handles.size(), std::min<std::size_t>(size, all.size() - given.size()));
            given.insert(given.end(), handles.begin(), handles.end());
        }
        EXPECT_EQ(given, all) << size;
    }
}

TEST_F(ObjectSearchTest, NothingIsWrittenBehindThePage)
{
    keepFew();
    beginAll();
    Handles room(6, 0xEE);
    CK_ULONG count = 77;
    ASSERT_EQ(C_FindObjects(hSession_, room.data(), 2, &count), CKR_OK);
    EXPECT_EQ(count, 2u);
    EXPECT_THAT(room, ElementsAre(publicKey(1), publicKey(2), 0xEE, 0xEE, 0xEE, 0xEE));
    ASSERT_EQ(C_FindObjects(hSession_, room.data(), 6, &count), CKR_OK);
    EXPECT_EQ(count, 3u);
    EXPECT_THAT(room, ElementsAre(publicKey(3), certificate(1), certificate(2), 0xEE, 0xEE, 0xEE));
}

TEST_F(ObjectSearchTest, APageMayBeAskedForWithoutALimit)
{
    beginAll();
    EXPECT_EQ(page(4).size(), 4u);
    Handles room(10, 0xEE);
    CK_ULONG count = 77;
    ASSERT_EQ(C_FindObjects(hSession_, room.data(), MAX_ULONG, &count), CKR_OK);
    EXPECT_EQ(count, 6u);
    EXPECT_THAT(room, ElementsAre(publicKey(5), publicKey(6), publicKey(7), certificate(1), certificate(2),
                                  certificate(3), 0xEE, 0xEE, 0xEE, 0xEE));
}

TEST_F(ObjectSearchTest, HandlesAreFormedFromIds)
{
    first().keyPairs.clear();
    first().certificates.clear();
    for (const std::uint32_t id : {0u, 1u, 5u, 4095u, 4096u}) {
        first().keyPairs.push_back(makeKeyPair(id, KEY_KIND_EC_P256, "pair"));
        first().certificates.push_back(makeCertificate(id, "certificate"));
    }
    login();
    EXPECT_THAT(searchClass(CKO_PUBLIC_KEY), ElementsAre(0x70001000, 0x70001001, 0x70001005, 0x70001FFF, 0x70002000));
    EXPECT_THAT(searchClass(CKO_PRIVATE_KEY), ElementsAre(0x70000000, 0x70000001, 0x70000005, 0x70000FFF, 0x70001000));
    EXPECT_THAT(searchClass(CKO_CERTIFICATE), ElementsAre(0x70002000, 0x70002001, 0x70002005, 0x70002FFF, 0x70003000));
}

TEST_F(ObjectSearchTest, ObjectsComeInTheOrderOfTheDevicesLists)
{
    std::reverse(first().keyPairs.begin(), first().keyPairs.end());
    std::swap(first().certificates[0], first().certificates[2]);
    EXPECT_EQ(searchClass(CKO_PUBLIC_KEY), Handles(PUBLIC_KEYS.rbegin(), PUBLIC_KEYS.rend()));
    EXPECT_EQ(searchClass(CKO_CERTIFICATE), Handles(CERTIFICATES.rbegin(), CERTIFICATES.rend()));
}

TEST_F(ObjectSearchTest, WhatIsHandedOutIsLogged)
{
    keepFew();
    beginAll();
    Handles room(4);
    CK_ULONG count = 0;
    EXPECT_EQ(answer(C_FindObjects, hSession_, room.data(), 4, &count),
              (Answer{CKR_OK,
                      {"DEBUG C_FindObjects", "DEBUG C_FindObjects find object count : 5",
                       "DEBUG Find object return : 1879052289 1879052290 1879052291 1879056385",
                       "DEBUG C_FindObjects find object count return : 4"}}));
    EXPECT_EQ(page(1).size(), 1u);
    EXPECT_EQ(answer(C_FindObjects, hSession_, room.data(), 4, &count),
              (Answer{CKR_OK,
                      {"DEBUG C_FindObjects", "DEBUG C_FindObjects find object count : 5",
                       "DEBUG Find object return : ", "DEBUG C_FindObjects find object count return : 0"}}));
    EXPECT_EQ(count, 0u);
}

TEST_F(ObjectSearchTest, ASearchThatFindsNothingGivesNothing)
{
    Template criteria;
    ASSERT_EQ(begin(criteria.add(CKA_CLASS, CKO_PUBLIC_KEY).addTerminated(CKA_LABEL, "no such label")).code, CKR_OK);
    CK_OBJECT_HANDLE handle = 0xEE;
    CK_ULONG count = 77;
    EXPECT_EQ(answer(C_FindObjects, hSession_, &handle, 1, &count),
              (Answer{CKR_OK,
                      {"DEBUG C_FindObjects", "DEBUG C_FindObjects find object count : 0",
                       "DEBUG C_FindObjects find object count 0"}}));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(handle, 0xEEu);
}

TEST_F(ObjectSearchTest, RoomForNothingGivesNothingAndKeepsThePosition)
{
    beginAll();
    EXPECT_EQ(page(1), Handles{publicKey(1)});
    CK_ULONG count = 77;
    EXPECT_EQ(answer(C_FindObjects, hSession_, nullptr, 0, &count),
              (Answer{CKR_OK,
                      {"DEBUG C_FindObjects", "DEBUG C_FindObjects find object count : 10",
                       "DEBUG C_FindObjects find object max count is 0 : 0"}}));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(page(1), Handles{publicKey(2)});
}

TEST_F(ObjectSearchTest, NullHandlesWithRoomAreRefusedAndLeaveCountAndPosition)
{
    beginAll();
    CK_ULONG count = 77;
    EXPECT_EQ(answer(C_FindObjects, hSession_, nullptr, 3, &count),
              refusal(CKR_ARGUMENTS_BAD, "C_FindObjects", "C_FindObjects: phObject is NULL with ulMaxObjectCount=3"));
    EXPECT_EQ(count, 77u);
    EXPECT_EQ(page(1), Handles{publicKey(1)});
}

TEST_F(ObjectSearchTest, ANullCountIsRefusedAndLeavesHandlesAndPosition)
{
    beginAll();
    CK_OBJECT_HANDLE handle = 0xEE;
    EXPECT_EQ(answer(C_FindObjects, hSession_, &handle, 1, nullptr),
              refusal(CKR_ARGUMENTS_BAD, "C_FindObjects", "C_FindObjects: pulObjectCount is NULL"));
    EXPECT_EQ(handle, 0xEEu);
    EXPECT_EQ(answer(C_FindObjects, hSession_, nullptr, 0, nullptr),
              refusal(CKR_ARGUMENTS_BAD, "C_FindObjects", "C_FindObjects: pulObjectCount is NULL"));
    EXPECT_EQ(page(1), Handles{publicKey(1)});
}

TEST_F(ObjectSearchTest, HandlesAreExaminedBeforeTheCount)
{
    beginAll();
    EXPECT_EQ(answer(C_FindObjects, hSession_, nullptr, 1, nullptr),
              refusal(CKR_ARGUMENTS_BAD, "C_FindObjects", "C_FindObjects: phObject is NULL with ulMaxObjectCount=1"));
}

TEST_F(ObjectSearchTest, HandingOutWithoutASearchIsRefusedBeforeItsArgumentsAreExamined)
{
    EXPECT_EQ(answer(C_FindObjects, hSession_, nullptr, 1, nullptr),
              refusal(CKR_OPERATION_NOT_INITIALIZED, "C_FindObjects",
                      "C_FindObjects: operation not initialized, activeOperation=0"));
    beginDigest();
    CK_OBJECT_HANDLE handle = 0xEE;
    CK_ULONG count = 77;
    EXPECT_EQ(answer(C_FindObjects, hSession_, &handle, 1, &count),
              refusal(CKR_OPERATION_NOT_INITIALIZED, "C_FindObjects",
                      "C_FindObjects: operation not initialized, activeOperation=4"));
    EXPECT_EQ(count, 77u);
}

TEST_F(ObjectSearchTest, WhatWasFoundDoesNotChangeWithTheDeviceOrTheLogin)
{
    keepFew();
    beginAll();
    EXPECT_CALL(*device_, velkor_getCertificateList).Times(0);
    EXPECT_CALL(*device_, velkor_getKeyPairList).Times(0);
    first().keyPairs.clear();
    first().certificates.push_back(makeCertificate(9, "late"));
    login();
    EXPECT_EQ(page(100), (Handles{publicKey(1), publicKey(2), publicKey(3), certificate(1), certificate(2)}));
}

TEST_F(ObjectSearchTest, EachSessionHasASearchOfItsOwn)
{
    keepFew();
    beginAll();
    EXPECT_EQ(page(1), Handles{publicKey(1)});
    const CK_SESSION_HANDLE one = std::exchange(hSession_, openSession(CKF_SERIAL_SESSION));
    expectNoSearch();
    EXPECT_EQ(searchClass(CKO_CERTIFICATE), (Handles{certificate(1), certificate(2)}));
    ASSERT_EQ(C_FindObjectsFinal(hSession_), CKR_OK);
    hSession_ = one;
    EXPECT_EQ(page(1), Handles{publicKey(2)});
}

// ---- Ending a search ----

TEST_F(ObjectSearchTest, EndingTwiceIsRefusedTheSecondTime)
{
    beginAll();
    EXPECT_EQ(answer(C_FindObjectsFinal, hSession_), (Answer{CKR_OK, {"DEBUG C_FindObjectsFinal"}}));
    EXPECT_EQ(answer(C_FindObjectsFinal, hSession_),
              refusal(CKR_OPERATION_NOT_INITIALIZED, "C_FindObjectsFinal",
                      "C_FindObjectsFinal: operation not initialized, activeOperation=0"));
    expectNoSearch();
}

TEST_F(ObjectSearchTest, EndingLeavesAnotherOperationInProgress)
{
    beginDigest();
    EXPECT_EQ(answer(C_FindObjectsFinal, hSession_),
              refusal(CKR_OPERATION_NOT_INITIALIZED, "C_FindObjectsFinal",
                      "C_FindObjectsFinal: operation not initialized, activeOperation=4"));
    CK_BYTE data = 1;
    EXPECT_EQ(C_DigestUpdate(hSession_, &data, 1), CKR_OK);
}

TEST_F(ObjectSearchTest, EndingMakesWayForOtherOperations)
{
    beginAll();
    ASSERT_EQ(C_FindObjectsFinal(hSession_), CKR_OK);
    beginDigest();
}

} // namespace
