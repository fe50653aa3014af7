// Twelve troubles of a night. The module itself writes the log of each, over the device of the tests; the reader's
// program names the cause first.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "key_operation_fixture.h"

namespace
{

using testing::_;
using testing::DoAll;
using testing::Return;
using testing::SetArgPointee;

/// Status of a device library that finds data of another key.
constexpr int STATUS_DATA_LENGTH = 334;
constexpr int STATUS_PIN_INCORRECT = 312;

std::string quoted(const std::filesystem::path& path)
{
    return "\"" + path.string() + "\"";
}

/// What a program writes to its standard output.
std::string outputOf(const std::string& command)
{
    std::string output;
    std::FILE* pipe = popen(command.c_str(), "r");
    std::array<char, 4096> part{};
    for (std::size_t count = 0; (count = std::fread(part.data(), 1, part.size(), pipe)) != 0;)
        output.append(part.data(), count);
    pclose(pipe);
    return output;
}

/// The title of the cause that the summary of today's logs names first.
std::string firstCause()
{
    const std::string summary = outputOf(quoted(TRACE_TOOL) + " summary 2>&1");
    constexpr std::string_view FIRST = "\n  1. ";
    const std::size_t place = summary.find(FIRST);
    if (place == std::string::npos)
        return summary;
    const std::size_t start = place + FIRST.size();
    return summary.substr(start, summary.find('\n', start) - start);
}

/// Runs one of the tests below that play another process, under a program's name.
void runAs(const std::filesystem::path& program, const std::string& test)
{
    const std::string command = quoted(program) + " --gtest_also_run_disabled_tests --gtest_filter=" + test + " >" +
                                quoted(program) + ".out 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0); // NOLINT(cert-env33-c)
}

class PreparedLogTest : public KeyOperationTest
{
protected:
    void refusePin(int triesLeft)
    {
        ON_CALL(*device_, velkor_validatePassword)
            .WillByDefault(DoAll(SetArgPointee<3>(triesLeft), Return(STATUS_PIN_INCORRECT)));
        loginAs(CKU_USER, hSession_, "0000");
    }

    CK_RV beginToSign(CK_MECHANISM_TYPE type)
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        return C_SignInit(hSession_, &mechanism, privateKey(2));
    }

    /// Searches for the objects of a class, as far as one page.
    CK_ULONG find(CK_OBJECT_CLASS objectClass)
    {
        Template wanted = {{CKA_CLASS, bytesOf(objectClass)}};
        std::array<CK_OBJECT_HANDLE, 32> found{};
        CK_ULONG count = 0;
        EXPECT_EQ(C_FindObjectsInit(hSession_, wanted.data(), wanted.size()), CKR_OK);
        EXPECT_EQ(C_FindObjects(hSession_, found.data(), found.size(), &count), CKR_OK);
        EXPECT_EQ(C_FindObjectsFinal(hSession_), CKR_OK);
        return count;
    }

    std::filesystem::path logFile() const { return *std::filesystem::directory_iterator(logFolder_); }
};

TEST_F(PreparedLogTest, WrongPin)
{
    refusePin(2);
    EXPECT_EQ(firstCause(), "Wrong PIN");
}

TEST_F(PreparedLogTest, LockedPin)
{
    refusePin(2);
    refusePin(1);
    refusePin(0);
    EXPECT_EQ(firstCause(),
              "PIN refused twice and then locked: " + test_system::loggedProgramName() + " uses a wrong or an old PIN");
}

TEST_F(PreparedLogTest, KeyWithoutCertificate)
{
    first().certificates.clear();
    login();
    EXPECT_GT(find(CKO_PRIVATE_KEY), 0U);
    EXPECT_EQ(find(CKO_CERTIFICATE), 0U);
    EXPECT_EQ(firstCause(), "Key without certificate: the token has a private key and no certificate");
}

TEST_F(PreparedLogTest, OldFirmware)
{
    setFirmware("1.9.9");
    EXPECT_EQ(beginToSign(CKM_RSA_PKCS_PSS), CKR_MECHANISM_INVALID);
    EXPECT_EQ(firstCause(), "Old firmware: the token does not do this mechanism");
}

TEST_F(PreparedLogTest, FipsRefusal)
{
    reopenWithToken([](TokenInfo& token) { token.model = "VK3 Key"; });
    EXPECT_EQ(beginToSign(CKM_SHA1_RSA_PKCS), CKR_MECHANISM_INVALID);
    EXPECT_EQ(firstCause(), "FIPS 140-3 rules: the token does not sign with SHA-1 or MD5");
}

TEST_F(PreparedLogTest, MixedUpLayouts)
{
    // A template as a host with packed structures lays it out: type and length of 32 bits around a pointer.
    CK_OBJECT_CLASS wanted = CKO_PRIVATE_KEY;
    const void* value = &wanted;
    const unsigned int length = 4;
    std::array<unsigned char, 64> packed{};
    std::memcpy(packed.data() + 4, &value, sizeof value);
    std::memcpy(packed.data() + 12, &length, sizeof length);
    EXPECT_NE(C_FindObjectsInit(hSession_, reinterpret_cast<CK_ATTRIBUTE*>(packed.data()), 1), CKR_OK);
    EXPECT_EQ(firstCause(), "Mixed-up structure layouts: host and module were built for different ones");
}

TEST_F(PreparedLogTest, ChildWithoutInitialize)
{
    runAs(test_system::program(), "OtherProcessTest.DISABLED_ForgetsToInitialize");
    EXPECT_EQ(firstCause(), "C_Initialize was not called: a child process of the host forgot it");
}

TEST_F(PreparedLogTest, BufferOfAWrongKey)
{
    login();
    ON_CALL(*device_, velkor_decrypt).WillByDefault(Return(STATUS_DATA_LENGTH));
    start(DECRYPT);
    std::array<CK_BYTE, 512> encrypted{};
    std::array<CK_BYTE, 512> data{};
    CK_ULONG length = data.size();
    EXPECT_EQ(C_Decrypt(hSession_, encrypted.data(), encrypted.size(), data.data(), &length), CKR_FUNCTION_FAILED);
    EXPECT_EQ(firstCause(), "The data or the buffer belongs to another key");
}

TEST_F(PreparedLogTest, RemovedDevice)
{
    login();
    start(SIGN);
    ON_CALL(*device_, velkor_signHash).WillByDefault(Return(STATUS_DEVICE_REMOVED));
    std::array<CK_BYTE, 512> signature{};
    CK_ULONG length = signature.size();
    EXPECT_NE(C_Sign(hSession_, signature.data(), 20, signature.data(), &length), CKR_OK);
    ON_CALL(*device_, velkor_validatePassword).WillByDefault(DoAll(SetArgPointee<3>(0), Return(STATUS_DEVICE_REMOVED)));
    device_->defaults.setConnected({});
    loginAs(CKU_USER, openSession(READ_WRITE, SECOND_SLOT));
    EXPECT_EQ(firstCause(), "The device was removed");
}

TEST_F(PreparedLogTest, UnwritableLog)
{
    const std::filesystem::path log = logFile();
    std::error_code error;
    while (!std::filesystem::is_directory(log)) { // The monitor may write a line meanwhile, into a new file.
        std::filesystem::remove(log);
        std::filesystem::create_directory(log, error);
    }
    C_GetInfo(nullptr);
    EXPECT_EQ(firstCause(), "The log cannot be written");
    std::filesystem::remove(log);
}

TEST_F(PreparedLogTest, TwoProgramsWithTwoPins)
{
    login();
    const std::filesystem::path other = folder_ / "signer";
    std::filesystem::create_hard_link(test_system::program(), other);
    runAs(other, "OtherProcessTest.DISABLED_HasAnOldPin");
    EXPECT_EQ(firstCause(), "Two programs use two PINs: signer has an old or wrong one");
}

class UninitializedLogTest : public ModuleTest
{
};

TEST_F(UninitializedLogTest, MissingDeviceLibrary)
{
    ON_CALL(*device_, velkor_createInstance).WillByDefault(SetArgPointee<0>(nullptr));
    EXPECT_EQ(C_Initialize(nullptr), CKR_OK);
    CK_ULONG count = 0;
    EXPECT_EQ(C_GetSlotList(CK_TRUE, nullptr, &count), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(firstCause(), "No device library: it did not start");
}

TEST_F(PreparedLogTest, NothingWrong)
{
    login();
    EXPECT_EQ(beginToSign(CKM_SHA256_RSA_PKCS), CKR_OK);
    EXPECT_EQ(firstCause().substr(0, 23), "Nothing wrong was seen.");
}

// ---- Other processes, which inherit the place of the log ----

TEST(OtherProcessTest, DISABLED_ForgetsToInitialize)
{
    CK_ULONG count = 0;
    EXPECT_EQ(C_GetSlotList(CK_TRUE, nullptr, &count), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST(OtherProcessTest, DISABLED_HasAnOldPin)
{
    setDeviceOperations(std::make_shared<DefaultDevice>());
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    std::array<CK_SLOT_ID, 8> slots{};
    CK_ULONG count = slots.size();
    ASSERT_EQ(C_GetSlotList(CK_TRUE, slots.data(), &count), CKR_OK);
    CK_SESSION_HANDLE session = 0;
    ASSERT_EQ(C_OpenSession(slots[0], READ_WRITE, nullptr, nullptr, &session), CKR_OK);
    EXPECT_EQ(C_Login(session, CKU_USER, characters("0000"), 4), CKR_PIN_INCORRECT);
    C_Finalize(nullptr);
}

} // namespace
