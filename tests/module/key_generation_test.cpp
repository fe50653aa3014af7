// C_GenerateKeyPair.
#include "key_operation_fixture.h"

namespace
{

using testing::_;
using testing::Return;
using testing::StrEq;

constexpr CK_OBJECT_HANDLE UNTOUCHED = 7;

const ByteVector P256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
const ByteVector P384 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
const ByteVector P521 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};

/// The first byte decides on a boolean attribute.
const ByteVector YES = {1};
const ByteVector NO = {0};

const std::string TOO_SMALL = "RSA-1024 key generation not allowed — key size below 112-bit security strength";

class KeyGenerationTest : public KeyOperationTest
{
protected:
    void SetUp() override
    {
        KeyOperationTest::SetUp();
        ON_CALL(*device_, velkor_generateKeyPair).WillByDefault([this](auto, auto, auto* keyPair, auto) {
            request_ = *keyPair;
            ++requests_;
            keyPair->id = givenId_;
            return 0;
        });
    }

    /// The whole call, with the handles in `hPublic_` and `hPrivate_`, which are UNTOUCHED before.
    Answer generate(Template publicKeyTemplate, Template privateKeyTemplate)
    {
        return generate(&publicKeyTemplate, &privateKeyTemplate);
    }

    Answer generate(Template* publicKeyTemplate, Template* privateKeyTemplate)
    {
        hPublic_ = hPrivate_ = UNTOUCHED;
        return answer(C_GenerateKeyPair, hSession_, &mechanism_, publicKeyTemplate->data(), publicKeyTemplate->size(),
                      privateKeyTemplate->data(), privateKeyTemplate->size(), &hPublic_, &hPrivate_);
    }

    Answer generateRsa(CK_ULONG bits) { return generate({{CKA_MODULUS_BITS, bytesOf(bits)}}, {{CKA_TOKEN, YES}}); }

    Answer generateEc(const ByteVector& parameters)
    {
        return generate({{CKA_EC_PARAMS, parameters}}, {{CKA_KEY_TYPE, bytesOf(CKK_EC)}});
    }

    /// What the device is asked for by a private template, with a public one that says nothing.
    VelkorKeyPair requestOf(Template privateKeyTemplate)
    {
        Template publicKeyTemplate = {{CKA_TOKEN, YES}};
        EXPECT_EQ(generate(&publicKeyTemplate, &privateKeyTemplate).code, CKR_OK);
        return request_;
    }

    static Answer generated(CK_KEY_TYPE keyType, const std::vector<std::string>& sizes = {})
    {
        Answer answer = {CKR_OK, {"DEBUG C_GenerateKeyPair", keyTypeLine(keyType)}};
        for (const std::string& size : sizes)
            answer.lines.push_back("DEBUG C_GenerateKeyPair - modulusBits : " + size);
        answer.lines.emplace_back("DEBUG C_GenerateKeyPair - exit");
        return answer;
    }

    static std::string keyTypeLine(CK_KEY_TYPE keyType)
    {
        return "DEBUG C_GenerateKeyPair - keytype : " + logged(keyType);
    }

    static Answer refused(CK_RV code, const std::string& text)
    {
        return refusal(code, "C_GenerateKeyPair", "C_GenerateKeyPair: " + text);
    }

    static Answer refusedSize(CK_RV code, CK_ULONG bits, const std::string& text)
    {
        return {code,
                {"DEBUG C_GenerateKeyPair", keyTypeLine(CKK_RSA),
                 "DEBUG C_GenerateKeyPair - modulusBits : " + logged(bits), "ERROR C_GenerateKeyPair: " + text}};
    }

    static Answer refusedCurve(std::size_t length)
    {
        return {CKR_MECHANISM_INVALID,
                {"DEBUG C_GenerateKeyPair", keyTypeLine(CKK_EC),
                 "ERROR C_GenerateKeyPair: unknown EC param (len=" + std::to_string(length) + ")"}};
    }

    void expectUntouched() const
    {
        EXPECT_EQ(requests_, 0);
        EXPECT_EQ(hPublic_, UNTOUCHED);
        EXPECT_EQ(hPrivate_, UNTOUCHED);
    }

    CK_MECHANISM mechanism_ = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    CK_OBJECT_HANDLE hPublic_ = UNTOUCHED;
    CK_OBJECT_HANDLE hPrivate_ = UNTOUCHED;
    std::uint32_t givenId_ = 9;
    VelkorKeyPair request_;
    int requests_ = 0;
};

// ---- Key kinds ----

TEST_F(KeyGenerationTest, ModulusBitsChooseTheKindOfAnRsaKey)
{
    struct Row {
        CK_ULONG bits;
        std::uint32_t kind;
    };
    for (const Row& row : {Row{2048, 2}, Row{3072, 3}, Row{4096, 4}}) {
        EXPECT_EQ(generateRsa(row.bits), generated(CKK_RSA, {logged(row.bits)}));
        EXPECT_EQ(request_.keyKind, row.kind);
    }
}

TEST_F(KeyGenerationTest, ParametersChooseTheKindOfAnEcKey)
{
    struct Row {
        const ByteVector& parameters;
        std::uint32_t kind;
    };
    for (const Row& row : {Row{P256, 5}, Row{P384, 6}, Row{P521, 7}}) {
        EXPECT_EQ(generateEc(row.parameters), generated(CKK_EC));
        EXPECT_EQ(request_.keyKind, row.kind);
    }
}

TEST_F(KeyGenerationTest, WithoutItsAttributeAKeyIsRequestedAs2048BitRsa)
{
    EXPECT_EQ(generate({{CKA_TOKEN, YES}}, {{CKA_KEY_TYPE, bytesOf(CKK_RSA)}}), generated(CKK_RSA));
    EXPECT_EQ(request_.keyKind, 2U);
    EXPECT_EQ(generate({{CKA_TOKEN, YES}}, {{CKA_KEY_TYPE, bytesOf(CKK_EC)}}), generated(CKK_EC));
    EXPECT_EQ(request_.keyKind, 2U);
}

TEST_F(KeyGenerationTest, TheOtherTypesAttributeIsNotLookedAt)
{
    EXPECT_EQ(generate({{CKA_EC_PARAMS, {1}}, {CKA_MODULUS_BITS, bytesOf(4096)}}, {{CKA_TOKEN, YES}}),
              generated(CKK_RSA, {"4096"}));
    EXPECT_EQ(request_.keyKind, 4U);
    EXPECT_EQ(generate({{CKA_MODULUS_BITS, bytesOf(1024)}, {CKA_EC_PARAMS, P384}}, {{CKA_KEY_TYPE, bytesOf(CKK_EC)}}),
              generated(CKK_EC));
    EXPECT_EQ(request_.keyKind, 6U);
}

TEST_F(KeyGenerationTest, AnyOtherKeyTypeIgnoresThePublicTemplate)
{
    for (const CK_KEY_TYPE keyType : {CKK_DSA, CKK_DH, CKK_AES, ALL_BITS}) {
        EXPECT_EQ(
            generate({{CKA_MODULUS_BITS, bytesOf(1024)}, {CKA_EC_PARAMS, {1}}}, {{CKA_KEY_TYPE, bytesOf(keyType)}}),
            generated(keyType));
        EXPECT_EQ(request_.keyKind, 2U);
        EXPECT_EQ(request_.usageFlags, 1U);
    }
}

TEST_F(KeyGenerationTest, TheKeyTypeOfThePublicTemplatePlaysNoPart)
{
    EXPECT_EQ(generate({{CKA_KEY_TYPE, bytesOf(CKK_EC)}, {CKA_MODULUS_BITS, bytesOf(3072)}}, {{CKA_TOKEN, YES}}),
              generated(CKK_RSA, {"3072"}));
    EXPECT_EQ(request_.keyKind, 3U);
}

TEST_F(KeyGenerationTest, TheMechanismPlaysNoPart)
{
    for (const CK_MECHANISM_TYPE type : {CKM_EC_KEY_PAIR_GEN, CKM_SHA256, ALL_BITS}) {
        mechanism_.mechanism = type;
        EXPECT_EQ(generateRsa(3072), generated(CKK_RSA, {"3072"}));
        EXPECT_EQ(request_.keyKind, 3U);
    }
    mechanism_.mechanism = CKM_RSA_PKCS_KEY_PAIR_GEN;
    EXPECT_EQ(generateEc(P521), generated(CKK_EC));
    EXPECT_EQ(request_.keyKind, 7U);
}

TEST_F(KeyGenerationTest, TheLastMatchingAttributeWins)
{
    EXPECT_EQ(generate({{CKA_MODULUS_BITS, bytesOf(4096)}, {CKA_MODULUS_BITS, bytesOf(3072)}}, {{CKA_TOKEN, YES}}),
              generated(CKK_RSA, {"4096", "3072"}));
    EXPECT_EQ(request_.keyKind, 3U);
    EXPECT_EQ(generate({{CKA_EC_PARAMS, P256}, {CKA_EC_PARAMS, P521}}, {{CKA_KEY_TYPE, bytesOf(CKK_EC)}}),
              generated(CKK_EC));
    EXPECT_EQ(request_.keyKind, 7U);
}

TEST_F(KeyGenerationTest, ARefusedAttributeEndsTheCallAtOnceWhereverItStands)
{
    EXPECT_EQ(generate({{CKA_MODULUS_BITS, bytesOf(1536)}, {CKA_MODULUS_BITS, bytesOf(2048)}}, {{CKA_TOKEN, YES}}),
              refusedSize(CKR_MECHANISM_INVALID, 1536, "unsupported RSA modulusBits=1536"));
    Answer second = refusedSize(CKR_KEY_SIZE_RANGE, 1024, TOO_SMALL);
    second.lines.insert(second.lines.begin() + 2, "DEBUG C_GenerateKeyPair - modulusBits : 2048");
    EXPECT_EQ(generate({{CKA_MODULUS_BITS, bytesOf(2048)}, {CKA_MODULUS_BITS, bytesOf(1024)}}, {{CKA_TOKEN, YES}}),
              second);
    EXPECT_EQ(generate({{CKA_EC_PARAMS, P256}, {CKA_EC_PARAMS, {6}}, {CKA_EC_PARAMS, P384}},
                       {{CKA_KEY_TYPE, bytesOf(CKK_EC)}}),
              refusedCurve(1));
    expectUntouched();
}

TEST_F(KeyGenerationTest, Rsa1024IsRefusedByItsSize)
{
    EXPECT_EQ(generateRsa(1024), refusedSize(CKR_KEY_SIZE_RANGE, 1024, TOO_SMALL));
    expectUntouched();
}

TEST_F(KeyGenerationTest, EveryOtherModulusSizeIsRefused)
{
    for (const CK_ULONG bits : {CK_ULONG{0}, CK_ULONG{1}, CK_ULONG{512}, CK_ULONG{1023}, CK_ULONG{1025}, CK_ULONG{1536},
                                CK_ULONG{2047}, CK_ULONG{4097}, CK_ULONG{8192}, CK_ULONG{0xFFFFFFFF}, ALL_BITS})
        EXPECT_EQ(generateRsa(bits),
                  refusedSize(CKR_MECHANISM_INVALID, bits, "unsupported RSA modulusBits=" + logged(bits)));
    expectUntouched();
}

#ifdef CRYPTOKI_HOST_LAYOUT
TEST_F(KeyGenerationTest, AModulusSizeBeyond32BitsIsNotCut)
{
    EXPECT_EQ(generateRsa((CK_ULONG{1} << 32) + 2048).code, CKR_MECHANISM_INVALID);
    EXPECT_EQ(generateRsa((CK_ULONG{1} << 32) + 1024).code, CKR_MECHANISM_INVALID);
    expectUntouched();
}
#endif

TEST_F(KeyGenerationTest, EcParametersMustBeExactlyThoseOfACurve)
{
    for (const ByteVector& curve : {P256, P384, P521}) {
        const ByteVector cut(curve.begin(), curve.end() - 1);
        EXPECT_EQ(generateEc(cut), refusedCurve(curve.size() - 1));
        EXPECT_EQ(generateEc(joined({curve, {0}})), refusedCurve(curve.size() + 1));
        ByteVector changed = curve;
        changed.back() ^= 0x40;
        EXPECT_EQ(generateEc(changed), refusedCurve(curve.size()));
        changed = curve;
        changed.front() = 0x30;
        EXPECT_EQ(generateEc(changed), refusedCurve(curve.size()));
    }
    EXPECT_EQ(generateEc(bytesOf(std::string_view("prime256v1"))), refusedCurve(10));
    EXPECT_EQ(generateEc(ByteVector(5000, 6)), refusedCurve(5000));
    expectUntouched();
}

TEST_F(KeyGenerationTest, AShortNumberIsNotReadBeyondItsEnd)
{
    EXPECT_EQ(generate({{CKA_MODULUS_BITS, {0x00, 0x10}}}, {{CKA_KEY_TYPE, {0}}}), generated(CKK_RSA, {"4096"}));
    EXPECT_EQ(request_.keyKind, 4U);
    EXPECT_EQ(generate({{CKA_EC_PARAMS, P384}}, {{CKA_KEY_TYPE, {3}}}), generated(CKK_EC));
    EXPECT_EQ(request_.keyKind, 6U);
}

// ---- The rest of the request ----

TEST_F(KeyGenerationTest, UsageComesFromSignAndDecryptAndHasADefaultByKeyType)
{
    struct Row {
        ByteVector sign;
        ByteVector decrypt;
        std::uint32_t rsaUsage;
        std::uint32_t ecUsage;
    };
    const Row rows[] = {{NO, NO, 1, 3},  {YES, NO, 1, 1},    {NO, YES, 2, 2},       {YES, YES, 3, 3},
                        {{}, {}, 1, 3},  {{0xFF}, {}, 1, 1}, {{}, {0x80}, 2, 2},    {{0, 1}, {0, 1}, 1, 3},
                        {YES, {}, 1, 1}, {{}, {1, 0}, 2, 2}, {{0x10}, {0x10}, 3, 3}};
    for (const Row& row : rows) {
        EXPECT_EQ(requestOf({{CKA_SIGN, row.sign}, {CKA_DECRYPT, row.decrypt}}).usageFlags, row.rsaUsage);
        EXPECT_EQ(
            requestOf({{CKA_SIGN, row.sign}, {CKA_DECRYPT, row.decrypt}, {CKA_KEY_TYPE, bytesOf(CKK_EC)}}).usageFlags,
            row.ecUsage);
    }
}

TEST_F(KeyGenerationTest, UsageOfThePublicTemplatePlaysNoPart)
{
    EXPECT_EQ(generate({{CKA_SIGN, YES}, {CKA_DECRYPT, YES}, {CKA_VERIFY, YES}, {CKA_ENCRYPT, YES}},
                       {{CKA_VERIFY, YES}, {CKA_ENCRYPT, YES}})
                  .code,
              CKR_OK);
    EXPECT_EQ(request_.usageFlags, 1U);
}

TEST_F(KeyGenerationTest, AtMost128BytesOfTheIdentifierAreTaken)
{
    for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{128}, std::size_t{129}}) {
        const VelkorKeyPair request = requestOf({{CKA_ID, ByteVector(length, 0xAB)}});
        const std::size_t taken = std::min<std::size_t>(length, 128);
        EXPECT_EQ(request.objectIdLength, static_cast<std::int32_t>(taken));
        EXPECT_EQ(ByteVector(request.objectId, request.objectId + 128),
                  joined({ByteVector(taken, 0xAB), ByteVector(128 - taken, 0)}));
        EXPECT_STREQ(request.label, "");
    }
}

TEST_F(KeyGenerationTest, AtMost128BytesOfTheLabelAreTakenAndAZeroFollows)
{
    for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{128}, std::size_t{129}}) {
        const VelkorKeyPair request = requestOf({{CKA_LABEL, ByteVector(length, 'L')}});
        const std::size_t taken = std::min<std::size_t>(length, 128);
        EXPECT_EQ(std::string(request.label, sizeof request.label),
                  std::string(taken, 'L') + std::string(129 - taken, '\0'));
        EXPECT_EQ(request.objectIdLength, 0);
    }
}

TEST_F(KeyGenerationTest, IdentifierAndLabelOfThePublicTemplatePlayNoPart)
{
    EXPECT_EQ(generate({{CKA_ID, {1, 2}}, {CKA_LABEL, {'p', 'u', 'b'}}}, {{CKA_ID, {3}}}).code, CKR_OK);
    EXPECT_EQ(request_.objectIdLength, 1);
    EXPECT_EQ(request_.objectId[0], 3);
    EXPECT_STREQ(request_.label, "");
}

TEST_F(KeyGenerationTest, ALaterEntryOfThePrivateTemplateReplacesAnEarlierOne)
{
    const VelkorKeyPair request = requestOf({{CKA_ID, {1, 2, 3}},
                                             {CKA_LABEL, {'l', 'o', 'n', 'g'}},
                                             {CKA_KEY_TYPE, bytesOf(CKK_EC)},
                                             {CKA_ID, {4}},
                                             {CKA_LABEL, {'s'}},
                                             {CKA_KEY_TYPE, bytesOf(CKK_RSA)}});
    EXPECT_EQ(request.objectIdLength, 1);
    EXPECT_EQ(request.objectId[0], 4);
    EXPECT_STREQ(request.label, "s");
    EXPECT_EQ(request.usageFlags, 1U);
}

TEST_F(KeyGenerationTest, WhatNoTemplateSetsIsZeroInTheRequest)
{
    const VelkorKeyPair request = requestOf({{CKA_TOKEN, YES}});
    EXPECT_EQ(request.id, 0U);
    EXPECT_EQ(ByteVector(request.keyIdentifier, request.keyIdentifier + KEY_IDENTIFIER_SIZE), ByteVector(16, 0));
    EXPECT_EQ(ByteVector(request.publicKey, request.publicKey + PUBLIC_KEY_CAPACITY), ByteVector(1024, 0));
    EXPECT_EQ(request.publicKeyLength, 0);
    EXPECT_EQ(request.objectIdLength, 0);
    EXPECT_FALSE(request.deviceFlag);
}

TEST_F(KeyGenerationTest, EntriesWithANullValueOrNoLengthAreSkipped)
{
    Template publicKeyTemplate = {
        {CKA_MODULUS_BITS, bytesOf(4096)}, {CKA_MODULUS_BITS, bytesOf(1024)}, {CKA_MODULUS_BITS, bytesOf(1024)}};
    publicKeyTemplate[1].pValue = nullptr;
    publicKeyTemplate[2].ulValueLen = 0;
    Template privateKeyTemplate = {
        {CKA_KEY_TYPE, bytesOf(CKK_EC)}, {CKA_ID, {1}}, {CKA_LABEL, {'L'}}, {CKA_SIGN, YES}, {CKA_DECRYPT, YES},
        {CKA_KEY_TYPE, bytesOf(CKK_EC)}};
    for (std::size_t index = 0; index < 5; ++index)
        privateKeyTemplate[index].pValue = nullptr;
    privateKeyTemplate[5].ulValueLen = 0;
    EXPECT_EQ(generate(&publicKeyTemplate, &privateKeyTemplate), generated(CKK_RSA, {"4096"}));
    EXPECT_EQ(request_.keyKind, 4U);
    EXPECT_EQ(request_.objectIdLength, 0);
    EXPECT_STREQ(request_.label, "");
    EXPECT_EQ(request_.usageFlags, 1U);
}

TEST_F(KeyGenerationTest, ANullEcParameterIsSkipped)
{
    Template publicKeyTemplate = {{CKA_EC_PARAMS, {1}}};
    publicKeyTemplate[0].pValue = nullptr;
    Template privateKeyTemplate = {{CKA_KEY_TYPE, bytesOf(CKK_EC)}};
    EXPECT_EQ(generate(&publicKeyTemplate, &privateKeyTemplate), generated(CKK_EC));
    EXPECT_EQ(request_.keyKind, 2U);
}

// ---- The device ----

TEST_F(KeyGenerationTest, TheDeviceGetsTheCachedPasswordAsItStands)
{
    for (const char* password : {"", "1234"}) {
        EXPECT_CALL(*device_, velkor_generateKeyPair(StrEq(FIRST_DEVICE), StrEq(password), _, &instance_));
        if (*password != '\0')
            login();
        EXPECT_EQ(generateRsa(2048).code, CKR_OK);
    }
}

TEST_F(KeyGenerationTest, TheHandlesComeFromTheNumberThatTheDeviceGives)
{
    for (const std::uint32_t id : {0U, 1U, 5U, 4095U}) {
        givenId_ = id;
        EXPECT_EQ(generateRsa(2048).code, CKR_OK);
        EXPECT_EQ(hPublic_, publicKey(id));
        EXPECT_EQ(hPrivate_, privateKey(id));
    }
}

TEST_F(KeyGenerationTest, AKeyPairThatTheDeviceKeepsCanBeUsed)
{
    ON_CALL(*device_, velkor_generateKeyPair)
        .WillByDefault(testing::Invoke(&device_->defaults, &DefaultDevice::velkor_generateKeyPair));
    EXPECT_EQ(generate({{CKA_MODULUS_BITS, bytesOf(3072)}}, {{CKA_LABEL, {'n', 'e', 'w'}}}).code, CKR_OK);
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    EXPECT_EQ(C_EncryptInit(hSession_, &mechanism, hPublic_), CKR_OK);
    EXPECT_STREQ(first().keyPairs.back().label, "new");
}

TEST_F(KeyGenerationTest, ADeviceThatIsGoneIsToldApartFromEveryOtherFailure)
{
    for (const int status : {1, 7, 39, 40, 41, 241, 242, 243, -1, -40}) {
        EXPECT_CALL(*device_, velkor_generateKeyPair).WillOnce(Return(status));
        const bool gone = status == 40 || status == 242;
        Answer expected = generated(CKK_RSA, {"2048"});
        expected.code = gone ? CKR_DEVICE_REMOVED : CKR_FUNCTION_FAILED;
        expected.lines.back() = "ERROR Generate key pair failed : " + std::to_string(status);
        EXPECT_EQ(generateRsa(2048), expected);
        expectUntouched();
    }
}

TEST_F(KeyGenerationTest, AThrowingLibraryIsAFailureOfTheModule)
{
    EXPECT_CALL(*device_, velkor_generateKeyPair).WillOnce(testing::Throw(std::runtime_error("broken")));
    const Answer answer = generateRsa(2048);
    EXPECT_EQ(answer.code, CKR_GENERAL_ERROR);
    EXPECT_EQ(answer.lines.back(), "ERROR C_GenerateKeyPair: unexpected exception: broken");
    expectUntouched();
}

// ---- Refused arguments ----

class KeyGenerationArgumentsTest : public KeyGenerationTest
{
protected:
    /// The arguments behind the session, all of them wrong.
    struct Arguments {
        CK_MECHANISM* pMechanism = nullptr;
        CK_ATTRIBUTE* pPublic = nullptr;
        CK_ULONG publicCount = 0;
        CK_ATTRIBUTE* pPrivate = nullptr;
        CK_ULONG privateCount = 0;
        CK_OBJECT_HANDLE* phPublic = nullptr;
        CK_OBJECT_HANDLE* phPrivate = nullptr;
    };

    Answer call(const Arguments& arguments, CK_SESSION_HANDLE hSession) const
    {
        return answer(C_GenerateKeyPair, hSession, arguments.pMechanism, arguments.pPublic, arguments.publicCount,
                      arguments.pPrivate, arguments.privateCount, arguments.phPublic, arguments.phPrivate);
    }

    Answer call(const Arguments& arguments) const { return call(arguments, hSession_); }

    static Answer nullArgument(const std::string& name) { return refused(CKR_ARGUMENTS_BAD, name + " is NULL"); }
};

TEST_F(KeyGenerationArgumentsTest, AreCheckedInTheirOrder)
{
    Arguments arguments;
    Template attributes = {{CKA_TOKEN, YES}};
    CK_BYTE parameter = 0;
    EXPECT_EQ(call(arguments), nullArgument("pMechanism"));
    mechanism_ = {CKM_EC_KEY_PAIR_GEN, &parameter, 1};
    arguments.pMechanism = &mechanism_;
    EXPECT_EQ(call(arguments), refused(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for mechanism=4160"));
    mechanism_ = {CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    EXPECT_EQ(call(arguments), nullArgument("pPublicKeyTemplate"));
    arguments.pPublic = attributes.data();
    EXPECT_EQ(call(arguments), refused(CKR_ARGUMENTS_BAD, "ulPublicKeyAttributeCount<=0"));
    arguments.publicCount = 1;
    EXPECT_EQ(call(arguments), nullArgument("pPrivateKeyTemplate"));
    arguments.pPrivate = attributes.data();
    EXPECT_EQ(call(arguments), refused(CKR_ARGUMENTS_BAD, "ulPrivateKeyAttributeCount<=0"));
    arguments.privateCount = 1;
    EXPECT_EQ(call(arguments), nullArgument("phPublicKey"));
    arguments.phPublic = &hPublic_;
    EXPECT_EQ(call(arguments), nullArgument("phPrivateKey"));
    expectUntouched();
    arguments.phPrivate = &hPrivate_;
    EXPECT_EQ(call(arguments), generated(CKK_RSA));
}

TEST_F(KeyGenerationArgumentsTest, AMechanismTakesNoParameterOfAnyForm)
{
    CK_BYTE parameter = 0;
    for (const CK_MECHANISM& mechanism :
         {CK_MECHANISM{CKM_RSA_PKCS_KEY_PAIR_GEN, &parameter, 0}, CK_MECHANISM{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 1},
          CK_MECHANISM{CKM_RSA_PKCS_KEY_PAIR_GEN, &parameter, 1}}) {
        mechanism_ = mechanism;
        EXPECT_EQ(generateRsa(2048), refused(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for mechanism=0"));
    }
    mechanism_ = {ALL_BITS, nullptr, 1};
    EXPECT_EQ(generateRsa(2048), refused(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for mechanism=-1"));
    expectUntouched();
}

TEST_F(KeyGenerationArgumentsTest, AParameterIsRefusedWhateverItsLength)
{
    for (CK_ULONG length = 0; length <= 64; ++length) {
        const auto block = std::make_unique<unsigned char[]>(length); // Sanitizers guard its end.
        mechanism_ = {CKM_RSA_PKCS_KEY_PAIR_GEN, block.get(), length};
        EXPECT_EQ(generateRsa(2048), refused(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for mechanism=0"))
            << length;
    }
    expectUntouched();
}

TEST_F(KeyGenerationArgumentsTest, AnUnknownSessionIsRefusedFirst)
{
    for (const CK_SESSION_HANDLE handle : {CK_SESSION_HANDLE{0}, hSession_ + 1, ALL_BITS})
        EXPECT_EQ(call({}, handle), refused(CKR_SESSION_HANDLE_INVALID, "invalid hSession=" + logged(handle)));
}

TEST_F(KeyGenerationArgumentsTest, AReadOnlySessionIsRefusedBeforeTheMechanism)
{
    reopenSession(CKF_SERIAL_SESSION);
    EXPECT_EQ(call({}), refused(CKR_SESSION_HANDLE_INVALID, "invalid session state=0"));
    login();
    EXPECT_EQ(call({}), refused(CKR_SESSION_HANDLE_INVALID, "invalid session state=1"));
    EXPECT_EQ(generateRsa(2048), refused(CKR_SESSION_HANDLE_INVALID, "invalid session state=1"));
    expectUntouched();
}

TEST_F(KeyGenerationTest, EveryReadWriteSessionGenerates)
{
    EXPECT_EQ(generateRsa(2048).code, CKR_OK);
    login(CKU_SO);
    EXPECT_EQ(generateRsa(2048).code, CKR_OK);
    ASSERT_EQ(C_Logout(hSession_), CKR_OK);
    login();
    EXPECT_EQ(generateRsa(2048).code, CKR_OK);
}

TEST_F(KeyGenerationTest, AnOperationInProgressIsNoObstacleAndGoesOn)
{
    for (const int operation : {FIND, ENCRYPT, DECRYPT, DIGEST, VERIFY, DIGEST_ENCRYPT, DIGEST_DECRYPT}) {
        reopenSession();
        start(operation);
        EXPECT_EQ(generateRsa(2048).code, CKR_OK);
        EXPECT_EQ(activeOperation(), operation);
    }
}

} // namespace
