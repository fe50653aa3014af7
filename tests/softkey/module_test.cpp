// The module over the software key, as an application on Linux has them: real keys, real signatures, keys that come and
// go. Signatures are checked with the openssl program.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cryptoki.h"
#include "programs.h"

namespace
{

using softkey::test::NULL_DEVICE;
using softkey::test::softkeyTool;
using ByteVector = std::vector<unsigned char>;
using Handles = std::vector<CK_OBJECT_HANDLE>;

/// A part of a DER structure, with and without its tag and length.
struct DerPart {
    ByteVector whole;
    ByteVector content;
};

/// An INTEGER's bytes without the zero that keeps it positive.
ByteVector magnitude(const DerPart& integer)
{
    ByteVector bytes = integer.content;
    if (bytes.size() > 1 && bytes.front() == 0)
        bytes.erase(bytes.begin());
    return bytes;
}

ByteVector bytesOf(const std::string& text)
{
    return ByteVector(text.begin(), text.end());
}

/// Of bytes or a text; packed structures count with 32 bits.
template <class Container>
CK_ULONG sizeOf(const Container& container)
{
    return static_cast<CK_ULONG>(container.size());
}

CK_ATTRIBUTE attributeOf(CK_ATTRIBUTE_TYPE type, ByteVector& value)
{
    return {type, value.data(), sizeOf(value)};
}

CK_ATTRIBUTE attributeOf(CK_ATTRIBUTE_TYPE type, CK_ULONG& value)
{
    return {type, &value, sizeof value};
}

/// The text of a field that is padded with zeros.
template <std::size_t Size>
std::string textOf(const unsigned char (&field)[Size])
{
    const auto* text = reinterpret_cast<const char*>(field);
    return std::string(text, strnlen(text, Size));
}

/// r and s, each half of the bytes, as openssl reads them.
ByteVector derOfEcdsa(const ByteVector& signature)
{
    ByteVector integers;
    for (const std::size_t half : {std::size_t{0}, signature.size() / 2}) {
        auto first = signature.begin() + static_cast<std::ptrdiff_t>(half);
        const auto end = first + static_cast<std::ptrdiff_t>(signature.size() / 2);
        first = std::find_if(first, end, [](unsigned char byte) { return byte != 0; });
        ByteVector integer(first, end);
        if (integer.front() >= 0x80)
            integer.insert(integer.begin(), 0);
        integers.push_back(0x02);
        integers.push_back(static_cast<unsigned char>(integer.size()));
        integers.insert(integers.end(), integer.begin(), integer.end());
    }
    integers.insert(integers.begin(), {0x30, static_cast<unsigned char>(integers.size())});
    return integers;
}

constexpr CK_SLOT_ID FIRST_SLOT = 0x50000001;
const std::string PIN = "module-pin";

class ModuleOverSoftkeyTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directories(folder_ / "tmp");
        test_system::setEnvironment("VELKOR_SOFTKEY_HOME", (folder_ / "keys").string());
        test_system::setTemporaryFolder(folder_ / "tmp");
        test_system::setEnvironment("PIN", PIN);
        test_system::setEnvironment("SO_PIN", "module-so-pin");
        std::ofstream(folder_ / "velkor.conf") << "logLevel = 0\n";
        test_system::setEnvironment("VELKOR_CONFIG", (folder_ / "velkor.conf").string());
        tool("create --serial MODULE1 --scrypt-cost 4 --pin-env PIN --so-pin-env SO_PIN");
        ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    }

    void TearDown() override { C_Finalize(nullptr); }

    static void run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

    static void tool(const std::string& arguments, const std::string& output = NULL_DEVICE)
    {
        run(softkeyTool() + " " + arguments + " >" + output);
    }

    static CK_ULONG readSlots()
    {
        std::array<CK_SLOT_ID, 4> slots{};
        CK_ULONG count = slots.size();
        EXPECT_EQ(C_GetSlotList(CK_TRUE, slots.data(), &count), CKR_OK);
        return count;
    }

    /// Slots are in the order of the serial numbers.
    static CK_SESSION_HANDLE openSession(CK_SLOT_ID slot = FIRST_SLOT)
    {
        EXPECT_GE(readSlots(), 1u);
        CK_SESSION_HANDLE session = 0;
        EXPECT_EQ(C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session), CKR_OK);
        return session;
    }

    static CK_RV login(CK_SESSION_HANDLE session, std::string pin = PIN, CK_USER_TYPE user = CKU_USER)
    {
        return C_Login(session, user, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), sizeOf(pin));
    }

    static CK_SESSION_HANDLE loggedInSession(CK_SLOT_ID slot = FIRST_SLOT)
    {
        const CK_SESSION_HANDLE session = openSession(slot);
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
        ByteVector curve = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
        return generate(session, CKK_EC, {CKA_EC_PARAMS, curve.data(), sizeOf(curve)});
    }

    static ByteVector attribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
    {
        CK_ATTRIBUTE query = {type, nullptr, 0};
        EXPECT_EQ(C_GetAttributeValue(session, object, &query, 1), CKR_OK);
        ByteVector value(query.ulValueLen);
        query.pValue = value.data();
        EXPECT_EQ(C_GetAttributeValue(session, object, &query, 1), CKR_OK);
        return value;
    }

    static ByteVector sign(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, ByteVector data)
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        EXPECT_EQ(C_SignInit(session, &mechanism, key), CKR_OK);
        CK_ULONG length = 0;
        EXPECT_EQ(C_Sign(session, data.data(), sizeOf(data), nullptr, &length), CKR_OK);
        ByteVector signature(length);
        EXPECT_EQ(C_Sign(session, data.data(), sizeOf(data), signature.data(), &length), CKR_OK);
        return signature;
    }

    static CK_RV verify(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, ByteVector data,
                        ByteVector signature)
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        EXPECT_EQ(C_VerifyInit(session, &mechanism, key), CKR_OK);
        return C_Verify(session, data.data(), sizeOf(data), signature.data(), sizeOf(signature));
    }

    /// The parts of the data go in one by one.
    static ByteVector signInParts(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key,
                                  std::vector<ByteVector> parts)
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        EXPECT_EQ(C_SignInit(session, &mechanism, key), CKR_OK);
        for (ByteVector& part : parts)
            EXPECT_EQ(C_SignUpdate(session, part.data(), sizeOf(part)), CKR_OK);
        ByteVector signature(512);
        CK_ULONG length = sizeOf(signature);
        EXPECT_EQ(C_SignFinal(session, signature.data(), &length), CKR_OK);
        signature.resize(length);
        return signature;
    }

    static Handles find(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE> criteria)
    {
        EXPECT_EQ(C_FindObjectsInit(session, criteria.data(), sizeOf(criteria)), CKR_OK);
        Handles found(20);
        CK_ULONG count = 0;
        EXPECT_EQ(C_FindObjects(session, found.data(), sizeOf(found), &count), CKR_OK);
        EXPECT_EQ(C_FindObjectsFinal(session), CKR_OK);
        found.resize(count);
        return found;
    }

    static CK_RV initSign(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key)
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        return C_SignInit(session, &mechanism, key);
    }

    /// Opens a session of its own, so that no operation is left behind in another one.
    static CK_RV initInNewSession(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key,
                                  CK_RV (*init)(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE))
    {
        const CK_SESSION_HANDLE session = openSession(slot);
        CK_MECHANISM mechanism = {type, nullptr, 0};
        const CK_RV result = init(session, &mechanism, key);
        EXPECT_EQ(C_CloseSession(session), CKR_OK);
        return result;
    }

    std::string path(const std::string& name) const { return (folder_ / name).string(); }

    std::string write(const std::string& name, const ByteVector& content) const
    {
        std::ofstream(path(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
        return path(name);
    }

    /// What a command prints.
    ByteVector output(const std::string& command) const
    {
        run(command + " >" + path("output") + " 2>" + path("errors"));
        std::ifstream in(path("output"), std::ios::binary);
        return ByteVector(std::istreambuf_iterator<char>(in), {});
    }

    void openssl(const std::string& arguments) const { output("openssl " + arguments); }

    /// The parts of a DER file at one depth, as the openssl program finds them.
    std::vector<DerPart> derParts(const std::string& name, int depth) const
    {
        const ByteVector der = output("cat " + path(name));
        const ByteVector listing = output("openssl asn1parse -inform DER -in " + path(name));
        std::istringstream lines(std::string(listing.begin(), listing.end()));
        std::vector<DerPart> parts;
        for (std::string line; std::getline(lines, line);) {
            std::size_t offset = 0;
            std::size_t headerLength = 0;
            std::size_t length = 0;
            int lineDepth = 0;
            if (std::sscanf(line.c_str(), "%zu:d=%d hl=%zu l=%zu", &offset, &lineDepth, &headerLength, &length) != 4 ||
                lineDepth != depth)
                continue;
            const auto start = der.begin() + static_cast<std::ptrdiff_t>(offset);
            const auto content = start + static_cast<std::ptrdiff_t>(headerLength);
            const auto end = content + static_cast<std::ptrdiff_t>(length);
            parts.push_back({ByteVector(start, end), ByteVector(content, end)});
        }
        return parts;
    }

    /// A private key of openssl's, with its public half beside it.
    void makeKey(const std::string& name, const std::string& kind) const
    {
        openssl("genpkey -algorithm " + kind + " -out " + path(name));
        openssl("pkey -in " + path(name) + " -pubout -out " + path(name) + ".pub");
    }

    /// Fails unless openssl verifies the signature of `data`.
    void expectOpensslAccepts(const ByteVector& signature, const ByteVector& data, const std::string& key,
                              const std::string& options) const
    {
        openssl("dgst " + options + " -verify " + path(key) + ".pub -signature " + write("sig", signature) + " " +
                write("data", data));
    }

    /// A certificate for a new P-256 key, as NAME.der; signed by ISSUER's key, or by its own when there is none.
    void makeCertificate(const std::string& name, const std::string& issuer) const
    {
        const bool isRoot = issuer.empty();
        makeKey(name + ".key", "EC -pkeyopt ec_paramgen_curve:P-256");
        openssl("req -new -key " + path(name) + ".key -subj '/O=Tests/CN=" + name + "' -out " + path(name) + ".csr");
        openssl("x509 -req -days 9 -in " + path(name) + ".csr -outform DER -out " + path(name) + ".der" +
                (isRoot ? " -signkey " + path(name) + ".key"
                        : " -CAform DER -CA " + path(issuer) + ".der -CAkey " + path(issuer) + ".key"));
    }

    static CK_STATE stateOf(CK_SESSION_HANDLE session)
    {
        CK_SESSION_INFO info{};
        EXPECT_EQ(C_GetSessionInfo(session, &info), CKR_OK);
        return info.state;
    }

    std::filesystem::path folder_ =
        test_system::scratchFolder(testing::UnitTest::GetInstance()->current_test_info()->name());
    const ByteVector data_ = {'d', 'a', 't', 'a'};
};

struct Mechanism {
    CK_MECHANISM_TYPE type;
    bool isEc;
};

TEST_F(ModuleOverSoftkeyTest, ToolAndModuleTellOneVersion)
{
    CK_INFO info{};
    ASSERT_EQ(C_GetInfo(&info), CKR_OK);
    tool("--version", (folder_ / "version").string());
    std::ifstream file(folder_ / "version");
    std::string line;
    std::getline(file, line);
    EXPECT_EQ(line, "velkor-softkey " + std::to_string(info.libraryVersion.major) + "." +
                        std::to_string(info.libraryVersion.minor));
}

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
        const ByteVector signature = sign(session, mechanism.type, keys.privateKey, data_);
        EXPECT_EQ(verify(session, mechanism.type, keys.publicKey, data_, signature), CKR_OK) << mechanism.type;
        EXPECT_EQ(verify(session, mechanism.type, keys.publicKey, {'o', 't', 'h', 'e', 'r'}, signature),
                  CKR_SIGNATURE_INVALID)
            << mechanism.type;
    }
}

TEST_F(ModuleOverSoftkeyTest, OpensslAcceptsASignatureOfAnImportedKey)
{
    REQUIRE_OPENSSL_PROGRAM();
    const std::string key = (folder_ / "key").string();
    run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + key + " 2>/dev/null");
    run("openssl pkey -in " + key + " -pubout -out " + key + ".pub");
    tool("import-key MODULE1 " + key + " --label imported --pin-env PIN");
    const CK_SESSION_HANDLE session = loggedInSession();
    const ByteVector signature = sign(session, CKM_SHA256_RSA_PKCS, 0x70000001, data_);
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
        ByteVector data = data_;
        std::array<unsigned char, 512> ciphertext{};
        std::array<unsigned char, 512> plaintext{};
        CK_ULONG length = 0;
        CK_ULONG plainLength = 0;
        ASSERT_EQ(C_EncryptInit(session, &mechanism, keys.publicKey), CKR_OK);
        ASSERT_EQ(C_Encrypt(session, data.data(), sizeOf(data), ciphertext.data(), &length), CKR_OK);
        ASSERT_EQ(C_DecryptInit(session, &mechanism, keys.privateKey), CKR_OK);
        ASSERT_EQ(C_Decrypt(session, ciphertext.data(), length, plaintext.data(), &plainLength), CKR_OK);
        EXPECT_EQ(ByteVector(plaintext.begin(), plaintext.begin() + plainLength), data_);
    }
}

TEST_F(ModuleOverSoftkeyTest, TwoKeyPairsDeriveTheSameSecret)
{
    const CK_SESSION_HANDLE session = loggedInSession();
    const KeyPair first = generateP256(session);
    const KeyPair second = generateP256(session);
    const auto derive = [&](CK_OBJECT_HANDLE own, CK_OBJECT_HANDLE peer) {
        ByteVector point = attribute(session, peer, CKA_VALUE);
        CK_ECDH1_DERIVE_PARAMS parameter = {CKD_NULL, 0, nullptr, sizeOf(point), point.data()};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
        CK_OBJECT_HANDLE secret = 0;
        EXPECT_EQ(C_DeriveKey(session, &mechanism, own, nullptr, 0, &secret), CKR_OK);
        return attribute(session, secret, CKA_VALUE);
    };
    const ByteVector secret = derive(first.privateKey, second.publicKey);
    EXPECT_EQ(secret.size(), 32u);
    EXPECT_EQ(secret, derive(second.privateKey, first.publicKey));
}

TEST_F(ModuleOverSoftkeyTest, APeersPointMayBeBareOrADerOctetString)
{
    for (const std::string kind : {"P-256", "P-384", "P-521"}) {
        tool("generate MODULE1 " + kind + " --pin-env PIN");
        tool("generate MODULE1 " + kind + " --pin-env PIN");
    }
    const CK_SESSION_HANDLE session = loggedInSession();
    const auto derive = [&](CK_OBJECT_HANDLE own, ByteVector point) {
        CK_ECDH1_DERIVE_PARAMS parameter = {CKD_NULL, 0, nullptr, sizeOf(point), point.data()};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
        CK_OBJECT_HANDLE secret = 0;
        EXPECT_EQ(C_DeriveKey(session, &mechanism, own, nullptr, 0, &secret), CKR_OK);
        return attribute(session, secret, CKA_VALUE);
    };
    for (const CK_ULONG first : {1u, 3u, 5u}) {
        const CK_OBJECT_HANDLE own = 0x70000000 + first;
        const CK_OBJECT_HANDLE peer = 0x70001000 + first + 1;
        const ByteVector bare = attribute(session, peer, CKA_VALUE);
        const ByteVector der = attribute(session, peer, CKA_EC_POINT);
        EXPECT_GT(der.size(), bare.size());
        const ByteVector secret = derive(own, bare);
        EXPECT_EQ(secret.size(), bare.size() / 2);
        EXPECT_EQ(derive(own, der), secret);
        EXPECT_EQ(derive(own + 1, attribute(session, peer - 1, CKA_EC_POINT)), secret);
    }
}

TEST_F(ModuleOverSoftkeyTest, KeyDerivationFunctionsAreThoseOfTheDeviceCodes)
{
    REQUIRE_OPENSSL_PROGRAM();
    const CK_SESSION_HANDLE session = loggedInSession();
    const KeyPair keys = generateP256(session);
    ByteVector point = attribute(session, keys.publicKey, CKA_VALUE);
    const auto derive = [&](CK_ULONG function, CK_OBJECT_HANDLE& secret) {
        CK_ECDH1_DERIVE_PARAMS parameter = {function, 0, nullptr, sizeOf(point), point.data()};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
        return C_DeriveKey(session, &mechanism, keys.privateKey, nullptr, 0, &secret);
    };
    CK_OBJECT_HANDLE raw = 0;
    CK_OBJECT_HANDLE hashed = 0;
    ASSERT_EQ(derive(CKD_NULL, raw), CKR_OK);
    ASSERT_EQ(derive(CKD_SHA256_KDF, hashed), CKR_OK);
    write("secret", attribute(session, raw, CKA_VALUE));
    ByteVector sha384 = output("openssl dgst -sha384 -binary " + path("secret"));
    sha384.resize(32);
    EXPECT_EQ(attribute(session, hashed, CKA_VALUE), sha384);
    CK_OBJECT_HANDLE none = 77;
    EXPECT_EQ(derive(CKD_SHA1_KDF, none), CKR_FUNCTION_FAILED);
    EXPECT_EQ(none, 77u);
}

TEST_F(ModuleOverSoftkeyTest, WrongPinsCountDownAndLock)
{
    const CK_SESSION_HANDLE session = openSession();
    for (const char* pin : {"wrong-1", "wrong-2", "wrong-3", "wrong-4"}) {
        EXPECT_EQ(login(session, pin), CKR_PIN_INCORRECT);
        EXPECT_EQ(login(session, pin), CKR_PIN_INCORRECT) << "the same PIN again teaches nothing and costs nothing";
    }
    EXPECT_EQ(login(session, "wrong-5"), CKR_PIN_LOCKED);
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
    ByteVector data = data_;
    CK_ULONG length = 0;
    ASSERT_EQ(C_SignInit(session, &mechanism, keys.privateKey), CKR_OK);
    EXPECT_EQ(C_Sign(session, data.data(), sizeOf(data), nullptr, &length), CKR_FUNCTION_FAILED);
}

TEST_F(ModuleOverSoftkeyTest, PinChangeIsSeenByTheNextLogin)
{
    const CK_SESSION_HANDLE session = openSession();
    std::string newPin = "another-pin";
    std::string oldPin = PIN;
    ASSERT_EQ(C_SetPIN(session, reinterpret_cast<CK_UTF8CHAR_PTR>(oldPin.data()), sizeOf(oldPin),
                       reinterpret_cast<CK_UTF8CHAR_PTR>(newPin.data()), sizeOf(newPin)),
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
    const std::vector<std::pair<ByteVector, std::size_t>> curves = {
        {{0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}, 65},
        {{0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22}, 97},
        {{0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23}, 133},
    };
    for (auto [curve, pointSize] : curves) {
        const KeyPair keys = generate(session, CKK_EC, {CKA_EC_PARAMS, curve.data(), sizeOf(curve)});
        EXPECT_EQ(attribute(session, keys.publicKey, CKA_VALUE).size(), pointSize);
    }
}

TEST_F(ModuleOverSoftkeyTest, ObjectsAreFoundByClassIdAndLabel)
{
    REQUIRE_OPENSSL_PROGRAM();
    tool("generate MODULE1 P-256 --label one --id 01 --pin-env PIN");
    tool("generate MODULE1 RSA-2048 --label two --id 0202 --pin-env PIN");
    makeCertificate("three", "");
    tool("import-certificate MODULE1 " + path("three.der") + " --label three --id 03 --pin-env PIN");
    const CK_SESSION_HANDLE session = loggedInSession();
    CK_ULONG certificate = CKO_CERTIFICATE;
    CK_ULONG publicKey = CKO_PUBLIC_KEY;
    CK_ULONG privateKey = CKO_PRIVATE_KEY;
    ByteVector idOfTwo = {2, 2};
    ByteVector idOfThree = {3};
    ByteVector two = bytesOf(std::string("two") + '\0'); // Labels are read up to their zero.
    ByteVector three = bytesOf(std::string("three") + '\0');
    const CK_ATTRIBUTE isCertificate = attributeOf(CKA_CLASS, certificate);
    const CK_ATTRIBUTE isPublic = attributeOf(CKA_CLASS, publicKey);
    const CK_ATTRIBUTE isPrivate = attributeOf(CKA_CLASS, privateKey);
    EXPECT_EQ(find(session, {isPublic}), (Handles{0x70001001, 0x70001002}));
    EXPECT_EQ(find(session, {isPrivate}), (Handles{0x70000001, 0x70000002}));
    EXPECT_EQ(find(session, {isPrivate, attributeOf(CKA_ID, idOfTwo)}), Handles{0x70000002});
    EXPECT_EQ(find(session, {isPublic, attributeOf(CKA_LABEL, two)}), Handles{0x70001002});
    EXPECT_EQ(find(session, {isCertificate}), Handles{0x70002001});
    EXPECT_EQ(find(session, {isCertificate, attributeOf(CKA_ID, idOfThree)}), Handles{0x70002001});
    EXPECT_EQ(find(session, {isCertificate, attributeOf(CKA_LABEL, three)}), Handles{0x70002001});
    EXPECT_EQ(find(session, {isCertificate, attributeOf(CKA_LABEL, two)}), Handles{});
    EXPECT_EQ(find(session, {isPrivate, attributeOf(CKA_ID, idOfThree)}), Handles{});
    EXPECT_EQ(find(session, {}), (Handles{0x70001001, 0x70001002, 0x70000001, 0x70000002, 0x70002001}));
    ASSERT_EQ(C_Logout(session), CKR_OK);
    EXPECT_EQ(find(session, {}), (Handles{0x70001001, 0x70001002, 0x70002001}));
}

TEST_F(ModuleOverSoftkeyTest, ACertificateBringsItsIssuersFromDisk)
{
    REQUIRE_OPENSSL_PROGRAM();
    test_system::setEnvironment("VELKOR_HOME", folder_.string());
    std::filesystem::create_directories(folder_ / "VelkorDSC" / "Certificates");
    makeCertificate("root", "");
    makeCertificate("middle", "root");
    makeCertificate("leaf", "middle");
    openssl("x509 -inform DER -in " + path("root.der") + " -out " + path("VelkorDSC/Certificates/root.pem"));
    std::filesystem::copy_file(path("middle.der"), path("VelkorDSC/Certificates/middle.cer"));
    const CK_SESSION_HANDLE session = loggedInSession();
    CK_ULONG certificate = CKO_CERTIFICATE;
    ByteVector der = output("cat " + path("leaf.der"));
    ByteVector id = {7, 7};
    ByteVector label = bytesOf("my leaf");
    CK_ATTRIBUTE leaf[] = {attributeOf(CKA_CLASS, certificate), attributeOf(CKA_VALUE, der), attributeOf(CKA_ID, id),
                           attributeOf(CKA_LABEL, label)};
    CK_OBJECT_HANDLE created = 0;
    ASSERT_EQ(C_CreateObject(session, leaf, 4, &created), CKR_OK);
    EXPECT_EQ(created, 0x70002003u);
    const Handles found = find(session, {attributeOf(CKA_CLASS, certificate)});
    ASSERT_EQ(found, (Handles{0x70002001, 0x70002002, 0x70002003}));
    const std::string names[] = {"root", "middle", "leaf"};
    for (std::size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(names[i]);
        // Of the certificate's body: the version, then serial number, algorithm, issuer, validity, subject.
        const std::vector<DerPart> body = derParts(names[i] + ".der", 2);
        ASSERT_GE(body.size(), 5u);
        const std::size_t serial = body.front().whole.front() == 0xa0 ? 1 : 0;
        EXPECT_EQ(attribute(session, found[i], CKA_VALUE), output("cat " + path(names[i] + ".der")));
        EXPECT_EQ(attribute(session, found[i], CKA_SERIAL_NUMBER), body[serial].whole);
        EXPECT_EQ(attribute(session, found[i], CKA_ISSUER), body[serial + 2].whole);
        EXPECT_EQ(attribute(session, found[i], CKA_SUBJECT), body[serial + 4].whole);
    }
    EXPECT_EQ(attribute(session, created, CKA_ID), id);
    EXPECT_EQ(attribute(session, created, CKA_LABEL), label);
    EXPECT_EQ(attribute(session, found[0], CKA_LABEL), bytesOf("root"));
    test_system::removeEnvironment("VELKOR_HOME");
}

TEST_F(ModuleOverSoftkeyTest, AnImportedRsaKeySignsAndOpensslAccepts)
{
    REQUIRE_OPENSSL_PROGRAM();
    makeKey("rsa", "RSA -pkeyopt rsa_keygen_bits:2048");
    openssl("rsa -in " + path("rsa") + " -traditional -outform DER -out " + path("rsa.der"));
    const std::vector<DerPart> numbers = derParts("rsa.der", 1); // Version, n, e, d, p, q and so on.
    ASSERT_EQ(numbers.size(), 9u);
    const CK_SESSION_HANDLE session = loggedInSession();
    CK_ULONG privateKey = CKO_PRIVATE_KEY;
    CK_ULONG keyType = CKK_RSA;
    ByteVector modulus = magnitude(numbers[1]);
    ByteVector exponent = magnitude(numbers[3]);
    ByteVector prime = magnitude(numbers[4]);
    ByteVector id = {9};
    ByteVector label = bytesOf("from outside");
    CK_ATTRIBUTE key[] = {
        attributeOf(CKA_CLASS, privateKey), attributeOf(CKA_KEY_TYPE, keyType),
        attributeOf(CKA_MODULUS, modulus),  attributeOf(CKA_PRIVATE_EXPONENT, exponent),
        attributeOf(CKA_PRIME_1, prime),    attributeOf(CKA_ID, id),
        attributeOf(CKA_LABEL, label),
    };
    CK_OBJECT_HANDLE created = 0;
    ASSERT_EQ(C_CreateObject(session, key, 7, &created), CKR_OK);
    EXPECT_EQ(created, 0x70000001u);
    EXPECT_EQ(attribute(session, created, CKA_ID), id);
    EXPECT_EQ(attribute(session, created, CKA_LABEL), label);
    expectOpensslAccepts(sign(session, CKM_SHA256_RSA_PKCS, created, data_), data_, "rsa", "-sha256");
    prime.back() ^= 2;
    EXPECT_EQ(C_CreateObject(session, key, 7, &created), CKR_FUNCTION_FAILED);
}

TEST_F(ModuleOverSoftkeyTest, LabelAndIdChangeOnTheDevice)
{
    tool("generate MODULE1 P-256 --label before --id 01 --pin-env PIN");
    const CK_SESSION_HANDLE session = loggedInSession();
    ByteVector label = bytesOf("after");
    ByteVector id = {0xab, 0xcd};
    CK_ATTRIBUTE changes[] = {attributeOf(CKA_LABEL, label), attributeOf(CKA_ID, id)};
    ASSERT_EQ(C_SetAttributeValue(session, 0x70000001, changes, 2), CKR_OK);
    for (const CK_OBJECT_HANDLE half : {0x70000001u, 0x70001001u}) {
        EXPECT_EQ(attribute(session, half, CKA_LABEL), label);
        EXPECT_EQ(attribute(session, half, CKA_ID), id);
    }
    const ByteVector info = output(softkeyTool() + " info MODULE1");
    EXPECT_NE(std::string(info.begin(), info.end()).find("id abcd  after"), std::string::npos);
    ASSERT_EQ(C_Logout(session), CKR_OK);
    EXPECT_EQ(C_SetAttributeValue(session, 0x70000001, changes, 2), CKR_FUNCTION_FAILED);
}

TEST_F(ModuleOverSoftkeyTest, DigestsAreThoseOfOpenssl)
{
    REQUIRE_OPENSSL_PROGRAM();
    const CK_SESSION_HANDLE session = loggedInSession();
    ByteVector data(100'000, 'x');
    const std::string file = write("data", data);
    const std::pair<CK_MECHANISM_TYPE, std::string> mechanisms[] = {{CKM_SHA_1, "sha1"},
                                                                    {CKM_SHA224, "sha224"},
                                                                    {CKM_SHA256, "sha256"},
                                                                    {CKM_SHA384, "sha384"},
                                                                    {CKM_SHA512, "sha512"}};
    for (const auto& [type, name] : mechanisms) {
        SCOPED_TRACE(name);
        const ByteVector expected = output("openssl dgst -" + name + " -binary " + file);
        CK_MECHANISM mechanism = {type, nullptr, 0};
        ByteVector digest(64);
        CK_ULONG length = sizeOf(digest);
        ASSERT_EQ(C_DigestInit(session, &mechanism), CKR_OK);
        ASSERT_EQ(C_Digest(session, data.data(), sizeOf(data), digest.data(), &length), CKR_OK);
        EXPECT_EQ(ByteVector(digest.begin(), digest.begin() + static_cast<std::ptrdiff_t>(length)), expected);
        ASSERT_EQ(C_DigestInit(session, &mechanism), CKR_OK);
        ASSERT_EQ(C_DigestUpdate(session, data.data(), 1), CKR_OK);
        ASSERT_EQ(C_DigestUpdate(session, data.data() + 1, sizeOf(data) - 1), CKR_OK);
        length = sizeOf(digest);
        ASSERT_EQ(C_DigestFinal(session, digest.data(), &length), CKR_OK);
        EXPECT_EQ(ByteVector(digest.begin(), digest.begin() + static_cast<std::ptrdiff_t>(length)), expected);
    }
}

TEST_F(ModuleOverSoftkeyTest, MultiPartSignaturesAreAcceptedByOpenssl)
{
    REQUIRE_OPENSSL_PROGRAM();
    makeKey("rsa", "RSA -pkeyopt rsa_keygen_bits:2048");
    makeKey("ec", "EC -pkeyopt ec_paramgen_curve:P-256");
    tool("import-key MODULE1 " + path("rsa") + " --pin-env PIN");
    tool("import-key MODULE1 " + path("ec") + " --pin-env PIN");
    const CK_SESSION_HANDLE session = loggedInSession();
    const std::vector<ByteVector> parts = {ByteVector(1, 'a'), ByteVector(1'000, 'b'), ByteVector(70'000, 'c')};
    ByteVector whole;
    for (const ByteVector& part : parts)
        whole.insert(whole.end(), part.begin(), part.end());
    expectOpensslAccepts(signInParts(session, CKM_SHA256_RSA_PKCS, 0x70000001, parts), whole, "rsa", "-sha256");
    expectOpensslAccepts(signInParts(session, CKM_SHA1_RSA_PKCS, 0x70000001, parts), whole, "rsa", "-sha1");
    expectOpensslAccepts(signInParts(session, CKM_SHA384_RSA_PKCS_PSS, 0x70000001, parts), whole, "rsa",
                         "-sha384 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:48");
    expectOpensslAccepts(derOfEcdsa(signInParts(session, CKM_ECDSA_SHA256, 0x70000002, parts)), whole, "ec", "-sha256");
}

TEST_F(ModuleOverSoftkeyTest, RandomNumbersAreDrawn)
{
    const CK_SESSION_HANDLE session = openSession();
    ByteVector first(1 << 20);
    ByteVector second(1 << 20);
    ASSERT_EQ(C_GenerateRandom(session, first.data(), sizeOf(first)), CKR_OK);
    ASSERT_EQ(C_GenerateRandom(session, second.data(), sizeOf(second)), CKR_OK);
    std::array<std::size_t, 256> counts{};
    for (const unsigned char byte : first)
        ++counts[byte];
    // 4096 of each are expected; a tenth more or less is six standard deviations away.
    EXPECT_GT(*std::min_element(counts.begin(), counts.end()), 3'686u);
    EXPECT_LT(*std::max_element(counts.begin(), counts.end()), 4'506u);
    for (std::size_t i = 0; i < first.size(); i += 64)
        EXPECT_FALSE(std::equal(first.begin() + static_cast<std::ptrdiff_t>(i),
                                first.begin() + static_cast<std::ptrdiff_t>(i + 64),
                                second.begin() + static_cast<std::ptrdiff_t>(i)));
    ByteVector fenced(3, 0xee);
    ASSERT_EQ(C_GenerateRandom(session, &fenced[1], 1), CKR_OK);
    EXPECT_EQ(fenced[0], 0xee);
    EXPECT_EQ(fenced[2], 0xee);
}

TEST_F(ModuleOverSoftkeyTest, TokenInformationIsThatOfTheKey)
{
    tool("create --serial AAA --label \"Second key\" --model \"VK2 FIPS\" --firmware 1.9.9 --tries 7 --tries-left 2 "
         "--initial-pin --scrypt-cost 4 --pin-env PIN --so-pin-env SO_PIN");
    ASSERT_EQ(readSlots(), 2u);
    CK_SLOT_INFO slot{};
    CK_TOKEN_INFO token{};
    ASSERT_EQ(C_GetSlotInfo(FIRST_SLOT, &slot), CKR_OK);
    ASSERT_EQ(C_GetTokenInfo(FIRST_SLOT, &token), CKR_OK);
    EXPECT_EQ(textOf(slot.slotDescription), "Second key");
    EXPECT_EQ(slot.firmwareVersion.major, 1);
    EXPECT_EQ(slot.firmwareVersion.minor, 9);
    EXPECT_EQ(textOf(token.label), "Second key");
    EXPECT_EQ(textOf(token.model), "VK2 FIPS");
    EXPECT_EQ(textOf(token.serialNumber), "AAA");
    EXPECT_EQ(token.firmwareVersion.major, 1);
    EXPECT_EQ(token.flags & (CKF_USER_PIN_TO_BE_CHANGED | CKF_USER_PIN_COUNT_LOW),
              CKF_USER_PIN_TO_BE_CHANGED | CKF_USER_PIN_COUNT_LOW);
    ASSERT_EQ(C_GetTokenInfo(FIRST_SLOT + 1, &token), CKR_OK);
    EXPECT_EQ(textOf(token.serialNumber), "MODULE1");
    EXPECT_EQ(textOf(token.model), "VK1 Soft");
    EXPECT_EQ(token.firmwareVersion.major, 2);
    EXPECT_EQ(token.flags & (CKF_USER_PIN_TO_BE_CHANGED | CKF_USER_PIN_COUNT_LOW), 0UL)
        << "whoever made the key has chosen its PIN";
}

TEST_F(ModuleOverSoftkeyTest, TheSecurityOfficerLogsInAndUsesNoKey)
{
    tool("generate MODULE1 P-256 --pin-env PIN");
    const CK_SESSION_HANDLE session = openSession();
    EXPECT_EQ(login(session, "wrong-pin", CKU_SO), CKR_PIN_INCORRECT);
    EXPECT_EQ(login(session, PIN, CKU_SO), CKR_PIN_INCORRECT);
    ASSERT_EQ(login(session, "module-so-pin", CKU_SO), CKR_OK);
    EXPECT_EQ(stateOf(session), CKS_RW_SO_FUNCTIONS);
    CK_ULONG privateKey = CKO_PRIVATE_KEY;
    EXPECT_EQ(find(session, {attributeOf(CKA_CLASS, privateKey)}), Handles{});
    ASSERT_EQ(initSign(session, CKM_ECDSA_SHA256, 0x70000001), CKR_OK);
    ByteVector data = data_;
    CK_ULONG length = 0;
    EXPECT_EQ(C_Sign(session, data.data(), sizeOf(data), nullptr, &length), CKR_FUNCTION_FAILED);
    ASSERT_EQ(C_Logout(session), CKR_OK);
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
}

TEST_F(ModuleOverSoftkeyTest, ModelAndFirmwareDecideOnMechanisms)
{
    const std::string pins = " --scrypt-cost 4 --pin-env PIN --so-pin-env SO_PIN";
    tool("create --serial FIPS1 --model \"VK2 FIPS\"" + pins);
    tool("create --serial OLD1 --firmware 1.9.9" + pins);
    for (const std::string serial : {"FIPS1", "MODULE1", "OLD1"}) {
        tool("generate " + serial + " RSA-2048 --pin-env PIN");
        tool("generate " + serial + " P-256 --pin-env PIN");
    }
    const CK_SLOT_ID fips = FIRST_SLOT;
    const CK_SLOT_ID usual = FIRST_SLOT + 1;
    const CK_SLOT_ID old = FIRST_SLOT + 2;
    const CK_OBJECT_HANDLE rsa = 0x70000001;
    const CK_OBJECT_HANDLE rsaPublic = 0x70001001;
    const CK_OBJECT_HANDLE ec = 0x70000002;
    loggedInSession(usual); // One PIN for all: sessions of the others start as those of a user.
    for (const auto& [type, key] :
         {std::pair{CKM_SHA1_RSA_PKCS, rsa}, {CKM_SHA1_RSA_PKCS_PSS, rsa}, {CKM_ECDSA_SHA1, ec}}) {
        EXPECT_EQ(initInNewSession(fips, type, key, C_SignInit), CKR_MECHANISM_INVALID) << type;
        EXPECT_EQ(initInNewSession(usual, type, key, C_SignInit), CKR_OK) << type;
    }
    EXPECT_EQ(initInNewSession(fips, CKM_SHA256_RSA_PKCS, rsa, C_SignInit), CKR_OK);
    for (const CK_SLOT_ID slot : {usual, old}) {
        const CK_RV expected = slot == old ? CKR_MECHANISM_INVALID : CKR_OK;
        EXPECT_EQ(initInNewSession(slot, CKM_SHA256_RSA_PKCS_PSS, rsa, C_SignInit), expected);
        EXPECT_EQ(initInNewSession(slot, CKM_SHA256_RSA_PKCS_PSS, rsaPublic, C_VerifyInit), expected);
        EXPECT_EQ(initInNewSession(slot, CKM_RSA_PKCS_OAEP, rsaPublic, C_EncryptInit), expected);
        EXPECT_EQ(initInNewSession(slot, CKM_RSA_PKCS_OAEP, rsa, C_DecryptInit), expected);
        EXPECT_EQ(initInNewSession(slot, CKM_SHA256_RSA_PKCS, rsa, C_SignInit), CKR_OK);
        const CK_SESSION_HANDLE session = openSession(slot);
        ByteVector point = attribute(session, 0x70001002, CKA_VALUE);
        CK_ECDH1_DERIVE_PARAMS parameter = {CKD_NULL, 0, nullptr, sizeOf(point), point.data()};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
        CK_OBJECT_HANDLE secret = 0;
        EXPECT_EQ(C_DeriveKey(session, &mechanism, ec, nullptr, 0, &secret), expected);
    }
}

TEST_F(ModuleOverSoftkeyTest, AnRsa1024PairDoesNotSignButDecryptsAndVerifies)
{
    REQUIRE_OPENSSL_PROGRAM();
    makeKey("small", "RSA -pkeyopt rsa_keygen_bits:1024");
    tool("import-key MODULE1 " + path("small") + " --pin-env PIN");
    const CK_SESSION_HANDLE session = loggedInSession();
    EXPECT_EQ(initSign(session, CKM_SHA256_RSA_PKCS, 0x70000001), CKR_KEY_SIZE_RANGE);
    const std::string file = write("data", data_);
    ByteVector signature = output("openssl dgst -sha256 -sign " + path("small") + " " + file);
    EXPECT_EQ(verify(session, CKM_SHA256_RSA_PKCS, 0x70001001, data_, signature), CKR_OK);
    signature[5] ^= 1;
    EXPECT_EQ(verify(session, CKM_SHA256_RSA_PKCS, 0x70001001, data_, signature), CKR_SIGNATURE_INVALID);
    ByteVector ciphertext = output("openssl pkeyutl -encrypt -pubin -inkey " + path("small") + ".pub -in " + file);
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(C_DecryptInit(session, &mechanism, 0x70000001), CKR_OK);
    ByteVector plaintext(128);
    CK_ULONG length = sizeOf(plaintext);
    ASSERT_EQ(C_Decrypt(session, ciphertext.data(), sizeOf(ciphertext), plaintext.data(), &length), CKR_OK);
    plaintext.resize(length);
    EXPECT_EQ(plaintext, data_);
}

TEST_F(ModuleOverSoftkeyTest, DeletedObjectsAreGoneFromTheDevice)
{
    REQUIRE_OPENSSL_PROGRAM();
    tool("generate MODULE1 P-256 --label kept --pin-env PIN");
    tool("generate MODULE1 P-256 --label dropped --pin-env PIN");
    makeCertificate("three", "");
    tool("import-certificate MODULE1 " + path("three.der") + " --label dropped-too --pin-env PIN");
    const CK_SESSION_HANDLE session = loggedInSession();
    EXPECT_EQ(C_DestroyObject(session, 0x70001002), CKR_OBJECT_HANDLE_INVALID) << "a public key's handle";
    ASSERT_EQ(C_DestroyObject(session, 0x70000002), CKR_OK);
    ASSERT_EQ(C_DestroyObject(session, 0x70002001), CKR_OK);
    EXPECT_EQ(C_DestroyObject(session, 0x70000002), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(C_DestroyObject(session, 0x70002001), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(find(session, {}), (Handles{0x70001001, 0x70000001}));
    CK_ULONG size = 0;
    EXPECT_EQ(C_GetObjectSize(session, 0x70001002, &size), CKR_OBJECT_HANDLE_INVALID);
    const ByteVector shown = output(softkeyTool() + " info MODULE1");
    const std::string info(shown.begin(), shown.end());
    EXPECT_NE(info.find("kept"), std::string::npos);
    EXPECT_EQ(info.find("dropped"), std::string::npos);
}

} // namespace
