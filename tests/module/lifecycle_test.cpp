// C_Initialize, C_Finalize and C_GetInfo.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <system_error>
#include <thread>

#include "module_fixture.h"

namespace
{

using testing::_;

using LifecycleTest = ModuleTest;

TEST_F(LifecycleTest, InitializeCreatesTheInstanceOnce)
{
    EXPECT_CALL(*device_, velkor_createInstance(_)).Times(1);
    EXPECT_EQ(answer(C_Initialize, nullptr), (Answer{CKR_OK, {"DEBUG C_Initialize"}}));
}

TEST_F(LifecycleTest, InitializeIgnoresItsArgument)
{
    CK_C_INITIALIZE_ARGS arguments;
    std::memset(&arguments, 0xFF, sizeof arguments);
    EXPECT_EQ(C_Initialize(&arguments), CKR_OK);
    ASSERT_EQ(finalize(), CKR_OK);
    EXPECT_EQ(C_Initialize(reinterpret_cast<void*>(1)), CKR_OK);
}

TEST_F(LifecycleTest, SecondInitializeIsRefusedAndLeavesInstanceAndMonitor)
{
    EXPECT_CALL(*device_, velkor_createInstance(_)).Times(1);
    EXPECT_CALL(*device_, velkor_releaseInstance(_)).Times(0);
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(answer(C_Initialize, nullptr),
              refusal(CKR_CRYPTOKI_ALREADY_INITIALIZED, "C_Initialize", "C_Initialize: already initialized"));
    CK_INFO info;
    EXPECT_EQ(C_GetInfo(&info), CKR_OK);
    EXPECT_THAT(wholeLog(), testing::Not(testing::Contains("DEBUG Session monitor thread stopped.")));
}

TEST_F(LifecycleTest, FinalizeWithoutInitializeIsRefused)
{
    EXPECT_EQ(answer(C_Finalize, nullptr),
              refusal(CKR_CRYPTOKI_NOT_INITIALIZED, "C_Finalize", "C_Finalize: not initialized"));
}

TEST_F(LifecycleTest, FinalizeJoinsTheMonitorThenReleasesTheInstance)
{
    int instance = 0;
    bool joinedBefore = false;
    EXPECT_CALL(*device_, velkor_createInstance(_)).WillOnce(testing::SetArgPointee<0>(&instance));
    EXPECT_CALL(*device_, velkor_releaseInstance(&instance)).WillOnce([&] {
        joinedBefore = wholeLog().back() == "DEBUG Monitor thread joined (stopDeviceMonitor).";
    });
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(answer(C_Finalize, reinterpret_cast<void*>(1)),
              (Answer{CKR_OK,
                      {"DEBUG C_Finalize", "DEBUG Monitor thread joined (stopDeviceMonitor).",
                       "DEBUG C_Finalize completed successfully."}}));
    EXPECT_TRUE(joinedBefore);
    CK_INFO info;
    EXPECT_EQ(C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST_F(LifecycleTest, TheMonitorSaysWhenItStartsAndStops)
{
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    ASSERT_EQ(finalize(), CKR_OK);
    const std::vector<std::string> log = wholeLog();
    EXPECT_THAT(log, testing::Contains("DEBUG Session monitor thread started."));
    EXPECT_THAT(log, testing::Contains("DEBUG Session monitor thread stopped."));
}

TEST_F(LifecycleTest, InitializeAfterFinalizeStartsAfresh)
{
    EXPECT_CALL(*device_, velkor_createInstance(_)).Times(2);
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    ASSERT_EQ(finalize(), CKR_OK);
    EXPECT_EQ(answer(C_Initialize, nullptr), (Answer{CKR_OK, {"DEBUG C_Initialize"}}));
    CK_INFO info;
    EXPECT_EQ(C_GetInfo(&info), CKR_OK);
}

TEST_F(LifecycleTest, FailedLibraryStartIsToldInTheLogOnly)
{
    EXPECT_CALL(*device_, velkor_createInstance(_)).WillOnce(testing::SetArgPointee<0>(nullptr));
    EXPECT_EQ(answer(C_Initialize, nullptr),
              (Answer{CKR_OK, {"DEBUG C_Initialize", "ERROR Init pkcs11 library failed failed"}}));
    EXPECT_EQ(C_GetInfo(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(finalize(), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST_F(LifecycleTest, InitializeAfterAFailedStartStopsTheOldMonitorAndTriesAgain)
{
    int instance = 0;
    EXPECT_CALL(*device_, velkor_createInstance(_))
        .WillOnce(testing::SetArgPointee<0>(nullptr))
        .WillOnce(testing::SetArgPointee<0>(&instance));
    // The monitor's first look at the devices comes after it has said that it runs.
    const auto monitorRuns = std::make_shared<std::atomic<bool>>(false);
    ON_CALL(*device_, velkor_getConnectedDeviceList).WillByDefault([monitorRuns](bool, void*) {
        *monitorRuns = true;
        return std::vector<std::string>();
    });
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    while (!*monitorRuns)
        std::this_thread::yield();
    EXPECT_EQ(answer(C_Initialize, nullptr),
              (Answer{CKR_OK,
                      {"DEBUG C_Initialize", "DEBUG Monitor already running. Stopping old thread.",
                       "DEBUG Monitor thread joined (stopDeviceMonitor)."}}));
    CK_INFO info;
    EXPECT_EQ(C_GetInfo(&info), CKR_OK);
}

/// Whether the monitor of the one before has begun to run or not.
TEST_F(LifecycleTest, StartsThatFailOneRightAfterTheOtherLeaveOneMonitor)
{
    EXPECT_CALL(*device_, velkor_createInstance(_)).WillRepeatedly(testing::SetArgPointee<0>(nullptr));
    monitorSleep_.skip();
    setLogLevel("0");
    for (int start = 0; start < 200; ++start)
        ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
}

TEST_F(LifecycleTest, AMonitorThatCannotBeCreatedLeavesAsASystemError)
{
    test_system::withoutNewThreads([] {
        try {
            C_Initialize(nullptr);
            ADD_FAILURE() << "the thread was created";
        } catch (const std::system_error& error) {
            // By value: the module may have a C++ runtime of its own, with categories of its own.
            EXPECT_EQ(error.code().value(), static_cast<int>(std::errc::resource_unavailable_try_again));
        }
    });
    CK_INFO info;
    EXPECT_EQ(C_GetInfo(&info), CKR_OK);
    EXPECT_EQ(answer(C_Finalize, nullptr),
              (Answer{CKR_OK, {"DEBUG C_Finalize", "DEBUG C_Finalize completed successfully."}}));
}

TEST_F(LifecycleTest, AnExceptionOfTheLibraryBecomesAReturnCode)
{
    EXPECT_CALL(*device_, velkor_createInstance(_))
        .WillOnce(testing::Throw(std::bad_alloc()))
        .WillOnce(testing::Throw(std::runtime_error("broken")))
        .WillOnce(testing::Throw(1));
    EXPECT_EQ(answer(C_Initialize, nullptr), refusal(CKR_HOST_MEMORY, "C_Initialize", "C_Initialize: out of memory"));
    EXPECT_EQ(answer(C_Initialize, nullptr),
              refusal(CKR_GENERAL_ERROR, "C_Initialize", "C_Initialize: unexpected exception: broken"));
    EXPECT_EQ(answer(C_Initialize, nullptr),
              refusal(CKR_GENERAL_ERROR, "C_Initialize", "C_Initialize: unexpected exception"));
    EXPECT_EQ(C_GetInfo(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST_F(LifecycleTest, AnExceptionOfTheLibrarysEndLeavesTheModuleStartedWithoutItsMonitor)
{
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    EXPECT_CALL(*device_, velkor_releaseInstance(_))
        .WillOnce(testing::Throw(std::runtime_error("broken")))
        .WillOnce(testing::Return());
    monitorSleep_.skip();
    EXPECT_EQ(answer(C_Finalize, nullptr),
              (Answer{CKR_GENERAL_ERROR,
                      {"DEBUG C_Finalize", "DEBUG Monitor thread joined (stopDeviceMonitor).",
                       "ERROR C_Finalize: unexpected exception: broken"}}));
    CK_INFO info;
    EXPECT_EQ(C_GetInfo(&info), CKR_OK);
    EXPECT_EQ(finalize(), CKR_OK);
}

using GetInfoTest = InitializedModuleTest;

TEST_F(GetInfoTest, DescribesTheModule)
{
    CK_INFO info;
    std::memset(&info, 0xAA, sizeof info);
    EXPECT_EQ(answer(C_GetInfo, &info), (Answer{CKR_OK, {"DEBUG C_GetInfo"}}));
    EXPECT_EQ(info.cryptokiVersion.major, 2);
    EXPECT_EQ(info.cryptokiVersion.minor, 20);
    EXPECT_STREQ(reinterpret_cast<const char*>(info.manufacturerID), "Brenmoor");
    EXPECT_EQ(CK_FLAGS{info.flags}, 0u);
    EXPECT_STREQ(reinterpret_cast<const char*>(info.libraryDescription), "Velkor PKCS11 Library");
    EXPECT_EQ(info.libraryVersion.major, VERSION_MAJOR);
    EXPECT_EQ(info.libraryVersion.minor, VERSION_MINOR);
}

TEST_F(GetInfoTest, LeavesTheBytesBehindTheTerminatorsAsTheyWere)
{
    CK_INFO info;
    std::memset(&info, 0xAA, sizeof info);
    ASSERT_EQ(C_GetInfo(&info), CKR_OK);
    const auto restIsUntouched = [](const CK_UTF8CHAR(&field)[32]) {
        const std::size_t used = std::strlen(reinterpret_cast<const char*>(field)) + 1;
        return std::all_of(field + used, std::end(field), [](CK_UTF8CHAR byte) { return byte == 0xAA; });
    };
    EXPECT_TRUE(restIsUntouched(info.manufacturerID));
    EXPECT_TRUE(restIsUntouched(info.libraryDescription));
}

TEST_F(GetInfoTest, RefusesANullPointer)
{
    EXPECT_EQ(answer(C_GetInfo, nullptr), refusal(CKR_ARGUMENTS_BAD, "C_GetInfo", "C_GetInfo: pInfo is NULL"));
}

} // namespace
