// The module over the software key, as an application on Linux has them: real keys, real signatures, keys that come and
// go. Signatures are checked with the openssl program.
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cryptoki.h"

namespace
{

using Bytes = std::vector<unsigned char>;

constexpr CK_SLOT_ID FIRST_SLOT = 0x50000001;
const std::string PIN = "module-pin";

class ModuleOverSoftkeyTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directories(folder_ / "tmp");
        setenv("VELKOR_SOFTKEY_HOME", (folder_ / "keys").c_str(), 1);
        setenv("TMPDIR", (folder_ / "tmp").c_str(), 1);
        setenv("PIN", PIN.c_str(), 1);
        setenv("SO_PIN", "module-so-pin", 1);
        std::ofstream(folder_ / "velkor.conf") << "logLevel = 0\n";
        setenv("VELKOR_CONFIG", (folder_ / "velkor.conf").c_str(), 1);
        tool("create --serial MODULE1 --scrypt-cost 4 --pin-env PIN --so-pin-env SO_PIN");
        ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    }

    void TearDown() override { C_Finalize(nullptr); }

    static void run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

    static void tool(const std::string& arguments) { run(SOFTKEY_TOOL " " + arguments + " >/dev/null"); }

    static CK_SESSION_HANDLE openSession()
    {
        std::array<CK_SLOT_ID, 4> slots{};
        CK_ULONG count = slots.size();
        EXPECT_EQ(C_GetSlotList(CK_TRUE, slots.data(), &count), CKR_OK);
        EXPECT_EQ(count, 1u);
        CK_SESSION_HANDLE session = 0;
        EXPECT_EQ(C_OpenSession(FIRST_SLOT, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session), CKR_OK);
        return session;
    }

    static CK_RV login(CK_SESSION_HANDLE session, std::string pin = PIN)
    {
        return C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), pin.size());
    }

    static CK_SESSION_HANDLE loggedInSession()
    {
        const CK_SESSION_HANDLE session = openSession();
        EXPECT_EQ(login(session), CKR_OK);
        return session;
    }

    struct KeyPair {
        CK_OBJECT_HANDLE publicKey = 0;
        CK_OBJECT_HANDLE privateKey = 0;
    };

    /// Key pairs that may both sign and decrypt.
    static KeyPair generate(CK_SESSION_HANDLE session, CK_KEY_TYPE keyType, CK_ATTRIBUTE publicAttribute)
    {
        CK_BBOOL yes = CK_TRUE;
        CK_MECHANISM mechanism = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
        CK_ATTRIBUTE privateTemplate[] = {
            {CKA_KEY_TYPE, &keyType, sizeof keyType}, {CKA_SIGN, &yes, sizeof yes}, {CKA_DECRYPT, &yes, sizeof yes}};
        KeyPair keys;
        EXPECT_EQ(C_GenerateKeyPair(session, &mechanism, &publicAttribute, 1, privateTemplate, 3, &keys.publicKey,
                                    &keys.privateKey),
                  CKR_OK);
        return keys;
    }

    static KeyPair generateRsa(CK_SESSION_HANDLE session, CK_ULONG bits = 2048)
    {
        return generate(session, CKK_RSA, {CKA_MODULUS_BITS, &bits, sizeof bits});
    }

    static KeyPair generateP256(CK_SESSION_HANDLE session)
    {
        Bytes curve = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
        return generate(session, CKK_EC, {CKA_EC_PARAMS, curve.data(), curve.size()});
    }

    static Bytes attribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
    {
        CK_ATTRIBUTE query = {type, nullptr, 0};
        EXPECT_EQ(C_GetAttributeValue(session, object, &query, 1), CKR_OK);
        Bytes value(query.ulValueLen);
        query.pValue = value.data();
        EXPECT_EQ(C_GetAttributeValue(session, object, &query, 1), CKR_OK);
        return value;
    }

    static Bytes sign(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, Bytes data)
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        EXPECT_EQ(C_SignInit(session, &mechanism, key), CKR_OK);
        CK_ULONG length = 0;
        EXPECT_EQ(C_Sign(session, data.data(), data.size(), nullptr, &length), CKR_OK);
        Bytes signature(length);
        EXPECT_EQ(C_Sign(session, data.data(), data.size(), signature.data(), &length), CKR_OK);
        return signature;
    }

    static CK_RV verify(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, Bytes data,
                        Bytes signature)
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        EXPECT_EQ(C_VerifyInit(session, &mechanism, key), CKR_OK);
        return C_Verify(session, data.data(), data.size(), signature.data(), signature.size());
    }

    static CK_STATE stateOf(CK_SESSION_HANDLE session)
    {
        CK_SESSION_INFO info{};
        EXPECT_EQ(C_GetSessionInfo(session, &info), CKR_OK);
        return info.state;
    }

    std::filesystem::path folder_ =
        std::filesystem::current_path() / "scratch" / testing::UnitTest::GetInstance()->current_test_info()->name();
    const Bytes data_ = {'d', 'a', 't', 'a'};
};

struct Mechanism {
    CK_MECHANISM_TYPE type;
    bool isEc;
};

TEST_F(ModuleOverSoftkeyTest, SignaturesOfEveryHashMechanismVerify)
{
    const CK_SESSION_HANDLE session = loggedInSession();
    const KeyPair rsa = generateRsa(session);
    const KeyPair ec = generateP256(session);
    constexpr Mechanism MECHANISMS[] = {
        {CKM_SHA1_RSA_PKCS, false},       {CKM_SHA224_RSA_PKCS, false},     {CKM_SHA256_RSA_PKCS, false},
        {CKM_SHA384_RSA_PKCS, false},     {CKM_SHA512_RSA_PKCS, false},     {CKM_SHA1_RSA_PKCS_PSS, false},
        {CKM_SHA224_RSA_PKCS_PSS, false}, {CKM_SHA256_RSA_PKCS_PSS, false}, {CKM_SHA384_RSA_PKCS_PSS, false},
        {CKM_SHA512_RSA_PKCS_PSS, false}, {CKM_ECDSA_SHA1, true},           {CKM_ECDSA_SHA224, true},
        {CKM_ECDSA_SHA256, true},         {CKM_ECDSA_SHA384, true},
    };
    for (const Mechanism& mechanism : MECHANISMS) {
        const KeyPair& keys = mechanism.isEc ? ec : rsa;
        const Bytes signature = sign(session, mechanism.type, keys.privateKey, data_);
        EXPECT_EQ(verify(session, mechanism.type, keys.publicKey, data_, signature), CKR_OK) << mechanism.type;
        EXPECT_EQ(verify(session, mechanism.type, keys.publicKey, {'o', 't', 'h', 'e', 'r'}, signature),
                  CKR_SIGNATURE_INVALID)
            << mechanism.type;
    }
}

TEST_F(ModuleOverSoftkeyTest, OpensslAcceptsASignatureOfAnImportedKey)
{
    const std::string key = (folder_ / "key").string();
    run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + key + " 2>/dev/null");
    run("openssl pkey -in " + key + " -pubout -out " + key + ".pub");
    tool("import-key MODULE1 " + key + " --label imported --pin-env PIN");
    const CK_SESSION_HANDLE session = loggedInSession();
    const Bytes signature = sign(session, CKM_SHA256_RSA_PKCS, 0x70000001, data_);
    std::ofstream(folder_ / "data", std::ios::binary).write("data", 4);
    std::ofstream(folder_ / "sig", std::ios::binary)
        .write(reinterpret_cast<const char*>(signature.data()), static_cast<std::streamsize>(signature.size()));
    run("openssl dgst -sha256 -verify " + key + ".pub -signature " + (folder_ / "sig").string() + " " +
        (folder_ / "data").string() + " >/dev/null");
}

TEST_F(ModuleOverSoftkeyTest, WhatIsEncryptedIsDecrypted)
{
    const CK_SESSION_HANDLE session = loggedInSession();
    const KeyPair keys = generateRsa(session);
    for (const CK_MECHANISM_TYPE type : {CKM_RSA_PKCS, CKM_RSA_PKCS_OAEP}) {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        Bytes data = data_;
        std::array<unsigned char, 512> ciphertext{};
        std::array<unsigned char, 512> plaintext{};
        CK_ULONG length = 0;
        CK_ULONG plainLength = 0;
        ASSERT_EQ(C_EncryptInit(session, &mechanism, keys.publicKey), CKR_OK);
        ASSERT_EQ(C_Encrypt(session, data.data(), data.size(), ciphertext.data(), &length), CKR_OK);
        ASSERT_EQ(C_DecryptInit(session, &mechanism, keys.privateKey), CKR_OK);
        ASSERT_EQ(C_Decrypt(session, ciphertext.data(), length, plaintext.data(), &plainLength), CKR_OK);
        EXPECT_EQ(Bytes(plaintext.begin(), plaintext.begin() + plainLength), data_);
    }
}

TEST_F(ModuleOverSoftkeyTest, TwoKeyPairsDeriveTheSameSecret)
{
    const CK_SESSION_HANDLE session = loggedInSession();
    const KeyPair first = generateP256(session);
    const KeyPair second = generateP256(session);
    const auto derive = [&](CK_OBJECT_HANDLE own, CK_OBJECT_HANDLE peer) {
        Bytes point = attribute(session, peer, CKA_VALUE);
        CK_ECDH1_DERIVE_PARAMS parameter = {CKD_NULL, 0, nullptr, point.size(), point.data()};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
        CK_OBJECT_HANDLE secret = 0;
        EXPECT_EQ(C_DeriveKey(session, &mechanism, own, nullptr, 0, &secret), CKR_OK);
        return attribute(session, secret, CKA_VALUE);
    };
    const Bytes secret = derive(first.privateKey, second.publicKey);
    EXPECT_EQ(secret.size(), 32u);
    EXPECT_EQ(secret, derive(second.privateKey, first.publicKey));
}

TEST_F(ModuleOverSoftkeyTest, WrongPinsCountDownAndLock)
{
    const CK_SESSION_HANDLE session = openSession();
    for (int attempt = 0; attempt < 4; ++attempt)
        EXPECT_EQ(login(session, "wrong-pin"), CKR_PIN_INCORRECT);
    EXPECT_EQ(login(session, "wrong-pin"), CKR_PIN_LOCKED);
    EXPECT_EQ(login(session), CKR_PIN_LOCKED);
    tool("unlock MODULE1 --new-pin-env PIN --so-pin-env SO_PIN");
    EXPECT_EQ(login(session), CKR_OK);
}

TEST_F(ModuleOverSoftkeyTest, KeysAreUsedByLoggedInUsersOnly)
{
    const CK_SESSION_HANDLE session = loggedInSession();
    const KeyPair keys = generateRsa(session);
    ASSERT_EQ(C_Logout(session), CKR_OK);
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    Bytes data = data_;
    CK_ULONG length = 0;
    ASSERT_EQ(C_SignInit(session, &mechanism, keys.privateKey), CKR_OK);
    EXPECT_EQ(C_Sign(session, data.data(), data.size(), nullptr, &length), CKR_FUNCTION_FAILED);
}

TEST_F(ModuleOverSoftkeyTest, PinChangeIsSeenByTheNextLogin)
{
    const CK_SESSION_HANDLE session = openSession();
    std::string newPin = "another-pin";
    std::string oldPin = PIN;
    ASSERT_EQ(C_SetPIN(session, reinterpret_cast<CK_UTF8CHAR_PTR>(oldPin.data()), oldPin.size(),
                       reinterpret_cast<CK_UTF8CHAR_PTR>(newPin.data()), newPin.size()),
              CKR_OK);
    EXPECT_EQ(login(session), CKR_PIN_INCORRECT);
    EXPECT_EQ(login(session, newPin), CKR_OK);
}

TEST_F(ModuleOverSoftkeyTest, UnpluggingLogsOutAndRaisesAnEvent)
{
    const CK_SESSION_HANDLE session = loggedInSession();
    CK_SLOT_ID slot = 0;
    ASSERT_EQ(C_WaitForSlotEvent(0, &slot, nullptr), CKR_OK); // The one of the start.
    tool("unplug MODULE1");
    ASSERT_EQ(C_WaitForSlotEvent(0, &slot, nullptr), CKR_OK);
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
    EXPECT_NE(login(session), CKR_OK);
    tool("plug MODULE1");
    ASSERT_EQ(C_WaitForSlotEvent(0, &slot, nullptr), CKR_OK);
    EXPECT_EQ(login(session), CKR_OK);
}

TEST_F(ModuleOverSoftkeyTest, GeneratedSizesAndCurvesAreReported)
{
    const CK_SESSION_HANDLE session = loggedInSession();
    for (const CK_ULONG bits : {2048ul, 3072ul, 4096ul})
        EXPECT_EQ(attribute(session, generateRsa(session, bits).publicKey, CKA_MODULUS).size(), bits / 8);
    const std::vector<std::pair<Bytes, std::size_t>> curves = {
        {{0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}, 65},
        {{0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22}, 97},
        {{0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23}, 133},
    };
    for (auto [curve, pointSize] : curves) {
        const KeyPair keys = generate(session, CKK_EC, {CKA_EC_PARAMS, curve.data(), curve.size()});
        EXPECT_EQ(attribute(session, keys.publicKey, CKA_VALUE).size(), pointSize);
    }
}

TEST_F(ModuleOverSoftkeyTest, DeletedKeysAreGone)
{
    const CK_SESSION_HANDLE session = loggedInSession();
    const KeyPair keys = generateP256(session);
    ASSERT_EQ(C_DestroyObject(session, keys.privateKey), CKR_OK);
    CK_ULONG size = 0;
    EXPECT_EQ(C_GetObjectSize(session, keys.publicKey, &size), CKR_OBJECT_HANDLE_INVALID);
}

} // namespace
