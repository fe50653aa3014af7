// Where the log is when nobody says so, that it is the user's alone, and that nothing which others plant is written to.
#include <cstdio>
#include <functional>
#include <string>

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log_fixture.h"

namespace
{

const std::string NO_FOLDER = "\nUnable to getLogBaseFolderPath";
const std::string NO_FILE = "\nUnable to write log";

/// Users that the machine does not have, others in every process: tests run side by side.
const uid_t ONE_USER = 1000000000 + 2 * static_cast<uid_t>(getpid());
const uid_t OTHER_USER = ONE_USER + 1;

std::filesystem::path ownFolder(uid_t user)
{
    return "/tmp/velkor-" + std::to_string(user);
}

mode_t modeOf(const std::filesystem::path& path)
{
    struct stat status {
    };
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

/// What `work` writes to standard output in a process of its own.
std::string outputOfChild(const std::function<void()>& work)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    std::fflush(stdout); // Or the child would write it again.
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        work();
        std::cout << std::flush;
        _exit(0);
    }
    close(ends[1]);
    std::string output;
    for (char byte; read(ends[0], &byte, 1) == 1;)
        output += byte;
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return output;
}

class LogFolderTest : public LogLinesTest
{
protected:
    void SetUp() override
    {
        LogLinesTest::SetUp();
        logLevel_->remove();
    }

    /// The one file of the log below a base folder.
    std::filesystem::path fileBelow(const std::filesystem::path& base) const
    {
        const std::filesystem::directory_iterator files(base / "Brenmoor" / test_system::loggedProgramName());
        return files == std::filesystem::directory_iterator() ? "" : files->path();
    }

    static std::string textOf(const std::filesystem::path& file)
    {
        std::ifstream stream(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }

    /// Today's file of the log, as if it had never been.
    std::filesystem::path removedFile() const
    {
        writeBothKinds();
        const std::filesystem::path file = logFiles().front();
        std::filesystem::remove(file);
        return file;
    }
};

/// Tests that act as other users, whom the machine does not know.
class LogOfUsersTest : public LogFolderTest
{
protected:
    void SetUp() override
    {
        LogFolderTest::SetUp();
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can act as another user";
        removeFolders();
    }

    void TearDown() override
    {
        removeFolders();
        LogFolderTest::TearDown();
    }

    static void removeFolders()
    {
        std::filesystem::remove_all(ownFolder(ONE_USER));
        std::filesystem::remove_all(ownFolder(OTHER_USER));
    }

    /// What a user's program that logs three errors writes to standard output.
    static std::string outputOf(uid_t user, const std::string& runtimeFolder = "")
    {
        return outputOfChild([user, runtimeFolder] {
            if (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0)
                _exit(1);
            test_system::removeEnvironment("TMPDIR");
            test_system::setEnvironment("XDG_RUNTIME_DIR", runtimeFolder);
            for (int line = 0; line < 3; ++line)
                writeBothKinds();
        });
    }

    static void expectOneLineBelow(const std::filesystem::path& base, const std::filesystem::path& file)
    {
        EXPECT_NE(textOf(file).find("ERROR ::=>C_GetFunctionList: ppFunctionList is NULL\n"), std::string::npos);
        EXPECT_EQ(modeOf(base), 0700u);
        EXPECT_EQ(modeOf(base / "Brenmoor"), 0700u);
        EXPECT_EQ(modeOf(file.parent_path()), 0700u);
        EXPECT_EQ(modeOf(file), 0600u);
    }

    std::filesystem::path runtimeFolder(uid_t owner, mode_t mode) const
    {
        const std::filesystem::path folder = "/tmp/velkor-log-test-" + std::to_string(getpid());
        mkdir(folder.c_str(), mode);
        EXPECT_EQ(chmod(folder.c_str(), mode), 0);
        EXPECT_EQ(chown(folder.c_str(), owner, owner), 0);
        return folder;
    }
};

TEST_F(LogOfUsersTest, IsInAFolderOfTheUsersOwn)
{
    EXPECT_EQ(outputOf(ONE_USER), NO_FILE + NO_FILE);
    expectOneLineBelow(ownFolder(ONE_USER), fileBelow(ownFolder(ONE_USER)));
}

TEST_F(LogOfUsersTest, IsNotInAnotherUsersWay)
{
    EXPECT_EQ(outputOf(ONE_USER), NO_FILE + NO_FILE);
    EXPECT_EQ(outputOf(OTHER_USER), NO_FILE + NO_FILE);
    expectOneLineBelow(ownFolder(OTHER_USER), fileBelow(ownFolder(OTHER_USER)));
}

TEST_F(LogOfUsersTest, IsInTheRuntimeFolderWhenThatIsTheUsersAlone)
{
    const std::filesystem::path folder = runtimeFolder(ONE_USER, 0700);
    EXPECT_EQ(outputOf(ONE_USER, folder), NO_FILE + NO_FILE);
    expectOneLineBelow(folder, fileBelow(folder));
    EXPECT_FALSE(std::filesystem::exists(ownFolder(ONE_USER)));
    std::filesystem::remove_all(folder);
}

TEST_F(LogOfUsersTest, PassesByARuntimeFolderThatOthersMayEnter)
{
    const std::filesystem::path folder = runtimeFolder(ONE_USER, 0755);
    EXPECT_EQ(outputOf(ONE_USER, folder), NO_FILE + NO_FILE);
    EXPECT_TRUE(std::filesystem::is_empty(folder));
    EXPECT_TRUE(std::filesystem::exists(fileBelow(ownFolder(ONE_USER))));
    std::filesystem::remove_all(folder);
}

TEST_F(LogOfUsersTest, PassesByTheRuntimeFolderOfAnotherUser)
{
    const std::filesystem::path folder = runtimeFolder(OTHER_USER, 0700);
    EXPECT_EQ(outputOf(ONE_USER, folder), NO_FILE + NO_FILE);
    EXPECT_TRUE(std::filesystem::is_empty(folder));
    std::filesystem::remove_all(folder);
}

TEST_F(LogOfUsersTest, IsNotWrittenIntoAPlantedFolder)
{
    ASSERT_EQ(mkdir(ownFolder(ONE_USER).c_str(), 0777), 0);
    ASSERT_EQ(chmod(ownFolder(ONE_USER).c_str(), 0777), 0);
    EXPECT_EQ(outputOf(ONE_USER), NO_FOLDER + NO_FILE + NO_FOLDER + NO_FILE + NO_FOLDER + NO_FILE);
    EXPECT_TRUE(std::filesystem::is_empty(ownFolder(ONE_USER)));
}

TEST_F(LogOfUsersTest, IsNotWrittenThroughAPlantedLinkToAFolder)
{
    const std::filesystem::path target = runtimeFolder(ONE_USER, 0700);
    std::filesystem::create_directory_symlink(target, ownFolder(ONE_USER));
    EXPECT_EQ(outputOf(ONE_USER), NO_FOLDER + NO_FILE + NO_FOLDER + NO_FILE + NO_FOLDER + NO_FILE);
    EXPECT_TRUE(std::filesystem::is_empty(target));
    std::filesystem::remove_all(target);
}

TEST_F(LogFolderTest, RelativeTemporaryFolderCountsAsNone)
{
    const std::filesystem::path runtime = folder_ / "runtime";
    std::filesystem::create_directories(runtime / "Brenmoor" / test_system::loggedProgramName());
    ASSERT_EQ(chmod(runtime.c_str(), 0700), 0);
    test_system::setEnvironment("TMPDIR", ".");
    test_system::setEnvironment("XDG_RUNTIME_DIR", runtime);
    writeBothKinds();
    test_system::removeEnvironment("XDG_RUNTIME_DIR");
    EXPECT_TRUE(std::filesystem::exists(fileBelow(runtime)));
    EXPECT_FALSE(std::filesystem::exists("Brenmoor"));
}

TEST_F(LogFolderTest, LinkInTheFilesPlaceIsNotFollowed)
{
    const std::filesystem::path victim = folder_ / "victim";
    std::ofstream(victim) << "mine";
    std::filesystem::create_symlink(victim, removedFile());
    EXPECT_EQ(outputOfChild(writeBothKinds), NO_FILE);
    EXPECT_EQ(textOf(victim), "mine");
}

TEST_F(LogFolderTest, PipeInTheFilesPlaceDoesNotBlock)
{
    const std::filesystem::path pipe = removedFile();
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(outputOfChild(writeBothKinds), NO_FILE);
    const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(outputOfChild(writeBothKinds), NO_FILE);
    char byte = 0;
    EXPECT_LE(read(reader, &byte, 1), 0);
    close(reader);
}

TEST_F(LogFolderTest, FileOfAnotherUserIsNotWrittenTo)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    const std::filesystem::path file = removedFile();
    std::ofstream(file) << "";
    std::filesystem::permissions(file, std::filesystem::perms::all);
    ASSERT_EQ(chown(file.c_str(), ONE_USER, ONE_USER), 0);
    EXPECT_EQ(outputOfChild(writeBothKinds), NO_FILE);
    EXPECT_EQ(std::filesystem::file_size(file), 0u);
}

TEST_F(LogFolderTest, FileOfFourGibibytesGrows)
{
    constexpr std::uintmax_t SIZE = std::uintmax_t{1} << 32;
    const std::filesystem::path file = removedFile();
    writeBothKinds();
    const std::uintmax_t line = std::filesystem::file_size(file);
    std::filesystem::resize_file(file, SIZE);
    writeBothKinds();
    EXPECT_EQ(std::filesystem::file_size(file), SIZE + line);
    std::filesystem::remove(file);
}

TEST_F(LogFolderTest, FullDiskLosesLinesInSilence)
{
    const std::filesystem::path disk = folder_ / "disk";
    std::filesystem::create_directories(disk);
    const std::string output = outputOfChild([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=16k,mode=700") != 0) {
            std::cout << "no disk";
            return;
        }
        test_system::setTemporaryFolder(disk);
        for (int line = 0; line < 1000; ++line)
            writeBothKinds();
        const std::uintmax_t size = std::filesystem::file_size(fileBelow(disk));
        writeBothKinds();
        std::cout << (std::filesystem::file_size(fileBelow(disk)) == size ? "\nfull" : "\nnot full");
    });
    if (output == "no disk")
        GTEST_SKIP() << "the system does not let this process mount a small disk";
    EXPECT_EQ(output, NO_FILE + NO_FILE + "\nfull");
}

TEST_F(LogFolderTest, ProgramWithTheRightsOfAGroupFindsTheUsersFolder)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a program the rights of another group";
    const std::filesystem::path runtime = folder_ / "runtime";
    std::filesystem::create_directories(runtime / "Brenmoor" / "privileged");
    ASSERT_EQ(chmod(runtime.c_str(), 0700), 0);
    const std::filesystem::path copy = folder_ / "privileged";
    std::filesystem::copy_file(test_system::program(), copy);
    ASSERT_EQ(chown(copy.c_str(), 0, ONE_USER), 0);
    ASSERT_EQ(chmod(copy.c_str(), 02755), 0);
    const pid_t child = fork();
    if (child == 0) {
        test_system::setEnvironment("XDG_RUNTIME_DIR", runtime);
        test_system::setEnvironment("ASAN_OPTIONS", "detect_leaks=0"); // Leaks are not looked for in such programs.
        execl(copy.c_str(), copy.c_str(), "--gtest_filter=PrivilegedProgram.*", nullptr);
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    const std::filesystem::directory_iterator files(runtime / "Brenmoor" / "privileged");
    ASSERT_NE(files, std::filesystem::directory_iterator());
    EXPECT_NE(textOf(files->path()).find("ppFunctionList is NULL"), std::string::npos);
}

// The test above runs this one in a program that the system starts without the caller's TMPDIR.
TEST(PrivilegedProgram, LogsWithoutATemporaryFolder)
{
    if (getgid() == getegid())
        return; // By itself it has nothing to show.
    EXPECT_EQ(std::getenv("TMPDIR"), nullptr);
    EXPECT_EQ(C_GetFunctionList(nullptr), CKR_ARGUMENTS_BAD);
}

} // namespace
