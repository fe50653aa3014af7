// C_GenerateRandom.
#include "key_operation_fixture.h"

namespace
{

using testing::_;
using testing::Return;
using testing::StrEq;

class RandomTest : public KeyOperationTest
{
protected:
    Answer generate(CK_BYTE* pRandomData, CK_ULONG ulRandomLen) const
    {
        return answer(C_GenerateRandom, hSession_, pRandomData, ulRandomLen);
    }

    static Answer refused(CK_RV code, const std::string& text)
    {
        return refusal(code, "C_GenerateRandom", "C_GenerateRandom: " + text);
    }

    void expectNoDeviceCall() const { EXPECT_CALL(*device_, velkor_generateRamdomNumber).Times(0); }
};

const Answer GENERATED = {CKR_OK, {"DEBUG C_GenerateRandom"}};

TEST_F(RandomTest, TheDeviceWritesStraightIntoTheCallersBufferAndGetsNoInstance)
{
    ByteVector random(32, 0);
    EXPECT_CALL(*device_, velkor_generateRamdomNumber(StrEq(FIRST_DEVICE), 32, random.data(), true, nullptr)).Times(1);
    EXPECT_EQ(generate(random.data(), 32), GENERATED);
    EXPECT_EQ(random, ByteVector(32, 0x5A));
}

TEST_F(RandomTest, NoMoreBytesAreWrittenThanAskedFor)
{
    for (const CK_ULONG length : {CK_ULONG{1}, CK_ULONG{1} << 20}) {
        ByteVector random(length + 1, 0);
        EXPECT_EQ(generate(random.data(), length), GENERATED);
        EXPECT_EQ(random, joined({ByteVector(length, 0x5A), {0}}));
    }
}

TEST_F(RandomTest, NoLengthIsTooLargeForTheModule)
{
    CK_BYTE random = 0;
    EXPECT_CALL(*device_, velkor_generateRamdomNumber(_, std::numeric_limits<int>::max(), &random, _, _))
        .WillOnce(Return(0));
    EXPECT_CALL(*device_, velkor_generateRamdomNumber(_, std::numeric_limits<int>::min(), &random, _, _))
        .WillOnce(Return(5));
    EXPECT_EQ(generate(&random, TOO_LARGE_FOR_INT - 1), GENERATED);
    EXPECT_EQ(generate(&random, TOO_LARGE_FOR_INT),
              refused(CKR_FUNCTION_FAILED, "generate random number failed ret=5"));
}

#ifdef CRYPTOKI_HOST_LAYOUT
TEST_F(RandomTest, ALengthBeyond32BitsDoesNotBecomeASmallOne)
{
    CK_BYTE random = 0;
    EXPECT_CALL(*device_, velkor_generateRamdomNumber(_, -1, &random, _, _)).WillOnce(Return(5));
    EXPECT_EQ(generate(&random, (CK_ULONG{1} << 32) + 1).code, CKR_FUNCTION_FAILED);
}
#endif

TEST_F(RandomTest, TheSessionsDeviceIsAsked)
{
    reopenSession(CKF_SERIAL_SESSION, SECOND_SLOT);
    CK_BYTE random = 0;
    EXPECT_CALL(*device_, velkor_generateRamdomNumber(StrEq(SECOND_DEVICE), 1, &random, true, nullptr)).Times(1);
    EXPECT_EQ(generate(&random, 1), GENERATED);
}

TEST_F(RandomTest, AnUnknownSessionIsRefused)
{
    expectNoDeviceCall();
    CK_BYTE random = 0;
    for (const CK_SESSION_HANDLE handle : {CK_SESSION_HANDLE{0}, hSession_ + 1, ALL_BITS})
        EXPECT_EQ(answer(C_GenerateRandom, handle, &random, 1),
                  refused(CKR_SESSION_HANDLE_INVALID, "invalid hSession=" + logged(handle)));
}

TEST_F(RandomTest, ANullBufferIsRefusedBeforeALengthOfZero)
{
    expectNoDeviceCall();
    CK_BYTE random = 7;
    const Answer nullBuffer = refused(CKR_ARGUMENTS_BAD, "RandomData is NULL");
    EXPECT_EQ(generate(nullptr, 0), nullBuffer);
    EXPECT_EQ(generate(nullptr, 1), nullBuffer);
    EXPECT_EQ(generate(&random, 0), refused(CKR_ARGUMENTS_BAD, "ulRandomLen<=0, ulRandomLen=0"));
    EXPECT_EQ(random, 7);
}

TEST_F(RandomTest, EveryStatusOfTheDeviceIsAFailureOfTheFunction)
{
    CK_BYTE random = 7;
    for (const int status : {1, -1, STATUS_DEVICE_REMOVED, STATUS_DEVICE_UNREACHABLE}) {
        EXPECT_CALL(*device_, velkor_generateRamdomNumber).WillOnce(Return(status));
        EXPECT_EQ(generate(&random, 1),
                  refused(CKR_FUNCTION_FAILED, "generate random number failed ret=" + std::to_string(status)));
    }
    EXPECT_EQ(random, 7);
}

TEST_F(RandomTest, AThrowingLibraryIsAFailureOfTheModule)
{
    CK_BYTE random = 7;
    EXPECT_CALL(*device_, velkor_generateRamdomNumber).WillOnce(testing::Throw(std::runtime_error("broken")));
    EXPECT_EQ(generate(&random, 1), refused(CKR_GENERAL_ERROR, "unexpected exception: broken"));
}

TEST_F(RandomTest, APublicReadOnlySessionMayAsk)
{
    reopenSession(CKF_SERIAL_SESSION);
    CK_BYTE random = 0;
    EXPECT_EQ(generate(&random, 1), GENERATED);
}

TEST_F(RandomTest, AnOperationInProgressIsNoObstacleAndGoesOn)
{
    CK_BYTE random = 0;
    for (const int operation : {FIND, ENCRYPT, DECRYPT, DIGEST, VERIFY, DIGEST_ENCRYPT, DIGEST_DECRYPT}) {
        reopenSession();
        start(operation);
        EXPECT_EQ(generate(&random, 1), GENERATED);
        EXPECT_EQ(activeOperation(), operation);
    }
}

} // namespace
