// C_SetAttributeValue.
#include "object_fixture.h"

namespace
{

using testing::_;
using testing::StrEq;

const std::string SET = "DEBUG C_SetAttributeValue";
const std::string END = "DEBUG Set attribute end";

std::string typeLine(CK_ATTRIBUTE_TYPE type)
{
    return "DEBUG C_SetAttributeValue - attrip type : " + logged(type);
}

class SetAttributeTest : public ObjectTest
{
protected:
    Answer set(CK_OBJECT_HANDLE hObject, Template& changes) const
    {
        return answer(C_SetAttributeValue, hSession_, hObject, changes.data(), changes.size());
    }

    auto& expectUpdate(const std::string& label, const ByteVector& objectId, const std::string& pin = "") const
    {
        return EXPECT_CALL(*device_,
                           velkor_updateKeyPairDetails(StrEq(FIRST_DEVICE), PointsTo(identifierBytes(keyPair(2))),
                                                       StrEq(pin), StrEq(label), PointsTo(objectId),
                                                       static_cast<int>(objectId.size()), instance_));
    }

    void expectNoUpdate() const { EXPECT_CALL(*device_, velkor_updateKeyPairDetails).Times(0); }
};

TEST_F(SetAttributeTest, ALabelAloneLeavesTheIdEmpty)
{
    expectUpdate("new label", {});
    Template changes;
    EXPECT_EQ(set(privateKey(2), changes.add(CKA_LABEL, "new label")),
              (Answer{CKR_OK, {SET, typeLine(CKA_LABEL), END}}));
    EXPECT_EQ(attribute(publicKey(2), CKA_LABEL), bytesOf("new label"));
    EXPECT_EQ(attribute(publicKey(2), CKA_ID), ByteVector{2});
}

TEST_F(SetAttributeTest, AnIdAloneLeavesTheLabelEmpty)
{
    expectUpdate("", {7, 0, 9});
    Template changes;
    EXPECT_EQ(set(publicKey(2), changes.add(CKA_ID, ByteVector{7, 0, 9})),
              (Answer{CKR_OK, {SET, typeLine(CKA_ID), END}}));
    EXPECT_EQ(attribute(privateKey(2), CKA_ID), (ByteVector{7, 0, 9}));
    EXPECT_EQ(attribute(privateKey(2), CKA_LABEL), bytesOf("pair 2"));
}

TEST_F(SetAttributeTest, LabelAndIdGoInOneUpdateWithTheUsersPin)
{
    login();
    expectUpdate("new", {8}, "1234");
    Template changes;
    EXPECT_EQ(set(privateKey(2), changes.add(CKA_ID, ByteVector{8}).add(CKA_LABEL, "new")),
              (Answer{CKR_OK, {SET, typeLine(CKA_ID), typeLine(CKA_LABEL), END}}));
}

TEST_F(SetAttributeTest, BothHalvesOfAPairChangeTheSameRecord)
{
    expectUpdate("one", {});
    Template one;
    EXPECT_EQ(set(privateKey(2), one.add(CKA_LABEL, "one")).code, CKR_OK);
    EXPECT_EQ(attribute(publicKey(2), CKA_LABEL), bytesOf("one"));
    expectUpdate("two", {});
    Template two;
    EXPECT_EQ(set(publicKey(2), two.add(CKA_LABEL, "two")).code, CKR_OK);
    EXPECT_EQ(attribute(privateKey(2), CKA_LABEL), bytesOf("two"));
}

TEST_F(SetAttributeTest, ALaterEntryOfTheSameTypeReplacesTheEarlier)
{
    expectUpdate("later", {2, 2});
    Template changes;
    changes.add(CKA_LABEL, "earlier").add(CKA_ID, ByteVector{1}).add(CKA_LABEL, "later").add(CKA_ID, ByteVector{2, 2});
    EXPECT_EQ(set(privateKey(2), changes).code, CKR_OK);
}

TEST_F(SetAttributeTest, ALabelHasTheBytesOfItsLength)
{
    expectUpdate("lab", {});
    char label[] = "label";
    Template changes;
    EXPECT_EQ(set(privateKey(2), changes.addRaw(CKA_LABEL, label, 3)).code, CKR_OK);
}

TEST_F(SetAttributeTest, ALabelIsCutAtItsZeroByte)
{
    expectUpdate("ab", {});
    Template changes;
    EXPECT_EQ(set(privateKey(2), changes.add(CKA_LABEL, ByteVector{'a', 'b', 0, 'c', 'd'})).code, CKR_OK);
}

TEST_F(SetAttributeTest, ALabelOfOneZeroByteIsSentEmpty)
{
    expectUpdate("", {}).Times(1);
    Template changes;
    EXPECT_EQ(set(privateKey(2), changes.add(CKA_LABEL, ByteVector{0})),
              (Answer{CKR_OK, {SET, typeLine(CKA_LABEL), END}}));
}

TEST_F(SetAttributeTest, LongValuesGoToTheDeviceWhole)
{
    const std::string label(300, 'x');
    expectUpdate(label, ByteVector(200, 0xAB)).WillOnce(testing::Return(0));
    Template changes;
    changes.add(CKA_LABEL, label.c_str()).add(CKA_ID, ByteVector(200, 0xAB));
    EXPECT_EQ(set(privateKey(2), changes).code, CKR_OK);
}

TEST_F(SetAttributeTest, EntriesWithoutAValueAreSkipped)
{
    expectNoUpdate();
    char value = 'x';
    Template changes;
    changes.addRaw(CKA_LABEL, nullptr, 1).addRaw(CKA_LABEL, &value, 0).addRaw(CKA_ID, nullptr, 0);
    changes.addRaw(CKA_ID, &value, 0).addRaw(CKA_TOKEN, nullptr, 1);
    EXPECT_EQ(set(privateKey(2), changes), (Answer{CKR_OK, {SET, END}}));
}

TEST_F(SetAttributeTest, AnEntryWithoutAValueDoesNotReplaceAnEarlierOne)
{
    expectUpdate("kept", {});
    Template changes;
    EXPECT_EQ(set(privateKey(2), changes.add(CKA_LABEL, "kept").addRaw(CKA_LABEL, nullptr, 3)).code, CKR_OK);
}

TEST_F(SetAttributeTest, OtherTypesAreIgnoredWithoutAnUpdate)
{
    expectNoUpdate();
    Template changes;
    changes.add(CKA_VENDOR_DEFINED, ByteVector{1}).add(CKA_CLASS, CKO_DATA).add(CKA_SUBJECT, ByteVector{1});
    EXPECT_EQ(set(privateKey(2), changes),
              (Answer{CKR_OK, {SET, typeLine(CKA_VENDOR_DEFINED), typeLine(CKA_CLASS), typeLine(CKA_SUBJECT), END}}));
}

TEST_F(SetAttributeTest, TenThousandEntriesAreRead)
{
    setLogLevel("2");
    expectUpdate("last", {});
    std::string last = "last";
    Template changes;
    for (int entry = 0; entry < 9999; ++entry)
        changes.addRaw(CKA_TOKEN, last.data(), 1);
    EXPECT_EQ(set(privateKey(2), changes.add(CKA_LABEL, "last")).code, CKR_OK);
}

TEST_F(SetAttributeTest, AnUpdateThatTheDeviceRefusesFails)
{
    for (const int status : {1, -3, STATUS_DEVICE_REMOVED, STATUS_DEVICE_UNREACHABLE}) {
        expectUpdate("new", {}).WillOnce(testing::Return(status));
        Template changes;
        EXPECT_EQ(
            set(privateKey(2), changes.add(CKA_LABEL, "new")),
            (Answer{CKR_FUNCTION_FAILED,
                    {SET, typeLine(CKA_LABEL), "ERROR Update key pair details failed : " + std::to_string(status)}}));
    }
}

TEST_F(SetAttributeTest, ANullTemplateIsRefusedBeforeItsCount)
{
    for (const CK_ULONG count : {0u, 1u})
        EXPECT_EQ(answer(C_SetAttributeValue, hSession_, privateKey(2), nullptr, count),
                  refusal(CKR_ARGUMENTS_BAD, "C_SetAttributeValue", "C_SetAttributeValue: pTemplate is NULL"));
}

TEST_F(SetAttributeTest, AnEmptyTemplateIsRefusedBeforeTheHandle)
{
    CK_ATTRIBUTE entry = {CKA_LABEL, nullptr, 0};
    EXPECT_EQ(answer(C_SetAttributeValue, hSession_, 0, &entry, 0),
              refusal(CKR_ARGUMENTS_BAD, "C_SetAttributeValue", "C_SetAttributeValue: ulCount<=0"));
}

class SetAttributeStateTest : public SetAttributeTest, public testing::WithParamInterface<CK_STATE>
{
};

INSTANTIATE_TEST_SUITE_P(All, SetAttributeStateTest,
                         testing::Values(CKS_RO_PUBLIC_SESSION, CKS_RO_USER_FUNCTIONS, CKS_RW_PUBLIC_SESSION,
                                         CKS_RW_USER_FUNCTIONS, CKS_RW_SO_FUNCTIONS));

TEST_P(SetAttributeStateTest, AttributesAreChangedInEveryState)
{
    enterState(GetParam());
    const bool user = GetParam() == CKS_RO_USER_FUNCTIONS || GetParam() == CKS_RW_USER_FUNCTIONS;
    expectUpdate("new", {}, user ? "1234" : "");
    Template changes;
    EXPECT_EQ(set(privateKey(2), changes.add(CKA_LABEL, "new")).code, CKR_OK);
}

TEST_F(SetAttributeTest, ChangesFromAPublicSessionAreSentWithTheCachedPin)
{
    logInOnTheOtherToken();
    expectUpdate("new", {}, "1234");
    Template changes;
    EXPECT_EQ(set(privateKey(2), changes.add(CKA_LABEL, "new")).code, CKR_OK);
}

TEST_F(SetAttributeTest, ChangesFromAUserSessionAreSentWithoutAPinThatIsNotCached)
{
    logInAndLoseThePin();
    expectUpdate("new", {}, "");
    Template changes;
    EXPECT_EQ(set(privateKey(2), changes.add(CKA_LABEL, "new")).code, CKR_OK);
}

TEST_F(SetAttributeTest, ChangesOfASecurityOfficerAreSentWithTheCachedPin)
{
    logInAsUserThenAsSecurityOfficer();
    expectUpdate("new", {}, "1234");
    Template changes;
    EXPECT_EQ(set(privateKey(2), changes.add(CKA_LABEL, "new")).code, CKR_OK);
}

TEST_F(SetAttributeTest, ChangesLeaveTheSearchInProgress)
{
    ASSERT_EQ(C_FindObjectsInit(hSession_, nullptr, 0), CKR_OK);
    EXPECT_EQ(page(1), Handles{publicKey(1)});
    Template changes;
    EXPECT_EQ(set(privateKey(2), changes.add(CKA_LABEL, "new")).code, CKR_OK);
    EXPECT_EQ(page(1), Handles{publicKey(2)});
}

} // namespace
