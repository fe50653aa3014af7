// C_EncryptInit, C_Encrypt, C_DecryptInit and C_Decrypt.
#include "key_operation_fixture.h"
#include "watched_memory.h"

namespace
{

using testing::_;
using testing::DoAll;
using testing::Return;
using testing::StrEq;

constexpr std::string_view PLAINTEXT = "the plaintext of the module's own tests, never left in memory";
constexpr unsigned char SOME_DATA[] = {'d', 'a', 't', 'a'};
constexpr unsigned char OTHER_DATA[] = {'o', 't', 'h', 'e', 'r', '!'};

using InitFunction = CK_RV (*)(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE);
using DataFunction = CK_RV (*)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR);

/// What differs between encryption and decryption.
struct Direction {
    const char* name;
    std::string initName;
    InitFunction init;
    DataFunction run;
    CK_OBJECT_HANDLE hKey;
    int operation;
    int deadEnd; ///< What comes of it during a digest.
};

const Direction ENCRYPTION = {"C_Encrypt",  "C_EncryptInit", C_EncryptInit, C_Encrypt,
                              publicKey(2), ENCRYPT,         DIGEST_ENCRYPT};
const Direction DECRYPTION = {"C_Decrypt",   "C_DecryptInit", C_DecryptInit, C_Decrypt,
                              privateKey(2), DECRYPT,         DIGEST_DECRYPT};

class CipherFixture : public KeyOperationTest
{
protected:
    Answer init(const Direction& direction, CK_MECHANISM mechanism, CK_OBJECT_HANDLE hKey) const
    {
        return answer(direction.init, hSession_, &mechanism, hKey);
    }

    Answer init(const Direction& direction, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE hKey) const
    {
        return init(direction, CK_MECHANISM{type, nullptr, 0}, hKey);
    }

    Answer init(const Direction& direction) const { return init(direction, CKM_RSA_PKCS, direction.hKey); }

    void mustInit(const Direction& direction, CK_MECHANISM_TYPE type = CKM_RSA_PKCS) const
    {
        ASSERT_EQ(init(direction, type, direction.hKey), (Answer{CKR_OK, {"DEBUG " + direction.initName}}));
    }

    /// The single-part call with fixed data, an output of 1024 bytes and room claimed for none of them.
    struct Output {
        Answer answer;
        CK_ULONG length = 0;
        ByteVector bytes = ByteVector(1024, 0);

        ByteVector used() const { return {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length)}; }
    };

    Output run(const Direction& direction, ByteVector data = ByteVector(SOME_DATA, SOME_DATA + sizeof SOME_DATA)) const
    {
        Output output;
        output.answer = answer(direction.run, hSession_, data.data(), data.size(), output.bytes.data(), &output.length);
        return output;
    }

    /// The single-part call without an output.
    CK_ULONG queryLength(const Direction& direction) const
    {
        ByteVector data(SOME_DATA, SOME_DATA + sizeof SOME_DATA);
        CK_ULONG length = ALL_BITS;
        EXPECT_EQ(answer(direction.run, hSession_, data.data(), data.size(), nullptr, &length), passed(direction));
        return length;
    }

    static Answer passed(const Direction& direction) { return {CKR_OK, {std::string("DEBUG ") + direction.name}}; }

    static Answer refusedInit(const Direction& direction, CK_RV code, const std::string& text)
    {
        return refusal(code, direction.initName, text);
    }

    static Answer refusedRun(const Direction& direction, CK_RV code, const std::string& text)
    {
        return refusal(code, direction.name, std::string(direction.name) + ": " + text);
    }

    void expectDeviceCalls(const Direction& direction, int count) const
    {
        EXPECT_CALL(*device_, velkor_encrypt).Times(direction.operation == ENCRYPT ? count : 0);
        EXPECT_CALL(*device_, velkor_decrypt).Times(direction.operation == DECRYPT ? count : 0);
    }

    /// Puts the session without an operation, but keeps what the operation has left on it.
    void abandonOperation() const
    {
        ASSERT_EQ(C_FindObjectsInit(hSession_, nullptr, 0), CKR_OK);
        ASSERT_EQ(C_FindObjectsFinal(hSession_), CKR_OK);
    }
};

// ---- What both directions have in common ----

class CipherTest : public CipherFixture, public testing::WithParamInterface<Direction>
{
protected:
    static Answer refusedInit(CK_RV code, const std::string& text)
    {
        return CipherFixture::refusedInit(GetParam(), code, GetParam().initName + ": " + text);
    }

    static Answer refusedRun(CK_RV code, const std::string& text)
    {
        return CipherFixture::refusedRun(GetParam(), code, text);
    }
};

INSTANTIATE_TEST_SUITE_P(Both, CipherTest, testing::Values(ENCRYPTION, DECRYPTION),
                         [](const auto& direction) { return direction.param.name; });

TEST_P(CipherTest, AnUnknownSessionIsRefused)
{
    for (const CK_SESSION_HANDLE handle : {CK_SESSION_HANDLE{0}, hSession_ + 1, ALL_BITS}) {
        const std::string text = "invalid hSession=" + logged(handle);
        EXPECT_EQ(answer(GetParam().init, handle, nullptr, 0), refusedInit(CKR_SESSION_HANDLE_INVALID, text));
        EXPECT_EQ(answer(GetParam().run, handle, nullptr, 0, nullptr, nullptr),
                  refusedRun(CKR_SESSION_HANDLE_INVALID, text));
    }
}

TEST_P(CipherTest, InitIsRefusedWhileAnyOperationButADigestIsActive)
{
    for (const int active : {FIND, ENCRYPT, DECRYPT, SIGN, VERIFY, DIGEST_ENCRYPT, DIGEST_DECRYPT}) {
        reopenSession();
        start(active);
        EXPECT_EQ(
            answer(GetParam().init, hSession_, nullptr, 0),
            refusedInit(CKR_OPERATION_ACTIVE, "operation already active, activeOperation=" + std::to_string(active)));
        EXPECT_EQ(activeOperation(), active);
    }
}

TEST_P(CipherTest, InitRefusesANullMechanismAndLeavesTheOperation)
{
    for (const int active : {NO_OPERATION, DIGEST}) {
        start(active);
        EXPECT_EQ(answer(GetParam().init, hSession_, nullptr, 0), refusedInit(CKR_ARGUMENTS_BAD, "pMechanism is NULL"));
        EXPECT_EQ(activeOperation(), active);
    }
}

TEST_P(CipherTest, InitRefusesEveryMechanismButTheTwoBeforeItLooksAtParameterAndKey)
{
    CK_BYTE parameter = 0;
    for (const CK_MECHANISM_TYPE type : {CKM_RSA_PKCS_KEY_PAIR_GEN, CKM_RSA_9796, CKM_RSA_X_509, CKM_RSA_PKCS_PSS,
                                         CKM_SHA256_RSA_PKCS, CKM_ECDH1_DERIVE, CKM_SHA256, ALL_BITS}) {
        EXPECT_EQ(init(GetParam(), CK_MECHANISM{type, &parameter, 1}, 0),
                  refusedInit(CKR_MECHANISM_INVALID, "unsupported mechanism=" + logged(type)));
    }
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_P(CipherTest, OaepNeedsFirmware2AndPkcsDoesNot)
{
    for (const Firmware& firmware : FIRMWARES) {
        SCOPED_TRACE(firmware.version);
        setFirmware(firmware.version);
        const Answer oaep = init(GetParam(), CKM_RSA_PKCS_OAEP, GetParam().hKey);
        EXPECT_EQ(oaep.code, firmware.recent ? CKR_OK : CKR_MECHANISM_INVALID);
        EXPECT_EQ(activeOperation(), firmware.recent ? GetParam().operation : NO_OPERATION);
        reopenSession();
        EXPECT_EQ(init(GetParam()).code, CKR_OK);
    }
}

TEST_P(CipherTest, OaepParametersAreNotLookedAt)
{
    CK_RSA_PKCS_OAEP_PARAMS proper = {CKM_SHA512, CKG_MGF1_SHA512, CKZ_DATA_SPECIFIED, nullptr, 0};
    const CK_MECHANISM mechanisms[] = {{CKM_RSA_PKCS_OAEP, &proper, sizeof proper},
                                       {CKM_RSA_PKCS_OAEP, &proper, 3},
                                       {CKM_RSA_PKCS_OAEP, nullptr, 77},
                                       {CKM_RSA_PKCS_OAEP, reinterpret_cast<void*>(1), ALL_BITS}};
    for (const CK_MECHANISM& mechanism : mechanisms) {
        reopenSession();
        EXPECT_EQ(init(GetParam(), mechanism, GetParam().hKey).code, CKR_OK);
        EXPECT_EQ(run(GetParam()).answer.code, CKR_OK);
    }
}

TEST_P(CipherTest, OaepTakesParametersOfEveryLength)
{
    for (CK_ULONG length = 0; length <= 64; ++length) {
        const auto block = std::make_unique<unsigned char[]>(length); // Sanitizers guard its end.
        reopenSession();
        EXPECT_EQ(init(GetParam(), CK_MECHANISM{CKM_RSA_PKCS_OAEP, block.get(), length}, GetParam().hKey).code, CKR_OK)
            << length;
    }
}

TEST_P(CipherTest, InitDuringADigestLeadsToADeadEnd)
{
    expectDeviceCalls(GetParam(), 0);
    start(DIGEST);
    mustInit(GetParam());
    EXPECT_EQ(activeOperation(), GetParam().deadEnd);
    EXPECT_EQ(run(GetParam()).answer,
              refusedRun(CKR_OPERATION_NOT_INITIALIZED,
                         "operation not initialized, activeOperation=" + std::to_string(GetParam().deadEnd)));
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    CK_MECHANISM digest = {CKM_SHA256, nullptr, 0};
    for (const InitFunction other : {C_SignInit, C_VerifyInit, C_EncryptInit, C_DecryptInit})
        EXPECT_EQ(other(hSession_, &mechanism, privateKey(2)), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(C_DigestInit(hSession_, &digest), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(C_DigestFinal(hSession_, nullptr, nullptr), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(activeOperation(), GetParam().deadEnd);
}

TEST_P(CipherTest, AFailedInitDuringADigestLeavesTheDigest)
{
    start(DIGEST);
    EXPECT_EQ(init(GetParam(), CKM_RSA_PKCS, privateKey(0xFFF)).code, CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(activeOperation(), DIGEST);
    ByteVector digest(64, 0);
    auto length = static_cast<CK_ULONG>(digest.size());
    EXPECT_EQ(C_DigestFinal(hSession_, digest.data(), &length), CKR_OK);
}

TEST_P(CipherTest, TheCallNeedsExactlyItsOwnOperationBeforeItLooksAtItsArguments)
{
    expectDeviceCalls(GetParam(), 0);
    for (const int active :
         {NO_OPERATION, FIND, ENCRYPT, DECRYPT, DIGEST, SIGN, VERIFY, DIGEST_ENCRYPT, DIGEST_DECRYPT}) {
        if (active == GetParam().operation)
            continue;
        reopenSession();
        start(active);
        EXPECT_EQ(answer(GetParam().run, hSession_, nullptr, 0, nullptr, nullptr),
                  refusedRun(CKR_OPERATION_NOT_INITIALIZED,
                             "operation not initialized, activeOperation=" + std::to_string(active)));
        EXPECT_EQ(activeOperation(), active);
    }
}

TEST_P(CipherTest, ARefusedArgumentLeavesTheOperationActive)
{
    expectDeviceCalls(GetParam(), 0);
    mustInit(GetParam());
    CK_BYTE data = 'd';
    CK_BYTE output = 7;
    CK_ULONG length = 7;
    EXPECT_EQ(answer(GetParam().run, hSession_, nullptr, 1, &output, &length).code, CKR_ARGUMENTS_BAD);
    EXPECT_EQ(answer(GetParam().run, hSession_, &data, 0, &output, &length).code, CKR_ARGUMENTS_BAD);
    EXPECT_EQ(answer(GetParam().run, hSession_, &data, 1, &output, nullptr).code, CKR_ARGUMENTS_BAD);
    EXPECT_EQ(activeOperation(), GetParam().operation);
    EXPECT_EQ(output, 7);
    EXPECT_EQ(length, 7U);
}

TEST_P(CipherTest, AfterALengthQueryTheKeptResultIsDeliveredWhateverTheData)
{
    expectDeviceCalls(GetParam(), 1);
    mustInit(GetParam());
    EXPECT_EQ(queryLength(GetParam()), sizeof SOME_DATA);
    EXPECT_EQ(queryLength(GetParam()), sizeof SOME_DATA);
    EXPECT_EQ(activeOperation(), GetParam().operation);
    const Output output = run(GetParam(), ByteVector(OTHER_DATA, OTHER_DATA + sizeof OTHER_DATA));
    EXPECT_EQ(output.answer, passed(GetParam()));
    EXPECT_EQ(output.used(), (ByteVector{0x9B, 0x9E, 0x8B, 0x9E}));
}

TEST_P(CipherTest, AnArgumentErrorAfterALengthQueryKeepsTheResult)
{
    expectDeviceCalls(GetParam(), 1);
    mustInit(GetParam());
    queryLength(GetParam());
    CK_BYTE output = 0;
    CK_ULONG length = 0;
    EXPECT_EQ(GetParam().run(hSession_, nullptr, 1, &output, &length), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(run(GetParam()).used().size(), sizeof SOME_DATA);
}

TEST_P(CipherTest, ATooSmallBufferGetsTheWholeResult)
{
    mustInit(GetParam());
    ByteVector data(SOME_DATA, SOME_DATA + sizeof SOME_DATA);
    ByteVector output(8, 0);
    CK_ULONG length = 1;
    EXPECT_EQ(answer(GetParam().run, hSession_, data.data(), data.size(), output.data(), &length), passed(GetParam()));
    EXPECT_EQ(length, 4U);
    EXPECT_EQ(output, (ByteVector{0x9B, 0x9E, 0x8B, 0x9E, 0, 0, 0, 0}));
}

TEST_P(CipherTest, DeliveryEndsTheOperation)
{
    mustInit(GetParam());
    EXPECT_EQ(run(GetParam()).answer, passed(GetParam()));
    EXPECT_EQ(activeOperation(), NO_OPERATION);
    const Output again = run(GetParam());
    EXPECT_EQ(again.answer, refusedRun(CKR_OPERATION_NOT_INITIALIZED, "operation not initialized, activeOperation=0"));
    EXPECT_EQ(again.length, 0U);
}

TEST_P(CipherTest, EachOperationComputesItsOwnResult)
{
    expectDeviceCalls(GetParam(), 2);
    mustInit(GetParam());
    run(GetParam());
    mustInit(GetParam());
    EXPECT_EQ(run(GetParam(), ByteVector(OTHER_DATA, OTHER_DATA + sizeof OTHER_DATA)).length, sizeof OTHER_DATA);
}

TEST_P(CipherTest, InitDropsAResultThatWasNeverFetched)
{
    expectDeviceCalls(GetParam(), 2);
    mustInit(GetParam());
    queryLength(GetParam());
    abandonOperation();
    mustInit(GetParam());
    EXPECT_EQ(run(GetParam(), ByteVector(OTHER_DATA, OTHER_DATA + sizeof OTHER_DATA)).length, sizeof OTHER_DATA);
}

TEST_P(CipherTest, AThrowingLibraryLeavesTheOperationAsAFailureOfTheDeviceDoes)
{
    EXPECT_CALL(*device_, velkor_encrypt)
        .Times(testing::AtMost(2))
        .WillOnce(testing::Return(1))
        .WillOnce(testing::Throw(std::runtime_error("broken")));
    EXPECT_CALL(*device_, velkor_decrypt)
        .Times(testing::AtMost(2))
        .WillOnce(testing::Return(1))
        .WillOnce(testing::Throw(std::runtime_error("broken")));
    mustInit(GetParam());
    EXPECT_EQ(run(GetParam()).answer.code, CK_RV{CKR_FUNCTION_FAILED});
    const int afterFailure = activeOperation();
    if (afterFailure == NO_OPERATION)
        mustInit(GetParam());
    EXPECT_EQ(run(GetParam()).answer, refusedRun(CKR_GENERAL_ERROR, "unexpected exception: broken"));
    EXPECT_EQ(activeOperation(), afterFailure);
}

TEST_P(CipherTest, SessionsHaveOperationsOfTheirOwn)
{
    mustInit(GetParam());
    const CK_SESSION_HANDLE firstSession = hSession_;
    hSession_ = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    EXPECT_EQ(activeOperation(), NO_OPERATION);
    hSession_ = firstSession;
    EXPECT_EQ(activeOperation(), GetParam().operation);
}

// ---- Keys and parameters that an initialisation refuses ----

struct RefusedInit {
    CK_MECHANISM mechanism;
    CK_OBJECT_HANDLE hKey;
    CK_RV code;
    std::string text; ///< Where it ends in '=' or ' ', the handle follows.
};

class CipherInitTest : public CipherFixture
{
protected:
    void expectRefusals(const Direction& direction, const std::vector<RefusedInit>& table) const
    {
        for (const RefusedInit& row : table) {
            EXPECT_EQ(init(direction, row.mechanism, row.hKey), refusedInit(direction, row.code, row.text));
            EXPECT_EQ(activeOperation(), NO_OPERATION);
        }
    }

    /// Every way to give a parameter, each with a key that does not exist.
    static std::vector<RefusedInit> givenParameters(const std::string& text)
    {
        static CK_BYTE parameter = 0;
        return {{{CKM_RSA_PKCS, &parameter, 0}, 0, CKR_MECHANISM_PARAM_INVALID, text},
                {{CKM_RSA_PKCS, nullptr, 1}, 0, CKR_MECHANISM_PARAM_INVALID, text},
                {{CKM_RSA_PKCS, &parameter, 1}, privateKey(2), CKR_MECHANISM_PARAM_INVALID, text}};
    }

    /// Handles with one mechanism; `before` and `after` enclose the handle in the log.
    static std::vector<RefusedInit> refusedKeys(CK_MECHANISM_TYPE type, const std::vector<CK_OBJECT_HANDLE>& handles,
                                                const std::string& before, const std::string& after = "")
    {
        std::vector<RefusedInit> table;
        for (const CK_OBJECT_HANDLE hKey : handles)
            table.push_back({{type, nullptr, 0}, hKey, CKR_OBJECT_HANDLE_INVALID, before + logged(hKey) + after});
        return table;
    }
};

const std::vector<CK_OBJECT_HANDLE> BELOW_PRIVATE_KEYS = {0, 1, 2, 0x60000001, 0x6FFFFFFF};

TEST_F(CipherInitTest, EncryptInitRefusesAParameterOfPkcs)
{
    expectRefusals(ENCRYPTION, givenParameters("C_EncryptInit: mechanism param invalid for mechanism=1"));
}

TEST_F(CipherInitTest, DecryptInitRefusesAParameterOfPkcs)
{
    expectRefusals(DECRYPTION, givenParameters("C_DecryptInit: mechanism param invalid for CKM_RSA_PKCS"));
}

TEST_F(CipherInitTest, ParametersOfPkcsAreRefusedWhateverTheirLength)
{
    for (CK_ULONG length = 0; length <= 64; ++length) {
        const auto block = std::make_unique<unsigned char[]>(length); // Sanitizers guard its end.
        const CK_MECHANISM mechanism = {CKM_RSA_PKCS, block.get(), length};
        expectRefusals(ENCRYPTION, {{mechanism, publicKey(2), CKR_MECHANISM_PARAM_INVALID,
                                     "C_EncryptInit: mechanism param invalid for mechanism=1"}});
        expectRefusals(DECRYPTION, {{mechanism, privateKey(2), CKR_MECHANISM_PARAM_INVALID,
                                     "C_DecryptInit: mechanism param invalid for CKM_RSA_PKCS"}});
    }
}

TEST_F(CipherInitTest, EncryptInitRefusesHandlesBelowTheKeys)
{
    expectRefusals(ENCRYPTION, refusedKeys(CKM_RSA_PKCS, BELOW_PRIVATE_KEYS, "C_EncryptInit: invalid hKey="));
}

TEST_F(CipherInitTest, EncryptInitWithOaepRefusesEveryHandleBelowThePublicKeys)
{
    const std::string before = "C_EncryptInit: invalid hKey=";
    const std::string after = " for CKM_RSA_PKCS_OAEP";
    expectRefusals(ENCRYPTION, refusedKeys(CKM_RSA_PKCS_OAEP, BELOW_PRIVATE_KEYS, before, after));
    expectRefusals(ENCRYPTION, refusedKeys(CKM_RSA_PKCS_OAEP, {privateKey(2), 0x70000FFF}, before, after));
}

TEST_F(CipherInitTest, EncryptInitRefusesKeysThatTheDeviceDoesNotHave)
{
    const std::vector<CK_OBJECT_HANDLE> unknown = {publicKey(0),    publicKey(8), publicKey(0xFFF),
                                                   0x70002000 + 2U, 0x70003000,   ALL_BITS};
    expectRefusals(ENCRYPTION, refusedKeys(CKM_RSA_PKCS, unknown, "Invalid input handle in encrypt : "));
    expectRefusals(ENCRYPTION,
                   refusedKeys(CKM_RSA_PKCS, {privateKey(0), privateKey(8)}, "Invalid input handle in encrypt : "));
    expectRefusals(ENCRYPTION,
                   refusedKeys(CKM_RSA_PKCS_OAEP, unknown, "C_EncryptInit: invalid input handle for OAEP encrypt : "));
}

TEST_F(CipherInitTest, DecryptInitRefusesHandlesBelowTheKeys)
{
    const std::string before = "C_DecryptInit: invalid hKey=";
    expectRefusals(DECRYPTION, refusedKeys(CKM_RSA_PKCS, BELOW_PRIVATE_KEYS, before, " for CKM_RSA_PKCS"));
    expectRefusals(DECRYPTION, refusedKeys(CKM_RSA_PKCS_OAEP, BELOW_PRIVATE_KEYS, before, " for CKM_RSA_PKCS_OAEP"));
}

TEST_F(CipherInitTest, DecryptInitFindsNoRecordForAPublicKeyOrAnUnknownKey)
{
    const std::vector<CK_OBJECT_HANDLE> unknown = {privateKey(0), privateKey(8), 0x70000FFF, publicKey(2),
                                                   0x70002002,    0x70003000,    ALL_BITS};
    expectRefusals(DECRYPTION, refusedKeys(CKM_RSA_PKCS, unknown, "Invalid input handle in decrypt : "));
    expectRefusals(DECRYPTION, refusedKeys(CKM_RSA_PKCS_OAEP, unknown, "Invalid input handle in decrypt OAEP : "));
}

TEST_F(CipherInitTest, OaepOnOldFirmwareIsRefusedBeforeTheKeyIsLookedAt)
{
    setFirmware("1.9.9");
    const CK_MECHANISM oaep = {CKM_RSA_PKCS_OAEP, nullptr, 0};
    expectRefusals(ENCRYPTION, {{oaep, 0, CKR_MECHANISM_INVALID,
                                 "C_EncryptInit: CKM_RSA_PKCS_OAEP not supported on firmware 1.9.9"}});
    expectRefusals(DECRYPTION, {{oaep, 0, CKR_MECHANISM_INVALID, "CKM_RSA_PKCS_OAEP not supported on firmware 1.9.9"}});
}

TEST_F(CipherInitTest, KeysAreLookedUpOnTheSessionsDeviceAnewEachTime)
{
    EXPECT_CALL(*device_, velkor_getKeyPairList(StrEq(SECOND_DEVICE), &instance_)).Times(2);
    EXPECT_CALL(*device_, velkor_getKeyPairList(StrEq(FIRST_DEVICE), _)).Times(0);
    reopenSession(CKF_SERIAL_SESSION | CKF_RW_SESSION, SECOND_SLOT);
    EXPECT_EQ(init(ENCRYPTION, CKM_RSA_PKCS, publicKey(2)).code, CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(init(ENCRYPTION, CKM_RSA_PKCS, publicKey(1)).code, CKR_OK);
}

TEST_F(CipherInitTest, ADeviceWithoutKeysRefusesEveryKey)
{
    first().keyPairs.clear();
    expectRefusals(ENCRYPTION, refusedKeys(CKM_RSA_PKCS, {publicKey(2)}, "Invalid input handle in encrypt : "));
    expectRefusals(DECRYPTION, refusedKeys(CKM_RSA_PKCS, {privateKey(2)}, "Invalid input handle in decrypt : "));
}

TEST_F(CipherInitTest, OnlyDecryptionAsksForTheSessionState)
{
    reopenSession(CKF_SERIAL_SESSION);
    EXPECT_EQ(init(DECRYPTION),
              refusedInit(DECRYPTION, CKR_SESSION_HANDLE_INVALID, "C_DecryptInit: invalid session state=0"));
    EXPECT_EQ(init(ENCRYPTION).code, CKR_OK);
    // The state comes before the operation in progress and the mechanism.
    EXPECT_EQ(answer(C_DecryptInit, hSession_, nullptr, 0),
              refusedInit(DECRYPTION, CKR_SESSION_HANDLE_INVALID, "C_DecryptInit: invalid session state=0"));
    EXPECT_EQ(activeOperation(), ENCRYPT);
}

TEST_F(CipherInitTest, EveryOtherSessionStateDecrypts)
{
    EXPECT_EQ(init(DECRYPTION).code, CKR_OK); // Public, read/write.
    reopenSession();
    login(CKU_SO);
    EXPECT_EQ(init(DECRYPTION).code, CKR_OK);
    ASSERT_EQ(C_Logout(hSession_), CKR_OK);
    reopenSession();
    login();
    EXPECT_EQ(init(DECRYPTION).code, CKR_OK);
    reopenSession(CKF_SERIAL_SESSION);
    EXPECT_EQ(init(DECRYPTION).code, CKR_OK);
}

// ---- Encryption ----

class EncryptionTest : public CipherFixture
{
protected:
    void setModulus(std::uint32_t id, const ByteVector& modulus) const
    {
        VelkorKeyPair& record = keyPair(id);
        std::copy(modulus.begin(), modulus.end(), record.publicKey);
        record.publicKeyLength = static_cast<std::int32_t>(modulus.size());
    }

    void encryptWith(CK_OBJECT_HANDLE hKey, CK_MECHANISM_TYPE type = CKM_RSA_PKCS) const
    {
        ASSERT_EQ(init(ENCRYPTION, type, hKey).code, CKR_OK);
        EXPECT_EQ(run(ENCRYPTION).answer, passed(ENCRYPTION));
    }

    /// Has the next encryption give this length for its ciphertext.
    void giveLength(int length) const
    {
        EXPECT_CALL(*device_, velkor_encrypt).WillOnce(DoAll(testing::SetArgPointee<5>(length), Return(0)));
    }
};

const ByteVector EXPONENT = {0x02, 0x03, 0x01, 0x00, 0x01};
const ByteVector RSA_ALGORITHM = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                  0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};

/// The headers around a modulus in its SubjectPublicKeyInfo.
struct PublicKeyInfo {
    ByteVector modulus;
    ByteVector outer;     ///< Before the algorithm.
    ByteVector bitString; ///< Between the algorithm and the modulus.
};

ByteVector encoded(const PublicKeyInfo& info)
{
    return joined({info.outer, RSA_ALGORITHM, info.bitString, info.modulus, EXPONENT});
}

const PublicKeyInfo PUBLIC_KEYS[] = {
    {ByteVector(1, 0x7F), {0x30, 0x1C}, {0x03, 0x0B, 0x00, 0x30, 0x08, 0x02, 0x01}},
    {ByteVector(1, 0x80), {0x30, 0x1D}, {0x03, 0x0C, 0x00, 0x30, 0x09, 0x02, 0x02, 0x00}},
    {ByteVector(3, 0x00), {0x30, 0x1E}, {0x03, 0x0D, 0x00, 0x30, 0x0A, 0x02, 0x03}},
    {ByteVector(100, 0x11), {0x30, 0x7F}, {0x03, 0x6E, 0x00, 0x30, 0x6B, 0x02, 0x64}},
    {ByteVector(101, 0x11), {0x30, 0x81, 0x80}, {0x03, 0x6F, 0x00, 0x30, 0x6C, 0x02, 0x65}},
    {ByteVector(117, 0x11), {0x30, 0x81, 0x90}, {0x03, 0x7F, 0x00, 0x30, 0x7C, 0x02, 0x75}},
    {ByteVector(118, 0x11), {0x30, 0x81, 0x92}, {0x03, 0x81, 0x80, 0x00, 0x30, 0x7D, 0x02, 0x76}},
    {ByteVector(127, 0x11), {0x30, 0x81, 0x9C}, {0x03, 0x81, 0x8A, 0x00, 0x30, 0x81, 0x86, 0x02, 0x7F}},
    {ByteVector(127, 0xFF), {0x30, 0x81, 0x9E}, {0x03, 0x81, 0x8C, 0x00, 0x30, 0x81, 0x88, 0x02, 0x81, 0x80, 0x00}},
    {ByteVector(128, 0xC5), {0x30, 0x81, 0x9F}, {0x03, 0x81, 0x8D, 0x00, 0x30, 0x81, 0x89, 0x02, 0x81, 0x81, 0x00}},
    {ByteVector(256, 0x7F),
     {0x30, 0x82, 0x01, 0x21},
     {0x03, 0x82, 0x01, 0x0E, 0x00, 0x30, 0x82, 0x01, 0x09, 0x02, 0x82, 0x01, 0x00}},
    {ByteVector(256, 0x80),
     {0x30, 0x82, 0x01, 0x22},
     {0x03, 0x82, 0x01, 0x0F, 0x00, 0x30, 0x82, 0x01, 0x0A, 0x02, 0x82, 0x01, 0x01, 0x00}},
    {ByteVector(384, 0xC5),
     {0x30, 0x82, 0x01, 0xA2},
     {0x03, 0x82, 0x01, 0x8F, 0x00, 0x30, 0x82, 0x01, 0x8A, 0x02, 0x82, 0x01, 0x81, 0x00}},
    {ByteVector(512, 0xC5),
     {0x30, 0x82, 0x02, 0x22},
     {0x03, 0x82, 0x02, 0x0F, 0x00, 0x30, 0x82, 0x02, 0x0A, 0x02, 0x82, 0x02, 0x01, 0x00}},
    {ByteVector(1024, 0xC5),
     {0x30, 0x82, 0x04, 0x22},
     {0x03, 0x82, 0x04, 0x0F, 0x00, 0x30, 0x82, 0x04, 0x0A, 0x02, 0x82, 0x04, 0x01, 0x00}},
};

TEST_F(EncryptionTest, ThePublicKeyGoesToTheDeviceAsSubjectPublicKeyInfo)
{
    for (const PublicKeyInfo& info : PUBLIC_KEYS) {
        SCOPED_TRACE(info.modulus.size());
        setModulus(2, info.modulus);
        const ByteVector der = encoded(info);
        EXPECT_CALL(*device_, velkor_encrypt(_, _, _, _, _, _, PointsTo(der), static_cast<int>(der.size()), _));
        encryptWith(publicKey(2));
    }
}

TEST_F(EncryptionTest, TheKeyKindChoosesTheEncryptionType)
{
    struct Row {
        std::uint32_t keyKind;
        int type;
    };
    for (const Row& row : {Row{1, 7}, Row{2, 8}, Row{3, 9}, Row{4, 10}, Row{5, 8}, Row{6, 8}, Row{7, 8}, Row{0, 8},
                           Row{99, 8}, Row{0xFFFFFFFF, 8}}) {
        keyPair(2).keyKind = row.keyKind;
        EXPECT_CALL(*device_,
                    velkor_encrypt(static_cast<EncryptionType>(row.type), PaddingMode{1}, _, _, _, _, _, _, _));
        encryptWith(publicKey(2));
    }
}

TEST_F(EncryptionTest, TheDeviceGetsPaddingDataAndAnEmptyOutput)
{
    const int dataLength = sizeof SOME_DATA;
    for (const int padding : {1, 4}) {
        EXPECT_CALL(*device_, velkor_encrypt(EncryptionType::Rsa2048, static_cast<PaddingMode>(padding),
                                             PointsTo(ByteVector(SOME_DATA, SOME_DATA + dataLength)), dataLength, _,
                                             testing::Pointee(0), _, 294, &instance_));
        encryptWith(publicKey(2), padding == 1 ? CKM_RSA_PKCS : CKM_RSA_PKCS_OAEP);
    }
}

TEST_F(EncryptionTest, TheOutputHasRoomFor1024Bytes)
{
    EXPECT_CALL(*device_, velkor_encrypt).WillOnce([](auto, auto, auto, auto, auto* out, int* outLength, auto...) {
        std::memset(out, 0xEE, 1024);
        *outLength = 1024;
        return 0;
    });
    mustInit(ENCRYPTION);
    EXPECT_EQ(run(ENCRYPTION).used(), ByteVector(1024, 0xEE));
}

TEST_F(EncryptionTest, ALengthThatTheOutputCannotHaveIsCutToIt)
{
    mustInit(ENCRYPTION);
    giveLength(1025);
    EXPECT_EQ(run(ENCRYPTION).length, 1024U);
    mustInit(ENCRYPTION);
    giveLength(-1);
    EXPECT_EQ(run(ENCRYPTION).length, 0U);
}

TEST_F(EncryptionTest, AnEmptyCiphertextIsNotKeptAfterALengthQuery)
{
    EXPECT_CALL(*device_, velkor_encrypt)
        .WillOnce(DoAll(testing::SetArgPointee<5>(0), Return(0)))
        .WillOnce(testing::DoDefault());
    mustInit(ENCRYPTION);
    EXPECT_EQ(queryLength(ENCRYPTION), 0U);
    EXPECT_EQ(run(ENCRYPTION).length, sizeof SOME_DATA);
}

TEST_F(EncryptionTest, WithPkcsBothHalvesOfAPairSelectTheSameKey)
{
    const ByteVector der = encoded({ByteVector(384, 0xC5), PUBLIC_KEYS[12].outer, PUBLIC_KEYS[12].bitString});
    setModulus(3, ByteVector(384, 0xC5));
    EXPECT_CALL(*device_, velkor_encrypt(EncryptionType::Rsa3072, _, _, _, _, _, PointsTo(der), _, _)).Times(2);
    encryptWith(publicKey(3));
    encryptWith(privateKey(3));
}

TEST_F(EncryptionTest, TheLastKeyOfEachRangeIsReached)
{
    first().keyPairs.push_back(makeKeyPair(0xFFF, KEY_KIND_RSA_4096, "last pair"));
    EXPECT_CALL(*device_, velkor_encrypt(EncryptionType::Rsa4096, _, _, _, _, _, _, _, _)).Times(2);
    encryptWith(0x70000FFF);
    encryptWith(0x70001FFF);
}

TEST_F(EncryptionTest, ALaterLookupOfAnySessionChangesTheKey)
{
    mustInit(ENCRYPTION);
    const CK_SESSION_HANDLE other = openSession(CKF_SERIAL_SESSION);
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(C_EncryptInit(other, &mechanism, publicKey(4)), CKR_OK);
    EXPECT_CALL(*device_, velkor_encrypt(EncryptionType::Rsa4096, _, _, _, _, _, _, 550, _)).Times(1);
    EXPECT_EQ(run(ENCRYPTION).answer, passed(ENCRYPTION));
}

TEST_F(EncryptionTest, ALookupThatFindsNothingLeavesTheKey)
{
    mustInit(ENCRYPTION);
    const CK_SESSION_HANDLE other = openSession(CKF_SERIAL_SESSION);
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(C_EncryptInit(other, &mechanism, publicKey(100)), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_CALL(*device_, velkor_encrypt(EncryptionType::Rsa2048, _, _, _, _, _, _, 294, _)).Times(1);
    EXPECT_EQ(run(ENCRYPTION).answer, passed(ENCRYPTION));
}

TEST_F(EncryptionTest, ArgumentsAreCheckedInTheirOrder)
{
    mustInit(ENCRYPTION);
    const std::string text = "pData is NULL or ulDataLen<=0, ulDataLen=";
    CK_BYTE data = 'd';
    EXPECT_EQ(answer(C_Encrypt, hSession_, nullptr, 5, nullptr, nullptr),
              refusedRun(ENCRYPTION, CKR_ARGUMENTS_BAD, text + "5"));
    EXPECT_EQ(answer(C_Encrypt, hSession_, nullptr, TOO_LARGE_FOR_INT, nullptr, nullptr),
              refusedRun(ENCRYPTION, CKR_ARGUMENTS_BAD, text + logged(TOO_LARGE_FOR_INT)));
    EXPECT_EQ(answer(C_Encrypt, hSession_, &data, 0, nullptr, nullptr),
              refusedRun(ENCRYPTION, CKR_ARGUMENTS_BAD, text + "0"));
    EXPECT_EQ(answer(C_Encrypt, hSession_, &data, 1, nullptr, nullptr),
              refusedRun(ENCRYPTION, CKR_ARGUMENTS_BAD, "pulEncryptedDataLen is NULL"));
}

TEST_F(EncryptionTest, AFailureOfTheDeviceEndsTheOperation)
{
    for (const int status : {1, -1, STATUS_DEVICE_REMOVED, STATUS_DEVICE_UNREACHABLE}) {
        EXPECT_CALL(*device_, velkor_encrypt).WillOnce(Return(status));
        mustInit(ENCRYPTION);
        const Output output = run(ENCRYPTION);
        EXPECT_EQ(output.answer,
                  refusal(CKR_FUNCTION_FAILED, "C_Encrypt", "Encrypt data failed : " + std::to_string(status)));
        EXPECT_EQ(output.length, 0U);
        EXPECT_EQ(output.bytes, ByteVector(1024, 0));
        EXPECT_EQ(activeOperation(), NO_OPERATION);
    }
}

TEST_F(EncryptionTest, AFailedLengthQueryLeavesTheCallersLength)
{
    EXPECT_CALL(*device_, velkor_encrypt).WillOnce(Return(1));
    mustInit(ENCRYPTION);
    CK_BYTE data = 'd';
    CK_ULONG length = 7;
    EXPECT_EQ(C_Encrypt(hSession_, &data, 1, nullptr, &length), CKR_FUNCTION_FAILED);
    EXPECT_EQ(length, 7U);
}

TEST_F(EncryptionTest, ALengthBeyondIntStaysRefusableForTheDevice)
{
    EXPECT_CALL(*device_, velkor_encrypt(_, _, _, std::numeric_limits<int>::min(), _, _, _, _, _)).WillOnce(Return(3));
    mustInit(ENCRYPTION);
    CK_BYTE data = 'd';
    CK_ULONG length = 0;
    EXPECT_EQ(C_Encrypt(hSession_, &data, TOO_LARGE_FOR_INT, nullptr, &length), CKR_FUNCTION_FAILED);
}

// ---- Decryption ----

class DecryptionTest : public CipherFixture
{
protected:
    void giveNext(std::string_view plaintext, int status = 0) const
    {
        EXPECT_CALL(*device_, velkor_decrypt).WillOnce(GivesBuffer(plaintext, status));
    }
};

TEST_F(DecryptionTest, TheDeviceGetsKeyPasswordDataAndFlag)
{
    const int dataLength = sizeof SOME_DATA;
    for (const bool flag : {false, true}) {
        keyPair(2).deviceFlag = flag;
        EXPECT_CALL(*device_,
                    velkor_decrypt(StrEq(FIRST_DEVICE), PointsTo(ByteVector(16, 0xA2)), StrEq(""),
                                   PointsTo(ByteVector(SOME_DATA, SOME_DATA + dataLength)), dataLength,
                                   testing::Pointee(testing::IsNull()), testing::Pointee(0), flag, &instance_));
        mustInit(DECRYPTION);
        EXPECT_EQ(run(DECRYPTION).answer, passed(DECRYPTION));
    }
}

TEST_F(DecryptionTest, TheCachedPasswordIsTheOneOfTheCallNotOfTheInitialisation)
{
    mustInit(DECRYPTION);
    login();
    EXPECT_CALL(*device_, velkor_decrypt(_, _, StrEq("1234"), _, _, _, _, _, _)).Times(1);
    EXPECT_EQ(run(DECRYPTION).answer, passed(DECRYPTION));
}

TEST_F(DecryptionTest, OaepAndPkcsLookTheSameToTheDevice)
{
    const ByteVector key(16, 0xA2);
    EXPECT_CALL(*device_, velkor_decrypt(StrEq(FIRST_DEVICE), PointsTo(key), StrEq(""), _, 4, _, _, false, _)).Times(2);
    for (const CK_MECHANISM_TYPE type : {CKM_RSA_PKCS, CKM_RSA_PKCS_OAEP}) {
        mustInit(DECRYPTION, type);
        EXPECT_EQ(run(DECRYPTION).answer, passed(DECRYPTION));
    }
}

TEST_F(DecryptionTest, TheLibrarysBufferIsCopiedAndReleased)
{
    giveNext(PLAINTEXT);
    mustInit(DECRYPTION);
    EXPECT_EQ(run(DECRYPTION).used(), bytesOf(PLAINTEXT));
}

TEST_F(DecryptionTest, ALaterLookupOfAnySessionChangesTheKey)
{
    mustInit(DECRYPTION);
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(C_EncryptInit(openSession(CKF_SERIAL_SESSION), &mechanism, publicKey(4)), CKR_OK);
    EXPECT_CALL(*device_, velkor_decrypt(_, PointsTo(ByteVector(16, 0xA4)), _, _, _, _, _, _, _)).Times(1);
    EXPECT_EQ(run(DECRYPTION).answer, passed(DECRYPTION));
}

TEST_F(DecryptionTest, ArgumentsAreCheckedInTheirOrder)
{
    mustInit(DECRYPTION);
    CK_BYTE data = 'd';
    EXPECT_EQ(answer(C_Decrypt, hSession_, nullptr, 0, nullptr, nullptr),
              refusedRun(DECRYPTION, CKR_ARGUMENTS_BAD, "pEncryptedData is NULL"));
    EXPECT_EQ(answer(C_Decrypt, hSession_, &data, 0, nullptr, nullptr),
              refusedRun(DECRYPTION, CKR_ARGUMENTS_BAD, "ulEncryptedDataLen<=0, ulEncryptedDataLen=0"));
    EXPECT_EQ(answer(C_Decrypt, hSession_, &data, 1, nullptr, nullptr),
              refusedRun(DECRYPTION, CKR_ARGUMENTS_BAD, "pulDataLen is NULL"));
}

TEST_F(DecryptionTest, AFailureOfTheDeviceKeepsTheOperationAndReleasesWhatWasAllocated)
{
    mustInit(DECRYPTION);
    for (const int status : {1, -1, STATUS_DEVICE_REMOVED, STATUS_DEVICE_UNREACHABLE}) {
        giveNext(PLAINTEXT, status);
        const Output output = run(DECRYPTION);
        EXPECT_EQ(output.answer,
                  refusal(CKR_FUNCTION_FAILED, "C_Decrypt", "Dacrypt data failed : " + std::to_string(status)));
        EXPECT_EQ(output.length, 0U);
        EXPECT_EQ(output.bytes, ByteVector(1024, 0));
        EXPECT_EQ(activeOperation(), DECRYPT);
    }
    giveNext(PLAINTEXT);
    EXPECT_EQ(run(DECRYPTION).used(), bytesOf(PLAINTEXT));
}

TEST_F(DecryptionTest, AnEmptyPlaintextIsNotKeptAfterALengthQuery)
{
    EXPECT_CALL(*device_, velkor_decrypt)
        .WillOnce(GivesNoBuffer(0, 0))
        .WillOnce(GivesNoBuffer(32, 0))
        .WillOnce(GivesBuffer(PLAINTEXT, 0));
    mustInit(DECRYPTION);
    EXPECT_EQ(queryLength(DECRYPTION), 0U);
    EXPECT_EQ(queryLength(DECRYPTION), 0U);
    EXPECT_EQ(run(DECRYPTION).used(), bytesOf(PLAINTEXT));
}

TEST_F(DecryptionTest, AnEmptyPlaintextIsDelivered)
{
    EXPECT_CALL(*device_, velkor_decrypt).WillOnce(GivesNoBuffer(0, 0));
    mustInit(DECRYPTION);
    const Output output = run(DECRYPTION);
    EXPECT_EQ(output.answer, passed(DECRYPTION));
    EXPECT_EQ(output.length, 0U);
    EXPECT_EQ(activeOperation(), NO_OPERATION);
}

TEST_F(DecryptionTest, ABufferOfTheLibraryIsReleasedWhenTheLibraryThrows)
{
    EXPECT_CALL(*device_, velkor_decrypt)
        .WillOnce([](auto, auto, auto, auto, auto, auto** out, int* length, auto...) -> int {
            giveBuffer(PLAINTEXT, out, length);
            throw std::runtime_error("broken");
        });
    mustInit(DECRYPTION);
    EXPECT_EQ(run(DECRYPTION).answer, refusedRun(DECRYPTION, CKR_GENERAL_ERROR, "unexpected exception: broken"));
}

class PlaintextWipingTest : public DecryptionTest
{
protected:
    /// Blocks that are released with the plaintext in them while `end` ends a decryption that has its result.
    template <typename End>
    int leftBlocks(const End& end)
    {
        mustInit(DECRYPTION);
        giveNext(PLAINTEXT);
        CK_BYTE data = 'd';
        CK_ULONG length = 0;
        CK_BYTE plaintext[128];
        return releasedBlocksWith(PLAINTEXT, [&] {
            C_Decrypt(hSession_, &data, 1, nullptr, &length);
            end(&data, plaintext, &length);
        });
    }
};

TEST_F(PlaintextWipingTest, ADeliveredPlaintextLeavesNothingInTheModule)
{
    EXPECT_EQ(leftBlocks([&](CK_BYTE* data, CK_BYTE* plaintext, CK_ULONG* length) {
                  EXPECT_EQ(C_Decrypt(hSession_, data, 1, plaintext, length), CKR_OK);
              }),
              0);
}

TEST_F(PlaintextWipingTest, APlaintextThatWasNeverFetchedGoesWithItsSession)
{
    EXPECT_EQ(leftBlocks([&](auto...) { EXPECT_EQ(C_CloseSession(hSession_), CKR_OK); }), 0);
}

TEST_F(PlaintextWipingTest, APlaintextThatWasNeverFetchedGoesWithAllSessions)
{
    EXPECT_EQ(leftBlocks([](auto...) { EXPECT_EQ(C_CloseAllSessions(FIRST_SLOT), CKR_OK); }), 0);
}

TEST_F(PlaintextWipingTest, APlaintextThatWasNeverFetchedGoesWhenTheModuleIsFinalised)
{
    EXPECT_EQ(leftBlocks([this](auto...) { EXPECT_EQ(finalize(), CKR_OK); }), 0);
}

TEST_F(PlaintextWipingTest, APlaintextThatWasNeverFetchedGoesWithTheNextInitialisation)
{
    EXPECT_EQ(leftBlocks([&](auto...) {
                  abandonOperation();
                  mustInit(ENCRYPTION);
              }),
              0);
}

} // namespace
