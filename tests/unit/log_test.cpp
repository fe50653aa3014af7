// The log over a platform of the test's own: what cannot be brought about from outside the module.
#include "log/log.h"

#include <atomic>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include <gtest/gtest.h>

#include "fake_platform.h"
#include "test_system.h"

using namespace velkor;

namespace
{

class LogTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directories(folder_ / "Brenmoor" / "app");
        fakePlatform = {};
        fakePlatform.root = folder_.string();
        fakePlatform.temporaryFolder = folder_.string() + "/";
    }

    std::string file(const std::string& name) const
    {
        std::ifstream stream(folder_ / "Brenmoor" / "app" / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }

    template <typename Work>
    static std::string outputOf(const Work& work)
    {
        testing::internal::CaptureStdout();
        work();
        return testing::internal::GetCapturedStdout();
    }

    std::filesystem::path folder_ =
        test_system::scratchFolder(testing::UnitTest::GetInstance()->current_test_info()->name());
};

TEST_F(LogTest, LineIsTimeTagAndText)
{
    writeLogLine(LOG_DEBUG, "C_GetSlotList");
    EXPECT_EQ(file("2026-11-15.LOG"), "15/11::13:46:27:123-> ->DEBUG ::=>C_GetSlotList\n");
}

TEST_F(LogTest, NumbersOfTheTimeArePadded)
{
    fakePlatform.time = {2027, 1, 2, 3, 4, 5, 6};
    writeLogLine(LOG_ERROR, "x");
    EXPECT_EQ(file("2027-01-02.LOG"), "02/01::03:04:05:006-> ->ERROR ::=>x\n");
}

TEST_F(LogTest, TagsFollowTheCodes)
{
    for (const int code : {1, 2, 3, 0, 4})
        writeLogLine(code, "x");
    const std::string time = "15/11::13:46:27:123-> ->";
    EXPECT_EQ(file("2026-11-15.LOG"), time + "EXCEP ::=>x\n" + time + "ERROR ::=>x\n" + time + "DEBUG ::=>x\n" + time +
                                          "INFO  ::=>x\n" + time + "INFO  ::=>x\n");
}

TEST_F(LogTest, LinesOnEitherSideOfMidnightGoToTwoFiles)
{
    fakePlatform.time = {2026, 12, 31, 23, 59, 59, 999};
    writeLogLine(LOG_ERROR, "old");
    fakePlatform.time = {2027, 1, 1, 0, 0, 0, 0};
    writeLogLine(LOG_ERROR, "new");
    EXPECT_EQ(file("2026-12-31.LOG"), "31/12::23:59:59:999-> ->ERROR ::=>old\n");
    EXPECT_EQ(file("2027-01-01.LOG"), "01/01::00:00:00:000-> ->ERROR ::=>new\n");
}

TEST_F(LogTest, LineIsAppendedUnchanged)
{
    writeLogLine(LOG_ERROR, "a\r\nb");
    writeLogLine(LOG_ERROR, "");
    const std::string time = "15/11::13:46:27:123-> ->";
    EXPECT_EQ(file("2026-11-15.LOG"), time + "ERROR ::=>a\r\nb\n" + time + "ERROR ::=>\n");
}

TEST_F(LogTest, ProcessNameIsCutAtItsFirstDot)
{
    fakePlatform.processFileName = "app.real.exe";
    EXPECT_EQ(getProcessBaseName(), "app");
    fakePlatform.processFileName = "app";
    EXPECT_EQ(getProcessBaseName(), "app");
    fakePlatform.processFileName = "";
    EXPECT_EQ(getProcessBaseName(), "");
}

TEST_F(LogTest, UnknownProcessNameLogsIntoTheMakersFolder)
{
    fakePlatform.processFileName = "";
    writeLogLine(LOG_ERROR, "x");
    EXPECT_TRUE(std::filesystem::exists(folder_ / "Brenmoor" / "2026-11-15.LOG"));
}

TEST_F(LogTest, BaseFolderIsTheTemporaryFolderIfItExists)
{
    char buffer[1024];
    EXPECT_EQ(getLogBaseFolderPath(buffer, sizeof buffer), 0);
    EXPECT_EQ(buffer, fakePlatform.temporaryFolder);
}

TEST_F(LogTest, BaseFolderOfAMissingTemporaryFolderIsEmpty)
{
    fakePlatform.temporaryFolder += "missing/";
    char buffer[64];
    std::fill(std::begin(buffer), std::end(buffer), 'x');
    EXPECT_EQ(getLogBaseFolderPath(buffer, sizeof buffer), -1);
    EXPECT_TRUE(std::all_of(std::begin(buffer), std::end(buffer), [](char each) { return each == 0; }));
}

TEST_F(LogTest, BaseFolderThatDoesNotFitIsRefused)
{
    std::string buffer(fakePlatform.temporaryFolder.size(), 'x');
    EXPECT_EQ(getLogBaseFolderPath(buffer.data(), buffer.size()), -1);
    EXPECT_EQ(buffer, std::string(buffer.size(), '\0'));
}

TEST_F(LogTest, ExceptionInTheBaseFolderIsToldOnStandardOutput)
{
    fakePlatform.foldersThrow = true;
    char buffer[64];
    int result = 0;
    EXPECT_EQ(outputOf([&] { result = getLogBaseFolderPath(buffer, sizeof buffer); }),
              "Exception in getLogBaseFolderPath(): no folder");
    EXPECT_EQ(result, -1);
}

TEST_F(LogTest, ExceptionInCreatingAFolderIsToldOnStandardOutput)
{
    fakePlatform.foldersThrow = true;
    int result = 1;
    EXPECT_EQ(outputOf([&] { result = createFolder("any"); }), "Exception in createFolder(): no room");
    EXPECT_EQ(result, 0);
}

TEST_F(LogTest, FolderPathCreatesOneLevelPerCall)
{
    const std::string path = folder_.string() + "/a/b/";
    EXPECT_EQ(createFolderPath(path), -1);
    EXPECT_TRUE(std::filesystem::exists(folder_ / "a"));
    EXPECT_FALSE(std::filesystem::exists(folder_ / "a" / "b"));
    EXPECT_EQ(createFolderPath(path), -1);
    EXPECT_TRUE(std::filesystem::exists(folder_ / "a" / "b"));
    EXPECT_EQ(createFolderPath(path), 0);
}

TEST_F(LogTest, FolderPathSaysWhenItCreatedTheLastLevel)
{
    EXPECT_NE(createFolderPath(folder_.string() + "/last"), 0);
    EXPECT_EQ(createFolderPath(folder_.string() + "/last"), 0);
}

TEST_F(LogTest, OnlySlashesSeparateLevels)
{
    if (std::filesystem::path::preferred_separator == '\\')
        std::filesystem::create_directory(folder_ / "c"); // The system's own rule there, not the log's.
    EXPECT_NE(createFolderPath(folder_.string() + "/c\\d"), -1);
    EXPECT_TRUE(std::filesystem::exists(folder_ / "c\\d"));
}

TEST_F(LogTest, MissingTemporaryFolderIsToldAndTheLineIsDropped)
{
    fakePlatform.temporaryFolder += "missing/";
    EXPECT_EQ(outputOf([] { writeLogLine(LOG_ERROR, "x"); }), "\nUnable to getLogBaseFolderPath\nUnable to write log");
}

TEST_F(LogTest, LostLinesAreNotToldWhereOutputIsLeftAlone)
{
    tellsOfLostLines = false;
    fakePlatform.temporaryFolder += "missing/";
    EXPECT_EQ(outputOf([] { writeLogLine(LOG_ERROR, "x"); }), "");
    fakePlatform.foldersThrow = true;
    EXPECT_EQ(outputOf([] { writeLogLine(LOG_ERROR, "x"); }), "");
    tellsOfLostLines = true;
}

TEST_F(LogTest, FailingTemporaryFolderIsToldAndTheLineIsDropped)
{
    fakePlatform.foldersThrow = true;
    EXPECT_EQ(outputOf([] { writeLogLine(LOG_ERROR, "x"); }).substr(0, 77),
              "Exception in getLogBaseFolderPath(): no folder\nUnable to getLogBaseFolderPath");
}

TEST_F(LogTest, NoFailureReachesTheCaller)
{
    fakePlatform.logLevel = std::string(1, '\3');
    fakePlatform.processThrows = true;
    EXPECT_NO_THROW(logDebug("x"));
    EXPECT_NO_THROW(logError("x"));
}

TEST_F(LogTest, LineThatIsNotWantedCostsOneReadOfTheLevel)
{
    fakePlatform.logLevel = std::string(1, '\0');
    logError("x");
    EXPECT_EQ(fakePlatform.levelReads, 1);
    EXPECT_EQ(fakePlatform.folderCalls, 0);
}

TEST_F(LogTest, LogLockIsRespectedWhenItIsSet)
{
    std::mutex lock;
    logLock = &lock;
    std::unique_lock held(lock);
    std::atomic<bool> written = false;
    std::thread writer([&] {
        writeLogLine(LOG_ERROR, "x");
        written = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(written);
    held.unlock();
    writer.join();
    logLock = nullptr;
    EXPECT_TRUE(written);
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
}

TEST_F(LogTest, LogLockIsReleasedWhenTheFileCannotBeOpened)
{
    std::filesystem::create_directory(folder_ / "Brenmoor" / "app" / "2026-11-15.LOG");
    std::mutex lock;
    logLock = &lock;
    EXPECT_EQ(outputOf([] { writeLogLine(LOG_ERROR, "x"); }), "\nUnable to write log");
    logLock = nullptr;
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
}

TEST_F(LogTest, PathIsCutAtItsCapacity)
{
    // A temporary folder of 1010 characters leaves room for "/Brenmoor/", three letters of the name, and nothing else.
    fakePlatform.temporaryFolder = std::string(1010, 'd');
    fakePlatform.processFileName = "abcdef";
    fakePlatform.foldersAreThere = true; // Not every system has paths of this length.
    outputOf([] { writeLogLine(LOG_ERROR, "x"); });
    EXPECT_EQ(fakePlatform.lastFolder, fakePlatform.temporaryFolder + "/Brenmoor/abc");
}

} // namespace
