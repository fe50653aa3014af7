// The configuration file's level as it is read for each line: from the file when it may have changed, else from memory.
#include "platform/platform.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "test_system.h"

using namespace velkor;

namespace
{

std::time_t clockOffset = 0; ///< Seconds by which the platform's clock is ahead.
int timesOpened = 0;
std::optional<std::uint32_t> fileSystem; ///< What the system says that the file is on, when it is not the truth.

} // namespace

extern "C" {

int __real_clock_gettime(clockid_t clock, timespec* time);
int __real_open(const char* path, int flags, ...);
int __real_fstatfs(int file, struct statfs* system);

int __wrap_clock_gettime(clockid_t clock, timespec* time)
{
    const int result = __real_clock_gettime(clock, time);
    time->tv_sec += clockOffset;
    return result;
}

int __wrap_open(const char* path, int flags, ...)
{
    ++timesOpened;
    return __real_open(path, flags);
}

int __wrap_fstatfs(int file, struct statfs* system)
{
    const int result = __real_fstatfs(file, system);
    system->f_type = fileSystem.value_or(static_cast<std::uint32_t>(system->f_type));
    return result;
}
}

namespace
{

class LogLevelFileTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directories(folder_);
        test_system::setEnvironment("VELKOR_CONFIG", file_);
        clockOffset = 0;
        fileSystem.reset();
        timesOpened = 0;
    }

    void write(const std::string& text) const { std::ofstream(file_) << text; }

    /// Lets the file count as one that has not changed for long.
    static void letTimePass() { clockOffset += 3600; }

    /// The first byte of the value; nothing when there is none.
    static std::optional<int> level()
    {
        std::array<char, 32> value{};
        return platform::readLogLevel(value) ? std::optional<int>(static_cast<signed char>(value[0])) : std::nullopt;
    }

    std::filesystem::path folder_ =
        test_system::scratchFolder(testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::path file_ = folder_ / "velkor.conf";
};

TEST_F(LogLevelFileTest, AFileThatHasNotChangedForLongIsNotReadAgain)
{
    write("logLevel = 3\n");
    letTimePass();
    EXPECT_EQ(level(), 3);
    EXPECT_EQ(level(), 3);
    EXPECT_EQ(timesOpened, 1);
}

TEST_F(LogLevelFileTest, AnAbsentValueIsRememberedToo)
{
    write("# nothing\n");
    letTimePass();
    EXPECT_EQ(level(), std::nullopt);
    EXPECT_EQ(level(), std::nullopt);
    EXPECT_EQ(timesOpened, 1);
}

TEST_F(LogLevelFileTest, AFileThatHasJustChangedIsReadEachTime)
{
    write("logLevel = 3\n");
    EXPECT_EQ(level(), 3);
    EXPECT_EQ(level(), 3);
    EXPECT_EQ(timesOpened, 2);
}

TEST_F(LogLevelFileTest, AFileFromTheFutureIsReadEachTime)
{
    write("logLevel = 3\n");
    clockOffset = -3600;
    EXPECT_EQ(level(), 3);
    EXPECT_EQ(level(), 3);
    EXPECT_EQ(timesOpened, 2);
}

TEST_F(LogLevelFileTest, AFileThatANetworkCarriesIsReadEachTimeHoweverOldItIs)
{
    write("logLevel = 3\n");
    letTimePass();
    for (const std::uint32_t remote : {0x6969U, 0xfe534d42U, 0x65735546U}) { // NFS, SMB, FUSE.
        fileSystem = remote;
        timesOpened = 0;
        EXPECT_EQ(level(), 3);
        EXPECT_EQ(level(), 3);
        EXPECT_EQ(timesOpened, 2);
    }
}

TEST_F(LogLevelFileTest, AnEditOfTheSameSizeWithinOneTickIsSeen)
{
    for (int round = 0; round < 1000; ++round) {
        write(round % 2 == 0 ? "logLevel = 2\n" : "logLevel = 3\n");
        ASSERT_EQ(level(), 2 + round % 2);
    }
}

TEST_F(LogLevelFileTest, AnEditInPlaceIsSeen)
{
    write("logLevel = 3\n");
    letTimePass();
    EXPECT_EQ(level(), 3);
    write("logLevel = 2\n");
    EXPECT_EQ(level(), 2);
}

TEST_F(LogLevelFileTest, AFileRenamedOverItIsSeen)
{
    std::ofstream(folder_ / "other.conf") << "logLevel = 2\n";
    write("logLevel = 3\n");
    letTimePass();
    EXPECT_EQ(level(), 3);
    std::filesystem::rename(folder_ / "other.conf", file_);
    EXPECT_EQ(level(), 2);
}

TEST_F(LogLevelFileTest, ATruncatedFileIsSeen)
{
    write("logLevel = 3\n");
    letTimePass();
    EXPECT_EQ(level(), 3);
    std::filesystem::resize_file(file_, 0);
    EXPECT_EQ(level(), std::nullopt);
}

TEST_F(LogLevelFileTest, ARemovedFileIsSeenAndSoIsItsReturn)
{
    write("logLevel = 3\n");
    letTimePass();
    EXPECT_EQ(level(), 3);
    std::filesystem::rename(file_, folder_ / "away.conf");
    EXPECT_EQ(level(), std::nullopt);
    std::filesystem::rename(folder_ / "away.conf", file_);
    EXPECT_EQ(level(), 3);
}

TEST_F(LogLevelFileTest, AFileMadeUnreadableIsSeen)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can act as a user who may not read it";
    constexpr uid_t NOBODY = 65534;
    std::filesystem::permissions(folder_, std::filesystem::perms::all);
    write("logLevel = 3\n");
    letTimePass();
    ASSERT_EQ(seteuid(NOBODY), 0);
    const bool isReachable = faccessat(AT_FDCWD, folder_.c_str(), X_OK, AT_EACCESS) == 0;
    const std::optional<int> before = level();
    ASSERT_EQ(seteuid(0), 0);
    std::filesystem::permissions(file_, std::filesystem::perms::none);
    ASSERT_EQ(seteuid(NOBODY), 0);
    const std::optional<int> after = level();
    ASSERT_EQ(seteuid(0), 0);
    if (!isReachable)
        GTEST_SKIP() << "other users cannot reach the build folder";
    EXPECT_EQ(before, 3);
    EXPECT_EQ(after, std::nullopt);
}

TEST_F(LogLevelFileTest, AFileThatCouldNotBeOpenedForAMomentIsReadByTheNextLine)
{
    write("logLevel = 3\n");
    letTimePass();
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none = {0, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::optional<int> without = level();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_EQ(without, std::nullopt);
    EXPECT_EQ(level(), 3);
}

TEST_F(LogLevelFileTest, AFileIsTrustedThreeSecondsAfterItsChangeAndNotBefore)
{
    write("logLevel = 3\n");
    clockOffset = 1;
    EXPECT_EQ(level(), 3);
    EXPECT_EQ(level(), 3);
    EXPECT_EQ(timesOpened, 2);
    clockOffset = 5;
    EXPECT_EQ(level(), 3);
    EXPECT_EQ(level(), 3);
    EXPECT_EQ(timesOpened, 3);
}

TEST_F(LogLevelFileTest, FilesRenamedOverItWithinOneTickAreSeen)
{
    for (int round = 0; round < 50; ++round) {
        const int wanted = round % 2 + 2;
        std::ofstream(folder_ / "next") << "logLevel = " << wanted << "\n";
        std::filesystem::rename(folder_ / "next", file_);
        EXPECT_EQ(level(), wanted) << round;
    }
}

TEST_F(LogLevelFileTest, AnEditWhoseTimeIsPutBackIsSeen)
{
    write("logLevel = 3\n");
    const auto time = std::filesystem::last_write_time(file_);
    letTimePass();
    EXPECT_EQ(level(), 3);
    write("logLevel = 2\n");
    std::filesystem::last_write_time(file_, time);
    EXPECT_EQ(level(), 2);
}

TEST_F(LogLevelFileTest, AnotherFileNamedByTheEnvironmentIsSeen)
{
    write("logLevel = 3\n");
    std::ofstream(folder_ / "other.conf") << "logLevel = 2\n";
    letTimePass();
    EXPECT_EQ(level(), 3);
    test_system::setEnvironment("VELKOR_CONFIG", folder_ / "other.conf");
    EXPECT_EQ(level(), 2);
}

TEST_F(LogLevelFileTest, TheFileThatPackagesBringIsSilent)
{
    test_system::setEnvironment("VELKOR_CONFIG", PACKAGED_CONFIGURATION);
    EXPECT_EQ(level(), 0);
}

TEST_F(LogLevelFileTest, NegativeNumbersAreNumbers)
{
    write("logLevel = -1\n");
    EXPECT_EQ(level(), -1);
    write("logLevel = -2147483648\n");
    EXPECT_EQ(level(), 0);
    write("logLevel = -2147483649\n");
    EXPECT_EQ(level(), std::nullopt);
}

} // namespace
