// What a failure of the device leaves behind: the operation in progress, and what of a session's begun hash and
// gathered data the next operation finds.
#include <stdexcept>

#include "scripted_device_fixture.h"

namespace
{

const ByteVector INPUT = {1, 2, 3};
const ByteVector GATHERED = {7, 8, 9};

struct Step {
    const char* function;
    CK_RV (*call)(CK_SESSION_HANDLE);
};

CK_RV begin(CK_RV (*init)(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE), CK_SESSION_HANDLE session,
            CK_MECHANISM_TYPE type)
{
    CK_MECHANISM mechanism = {type, nullptr, 0};
    return init(session, &mechanism, privateKey(2));
}

constexpr Step DIGEST_INIT = {"C_DigestInit", [](CK_SESSION_HANDLE session) {
                                  CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
                                  return C_DigestInit(session, &mechanism);
                              }};
constexpr Step DIGEST_DATA = {"C_Digest", [](CK_SESSION_HANDLE session) {
                                  Output output;
                                  return C_Digest(session, pointerTo(INPUT), sizeOf(INPUT), output.data(),
                                                  &output.length);
                              }};
constexpr Step DIGEST_UPDATE = {"C_DigestUpdate", [](CK_SESSION_HANDLE session) {
                                    return C_DigestUpdate(session, pointerTo(INPUT), sizeOf(INPUT));
                                }};
constexpr Step DIGEST_FINAL = {"C_DigestFinal", [](CK_SESSION_HANDLE session) {
                                   Output output;
                                   return C_DigestFinal(session, output.data(), &output.length);
                               }};
constexpr Step SIGN_INIT = {"C_SignInit",
                            [](CK_SESSION_HANDLE session) { return begin(C_SignInit, session, CKM_SHA256_RSA_PKCS); }};
constexpr Step RAW_SIGN_INIT = {"C_SignInit",
                                [](CK_SESSION_HANDLE session) { return begin(C_SignInit, session, CKM_ECDSA); }};
constexpr Step SIGN_DATA = {"C_Sign", [](CK_SESSION_HANDLE session) {
                                Output output;
                                return C_Sign(session, pointerTo(INPUT), sizeOf(INPUT), output.data(), &output.length);
                            }};
constexpr Step SIGN_UPDATE = {
    "C_SignUpdate", [](CK_SESSION_HANDLE session) { return C_SignUpdate(session, pointerTo(INPUT), sizeOf(INPUT)); }};
constexpr Step SIGN_FINAL = {"C_SignFinal", [](CK_SESSION_HANDLE session) {
                                 Output output;
                                 return C_SignFinal(session, output.data(), &output.length);
                             }};
constexpr Step VERIFY_INIT = {
    "C_VerifyInit", [](CK_SESSION_HANDLE session) { return begin(C_VerifyInit, session, CKM_SHA256_RSA_PKCS); }};
constexpr Step RAW_VERIFY_INIT = {"C_VerifyInit",
                                  [](CK_SESSION_HANDLE session) { return begin(C_VerifyInit, session, CKM_ECDSA); }};
constexpr Step VERIFY_DATA = {"C_Verify", [](CK_SESSION_HANDLE session) {
                                  return C_Verify(session, pointerTo(INPUT), sizeOf(INPUT), pointerTo(INPUT),
                                                  sizeOf(INPUT));
                              }};
constexpr Step VERIFY_UPDATE = {"C_VerifyUpdate", [](CK_SESSION_HANDLE session) {
                                    return C_VerifyUpdate(session, pointerTo(INPUT), sizeOf(INPUT));
                                }};
constexpr Step VERIFY_FINAL = {
    "C_VerifyFinal", [](CK_SESSION_HANDLE session) { return C_VerifyFinal(session, pointerTo(INPUT), sizeOf(INPUT)); }};

enum class DeviceCall { KeyLookup, InitHash, UpdateHash, FinalHash, SignHash, VerifySignatureHash };

enum class Left { Nothing, Hash, Data, Both };

/// A session that an earlier operation has left a begun hash and gathered data goes through `before`; then one call of
/// the device fails in `step`.
struct Failure {
    const char* name;
    std::vector<Step> before;
    Step step;
    DeviceCall deviceCall;
    int operation; ///< Afterwards.
    Left left;     ///< Of the session's begun hash and its gathered data.
    bool hashHasBegun = true;

    friend std::ostream& operator<<(std::ostream& out, const Failure& each) { return out << each.name; }
};

constexpr bool NOT_BEGUN = false;

// clang-format off
const Failure FAILURES[] = {
    {"DigestInit", {}, DIGEST_INIT, DeviceCall::InitHash, NO_OPERATION, Left::Both},
    {"DigestInitAgain", {DIGEST_INIT}, DIGEST_INIT, DeviceCall::InitHash, DIGEST, Left::Hash},
    {"DigestUpdatingAHash", {DIGEST_INIT}, DIGEST_DATA, DeviceCall::UpdateHash, DIGEST, Left::Hash},
    {"DigestEndingAHash", {DIGEST_INIT}, DIGEST_DATA, DeviceCall::FinalHash, DIGEST, Left::Hash},
    {"DigestUpdate", {DIGEST_INIT}, DIGEST_UPDATE, DeviceCall::UpdateHash, DIGEST, Left::Hash},
    {"DigestFinal", {DIGEST_INIT}, DIGEST_FINAL, DeviceCall::FinalHash, DIGEST, Left::Hash},
    {"SignInit", {}, SIGN_INIT, DeviceCall::KeyLookup, NO_OPERATION, Left::Both},
    {"SignBeginningAHash", {SIGN_INIT}, SIGN_DATA, DeviceCall::InitHash, NO_OPERATION, Left::Both},
    {"SignUpdatingAHash", {SIGN_INIT}, SIGN_DATA, DeviceCall::UpdateHash, NO_OPERATION, Left::Both},
    {"SignEndingAHash", {SIGN_INIT}, SIGN_DATA, DeviceCall::FinalHash, NO_OPERATION, Left::Both},
    {"Sign", {SIGN_INIT}, SIGN_DATA, DeviceCall::SignHash, NO_OPERATION, Left::Both},
    {"SignUpdateBeginningAHash", {SIGN_INIT}, SIGN_UPDATE, DeviceCall::InitHash, NO_OPERATION, Left::Data, NOT_BEGUN},
    {"SignUpdateOfANewHash", {SIGN_INIT}, SIGN_UPDATE, DeviceCall::UpdateHash, NO_OPERATION, Left::Data, NOT_BEGUN},
    {"SignUpdate", {SIGN_INIT}, SIGN_UPDATE, DeviceCall::UpdateHash, NO_OPERATION, Left::Data},
    {"SignFinalEndingAHash", {SIGN_INIT}, SIGN_FINAL, DeviceCall::FinalHash, NO_OPERATION, Left::Nothing},
    {"SignFinal", {SIGN_INIT}, SIGN_FINAL, DeviceCall::SignHash, NO_OPERATION, Left::Nothing},
    {"SignFinalOfRawData", {RAW_SIGN_INIT, SIGN_UPDATE}, SIGN_FINAL, DeviceCall::SignHash, NO_OPERATION, Left::Hash},
    {"VerifyInit", {}, VERIFY_INIT, DeviceCall::KeyLookup, NO_OPERATION, Left::Both},
    {"VerifyInitDuringADigest", {DIGEST_INIT}, VERIFY_INIT, DeviceCall::KeyLookup, DIGEST, Left::Hash},
    {"VerifyBeginningAHash", {VERIFY_INIT}, VERIFY_DATA, DeviceCall::InitHash, NO_OPERATION, Left::Both},
    {"VerifyUpdatingAHash", {VERIFY_INIT}, VERIFY_DATA, DeviceCall::UpdateHash, NO_OPERATION, Left::Both},
    {"VerifyEndingAHash", {VERIFY_INIT}, VERIFY_DATA, DeviceCall::FinalHash, NO_OPERATION, Left::Both},
    {"Verify", {VERIFY_INIT}, VERIFY_DATA, DeviceCall::VerifySignatureHash, NO_OPERATION, Left::Both},
    {"VerifyUpdateBeginningAHash", {VERIFY_INIT}, VERIFY_UPDATE, DeviceCall::InitHash, NO_OPERATION, Left::Data,
     NOT_BEGUN},
    {"VerifyUpdateOfANewHash", {VERIFY_INIT}, VERIFY_UPDATE, DeviceCall::UpdateHash, NO_OPERATION, Left::Data,
     NOT_BEGUN},
    {"VerifyUpdate", {VERIFY_INIT}, VERIFY_UPDATE, DeviceCall::UpdateHash, NO_OPERATION, Left::Data},
    {"VerifyFinalEndingAHash", {VERIFY_INIT}, VERIFY_FINAL, DeviceCall::FinalHash, NO_OPERATION, Left::Nothing},
    {"VerifyFinal", {VERIFY_INIT}, VERIFY_FINAL, DeviceCall::VerifySignatureHash, NO_OPERATION, Left::Nothing},
    {"VerifyFinalOfRawData", {RAW_VERIFY_INIT, VERIFY_UPDATE}, VERIFY_FINAL, DeviceCall::VerifySignatureHash,
     NO_OPERATION, Left::Hash},
};
// clang-format on

CK_RV codeOfFailed(DeviceCall deviceCall)
{
    if (deviceCall == DeviceCall::KeyLookup)
        return CKR_OBJECT_HANDLE_INVALID;
    return deviceCall == DeviceCall::VerifySignatureHash ? CKR_SIGNATURE_INVALID : CKR_FUNCTION_FAILED;
}

class EveryDeviceFailure : public ScriptedDeviceTest, public testing::WithParamInterface<Failure>
{
protected:
    void SetUp() override
    {
        ScriptedDeviceTest::SetUp();
        using testing::AnyNumber;
        EXPECT_CALL(*device_, velkor_getKeyPairList).Times(AnyNumber());
        EXPECT_CALL(*device_, velkor_initHash).Times(AnyNumber());
        EXPECT_CALL(*device_, velkor_updateHash).Times(AnyNumber());
        EXPECT_CALL(*device_, velkor_finalHash).Times(AnyNumber());
        EXPECT_CALL(*device_, velkor_signHash).Times(AnyNumber());
        EXPECT_CALL(*device_, velkor_verifySignatureHash).Times(AnyNumber());
        leaveGatheredDataAndHash();
        for (const Step& each : GetParam().before)
            run(each);
    }

    /// Has the next call of the device's operation do as `action`, the key lookup as `lookup`.
    template <typename Action, typename Lookup>
    void failOnce(const Action& action, const Lookup& lookup)
    {
        switch (GetParam().deviceCall) {
        case DeviceCall::KeyLookup:
            EXPECT_CALL(*device_, velkor_getKeyPairList).WillOnce(lookup).RetiresOnSaturation();
            break;
        case DeviceCall::InitHash:
            EXPECT_CALL(*device_, velkor_initHash).WillOnce(action).RetiresOnSaturation();
            break;
        case DeviceCall::UpdateHash:
            EXPECT_CALL(*device_, velkor_updateHash).WillOnce(action).RetiresOnSaturation();
            break;
        case DeviceCall::FinalHash:
            EXPECT_CALL(*device_, velkor_finalHash).WillOnce(action).RetiresOnSaturation();
            break;
        case DeviceCall::SignHash:
            EXPECT_CALL(*device_, velkor_signHash).WillOnce(action).RetiresOnSaturation();
            break;
        case DeviceCall::VerifySignatureHash:
            EXPECT_CALL(*device_, velkor_verifySignatureHash).WillOnce(action).RetiresOnSaturation();
            break;
        }
    }

    Answer failingStep() const { return answer(GetParam().step.call, hSession_); }

    void expectStateLeft()
    {
        const Left left = GetParam().left;
        EXPECT_EQ(activeOperation(), GetParam().operation);
        abandon();
        EXPECT_EQ(dataLeft(), left == Left::Data || left == Left::Both ? GATHERED : ByteVector());
        EXPECT_EQ(isHashLeft(), left == Left::Hash || left == Left::Both);
    }

    std::vector<VelkorKeyPair> noKeyPairs_;

private:
    void run(const Step& step) const { ASSERT_EQ(step.call(hSession_), CKR_OK) << step.function; }

    void abandon() const
    {
        ASSERT_EQ(C_FindObjectsInit(hSession_, nullptr, 0), CKR_OK);
        ASSERT_EQ(C_FindObjectsFinal(hSession_), CKR_OK);
    }

    void leaveGatheredDataAndHash() const
    {
        run(RAW_SIGN_INIT);
        ASSERT_EQ(C_SignUpdate(hSession_, pointerTo(GATHERED), sizeOf(GATHERED)), CKR_OK);
        abandon();
        if (!GetParam().hashHasBegun)
            return;
        run(SIGN_INIT);
        run(SIGN_UPDATE);
        abandon();
    }

    /// What goes before the data of the next operation that gathers.
    ByteVector dataLeft() const
    {
        ByteVector signedData;
        EXPECT_CALL(*device_, velkor_signHash)
            .WillOnce([&](auto, auto, auto, const unsigned char* hash, int length, auto...) {
                signedData.assign(hash, hash + length);
                return 0;
            });
        run(RAW_SIGN_INIT);
        run(SIGN_FINAL);
        return signedData;
    }

    /// Whether the next operation that hashes in parts begins no hash of its own.
    bool isHashLeft() const
    {
        bool begun = false;
        EXPECT_CALL(*device_, velkor_initHash).Times(testing::AtMost(1)).WillOnce([&](auto...) {
            begun = true;
            return 1;
        });
        run(SIGN_INIT);
        SIGN_UPDATE.call(hSession_);
        return !begun;
    }
};

INSTANTIATE_TEST_SUITE_P(In, EveryDeviceFailure, testing::ValuesIn(FAILURES),
                         [](const auto& failure) { return failure.param.name; });

TEST_P(EveryDeviceFailure, OfAStatusLeavesTheStateOfItsStep)
{
    failOnce(testing::Return(33), testing::ReturnRef(noKeyPairs_));
    EXPECT_EQ(failingStep().code, codeOfFailed(GetParam().deviceCall));
    expectStateLeft();
}

TEST_P(EveryDeviceFailure, OfAnExceptionLeavesTheSameState)
{
    const auto thrown = testing::Throw(std::runtime_error("broken"));
    failOnce(thrown, thrown);
    const std::string function = GetParam().step.function;
    const Answer answered = failingStep();
    EXPECT_EQ(answered.code, CKR_GENERAL_ERROR);
    EXPECT_EQ(answered.lines.back(), "ERROR " + function + ": unexpected exception: broken");
    expectStateLeft();
}

} // namespace
