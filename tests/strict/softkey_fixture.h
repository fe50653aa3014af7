// The world of a test of the strict front over the software key: two keys with PINs of their own, and what the tests do
// with their objects.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cryptoki.h"
#include "guarded_buffer.h"
#include "programs.h"
#include "template_values.h"
#include "test_system.h"

using softkey::test::NULL_DEVICE;
using softkey::test::softkeyTool;
using test_system::GuardedBuffer;
using ByteVector = std::vector<unsigned char>;

/// Packed structures count with 32 bits.
inline CK_ULONG sizeOf(const ByteVector& bytes)
{
    return static_cast<CK_ULONG>(bytes.size());
}

inline std::string testName()
{
    return testing::UnitTest::GetInstance()->current_test_info()->name();
}

/// One for the process: its log goes on from test to test.
inline const std::filesystem::path& world()
{
    static const std::filesystem::path folder =
        std::filesystem::absolute(test_system::scratchFolder("StrictSoftkeyTest." + testName()));
    return folder;
}

inline void tool(const std::string& arguments)
{
    const std::string command = softkeyTool() + " " + arguments + " >" + NULL_DEVICE;
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

inline const CK_FUNCTION_LIST& front()
{
    static const CK_FUNCTION_LIST_PTR list = [] {
        std::filesystem::remove_all(world());
        std::filesystem::create_directories(world() / "tmp");
        test_system::setTemporaryFolder(world() / "tmp");
        // Not by a registry of the test's own, without which Windows has no random numbers for the key.
        std::ofstream(world() / "velkor.conf") << "logLevel = 2\n";
        test_system::setEnvironment("VELKOR_CONFIG", (world() / "velkor.conf").string());
        CK_FUNCTION_LIST_PTR functions = nullptr;
        reinterpret_cast<CK_C_GetFunctionList>(test_system::moduleSymbol(STRICT_FILE, "C_GetFunctionList"))(&functions);
        return functions;
    }();
    return *list;
}

/// How often the key has refused a user's PIN, at a login or with a key; a right one afterwards gives the tries back,
/// and hides that.
inline int refusedPins()
{
    int count = 0;
    const auto folder = world() / "tmp" / "Brenmoor" / test_system::loggedProgramName();
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
        std::ifstream stream(file.path());
        for (std::string line; std::getline(stream, line);)
            count += std::string_view(line).ends_with("failed : 312") ? 1 : 0;
    }
    return count;
}

class StrictSoftkeyTest : public testing::Test
{
protected:
    StrictSoftkeyTest()
    {
        p11();
        // Those of the test before may still be open: C_Finalize does not wait for the module's end.
        test_system::setEnvironment("VELKOR_SOFTKEY_HOME", (world() / testName()).string());
        test_system::setEnvironment("PIN", "first-pin");
        test_system::setEnvironment("SO_PIN", "officer-pin");
        tool("create --serial STRICT1 --scrypt-cost 4 --pin-env PIN --so-pin-env SO_PIN");
        test_system::setEnvironment("PIN", "second-pin");
        tool("create --serial STRICT2 --scrypt-cost 4 --pin-env PIN --so-pin-env SO_PIN");
        EXPECT_EQ(p11().C_Initialize(nullptr), CKR_OK);
    }

    ~StrictSoftkeyTest() override { p11().C_Finalize(nullptr); }

    static const CK_FUNCTION_LIST& p11() { return front(); }

    static CK_SLOT_ID slot(std::size_t index)
    {
        std::array<CK_SLOT_ID, 8> slots{};
        auto count = static_cast<CK_ULONG>(slots.size());
        EXPECT_EQ(p11().C_GetSlotList(CK_TRUE, slots.data(), &count), CKR_OK);
        EXPECT_GT(count, index);
        return slots[index];
    }

    static CK_RV login(CK_SESSION_HANDLE session, std::string pin)
    {
        return p11().C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                             static_cast<CK_ULONG>(pin.size()));
    }

    static CK_SESSION_HANDLE userSession(std::size_t index = 0)
    {
        CK_SESSION_HANDLE session = 0;
        EXPECT_EQ(p11().C_OpenSession(slot(index), CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session),
                  CKR_OK);
        const CK_RV result = login(session, index == 0 ? "first-pin" : "second-pin");
        EXPECT_TRUE(result == CKR_OK || result == CKR_USER_ALREADY_LOGGED_IN);
        return session;
    }

    struct KeyPair {
        CK_OBJECT_HANDLE publicKey = 0;
        CK_OBJECT_HANDLE privateKey = 0;
    };

    static KeyPair generateRsa(CK_SESSION_HANDLE session, CK_BBOOL onToken = CK_TRUE)
    {
        TemplateValues values;
        return generate(session, CKM_RSA_PKCS_KEY_PAIR_GEN, {CKA_MODULUS_BITS, &values.bits, sizeof values.bits},
                        onToken);
    }

    static KeyPair generateEc(CK_SESSION_HANDLE session, CK_BBOOL onToken = CK_TRUE)
    {
        TemplateValues values;
        return generate(session, CKM_EC_KEY_PAIR_GEN, {CKA_EC_PARAMS, values.p256.data(), sizeOf(values.p256)},
                        onToken);
    }

    static KeyPair generate(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_ATTRIBUTE attribute, CK_BBOOL onToken)
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        CK_ATTRIBUTE ofPrivate = {CKA_TOKEN, &onToken, sizeof onToken};
        KeyPair pair;
        EXPECT_EQ(p11().C_GenerateKeyPair(session, &mechanism, &attribute, 1, &ofPrivate, 1, &pair.publicKey,
                                          &pair.privateKey),
                  CKR_OK);
        return pair;
    }

    /// The length is asked for; the signature then ends where memory ends.
    static ByteVector sign(CK_SESSION_HANDLE session, CK_MECHANISM mechanism, CK_OBJECT_HANDLE key, ByteVector data)
    {
        EXPECT_EQ(p11().C_SignInit(session, &mechanism, key), CKR_OK) << mechanism.mechanism;
        CK_ULONG length = 0;
        EXPECT_EQ(p11().C_Sign(session, data.data(), sizeOf(data), nullptr, &length), CKR_OK);
        const GuardedBuffer tooShort(length - 1);
        length = tooShort.size();
        EXPECT_EQ(p11().C_Sign(session, data.data(), sizeOf(data), tooShort.data(), &length), CKR_BUFFER_TOO_SMALL);
        const GuardedBuffer signature(length);
        EXPECT_EQ(p11().C_Sign(session, data.data(), sizeOf(data), signature.data(), &length), CKR_OK)
            << mechanism.mechanism;
        EXPECT_EQ(length, signature.size());
        return {signature.data(), signature.data() + length};
    }

    static CK_RV verify(CK_SESSION_HANDLE session, CK_MECHANISM mechanism, CK_OBJECT_HANDLE key, ByteVector data,
                        ByteVector signature)
    {
        EXPECT_EQ(p11().C_VerifyInit(session, &mechanism, key), CKR_OK) << mechanism.mechanism;
        return p11().C_Verify(session, data.data(), sizeOf(data), signature.data(), sizeOf(signature));
    }

    static CK_RV verifyInParts(CK_SESSION_HANDLE session, CK_MECHANISM mechanism, CK_OBJECT_HANDLE key, ByteVector data,
                               ByteVector signature)
    {
        EXPECT_EQ(p11().C_VerifyInit(session, &mechanism, key), CKR_OK);
        EXPECT_EQ(p11().C_VerifyUpdate(session, data.data(), 1), CKR_OK);
        EXPECT_EQ(p11().C_VerifyUpdate(session, data.data() + 1, sizeOf(data) - 1), CKR_OK);
        return p11().C_VerifyFinal(session, signature.data(), sizeOf(signature));
    }

    static std::vector<CK_OBJECT_HANDLE> find(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE> criteria)
    {
        std::vector<CK_OBJECT_HANDLE> found(64);
        CK_ULONG count = 0;
        EXPECT_EQ(p11().C_FindObjectsInit(session, criteria.data(), static_cast<CK_ULONG>(criteria.size())), CKR_OK);
        EXPECT_EQ(p11().C_FindObjects(session, found.data(), static_cast<CK_ULONG>(found.size()), &count), CKR_OK);
        EXPECT_EQ(p11().C_FindObjectsFinal(session), CKR_OK);
        found.resize(count);
        return found;
    }

    static void name(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, std::string label, unsigned char identifier)
    {
        CK_ATTRIBUTE names[] = {{CKA_LABEL, label.data(), static_cast<CK_ULONG>(label.size())},
                                {CKA_ID, &identifier, 1}};
        EXPECT_EQ(p11().C_SetAttributeValue(session, key, names, 2), CKR_OK);
    }

    static CK_FLAGS pinFlags(std::size_t index)
    {
        CK_TOKEN_INFO info{};
        EXPECT_EQ(p11().C_GetTokenInfo(slot(index), &info), CKR_OK);
        return info.flags & (CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_LOCKED);
    }

    static CK_RV setPin(CK_SESSION_HANDLE session, std::string oldPin, std::string newPin)
    {
        return p11().C_SetPIN(session, reinterpret_cast<CK_UTF8CHAR_PTR>(oldPin.data()),
                              static_cast<CK_ULONG>(oldPin.size()), reinterpret_cast<CK_UTF8CHAR_PTR>(newPin.data()),
                              static_cast<CK_ULONG>(newPin.size()));
    }

    /// Signs with the key of a label, whatever becomes of it; the public half of the same label has to fit.
    static void signAndVerify(CK_SESSION_HANDLE session, std::string label, std::atomic<int>& signatures,
                              std::atomic<int>& wrongKeys)
    {
        CK_OBJECT_HANDLE halves[2] = {};
        CK_OBJECT_CLASS classes[] = {CKO_PRIVATE_KEY, CKO_PUBLIC_KEY};
        for (std::size_t half = 0; half < 2; ++half) {
            CK_ATTRIBUTE criteria[] = {{CKA_CLASS, &classes[half], sizeof classes[half]},
                                       {CKA_LABEL, label.data(), static_cast<CK_ULONG>(label.size())}};
            CK_ULONG count = 0;
            if (p11().C_FindObjectsInit(session, criteria, 2) == CKR_OK) {
                p11().C_FindObjects(session, &halves[half], 1, &count);
                p11().C_FindObjectsFinal(session);
            }
            if (count == 0)
                return;
        }
        CK_MECHANISM mechanism = {CKM_ECDSA_SHA256, nullptr, 0};
        ByteVector data(20, 1);
        ByteVector signature(64);
        CK_ULONG length = 64;
        if (p11().C_SignInit(session, &mechanism, halves[0]) != CKR_OK ||
            p11().C_Sign(session, data.data(), sizeOf(data), signature.data(), &length) != CKR_OK ||
            p11().C_VerifyInit(session, &mechanism, halves[1]) != CKR_OK)
            return;
        const CK_RV result = p11().C_Verify(session, data.data(), sizeOf(data), signature.data(), length);
        signatures += result == CKR_OK ? 1 : 0;
        wrongKeys += result == CKR_SIGNATURE_INVALID ? 1 : 0;
    }

    static ByteVector value(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
    {
        CK_ATTRIBUTE entry = {type, nullptr, 0};
        EXPECT_EQ(p11().C_GetAttributeValue(session, object, &entry, 1), CKR_OK);
        ByteVector bytes(entry.ulValueLen);
        entry.pValue = bytes.data();
        EXPECT_EQ(p11().C_GetAttributeValue(session, object, &entry, 1), CKR_OK);
        return bytes;
    }

    void expectSignatures(CK_MECHANISM mechanism, CK_SESSION_HANDLE session, const KeyPair& pair) const
    {
        const ByteVector data(100, 0x42);
        const ByteVector signature = sign(session, mechanism, pair.privateKey, data);
        EXPECT_EQ(verify(session, mechanism, pair.publicKey, data, signature), CKR_OK) << mechanism.mechanism;
        EXPECT_EQ(verifyInParts(session, mechanism, pair.publicKey, data, signature), CKR_OK) << mechanism.mechanism;
        EXPECT_EQ(verify(session, mechanism, pair.publicKey, ByteVector(100, 0x43), signature), CKR_SIGNATURE_INVALID);
    }
};
