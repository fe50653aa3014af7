// C_DeriveKey, and the keys that it makes as C_GetAttributeValue shows them.
#include <limits>

#include "key_operation_fixture.h"
#include "watched_memory.h"

namespace
{

using testing::_;
using testing::DoAll;
using testing::DoDefault;
using testing::Return;
using testing::StrEq;

constexpr CK_OBJECT_HANDLE FIRST_DERIVED = 0x70003000;
constexpr CK_OBJECT_HANDLE UNTOUCHED = 7;
constexpr CK_ULONG BASE_KEY = 5;
constexpr std::string_view SECRET = "a shared secret of 66 bytes, as long as the longest curve gives it";
constexpr std::string_view HASH = "sixty-four bytes that a hash call of the device library answers.";
static_assert(SECRET.size() == 66 && HASH.size() == 64);

const Answer SILENTLY_INVALID_PARAMETER = {CKR_MECHANISM_PARAM_INVALID, {"DEBUG C_DeriveKey"}};
const Answer SILENTLY_INVALID_KEY = {CKR_KEY_HANDLE_INVALID, {"DEBUG C_DeriveKey"}};

class DerivationTest : public KeyOperationTest
{
protected:
    /// Handles go on from test to test, so a first derivation tells which one is next.
    void SetUp() override
    {
        KeyOperationTest::SetUp();
        ON_CALL(*device_, velkor_ecdhDerive).WillByDefault(GivesBuffer(SECRET, 0));
        next_ = mustDerive() + 1;
        hKey_ = UNTOUCHED;
    }

    void setPeer(const ByteVector& peer)
    {
        peer_ = peer;
        parameter_.pPublicData = peer_.data();
        parameter_.ulPublicDataLen = static_cast<CK_ULONG>(peer_.size());
    }

    /// Puts the handle into `hKey_`, which is UNTOUCHED before.
    Answer derive(CK_OBJECT_HANDLE hBaseKey = privateKey(BASE_KEY))
    {
        hKey_ = UNTOUCHED;
        return answer(C_DeriveKey, hSession_, &mechanism_, hBaseKey, nullptr, 0, &hKey_);
    }

    Answer deriveWith(Template attributes)
    {
        hKey_ = UNTOUCHED;
        return answer(C_DeriveKey, hSession_, &mechanism_, privateKey(BASE_KEY), attributes.data(), attributes.size(),
                      &hKey_);
    }

    CK_OBJECT_HANDLE mustDerive()
    {
        EXPECT_EQ(derive().code, CKR_OK);
        return hKey_;
    }

    /// A refusal of the work itself, which comes after the lines about the key.
    static Answer refusedWork(CK_RV code, const std::string& text)
    {
        return {code,
                {"DEBUG C_DeriveKey", "DEBUG key id :: 5", "DEBUG base key id :: " + KEY_IDENTIFIER,
                 "DEBUG public key :: 04010203", "ERROR C_DeriveKey: " + text}};
    }

    void expectNoKeyWasMade()
    {
        EXPECT_EQ(hKey_, UNTOUCHED);
        EXPECT_EQ(mustDerive(), next_);
    }

    Answer attributesOf(CK_OBJECT_HANDLE hKey, Template& attributes) const
    {
        return answer(C_GetAttributeValue, hSession_, hKey, attributes.data(), attributes.size());
    }

    ByteVector valueOf(CK_OBJECT_HANDLE hKey) const
    {
        Template value = {{CKA_VALUE, ByteVector(128, 0)}};
        EXPECT_EQ(attributesOf(hKey, value).code, CKR_OK);
        const auto* bytes = static_cast<const unsigned char*>(value[0].pValue);
        return {bytes, bytes + value[0].ulValueLen};
    }

    inline static const std::string KEY_IDENTIFIER = "A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5A5";
    ByteVector peer_ = {0x04, 0x01, 0x02, 0x03};
    CK_ECDH1_DERIVE_PARAMS parameter_ = {CKD_NULL, 0, nullptr, 4, peer_.data()};
    CK_MECHANISM mechanism_ = {CKM_ECDH1_DERIVE, &parameter_, sizeof parameter_};
    CK_OBJECT_HANDLE hKey_ = UNTOUCHED;
    CK_OBJECT_HANDLE next_ = 0;
};

// ---- Handles and the device's part ----

// Comes before every other test of this program: the handles go on until the process ends.
TEST_F(DerivationTest, HandlesCountUpFromTheFirst)
{
    EXPECT_EQ(next_, FIRST_DERIVED + 1);
}

TEST_F(DerivationTest, HandlesCountUpAcrossSessionsAndSlots)
{
    EXPECT_EQ(mustDerive(), next_);
    EXPECT_EQ(mustDerive(), next_ + 1);
    reopenSession();
    EXPECT_EQ(mustDerive(), next_ + 2);
    reopenSession(CKF_SERIAL_SESSION, SECOND_SLOT);
    EXPECT_EQ(derive(privateKey(1)).code, CKR_OK);
    EXPECT_EQ(hKey_, next_ + 3);
}

TEST_F(DerivationTest, ADerivationTellsKeyPeerAndHandle)
{
    EXPECT_EQ(derive(), (Answer{CKR_OK,
                                {"DEBUG C_DeriveKey", "DEBUG key id :: 5", "DEBUG base key id :: " + KEY_IDENTIFIER,
                                 "DEBUG public key :: 04010203", "DEBUG C_DeriveKey: done, handle=" + logged(next_)}}));
    EXPECT_EQ(derive().lines.back(), "DEBUG C_DeriveKey: done, handle=" + logged(next_ + 1));
}

TEST_F(DerivationTest, TheDeviceGetsKeyPasswordAndPeer)
{
    const ByteVector key(16, 0xA5);
    for (const char* password : {"", "1234"}) {
        EXPECT_CALL(*device_, velkor_ecdhDerive(StrEq(FIRST_DEVICE), PointsTo(key), StrEq(password), PointsTo(peer_), 4,
                                                testing::Pointee(testing::IsNull()), testing::Pointee(0), &instance_));
        if (*password != '\0')
            login();
        mustDerive();
    }
}

TEST_F(DerivationTest, AnEnormousPeerReachesTheDeviceWhenNothingIsLogged)
{
    setLogLevel("2");
    parameter_.ulPublicDataLen = 0x80000000;
    EXPECT_CALL(*device_, velkor_ecdhDerive(_, _, _, peer_.data(), std::numeric_limits<int>::min(), _, _, &instance_))
        .WillOnce(Return(1));
    EXPECT_EQ(derive(), (Answer{CKR_FUNCTION_FAILED, {"ERROR C_DeriveKey: velkor_ecdhDerive failed:1 len=0"}}));
}

TEST_F(DerivationTest, TheKeyIsLookedUpOnTheSessionsDevice)
{
    reopenSession(CKF_SERIAL_SESSION, SECOND_SLOT);
    EXPECT_CALL(*device_, velkor_getKeyPairList(StrEq(SECOND_DEVICE), &instance_)).Times(1);
    EXPECT_CALL(*device_, velkor_ecdhDerive(StrEq(SECOND_DEVICE), PointsTo(ByteVector(16, 0xA1)), _, _, _, _, _, _));
    EXPECT_EQ(derive(privateKey(1)).code, CKR_OK);
}

TEST_F(DerivationTest, PeersOfAnyLengthGoToTheDeviceAsTheyAre)
{
    for (const std::size_t length : {std::size_t{1}, std::size_t{65}, std::size_t{133}, std::size_t{5000}}) {
        setPeer(ByteVector(length, 0xBC));
        EXPECT_CALL(*device_, velkor_ecdhDerive(_, _, _, PointsTo(peer_), static_cast<int>(length), _, _, _));
        std::string text = "DEBUG public key :: ";
        for (std::size_t byte = 0; byte < length; ++byte)
            text += "BC";
        EXPECT_EQ(derive().lines[3], text);
    }
}

TEST_F(DerivationTest, EveryFailureOfTheDeviceIsToldWithStatusAndLengthAndMakesNoKey)
{
    for (const int status : {1, -1, STATUS_DEVICE_REMOVED, STATUS_DEVICE_UNREACHABLE}) {
        EXPECT_CALL(*device_, velkor_ecdhDerive).WillOnce(Return(status)).WillRepeatedly(DoDefault());
        EXPECT_EQ(derive(),
                  refusedWork(CKR_FUNCTION_FAILED, "velkor_ecdhDerive failed:" + std::to_string(status) + " len=0"));
        EXPECT_EQ(hKey_, UNTOUCHED);
    }
    expectNoKeyWasMade();
}

TEST_F(DerivationTest, AFailedDerivationReleasesWhatTheLibraryAllocated)
{
    EXPECT_CALL(*device_, velkor_ecdhDerive).WillOnce(GivesBuffer(SECRET, 9)).WillRepeatedly(DoDefault());
    EXPECT_EQ(derive(), refusedWork(CKR_FUNCTION_FAILED, "velkor_ecdhDerive failed:9 len=66"));
    expectNoKeyWasMade();
}

TEST_F(DerivationTest, ASecretThatIsNotThereIsAFailure)
{
    const auto give = [](int length) {
        return [length](auto, auto, auto, auto, auto, auto** out, int* outLength, auto) {
            giveBuffer(SECRET, out, outLength);
            *outLength = length;
            return 0;
        };
    };
    EXPECT_CALL(*device_, velkor_ecdhDerive)
        .WillOnce(GivesNoBuffer(32, 0))
        .WillOnce(give(0))
        .WillOnce(give(-1))
        .WillRepeatedly(DoDefault());
    EXPECT_EQ(derive(), refusedWork(CKR_FUNCTION_FAILED, "velkor_ecdhDerive failed:0 len=32"));
    EXPECT_EQ(derive(), refusedWork(CKR_FUNCTION_FAILED, "velkor_ecdhDerive failed:0 len=0"));
    EXPECT_EQ(derive(), refusedWork(CKR_FUNCTION_FAILED, "velkor_ecdhDerive failed:0 len=-1"));
    expectNoKeyWasMade();
}

TEST_F(DerivationTest, AThrowingLibraryIsAFailureOfTheModuleAndItsBufferIsReleased)
{
    EXPECT_CALL(*device_, velkor_ecdhDerive)
        .WillOnce([](auto, auto, auto, auto, auto, auto** out, int* length, auto) -> int {
            giveBuffer(SECRET, out, length);
            throw std::runtime_error("broken");
        })
        .WillRepeatedly(DoDefault());
    EXPECT_EQ(derive(), refusedWork(CKR_GENERAL_ERROR, "unexpected exception: broken"));
    expectNoKeyWasMade();
}

TEST_F(DerivationTest, ASecretOfOneByteIsEnough)
{
    EXPECT_CALL(*device_, velkor_ecdhDerive).WillOnce(GivesBuffer(std::string_view("x"), 0));
    EXPECT_EQ(valueOf(mustDerive()), ByteVector(1, 'x'));
}

// ---- From the secret to the value ----

class KdfTest : public DerivationTest
{
protected:
    void SetUp() override
    {
        DerivationTest::SetUp();
        ON_CALL(*device_, velkor_initHash).WillByDefault(DoAll(testing::SetArgPointee<2>(&context_), Return(0)));
        ON_CALL(*device_, velkor_updateHash).WillByDefault(Return(0));
        ON_CALL(*device_, velkor_finalHash).WillByDefault([this](auto, auto* hash, int* length, auto) {
            HASH.copy(reinterpret_cast<char*>(hash), hashLength_);
            *length = static_cast<int>(hashLength_);
            return 0;
        });
    }

    void expectHash(int code)
    {
        EXPECT_CALL(*device_, velkor_initHash(StrEq(FIRST_DEVICE), code, _, &instance_));
        EXPECT_CALL(*device_, velkor_updateHash(&context_, PointsTo(bytesOf(SECRET)), 66, &instance_));
        EXPECT_CALL(*device_, velkor_finalHash(&context_, _, testing::Pointee(64), &instance_));
    }

    void expectNoHash() const
    {
        EXPECT_CALL(*device_, velkor_initHash).Times(0);
        EXPECT_CALL(*device_, velkor_updateHash).Times(0);
        EXPECT_CALL(*device_, velkor_finalHash).Times(0);
    }

    int context_ = 0;
    std::size_t hashLength_ = HASH.size();
};

TEST_F(KdfTest, Sha1PassesItsOwnCodeAndKeeps20Bytes)
{
    expectHash(1);
    parameter_.kdf = CKD_SHA1_KDF;
    EXPECT_EQ(valueOf(mustDerive()), bytesOf(HASH.substr(0, 20)));
}

TEST_F(KdfTest, Sha256PassesItsOwnCodeAndKeeps32Bytes)
{
    expectHash(4);
    parameter_.kdf = CKD_SHA256_KDF;
    EXPECT_EQ(valueOf(mustDerive()), bytesOf(HASH.substr(0, 32)));
}

TEST_F(KdfTest, AHashThatIsShorterIsKeptWhole)
{
    for (const CK_EC_KDF_TYPE kdf : {CKD_SHA1_KDF, CKD_SHA256_KDF}) {
        parameter_.kdf = kdf;
        hashLength_ = 16;
        EXPECT_EQ(valueOf(mustDerive()), bytesOf(HASH.substr(0, 16)));
    }
}

TEST_F(KdfTest, EveryOtherFunctionKeepsTheBareSecret)
{
    expectNoHash();
    for (const CK_EC_KDF_TYPE kdf : {CK_EC_KDF_TYPE{0}, CKD_NULL, CKD_SHA1_KDF_ASN1, CKD_SHA1_KDF_CONCATENATE,
                                     CKD_SHA224_KDF, CKD_SHA384_KDF, CKD_SHA512_KDF, CK_EC_KDF_TYPE{0x102}, ALL_BITS}) {
        parameter_.kdf = kdf;
        EXPECT_EQ(valueOf(mustDerive()), bytesOf(SECRET));
    }
}

TEST_F(KdfTest, SharedDataIsNeverUsed)
{
    expectHash(4);
    parameter_.kdf = CKD_SHA256_KDF;
    parameter_.pSharedData = reinterpret_cast<CK_BYTE*>(1);
    parameter_.ulSharedDataLen = 1000;
    EXPECT_EQ(valueOf(mustDerive()), bytesOf(HASH.substr(0, 32)));
}

TEST_F(KdfTest, AHashThatFailsAtAnyStepMakesNoKey)
{
    parameter_.kdf = CKD_SHA256_KDF;
    EXPECT_CALL(*device_, velkor_initHash).WillOnce(Return(3)).WillRepeatedly(DoDefault());
    EXPECT_EQ(derive(), refusedWork(CKR_FUNCTION_FAILED, "initHash failed 3"));
    EXPECT_EQ(hKey_, UNTOUCHED);
    EXPECT_CALL(*device_, velkor_updateHash).WillOnce(Return(STATUS_DEVICE_REMOVED)).WillRepeatedly(DoDefault());
    EXPECT_EQ(derive(), refusedWork(CKR_FUNCTION_FAILED, "updateHash failed 40"));
    EXPECT_EQ(hKey_, UNTOUCHED);
    EXPECT_CALL(*device_, velkor_finalHash).WillOnce(Return(-1)).WillRepeatedly(DoDefault());
    EXPECT_EQ(derive(), refusedWork(CKR_FUNCTION_FAILED, "finalHash failed -1"));
    expectNoKeyWasMade();
}

TEST_F(KdfTest, NoHashIsBegunWithoutASecret)
{
    expectNoHash();
    parameter_.kdf = CKD_SHA1_KDF;
    EXPECT_CALL(*device_, velkor_ecdhDerive).WillOnce(Return(1));
    EXPECT_EQ(derive().code, CKR_FUNCTION_FAILED);
}

TEST_F(KdfTest, ADigestInProgressKeepsItsContext)
{
    start(DIGEST);
    int own = 0;
    EXPECT_CALL(*device_, velkor_initHash).WillOnce(DoAll(testing::SetArgPointee<2>(&own), Return(0)));
    EXPECT_CALL(*device_, velkor_finalHash(&own, _, _, _));
    EXPECT_CALL(*device_, velkor_finalHash(&context_, _, _, _));
    parameter_.kdf = CKD_SHA256_KDF;
    mustDerive();
    ByteVector digest(64, 0);
    CK_ULONG length = 64;
    EXPECT_EQ(C_DigestFinal(hSession_, digest.data(), &length), CKR_OK);
}

TEST_F(KdfTest, AValueLengthCutsTheHash)
{
    parameter_.kdf = CKD_SHA256_KDF;
    EXPECT_EQ(deriveWith({{CKA_VALUE_LEN, bytesOf(16)}}).code, CKR_OK);
    EXPECT_EQ(valueOf(hKey_), bytesOf(HASH.substr(0, 16)));
}

TEST_F(KdfTest, NeitherSecretNorHashIsLeftInReleasedMemory)
{
    for (const CK_EC_KDF_TYPE kdf : {CKD_NULL, CKD_SHA1_KDF, CKD_SHA256_KDF}) {
        parameter_.kdf = kdf;
        CK_ATTRIBUTE length = {CKA_VALUE_LEN, nullptr, sizeof(CK_ULONG)};
        CK_ULONG sixteen = 16;
        length.pValue = &sixteen;
        const auto work = [&] { C_DeriveKey(hSession_, &mechanism_, privateKey(5), &length, 1, &hKey_); };
        EXPECT_EQ(releasedBlocksWith(SECRET.substr(0, 16), work), 0);
        EXPECT_EQ(releasedBlocksWith(SECRET.substr(40), work), 0);
        EXPECT_EQ(releasedBlocksWith(HASH.substr(0, 16), work), 0);
        EXPECT_EQ(releasedBlocksWith(HASH.substr(40), work), 0);
    }
}

TEST_F(KdfTest, AFailedHashLeavesNoSecretInReleasedMemory)
{
    parameter_.kdf = CKD_SHA256_KDF;
    EXPECT_CALL(*device_, velkor_updateHash).WillOnce(Return(3));
    CK_RV code = CKR_OK;
    EXPECT_EQ(releasedBlocksWith(
                  SECRET, [&] { code = C_DeriveKey(hSession_, &mechanism_, privateKey(5), nullptr, 0, &hKey_); }),
              0);
    EXPECT_EQ(code, CKR_FUNCTION_FAILED);
}

class ValueLengthTest : public DerivationTest
{
};

TEST_F(ValueLengthTest, OnlyASmallerLengthThatIsNotZeroCutsTheValue)
{
    struct Row {
        CK_ULONG asked;
        std::size_t given;
    };
    for (const Row& row : {Row{0, 66}, Row{1, 1}, Row{16, 16}, Row{65, 65}, Row{66, 66}, Row{67, 66},
                           Row{TOO_LARGE_FOR_INT, 66}, Row{ALL_BITS, 66}}) {
        EXPECT_EQ(deriveWith({{CKA_VALUE_LEN, bytesOf(row.asked)}}).code, CKR_OK);
        EXPECT_EQ(valueOf(hKey_), bytesOf(SECRET.substr(0, row.given)));
    }
}

TEST_F(ValueLengthTest, TheFirstOneWithAValueCounts)
{
    Template attributes = {{CKA_LABEL, bytesOf(std::string_view("label"))},
                           {CKA_VALUE_LEN, bytesOf(3)},
                           {CKA_VALUE_LEN, bytesOf(16)},
                           {CKA_VALUE_LEN, bytesOf(8)}};
    attributes[1].pValue = nullptr;
    EXPECT_EQ(C_DeriveKey(hSession_, &mechanism_, privateKey(5), attributes.data(), attributes.size(), &hKey_), CKR_OK);
    EXPECT_EQ(valueOf(hKey_), bytesOf(SECRET.substr(0, 16)));
}

TEST_F(ValueLengthTest, AFirstOneOfZeroHidesTheOthers)
{
    EXPECT_EQ(deriveWith({{CKA_VALUE_LEN, bytesOf(0)}, {CKA_VALUE_LEN, bytesOf(8)}}).code, CKR_OK);
    EXPECT_EQ(valueOf(hKey_), bytesOf(SECRET));
}

TEST_F(ValueLengthTest, AnEntryOfNoLengthCountsAsZero)
{
    Template attributes = {{CKA_VALUE_LEN, bytesOf(8)}, {CKA_VALUE_LEN, bytesOf(8)}};
    attributes[0].ulValueLen = 0;
    EXPECT_EQ(C_DeriveKey(hSession_, &mechanism_, privateKey(5), attributes.data(), attributes.size(), &hKey_), CKR_OK);
    EXPECT_EQ(valueOf(hKey_), bytesOf(SECRET));
}

TEST_F(ValueLengthTest, AShortNumberIsNotReadBeyondItsEnd)
{
    EXPECT_EQ(deriveWith({{CKA_VALUE_LEN, {16}}}).code, CKR_OK);
    EXPECT_EQ(valueOf(hKey_), bytesOf(SECRET.substr(0, 16)));
}

TEST_F(ValueLengthTest, EveryOtherAttributeIsIgnored)
{
    EXPECT_EQ(deriveWith({{CKA_CLASS, bytesOf(CKO_PRIVATE_KEY)}, {CKA_VALUE, {1, 2}}, {CKA_TOKEN, {1}}}).code, CKR_OK);
    EXPECT_EQ(valueOf(hKey_), bytesOf(SECRET));
}

TEST_F(ValueLengthTest, ANullTemplateIsAnEmptyOne)
{
    EXPECT_EQ(C_DeriveKey(hSession_, &mechanism_, privateKey(5), nullptr, 5, &hKey_), CKR_OK);
    EXPECT_EQ(valueOf(hKey_), bytesOf(SECRET));
}

// ---- Refusals ----

class DerivationRefusalTest : public DerivationTest
{
protected:
    void SetUp() override
    {
        DerivationTest::SetUp();
        EXPECT_CALL(*device_, velkor_ecdhDerive).Times(0);
    }

    void TearDown() override
    {
        EXPECT_EQ(hKey_, UNTOUCHED);
        DerivationTest::TearDown();
    }
};

TEST_F(DerivationRefusalTest, AnUnknownSessionIsRefusedSilently)
{
    for (const CK_SESSION_HANDLE handle : {CK_SESSION_HANDLE{0}, hSession_ + 1, ALL_BITS})
        EXPECT_EQ(answer(C_DeriveKey, handle, &mechanism_, privateKey(5), nullptr, 0, &hKey_),
                  (Answer{CKR_SESSION_HANDLE_INVALID, {"DEBUG C_DeriveKey"}}));
}

TEST_F(DerivationRefusalTest, NullPointersAreRefusedSilently)
{
    const Answer refused = {CKR_ARGUMENTS_BAD, {"DEBUG C_DeriveKey"}};
    mechanism_.mechanism = CKM_RSA_PKCS; // Pointers come before the mechanism.
    EXPECT_EQ(answer(C_DeriveKey, hSession_, nullptr, privateKey(5), nullptr, 0, &hKey_), refused);
    EXPECT_EQ(answer(C_DeriveKey, hSession_, &mechanism_, privateKey(5), nullptr, 0, nullptr), refused);
}

TEST_F(DerivationRefusalTest, EveryOtherMechanismIsRefusedSilentlyBeforeTheFirmware)
{
    setFirmware("1.9.9");
    for (const CK_MECHANISM_TYPE type :
         {CKM_RSA_PKCS, CKM_ECDH1_COFACTOR_DERIVE, CKM_ECMQV_DERIVE, CKM_ECDSA, CKM_DH_PKCS_DERIVE, ALL_BITS}) {
        mechanism_.mechanism = type;
        EXPECT_EQ(derive(), (Answer{CKR_MECHANISM_INVALID, {"DEBUG C_DeriveKey"}}));
    }
}

TEST_F(DerivationRefusalTest, OldFirmwareIsRefusedWithALineBeforeTheParameter)
{
    mechanism_.pParameter = nullptr;
    for (const Firmware& firmware : FIRMWARES) {
        setFirmware(firmware.version);
        const std::string text = std::string("C_DeriveKey: ECDH not supported on firmware ") + firmware.version;
        EXPECT_EQ(derive(),
                  firmware.recent ? SILENTLY_INVALID_PARAMETER : refusal(CKR_MECHANISM_INVALID, "C_DeriveKey", text));
    }
}

TEST_F(DerivationRefusalTest, AParameterWithoutAPeerIsRefusedSilentlyBeforeTheKey)
{
    mechanism_.pParameter = nullptr;
    EXPECT_EQ(derive(0), SILENTLY_INVALID_PARAMETER);
    mechanism_.pParameter = &parameter_;
    parameter_.pPublicData = nullptr;
    EXPECT_EQ(derive(0), SILENTLY_INVALID_PARAMETER);
    parameter_.pPublicData = peer_.data();
    parameter_.ulPublicDataLen = 0;
    EXPECT_EQ(derive(0), SILENTLY_INVALID_PARAMETER);
}

TEST_F(DerivationRefusalTest, EveryHandleOutsideThePrivateKeysIsRefusedSilently)
{
    EXPECT_CALL(*device_, velkor_getKeyPairList).Times(0);
    for (const CK_OBJECT_HANDLE hBaseKey :
         {CK_OBJECT_HANDLE{0}, CK_OBJECT_HANDLE{5}, CK_OBJECT_HANDLE{0x6FFFFFFF}, publicKey(0), publicKey(5),
          CK_OBJECT_HANDLE{0x70002005}, FIRST_DERIVED, CK_OBJECT_HANDLE{0xF0000005}, ALL_BITS})
        EXPECT_EQ(derive(hBaseKey), SILENTLY_INVALID_KEY) << hBaseKey;
}

TEST_F(DerivationRefusalTest, AKeyThatTheDeviceDoesNotHaveIsRefusedAfterItsNumber)
{
    EXPECT_EQ(derive(privateKey(0)), (Answer{CKR_KEY_HANDLE_INVALID, {"DEBUG C_DeriveKey", "DEBUG key id :: 0"}}));
    EXPECT_EQ(derive(privateKey(4095)),
              (Answer{CKR_KEY_HANDLE_INVALID, {"DEBUG C_DeriveKey", "DEBUG key id :: 4095"}}));
}

TEST_F(DerivationTest, RefusalsUseUpNoHandle)
{
    derive(0);
    derive(privateKey(0));
    mechanism_.ulParameterLen = 0;
    derive();
    mechanism_.ulParameterLen = sizeof parameter_;
    expectNoKeyWasMade();
}

TEST_F(DerivationTest, ParameterBlocksAreReadFromTheirFullSizeOn)
{
    for (CK_ULONG length = 0; length <= 64; ++length) {
        const auto block = std::make_unique<unsigned char[]>(length); // Sanitizers guard its end.
        std::memcpy(block.get(), &parameter_, std::min<std::size_t>(length, sizeof parameter_));
        mechanism_.pParameter = block.get();
        mechanism_.ulParameterLen = length;
        if (length < sizeof parameter_)
            EXPECT_EQ(derive(), SILENTLY_INVALID_PARAMETER) << length;
        else
            EXPECT_EQ(derive().code, CKR_OK) << length;
    }
}

TEST_F(DerivationTest, TheSmallestAndTheLargestKeyNumberAreAccepted)
{
    first().keyPairs = {makeKeyPair(0, KEY_KIND_EC_P256, "first"), makeKeyPair(4095, KEY_KIND_EC_P256, "last")};
    EXPECT_EQ(derive(privateKey(0)).code, CKR_OK);
    EXPECT_EQ(derive(privateKey(4095)).code, CKR_OK);
}

TEST_F(DerivationTest, NeitherStateNorOperationIsAnObstacleAndTheOperationGoesOn)
{
    for (const int operation : {FIND, ENCRYPT, DECRYPT, DIGEST, VERIFY, DIGEST_ENCRYPT, DIGEST_DECRYPT}) {
        reopenSession();
        start(operation);
        mustDerive();
        EXPECT_EQ(activeOperation(), operation);
    }
    reopenSession(CKF_SERIAL_SESSION);
    mustDerive();
}

TEST_F(DerivationTest, TheLookupChangesTheKeyOfAnOperationInProgress)
{
    start(DECRYPT);
    mustDerive();
    EXPECT_CALL(*device_, velkor_decrypt(_, PointsTo(ByteVector(16, 0xA5)), _, _, _, _, _, _, _)).Times(1);
    CK_BYTE data = 'd';
    CK_ULONG length = 0;
    EXPECT_EQ(C_Decrypt(hSession_, &data, 1, nullptr, &length), CKR_OK);
}

// ---- Derived keys as objects ----

class DerivedKeyTest : public DerivationTest
{
protected:
    void SetUp() override
    {
        DerivationTest::SetUp();
        derived_ = mustDerive();
    }

    static Answer attributesAnswer(CK_RV code, CK_ULONG count, std::vector<std::string> lines)
    {
        lines.insert(lines.begin(),
                     {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : " + logged(count)});
        return {code, lines};
    }

    CK_OBJECT_HANDLE derived_ = 0;
};

TEST_F(DerivedKeyTest, AnswerTheirValue)
{
    Template value = {{CKA_VALUE, ByteVector(SECRET.size(), 0)}};
    EXPECT_EQ(attributesOf(derived_, value), attributesAnswer(CKR_OK, 1, {"DEBUG C_GetAttributeValue length : 66"}));
    EXPECT_EQ(CK_ULONG{value[0].ulValueLen}, 66U);
    EXPECT_EQ(std::memcmp(value[0].pValue, SECRET.data(), SECRET.size()), 0);
}

TEST_F(DerivedKeyTest, AnswerALengthQuery)
{
    Template value = {{CKA_VALUE, {}}};
    value[0].pValue = nullptr;
    EXPECT_EQ(attributesOf(derived_, value).code, CKR_OK);
    EXPECT_EQ(CK_ULONG{value[0].ulValueLen}, 66U);
}

TEST_F(DerivedKeyTest, SetTheLengthOfALargerBufferAndLeaveItsRest)
{
    Template value = {{CKA_VALUE, ByteVector(70, 9)}};
    EXPECT_EQ(attributesOf(derived_, value).code, CKR_OK);
    EXPECT_EQ(CK_ULONG{value[0].ulValueLen}, 66U);
    const auto* bytes = static_cast<const unsigned char*>(value[0].pValue);
    EXPECT_EQ(ByteVector(bytes + 66, bytes + 70), ByteVector(4, 9));
}

/// What other objects answer, and types that no object does. Not CKA_VALUE.
constexpr CK_ATTRIBUTE_TYPE OTHER_TYPES[] = {CKA_CLASS,
                                             CKA_TOKEN,
                                             CKA_PRIVATE,
                                             CKA_LABEL,
                                             CKA_CERTIFICATE_TYPE,
                                             CKA_OBJECT_ID,
                                             CKA_ISSUER,
                                             CKA_SERIAL_NUMBER,
                                             CKA_SUBJECT,
                                             CKA_TRUSTED,
                                             CKA_KEY_TYPE,
                                             CKA_ID,
                                             CKA_SENSITIVE,
                                             CKA_ENCRYPT,
                                             CKA_DECRYPT,
                                             CKA_WRAP,
                                             CKA_SIGN,
                                             CKA_VERIFY,
                                             CKA_VERIFY_RECOVER,
                                             CKA_DERIVE,
                                             CKA_MODULUS,
                                             CKA_MODULUS_BITS,
                                             CKA_PUBLIC_EXPONENT,
                                             CKA_EXTRACTABLE,
                                             CKA_LOCAL,
                                             CKA_KEY_GEN_MECHANISM,
                                             CKA_MODIFIABLE,
                                             CKA_EC_PARAMS,
                                             CKA_EC_POINT,
                                             CKA_VALUE_LEN,
                                             CKA_APPLICATION,
                                             CKA_UNWRAP,
                                             CKA_NEVER_EXTRACTABLE,
                                             CKA_VENDOR_DEFINED,
                                             ALL_BITS};

TEST_F(DerivedKeyTest, AnswerNoRowOfTheTableButTheirValueAndSaySoWithoutAnError)
{
    const CK_ULONG roomLength = 8;
    for (const CK_ATTRIBUTE_TYPE type : OTHER_TYPES) {
        Template attributes = {{type, ByteVector(roomLength, 9)}, {type, {}}};
        attributes[1].pValue = nullptr;
        EXPECT_EQ(attributesOf(derived_, attributes), attributesAnswer(CKR_OK, 2, {})) << logged(type);
        EXPECT_EQ(CK_ULONG{attributes[0].ulValueLen}, CK_UNAVAILABLE_INFORMATION) << logged(type);
        EXPECT_EQ(CK_ULONG{attributes[1].ulValueLen}, CK_UNAVAILABLE_INFORMATION) << logged(type);
        EXPECT_EQ(std::memcmp(attributes[0].pValue, ByteVector(roomLength, 9).data(), roomLength), 0) << logged(type);
    }
}

TEST_F(DerivedKeyTest, DoNotFitIntoABufferOfNoBytes)
{
    ByteVector room(SECRET.size(), 9); // There is more, but the length does not say so.
    CK_ATTRIBUTE entry = {CKA_VALUE, room.data(), 0};
    EXPECT_EQ(
        answer(C_GetAttributeValue, hSession_, hKey_, &entry, 1),
        attributesAnswer(CKR_BUFFER_TOO_SMALL, 1,
                         {"ERROR C_GetAttributeValue: buffer too small at index=0 type=17 provided=0 required=66"}));
    EXPECT_EQ(CK_ULONG{entry.ulValueLen}, 0U);
    EXPECT_EQ(room, ByteVector(SECRET.size(), 9));
}

TEST_F(DerivedKeyTest, AnswerEveryEntryOfAMixedTemplate)
{
    Template attributes = {
        {CKA_CLASS, ByteVector(8, 9)}, {CKA_VALUE, ByteVector(66, 0)}, {CKA_LABEL, {}}, {CKA_VALUE, {}}};
    attributes[3].pValue = nullptr;
    EXPECT_EQ(attributesOf(derived_, attributes).code, CKR_OK);
    EXPECT_EQ(CK_ULONG{attributes[0].ulValueLen}, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(CK_ULONG{attributes[1].ulValueLen}, 66U);
    EXPECT_EQ(CK_ULONG{attributes[2].ulValueLen}, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(CK_ULONG{attributes[3].ulValueLen}, 66U);
}

TEST_F(DerivedKeyTest, AShortBufferEndsTheAnswerAtOnce)
{
    Template attributes = {
        {CKA_CLASS, ByteVector(8, 9)}, {CKA_VALUE, ByteVector(65, 9)}, {CKA_LABEL, ByteVector(5, 9)}};
    EXPECT_EQ(attributesOf(derived_, attributes),
              attributesAnswer(CKR_BUFFER_TOO_SMALL, 3,
                               {"ERROR C_GetAttributeValue: buffer too small at index=1 type=17 provided=65 "
                                "required=66"}));
    EXPECT_EQ(CK_ULONG{attributes[0].ulValueLen}, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(CK_ULONG{attributes[1].ulValueLen}, 65U);
    EXPECT_EQ(CK_ULONG{attributes[2].ulValueLen}, 5U);
    EXPECT_EQ(std::memcmp(attributes[1].pValue, ByteVector(65, 9).data(), 65), 0);
}

TEST_F(DerivedKeyTest, AreUnknownUnderEveryOtherHandle)
{
    for (const CK_OBJECT_HANDLE hObject : {derived_ + 1, derived_ + 0x1000, ALL_BITS}) {
        Template value = {{CKA_VALUE, ByteVector(66, 0)}};
        EXPECT_EQ(attributesOf(hObject, value),
                  attributesAnswer(CKR_OBJECT_HANDLE_INVALID, 1,
                                   {"ERROR C_GetAttributeValue: derived key handle not found=" + logged(hObject)}));
        EXPECT_EQ(CK_ULONG{value[0].ulValueLen}, 66U);
    }
}

TEST_F(DerivedKeyTest, KeepTheirOwnValuesSideBySide)
{
    EXPECT_EQ(deriveWith({{CKA_VALUE_LEN, bytesOf(16)}}).code, CKR_OK);
    EXPECT_EQ(valueOf(derived_), bytesOf(SECRET));
    EXPECT_EQ(valueOf(hKey_), bytesOf(SECRET.substr(0, 16)));
}

TEST_F(DerivedKeyTest, AreReadWithoutTheDevice)
{
    EXPECT_CALL(*device_, velkor_getKeyPairList).Times(0);
    EXPECT_CALL(*device_, velkor_getCertificateList).Times(0);
    EXPECT_EQ(valueOf(hKey_), bytesOf(SECRET));
}

TEST_F(DerivedKeyTest, OutliveTheirSessionAndAreReadOnOtherSlots)
{
    ASSERT_EQ(C_CloseAllSessions(FIRST_SLOT), CKR_OK);
    hSession_ = openSession(CKF_SERIAL_SESSION, SECOND_SLOT);
    EXPECT_EQ(valueOf(derived_), bytesOf(SECRET));
}

TEST_F(DerivedKeyTest, OutliveALogout)
{
    login();
    ASSERT_EQ(C_Logout(hSession_), CKR_OK);
    EXPECT_EQ(valueOf(derived_), bytesOf(SECRET));
}

TEST_F(DerivedKeyTest, CannotBeDestroyed)
{
    EXPECT_EQ(answer(C_DestroyObject, hSession_, derived_),
              (Answer{CKR_OBJECT_HANDLE_INVALID,
                      {"DEBUG C_DestroyObject", "DEBUG Delete key pair id : " + logged(derived_),
                       "DEBUG Input certificate not found in destroy : " + logged(derived_)}}));
    EXPECT_EQ(valueOf(derived_), bytesOf(SECRET));
}

TEST_F(DerivedKeyTest, OutliveTheFinalisationOfTheModuleAndSoDoesTheCount)
{
    ASSERT_EQ(finalize(), CKR_OK);
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    listSlots();
    hSession_ = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    EXPECT_EQ(valueOf(derived_), bytesOf(SECRET));
    EXPECT_EQ(mustDerive(), derived_ + 1);
}

TEST_F(DerivedKeyTest, LeaveNoValueInMemoryThatWasReleasedAfterReading)
{
    CK_BYTE value[66];
    CK_ATTRIBUTE attribute = {CKA_VALUE, value, sizeof value};
    CK_RV code = CKR_OK;
    EXPECT_EQ(releasedBlocksWith(SECRET, [&] { code = C_GetAttributeValue(hSession_, hKey_, &attribute, 1); }), 0);
    EXPECT_EQ(code, CKR_OK);
}

class DerivationWithoutModuleTest : public ModuleTest
{
};

TEST_F(DerivationWithoutModuleTest, IsRefusedSilently)
{
    CK_OBJECT_HANDLE hKey = UNTOUCHED;
    EXPECT_EQ(answer(C_DeriveKey, 0x60000001, nullptr, 0, nullptr, 0, &hKey),
              (Answer{CKR_CRYPTOKI_NOT_INITIALIZED, {"DEBUG C_DeriveKey"}}));
    EXPECT_EQ(hKey, UNTOUCHED);
}

} // namespace
