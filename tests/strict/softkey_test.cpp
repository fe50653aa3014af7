// The strict front over the software key: real keys, two tokens with PINs of their own, and buffers that end where
// memory ends.
#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "eventually.h"
#include "softkey_fixture.h"

namespace
{

TEST_F(StrictSoftkeyTest, EveryHashedMechanismSignsAndVerifies)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair rsa = generateRsa(session);
    const KeyPair ec = generateEc(session);
    for (const CK_MECHANISM_TYPE type :
         {CKM_SHA1_RSA_PKCS, CKM_SHA224_RSA_PKCS, CKM_SHA256_RSA_PKCS, CKM_SHA384_RSA_PKCS, CKM_SHA512_RSA_PKCS})
        expectSignatures({type, nullptr, 0}, session, rsa);
    for (const CK_MECHANISM_TYPE type :
         {CKM_ECDSA_SHA1, CKM_ECDSA_SHA224, CKM_ECDSA_SHA256, CKM_ECDSA_SHA384, CKM_ECDSA_SHA512, CKM_ECDSA})
        expectSignatures({type, nullptr, 0}, session, ec);
}

TEST_F(StrictSoftkeyTest, PssSignsAndVerifiesInBothWays)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair rsa = generateRsa(session);
    CK_RSA_PKCS_PSS_PARAMS parameters[] = {{CKM_SHA_1, CKG_MGF1_SHA1, 20},
                                           {CKM_SHA256, CKG_MGF1_SHA256, 32},
                                           {CKM_SHA384, CKG_MGF1_SHA384, 48},
                                           {CKM_SHA512, CKG_MGF1_SHA512, 64}};
    const CK_MECHANISM_TYPE types[] = {CKM_SHA1_RSA_PKCS_PSS, CKM_SHA256_RSA_PKCS_PSS, CKM_SHA384_RSA_PKCS_PSS,
                                       CKM_SHA512_RSA_PKCS_PSS};
    for (std::size_t index = 0; index < std::size(types); ++index)
        expectSignatures({types[index], &parameters[index], sizeof parameters[index]}, session, rsa);
    CK_MECHANISM raw = {CKM_RSA_PKCS_PSS, &parameters[1], sizeof parameters[1]};
    const ByteVector signature = sign(session, raw, rsa.privateKey, ByteVector(32, 7));
    EXPECT_EQ(verifyInParts(session, raw, rsa.publicKey, ByteVector(32, 7), signature), CKR_OK);
}

TEST_F(StrictSoftkeyTest, EmptyMessagesVerifyAndRawSignaturesAreThoseOfTheirDigestInfo)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair rsa = generateRsa(session);
    const ByteVector signature = sign(session, {CKM_SHA256_RSA_PKCS, nullptr, 0}, rsa.privateKey, {});
    ByteVector info = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04,
                       0x02, 0x01, 0x05, 0x00, 0x04, 0x20, 0xe3, 0xb0, 0xc4, 0x42, 0x98, 0xfc, 0x1c,
                       0x14, 0x9a, 0xfb, 0xf4, 0xc8, 0x99, 0x6f, 0xb9, 0x24, 0x27, 0xae, 0x41, 0xe4,
                       0x64, 0x9b, 0x93, 0x4c, 0xa4, 0x95, 0x99, 0x1b, 0x78, 0x52, 0xb8, 0x55};
    EXPECT_EQ(verify(session, {CKM_RSA_PKCS, nullptr, 0}, rsa.publicKey, info, signature), CKR_OK);
    EXPECT_EQ(sign(session, {CKM_RSA_PKCS, nullptr, 0}, rsa.privateKey, info), signature);
}

TEST_F(StrictSoftkeyTest, CiphersEndAtTheirBuffers)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair rsa = generateRsa(session);
    CK_RSA_PKCS_OAEP_PARAMS oaep{CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, nullptr, 0};
    CK_MECHANISM mechanisms[] = {{CKM_RSA_PKCS, nullptr, 0}, {CKM_RSA_PKCS_OAEP, &oaep, sizeof oaep}};
    for (CK_MECHANISM& mechanism : mechanisms) {
        ByteVector text(33, 0x61);
        const GuardedBuffer cipher(256);
        CK_ULONG length = 256;
        ASSERT_EQ(p11().C_EncryptInit(session, &mechanism, rsa.publicKey), CKR_OK);
        ASSERT_EQ(p11().C_Encrypt(session, text.data(), sizeOf(text), cipher.data(), &length), CKR_OK);
        ASSERT_EQ(p11().C_DecryptInit(session, &mechanism, rsa.privateKey), CKR_OK);
        const GuardedBuffer tooShort(32);
        length = 32;
        EXPECT_EQ(p11().C_Decrypt(session, cipher.data(), 256, tooShort.data(), &length), CKR_BUFFER_TOO_SMALL);
        ASSERT_EQ(length, 33U);
        const GuardedBuffer plain(33);
        ASSERT_EQ(p11().C_Decrypt(session, cipher.data(), 256, plain.data(), &length), CKR_OK);
        EXPECT_EQ(ByteVector(plain.data(), plain.data() + 33), text);
    }
}

TEST_F(StrictSoftkeyTest, DigestsEndAtTheirBuffers)
{
    const CK_SESSION_HANDLE session = userSession();
    for (const auto& [type, size] : {std::pair{CKM_SHA_1, 20}, {CKM_SHA256, 32}, {CKM_SHA512, 64}}) {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        ByteVector data(10);
        const GuardedBuffer hash(static_cast<std::size_t>(size));
        CK_ULONG length = hash.size();
        ASSERT_EQ(p11().C_DigestInit(session, &mechanism), CKR_OK);
        EXPECT_EQ(p11().C_Digest(session, data.data(), sizeOf(data), hash.data(), &length), CKR_OK);
    }
}

TEST_F(StrictSoftkeyTest, BothSidesDeriveTheSameSecret)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair one = generateEc(session, CK_FALSE);
    const KeyPair other = generateEc(session, CK_FALSE);
    const auto derive = [&](CK_OBJECT_HANDLE base, ByteVector point) {
        CK_ECDH1_DERIVE_PARAMS parameter{CKD_NULL, 0, nullptr, sizeOf(point), point.data()};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
        CK_OBJECT_HANDLE secret = 0;
        EXPECT_EQ(p11().C_DeriveKey(session, &mechanism, base, nullptr, 0, &secret), CKR_OK);
        return value(session, secret, CKA_VALUE);
    };
    const ByteVector first = derive(one.privateKey, value(session, other.publicKey, CKA_EC_POINT));
    const ByteVector bare = value(session, one.publicKey, CKA_EC_POINT);
    EXPECT_EQ(first.size(), 32U);
    EXPECT_EQ(derive(other.privateKey, ByteVector(bare.begin() + 2, bare.end())), first);
}

TEST_F(StrictSoftkeyTest, AKeyThatIsUnpluggedTakesItsSessionsAlongAndComesBackInItsSlot)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair ec = generateEc(session);
    const CK_SLOT_ID first = slot(0);
    tool("unplug STRICT1");
    CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
    ASSERT_EQ(p11().C_SignInit(session, &mechanism, ec.privateKey), CKR_OK);
    ByteVector data(32);
    ByteVector signature(64);
    CK_ULONG length = 64;
    EXPECT_EQ(p11().C_Sign(session, data.data(), 32, signature.data(), &length), CKR_DEVICE_REMOVED);
    CK_SESSION_INFO info;
    EXPECT_EQ(p11().C_GetSessionInfo(session, &info), CKR_SESSION_HANDLE_INVALID);
    CK_TOKEN_INFO token;
    EXPECT_EQ(p11().C_GetTokenInfo(first, &token), CKR_TOKEN_NOT_PRESENT);
    tool("plug STRICT1");
    EXPECT_EQ(slot(0), first);
    CK_SLOT_ID event = 0;
    EXPECT_EQ(p11().C_WaitForSlotEvent(CKF_DONT_BLOCK, &event, nullptr), CKR_OK);
    EXPECT_EQ(event, first);
}

TEST_F(StrictSoftkeyTest, ManyThreadsUseTwoTokensWithTheirOwnPins)
{
    const CK_SESSION_HANDLE one = userSession(0);
    const CK_SESSION_HANDLE other = userSession(1);
    const KeyPair keys[] = {generateEc(one), generateEc(one), generateEc(other)};
    const int refusedBefore = refusedPins();
    std::atomic<int> failures = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread)
        threads.emplace_back([&, thread] {
            const KeyPair& key = keys[thread % 3];
            const CK_SESSION_HANDLE session = userSession(thread % 3 == 2 ? 1 : 0);
            const CK_MECHANISM mechanism = {CKM_ECDSA_SHA256, nullptr, 0};
            for (int round = 0; round < 10; ++round) {
                const ByteVector signature = sign(session, mechanism, key.privateKey, ByteVector(20, 1));
                if (verify(session, mechanism, key.publicKey, ByteVector(20, 1), signature) != CKR_OK)
                    ++failures;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(refusedPins(), refusedBefore);
}

TEST_F(StrictSoftkeyTest, TextsArePaddedAndEveryAttributeOfASearchCounts)
{
    const CK_SESSION_HANDLE session = userSession();
    CK_TOKEN_INFO info{};
    ASSERT_EQ(p11().C_GetTokenInfo(slot(0), &info), CKR_OK);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(info.serialNumber), 16), "STRICT1         ");
    const KeyPair rsa = generateRsa(session);
    const KeyPair ec = generateEc(session);
    name(session, rsa.privateKey, "one", 1);
    name(session, ec.privateKey, "two", 2);
    CK_OBJECT_CLASS privateKey = CKO_PRIVATE_KEY;
    CK_KEY_TYPE keyType = CKK_EC;
    std::string label = "two";
    unsigned char identifier = 1;
    const CK_ATTRIBUTE ofClass = {CKA_CLASS, &privateKey, sizeof privateKey};
    const CK_ATTRIBUTE ofType = {CKA_KEY_TYPE, &keyType, sizeof keyType};
    const CK_ATTRIBUTE ofLabel = {CKA_LABEL, label.data(), 3};
    const CK_ATTRIBUTE ofId = {CKA_ID, &identifier, 1};
    EXPECT_EQ(find(session, {}).size(), 4U);
    EXPECT_EQ(find(session, {ofLabel}).size(), 2U);
    EXPECT_EQ(find(session, {ofClass, ofType}), std::vector<CK_OBJECT_HANDLE>{ec.privateKey});
    EXPECT_EQ(find(session, {ofId, ofClass}), std::vector<CK_OBJECT_HANDLE>{rsa.privateKey});
    EXPECT_EQ(find(session, {ofId, ofLabel}), std::vector<CK_OBJECT_HANDLE>{});
}

TEST_F(StrictSoftkeyTest, ASessionPairGoesWithItsSessionUnlessItIsCopied)
{
    const CK_SESSION_HANDLE keeper = userSession();
    CK_SESSION_HANDLE session = userSession();
    generateEc(session, CK_FALSE);
    const KeyPair kept = generateEc(session, CK_FALSE);
    CK_BBOOL onToken = CK_TRUE;
    CK_ATTRIBUTE stays = {CKA_TOKEN, &onToken, sizeof onToken};
    CK_OBJECT_HANDLE copy = 0;
    ASSERT_EQ(p11().C_CopyObject(session, kept.privateKey, &stays, 1, &copy), CKR_OK);
    EXPECT_EQ(p11().C_CloseSession(session), CKR_OK);
    CK_OBJECT_CLASS privateKey = CKO_PRIVATE_KEY;
    EXPECT_EQ(find(keeper, {{CKA_CLASS, &privateKey, sizeof privateKey}}), std::vector<CK_OBJECT_HANDLE>{copy});
    sign(keeper, {CKM_ECDSA_SHA256, nullptr, 0}, copy, ByteVector(20, 1));
    EXPECT_EQ(p11().C_DestroyObject(keeper, copy), CKR_OK);
    EXPECT_EQ(find(keeper, {}).size(), 0U);
}

TEST_F(StrictSoftkeyTest, AWrongPinIsToldAndSeenAtOnce)
{
    const CK_SESSION_HANDLE session = userSession();
    EXPECT_EQ(login(session, "first-pin"), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_EQ(setPin(session, "no-such-pin", "other-pin"), CKR_PIN_INCORRECT);
    EXPECT_EQ(setPin(session, "first-pin", "other-pin"), CKR_OK);
    EXPECT_EQ(p11().C_Logout(session), CKR_OK);
    const int before = refusedPins();
    for (int wrong = 0; wrong < 3; ++wrong)
        EXPECT_EQ(login(session, "wrong-pin-" + std::to_string(wrong)), CKR_PIN_INCORRECT);
    EXPECT_EQ(refusedPins(), before + 3);
    EXPECT_EQ(pinFlags(0), CKF_USER_PIN_COUNT_LOW);
    EXPECT_EQ(login(session, "other-pin"), CKR_OK);
    EXPECT_EQ(pinFlags(0), 0U);
    EXPECT_EQ(pinFlags(1), 0U);
}

TEST_F(StrictSoftkeyTest, NoTryIsLostWhileKeysComeAndGo)
{
    const std::array<CK_SLOT_ID, 2> slots = {slot(0), slot(1)};
    const CK_SESSION_HANDLE sessions[] = {userSession(0), userSession(1)};
    for (const CK_SESSION_HANDLE session : sessions) {
        name(session, generateEc(session).privateKey, "here", 1);
        name(session, generateEc(session).privateKey, "there", 2);
    }
    const int refusedBefore = refusedPins();
    std::atomic<bool> isOver = false;
    std::atomic<int> signatures = 0;
    std::atomic<int> wrongKeys = 0;
    std::array<std::atomic<int>, 2> refusedSessions{}; // Of each token.
    const auto work = [&](std::size_t token, std::string label) {
        while (!isOver) {
            CK_SESSION_HANDLE session = 0;
            if (p11().C_OpenSession(slots[token], CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK) {
                ++refusedSessions[token];
                continue;
            }
            login(session, token == 0 ? "first-pin" : "second-pin");
            signAndVerify(session, label, signatures, wrongKeys);
            p11().C_CloseSession(session);
        }
    };
    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < 8; ++thread)
        threads.emplace_back(work, thread % 2, thread % 4 < 2 ? "here" : "there");
    for (const std::size_t token : {0U, 1U, 0U}) {
        const std::string serialNumber = token == 0 ? "STRICT1" : "STRICT2";
        const int before = refusedSessions[token];
        tool("unplug " + serialNumber);
        EXPECT_TRUE(test_system::eventually([&] { return refusedSessions[token] > before; }));
        tool("plug " + serialNumber);
    }
    const int before = signatures;
    EXPECT_TRUE(test_system::eventually([&] { return signatures >= before + 20; }));
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrongKeys, 0);
    EXPECT_EQ(refusedPins(), refusedBefore);
}

} // namespace
