// How the front begins and ends, and what it answers outside of its life.
#include <chrono>
#include <functional>
#include <thread>

#include "eventually.h"
#include "strict_fixture.h"
#include "test_system.h"

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class StrictLifecycleTest : public StrictTest
{
protected:
    milliseconds timeOf(const std::function<void()>& work) const
    {
        const auto begin = steady_clock::now();
        work();
        return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
    }
};

CK_RV anyMutex(CK_VOID_PTR /*mutex*/)
{
    return CKR_OK;
}

CK_RV anyCreate(CK_VOID_PTR_PTR /*mutex*/)
{
    return CKR_OK;
}

TEST_F(StrictLifecycleTest, ChecksItsArguments)
{
    CK_C_INITIALIZE_ARGS reserved{nullptr, nullptr, nullptr, nullptr, 0, this};
    EXPECT_EQ(p11.C_Initialize(&reserved), CKR_ARGUMENTS_BAD);
    CK_C_INITIALIZE_ARGS some{anyCreate, anyMutex, nullptr, anyMutex, CKF_OS_LOCKING_OK, nullptr};
    EXPECT_EQ(p11.C_Initialize(&some), CKR_ARGUMENTS_BAD);
    CK_C_INITIALIZE_ARGS callbacksOnly{anyCreate, anyMutex, anyMutex, anyMutex, 0, nullptr};
    EXPECT_EQ(p11.C_Initialize(&callbacksOnly), CKR_CANT_LOCK);
    CK_C_INITIALIZE_ARGS both{anyCreate, anyMutex, anyMutex, anyMutex, CKF_OS_LOCKING_OK, nullptr};
    EXPECT_EQ(p11.C_Initialize(&both), CKR_OK);
    EXPECT_TRUE(isLogged("C_Initialize: locking by callbacks alone is not supported"));
}

TEST_F(StrictLifecycleTest, KnowsWhetherItIsInitialized)
{
    CK_INFO info;
    EXPECT_EQ(p11.C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(p11.C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    start();
    EXPECT_EQ(p11.C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
    EXPECT_EQ(p11.C_Finalize(this), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p11.C_GetInfo(&info), CKR_OK);
    EXPECT_EQ(p11.C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(p11.C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST_F(StrictLifecycleTest, LeavesStandardOutputToItsHostWhereTheLogCannotBeWritten)
{
    testing::internal::CaptureStdout(); // Before: it makes a file where the log would be.
    hideLogFolder(true);
    p11.C_Finalize(nullptr);
    start();
    EXPECT_EQ(login(open(slots()[0]), "9999"), CKR_PIN_INCORRECT); // A line of the module, too.
    EXPECT_EQ(p11.C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(p11.C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(p11.C_Logout(0), CKR_SESSION_HANDLE_INVALID);
    hideLogFolder(false);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(StrictLifecycleTest, PadsItsTextsWithBlanks)
{
    start();
    CK_INFO info;
    std::fill_n(reinterpret_cast<unsigned char*>(&info), sizeof info, static_cast<unsigned char>(0xAA));
    ASSERT_EQ(p11.C_GetInfo(&info), CKR_OK);
    EXPECT_EQ(textIn(info.manufacturerID), padded("Brenmoor", 32));
    EXPECT_EQ(textIn(info.libraryDescription), padded("Velkor PKCS11 Library", 32));
    EXPECT_EQ(p11.C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
}

TEST_F(StrictLifecycleTest, FinalizesWithinFiftyMillisecondsAndTheNextStartWaits)
{
    start();
    userSession();
    EXPECT_LE(timeOf([&] { EXPECT_EQ(p11.C_Finalize(nullptr), CKR_OK); }).count(), 50);
    EXPECT_EQ(p11.C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(slots().size(), 2U);
}

TEST_F(StrictLifecycleTest, FinalizesWithinFiftyMillisecondsWhileACallIsAtTheDevice)
{
    start();
    const CK_SESSION_HANDLE session = userSession();
    const CK_OBJECT_HANDLE key = privateKey(session, 5);
    device->signingDelayMilliseconds = 300; // Which the next start has to wait for.
    CK_RV result = CKR_GENERAL_ERROR;
    std::thread signer([&] {
        ByteVector signature;
        result = sign(session, {CKM_ECDSA, nullptr, 0}, key, ByteVector(32), signature);
    });
    EXPECT_TRUE(test_system::eventually([&] { return device->signing == 1; }));
    EXPECT_LE(timeOf([&] { EXPECT_EQ(p11.C_Finalize(nullptr), CKR_OK); }).count(), 50);
    EXPECT_EQ(device->signing, 1);
    EXPECT_EQ(p11.C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(device->signing, 0);
    signer.join();
    EXPECT_EQ(result, CKR_OK);
}

TEST_F(StrictLifecycleTest, FinalizeClosesAndLogsOut)
{
    start();
    const CK_SESSION_HANDLE session = userSession();
    ASSERT_EQ(p11.C_Finalize(nullptr), CKR_OK);
    start();
    CK_SESSION_INFO info;
    EXPECT_EQ(p11.C_GetSessionInfo(session, &info), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(stateOf(open(slots().front())), CKS_RW_PUBLIC_SESSION);
}

TEST_F(StrictLifecycleTest, ADeviceLibraryThatDoesNotStartIsAnError)
{
    device->doesStart = false;
    EXPECT_EQ(p11.C_Initialize(nullptr), CKR_FUNCTION_FAILED);
    EXPECT_EQ(p11.C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_TRUE(isLogged("C_Initialize: the device library did not start"));
    device->doesStart = true;
    EXPECT_EQ(p11.C_Initialize(nullptr), CKR_OK);
}

TEST_F(StrictLifecycleTest, AThreadThatCannotBeMadeIsAnError)
{
    start(); // Which loads the module.
    p11.C_Finalize(nullptr);
    test_system::withoutNewThreads([&] { EXPECT_EQ(p11.C_Initialize(nullptr), CKR_FUNCTION_FAILED); });
    EXPECT_EQ(p11.C_Initialize(nullptr), CKR_OK);
}

TEST_F(StrictLifecycleTest, FinalizesWithoutAThreadToo)
{
    start();
    test_system::withoutNewThreads([&] { EXPECT_EQ(p11.C_Finalize(nullptr), CKR_OK); });
    EXPECT_EQ(p11.C_Initialize(nullptr), CKR_OK);
}

TEST_F(StrictLifecycleTest, UnsupportedFunctionsTestInitializationFirst)
{
    EXPECT_EQ(p11.C_InitToken(0, nullptr, 0, nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(p11.C_GetFunctionStatus(0), CKR_CRYPTOKI_NOT_INITIALIZED);
    start();
    EXPECT_EQ(p11.C_InitToken(0, nullptr, 0, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_InitPIN(0, nullptr, 0), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_GetOperationState(0, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_SetOperationState(0, nullptr, 0, 0, 0), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_DigestKey(0, 0), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_SignRecoverInit(0, nullptr, 0), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_SignRecover(0, nullptr, 0, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_VerifyRecoverInit(0, nullptr, 0), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_VerifyRecover(0, nullptr, 0, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_DigestEncryptUpdate(0, nullptr, 0, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_DecryptDigestUpdate(0, nullptr, 0, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_SignEncryptUpdate(0, nullptr, 0, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_DecryptVerifyUpdate(0, nullptr, 0, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_GenerateKey(0, nullptr, nullptr, 0, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_WrapKey(0, nullptr, 0, 0, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_UnwrapKey(0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p11.C_GetFunctionStatus(0), CKR_FUNCTION_NOT_PARALLEL);
    EXPECT_EQ(p11.C_CancelFunction(0), CKR_FUNCTION_NOT_PARALLEL);
}

TEST_F(StrictLifecycleTest, RandomNumbersMayBeNoneAndSeedsAreNotTaken)
{
    start();
    const CK_SESSION_HANDLE session = open(slots().front(), READ_ONLY);
    ByteVector random(8);
    EXPECT_EQ(p11.C_GenerateRandom(session, random.data(), 8), CKR_OK);
    EXPECT_EQ(random, ByteVector(8, 0x5A));
    EXPECT_EQ(p11.C_GenerateRandom(session, random.data(), 0), CKR_OK);
    EXPECT_EQ(p11.C_GenerateRandom(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(p11.C_GenerateRandom(session, nullptr, 1), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p11.C_SeedRandom(session, random.data(), 8), CKR_RANDOM_SEED_NOT_SUPPORTED);
}

} // namespace
