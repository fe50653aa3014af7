// C_DestroyObject.
#include <stdexcept>

#include "object_change_fixture.h"

namespace
{

using testing::Return;
using testing::StrEq;
using testing::Throw;

const std::string DELETION = "C_DestroyObject";
const std::string BROKEN_DELETION_LINE = "C_DestroyObject: unexpected exception: broken";

constexpr CK_OBJECT_HANDLE KEY_PAIR_2 = 0x70000002;
constexpr CK_OBJECT_HANDLE CERTIFICATE_2 = 0x70002002;

class DeletionTest : public ObjectChangeTest
{
protected:
    Answer destroy(CK_OBJECT_HANDLE hObject) const { return answer(C_DestroyObject, hSession_, hObject); }

    /// The answer of a call that came past the session's state.
    static Answer answerOn(CK_OBJECT_HANDLE hObject, CK_RV code, const std::vector<std::string>& debugLines = {},
                           const std::string& error = "")
    {
        std::vector<std::string> lines = {"Delete key pair id : " + logged(hObject)};
        lines.insert(lines.end(), debugLines.begin(), debugLines.end());
        return answerOf(DELETION, code, lines, error);
    }

    void expectKeyPairDeletion(const VelkorKeyPair& keyPair, const std::string& pin, int status = 0)
    {
        EXPECT_CALL(*device_, velkor_deleteKeyPair(StrEq(FIRST_DEVICE), PointsTo(identifierOf(keyPair)), StrEq(pin),
                                                   keyPair.deviceFlag, instance()))
            .InSequence(script_)
            .WillOnce(Return(status));
    }

    void expectCertificateDeletion(const VelkorCertificate& certificate, const std::string& pin, int status = 0)
    {
        EXPECT_CALL(*device_, velkor_deleteCertificate(StrEq(FIRST_DEVICE), PointsTo(identifierOf(certificate)),
                                                       StrEq(pin), instance()))
            .InSequence(script_)
            .WillOnce(Return(status));
    }

    /// Makes the session of the test one in that state.
    void enterState(CK_STATE state)
    {
        if (state == CKS_RW_SO_FUNCTIONS)
            login(CKU_SO);
        if (state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS)
            login();
        if (state < CKS_RW_PUBLIC_SESSION)
            hSession_ = openSession(READ_ONLY);
        ASSERT_EQ(stateOf(hSession_), state);
    }
};

TEST_F(ModuleTest, DestroyObjectBeforeInitializeIsRefused)
{
    EXPECT_EQ(answer(C_DestroyObject, 0, 0),
              refusal(CKR_CRYPTOKI_NOT_INITIALIZED, DELETION, "C_DestroyObject: not initialized"));
}

TEST_F(DeletionTest, UnknownSessionIsRefusedWithoutItsNumber)
{
    EXPECT_EQ(answer(C_DestroyObject, hSession_ + 1, KEY_PAIR_2),
              refusal(CKR_SESSION_HANDLE_INVALID, DELETION, "Delete session state invalid"));
}

// ---- Session states ----

class ReadOnlyStateTest : public DeletionTest, public testing::WithParamInterface<CK_STATE>
{
};

INSTANTIATE_TEST_SUITE_P(States, ReadOnlyStateTest, testing::Values(CKS_RO_PUBLIC_SESSION, CKS_RO_USER_FUNCTIONS));

TEST_P(ReadOnlyStateTest, IsRefusedBeforeTheHandleIsLookedAt)
{
    enterState(GetParam());
    for (const CK_OBJECT_HANDLE hObject : {KEY_PAIR_2, CERTIFICATE_2, CK_OBJECT_HANDLE{0}, ~CK_OBJECT_HANDLE{0}}) {
        EXPECT_EQ(destroy(hObject),
                  answerOf(DELETION, CKR_SESSION_READ_ONLY, {"Delete session state invalid : " + logged(GetParam())}));
    }
}

struct WritableState {
    CK_STATE state;
    const char* pin;

    friend std::ostream& operator<<(std::ostream& out, const WritableState& each) { return out << each.state; }
};

class ReadWriteStateTest : public DeletionTest, public testing::WithParamInterface<WritableState>
{
};

INSTANTIATE_TEST_SUITE_P(States, ReadWriteStateTest,
                         testing::Values(WritableState{CKS_RW_PUBLIC_SESSION, ""},
                                         WritableState{CKS_RW_USER_FUNCTIONS, "1234"},
                                         WritableState{CKS_RW_SO_FUNCTIONS, ""}));

TEST_P(ReadWriteStateTest, DeletesWithTheUserPinThatIsCached)
{
    enterState(GetParam().state);
    expectKeyPairList();
    expectKeyPairDeletion(keyPair(2), GetParam().pin);
    EXPECT_EQ(destroy(KEY_PAIR_2), answerOn(KEY_PAIR_2, CKR_OK));
    expectCertificateList();
    expectCertificateDeletion(first().certificates[1], GetParam().pin);
    EXPECT_EQ(destroy(CERTIFICATE_2), answerOn(CERTIFICATE_2, CKR_OK));
}

// ---- Handles ----

class HandleTest : public DeletionTest, public testing::WithParamInterface<CK_OBJECT_HANDLE>
{
};

class NeitherPrivateKeyNorCertificateTest : public HandleTest
{
};

INSTANTIATE_TEST_SUITE_P(Handles, NeitherPrivateKeyNorCertificateTest,
                         testing::Values(0u, 1u, 0x50000001u, 0x60000001u, 0x6FFFFFFFu, 0x70001000u, 0x70001001u,
                                         0x70001FFFu));

TEST_P(NeitherPrivateKeyNorCertificateTest, IsRefused)
{
    EXPECT_EQ(destroy(GetParam()), answerOn(GetParam(), CKR_OBJECT_HANDLE_INVALID, {},
                                            "C_DestroyObject: invalid hObject=" + logged(GetParam())));
}

class MissingKeyPairTest : public HandleTest
{
};

INSTANTIATE_TEST_SUITE_P(Handles, MissingKeyPairTest, testing::Values(0x70000000u, 0x70000008u, 0x70000FFFu));

TEST_P(MissingKeyPairTest, IsToldInADebugLine)
{
    expectKeyPairList();
    EXPECT_EQ(destroy(GetParam()), answerOn(GetParam(), CKR_OBJECT_HANDLE_INVALID,
                                            {"Input keypair not found in destroy : " + logged(GetParam())}));
}

class MissingCertificateTest : public HandleTest
{
};

INSTANTIATE_TEST_SUITE_P(Handles, MissingCertificateTest,
                         testing::Values(0x70002000u, 0x70002004u, 0x70002FFFu, 0x70003000u, 0x80000001u,
                                         ~CK_OBJECT_HANDLE{0}));

TEST_P(MissingCertificateTest, IsToldInADebugLine)
{
    expectCertificateList();
    EXPECT_EQ(destroy(GetParam()), answerOn(GetParam(), CKR_OBJECT_HANDLE_INVALID,
                                            {"Input certificate not found in destroy : " + logged(GetParam())}));
}

class RecordNumberTest : public DeletionTest, public testing::WithParamInterface<std::uint32_t>
{
};

INSTANTIATE_TEST_SUITE_P(Numbers, RecordNumberTest, testing::Values(0, 1, 4095));

TEST_P(RecordNumberTest, OfAKeyPairIsReachedThroughItsPrivateKeysHandle)
{
    const CK_OBJECT_HANDLE hObject = 0x70000000 + GetParam();
    keyPair(7).id = GetParam();
    std::swap(first().keyPairs.front(), first().keyPairs.back());
    expectKeyPairList();
    expectKeyPairDeletion(first().keyPairs.front(), "");
    EXPECT_EQ(destroy(hObject), answerOn(hObject, CKR_OK));
}

TEST_P(RecordNumberTest, OfACertificateIsReachedThroughItsHandle)
{
    const CK_OBJECT_HANDLE hObject = 0x70002000 + GetParam();
    first().certificates[2].id = GetParam();
    std::swap(first().certificates.front(), first().certificates.back());
    expectCertificateList();
    expectCertificateDeletion(first().certificates.front(), "");
    EXPECT_EQ(destroy(hObject), answerOn(hObject, CKR_OK));
}

TEST_F(DeletionTest, ACertificateNumberedPastItsRangeIsReachedAllTheSame)
{
    first().certificates[2].id = 0x1000;
    expectCertificateList();
    expectCertificateDeletion(first().certificates[2], "");
    EXPECT_EQ(destroy(0x70003000), answerOn(0x70003000, CKR_OK));
}

TEST_F(DeletionTest, WithoutAnyRecordFindsNothing)
{
    first().keyPairs.clear();
    first().certificates.clear();
    expectKeyPairList();
    EXPECT_EQ(destroy(KEY_PAIR_2).code, CKR_OBJECT_HANDLE_INVALID);
    expectCertificateList();
    EXPECT_EQ(destroy(CERTIFICATE_2).code, CKR_OBJECT_HANDLE_INVALID);
}

// ---- The device ----

class DeviceFlagTest : public DeletionTest, public testing::WithParamInterface<bool>
{
};

INSTANTIATE_TEST_SUITE_P(Values, DeviceFlagTest, testing::Bool());

TEST_P(DeviceFlagTest, IsHandedBackAsTheRecordHasIt)
{
    keyPair(2).deviceFlag = GetParam();
    expectKeyPairList();
    expectKeyPairDeletion(keyPair(2), "");
    EXPECT_EQ(destroy(KEY_PAIR_2).code, CKR_OK);
}

class DeletionFailureTest : public DeletionTest, public testing::WithParamInterface<int>
{
};

// A device that is gone, 40 or 242, is not told apart here.
INSTANTIATE_TEST_SUITE_P(Statuses, DeletionFailureTest, testing::Values(1, 40, 242, -3));

TEST_P(DeletionFailureTest, OfAKeyPairIsLoggedWithItsStatus)
{
    expectKeyPairList();
    expectKeyPairDeletion(keyPair(2), "", GetParam());
    EXPECT_EQ(destroy(KEY_PAIR_2), answerOn(KEY_PAIR_2, CKR_FUNCTION_FAILED, {},
                                            "Delete keypair in destroy object failed : " + std::to_string(GetParam())));
}

TEST_P(DeletionFailureTest, OfACertificateIsLoggedWithItsStatus)
{
    expectCertificateList();
    expectCertificateDeletion(first().certificates[1], "", GetParam());
    EXPECT_EQ(destroy(CERTIFICATE_2),
              answerOn(CERTIFICATE_2, CKR_FUNCTION_FAILED, {},
                       "Delete certificate in destroy object failed : " + std::to_string(GetParam())));
}

TEST_F(DeletionTest, OfAKeyPairByAThrowingLibraryIsAFailureOfTheModule)
{
    expectKeyPairList();
    EXPECT_CALL(*device_, velkor_deleteKeyPair).InSequence(script_).WillOnce(Throw(std::runtime_error("broken")));
    EXPECT_EQ(destroy(KEY_PAIR_2), answerOn(KEY_PAIR_2, CKR_GENERAL_ERROR, {}, BROKEN_DELETION_LINE));
}

TEST_F(DeletionTest, OfACertificateByAThrowingLibraryIsAFailureOfTheModule)
{
    expectCertificateList();
    EXPECT_CALL(*device_, velkor_deleteCertificate).InSequence(script_).WillOnce(Throw(std::runtime_error("broken")));
    EXPECT_EQ(destroy(CERTIFICATE_2), answerOn(CERTIFICATE_2, CKR_GENERAL_ERROR, {}, BROKEN_DELETION_LINE));
}

TEST_F(DeletionTest, OfAKeyPairLeavesTheOtherObjects)
{
    expectKeyPairList();
    EXPECT_CALL(*device_, velkor_deleteKeyPair).InSequence(script_);
    ASSERT_EQ(destroy(KEY_PAIR_2).code, CKR_OK);
    std::vector<std::uint32_t> left;
    for (const VelkorKeyPair& each : first().keyPairs)
        left.push_back(each.id);
    EXPECT_THAT(left, testing::ElementsAre(1, 3, 4, 5, 6, 7));
    EXPECT_EQ(first().certificates.size(), 3u);
}

TEST_F(DeletionTest, ASecondTimeFindsNothing)
{
    expectCertificateList();
    EXPECT_CALL(*device_, velkor_deleteCertificate).InSequence(script_);
    ASSERT_EQ(destroy(CERTIFICATE_2).code, CKR_OK);
    expectCertificateList();
    EXPECT_EQ(destroy(CERTIFICATE_2).code, CKR_OBJECT_HANDLE_INVALID);
}

TEST_F(DeletionTest, AnOperationInProgressGoesOn)
{
    EXPECT_CALL(*device_, velkor_deleteKeyPair).WillRepeatedly(Return(0));
    EXPECT_CALL(*device_, velkor_deleteCertificate).WillRepeatedly(Return(0));
    expectOperationsGoOn([&] {
        EXPECT_EQ(destroy(KEY_PAIR_2).code, CKR_OK);
        EXPECT_EQ(destroy(CERTIFICATE_2).code, CKR_OK);
    });
}

TEST_F(DeletionTest, GoesToTheDeviceOfTheSession)
{
    hSession_ = openSession(READ_WRITE, SECOND_SLOT);
    expectKeyPairList(SECOND_DEVICE);
    EXPECT_CALL(*device_, velkor_deleteKeyPair(StrEq(SECOND_DEVICE), testing::_, testing::_, testing::_, instance()))
        .InSequence(script_);
    EXPECT_EQ(destroy(0x70000001).code, CKR_OK);
    EXPECT_EQ(first().keyPairs.size(), 7u);
}

} // namespace
