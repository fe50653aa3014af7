// What is the software key's own way on Windows: its default folder, files in use, locks between processes.
#include "tool_fixture.h"

#include "platform/default_folder.h"
#include "platform/narrow_paths.h"
#include "store/schema.h"

#include <array>
#include <cstdint>
#include <malloc.h>
#include <process.h>
#include <thread>

namespace softkey::test
{
namespace
{

class WindowsTest : public ToolTest
{
};

TEST_F(WindowsTest, TheDefaultFolderIsInTheLocalApplicationData)
{
    velkor_releaseInstance(instance);
    test_system::removeEnvironment("VELKOR_SOFTKEY_HOME");
    test_system::setEnvironment("LOCALAPPDATA", scratch.path().string());
    EXPECT_EQ(defaultKeysFolder(), scratch.path() / "velkor-softkey");
    velkor_createInstance(&instance);
    EXPECT_EQ(devices(), std::vector<std::string>{});
    EXPECT_TRUE(std::filesystem::is_directory(scratch.path() / "velkor-softkey"));
    test_system::removeEnvironment("LOCALAPPDATA");
    EXPECT_EQ(defaultKeysFolder(), std::filesystem::path());
}

TEST_F(WindowsTest, AKeyOfAnyNameOfTheFolderIsFound)
{
    velkor_releaseInstance(instance);
    const std::filesystem::path folder = scratch.path() / L"Schl\u00fcssel \u9375";
    ASSERT_TRUE(ensureFolder(folder));
    createKeyFile(folder, cheapSettings("UMLAUT"), PIN, SO_PIN);
    KeysFolder keys;
    keys.open(folder);
    EXPECT_EQ(keys.pluggedKeys(true), std::vector<std::string>{"UMLAUT"});
    velkor_createInstance(&instance);
}

TEST_F(WindowsTest, RemovingAKeyInUseIsRefusedAndLeavesIt)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    const Data before = readFile(keyPath());
    expectFailure("remove KEY1", 2);
    expectFailure("remove KEY1 --yes", 9);
    EXPECT_EQ(readFile(keyPath()), before);
    EXPECT_EQ(devices(true), std::vector<std::string>{SERIAL});
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
    velkor_releaseInstance(instance);
    EXPECT_EQ(tool("remove KEY1 --yes").exitCode, 0);
    EXPECT_FALSE(std::filesystem::exists(keyPath()));
    EXPECT_FALSE(std::filesystem::exists(keyPath().string() + "-journal"));
    velkor_createInstance(&instance);
    EXPECT_EQ(devices(), std::vector<std::string>{});
}

TEST_F(WindowsTest, RightPinsOfManyProcessesSpendNoTry)
{
    KeySettings settings = cheapSettings("TWO");
    settings.userPin = {false, 2, 2};
    settings.cost.logN = test_system::isEmulatedArm64() ? 12 : 15; // Long enough for the checks to meet.
    createKey(settings);
    std::array<std::intptr_t, 6> processes{};
    for (std::intptr_t& process : processes)
        process = _spawnl(_P_NOWAIT, softkeyTool().c_str(), "velkor-softkey", "generate", "TWO", "P-256", "--pin-env",
                          "USER_PIN", nullptr);
    for (const std::intptr_t process : processes) {
        int exitCode = -1;
        EXPECT_EQ(_cwait(&exitCode, process, 0), process);
        EXPECT_EQ(exitCode, 0);
    }
    EXPECT_EQ(keyPairs("TWO").size(), processes.size());
    EXPECT_EQ(otherProcess("TWO")->contents()->userPin.triesLeft, 2);
}

TEST_F(WindowsTest, AFileOfAnotherLayoutIsBroughtUpToDate)
{
    Database(keyPath("OLD1"), Database::Mode::Create).execute(LAYOUT_1);
    const std::vector<VelkorKeyPair> keys = keyPairs("OLD1");
    ASSERT_EQ(keys.size(), 1U);
    EXPECT_STREQ(keys[0].label, "old pair");
    Database other(keyPath("OLD1"), Database::Mode::Existing);
    EXPECT_EQ(other.number("PRAGMA user_version"), SCHEMA_VERSION);
}

TEST_F(WindowsTest, FilesOfANewerLayoutAndForeignOnesAreRefused)
{
    createKey(cheapSettings("NEWER"));
    Database(keyPath("NEWER"), Database::Mode::Existing)
        .execute(("PRAGMA user_version = " + std::to_string(SCHEMA_VERSION + 1)).c_str());
    writeFile(keyPath("JUNK"), bytesOf("junk"));
    std::filesystem::copy_file(keyPath(), keyPath("COPY"));
    EXPECT_EQ(velkor_initDevice("NEWER", true, instance), code(SoftkeyStatus::FileNewer));
    EXPECT_EQ(velkor_initDevice("JUNK", true, instance), code(SoftkeyStatus::FileForeign));
    EXPECT_EQ(velkor_initDevice("COPY", true, instance), code(SoftkeyStatus::FileForeign));
    EXPECT_EQ(devices(true), std::vector<std::string>{SERIAL});
}

TEST_F(WindowsTest, CertificatesAreReadFromAFolderInTheCodePage)
{
    const std::filesystem::path folder = scratch.path() / L"Gr\u00fcn";
    std::filesystem::create_directory(folder);
    const Data der = certificateNamed("Root");
    writeFile(folder / L"\u00dcber.cer", der);
    const std::string narrow = narrowFromPath(folder);
    ASSERT_EQ(narrow.find('?'), std::string::npos) << "the code page has no umlauts";
    for (const std::string& path : {narrow, narrow + "\\", narrow + "/"}) {
        const auto found = velkor_getFilesWithExtensionsAndConvertDER(path.c_str(), {".cer"}, false, instance);
        ASSERT_EQ(found.size(), 1U) << path;
        EXPECT_EQ(found[0].first, narrowFromPath(L"\u00dcber.cer"));
        EXPECT_EQ(found[0].second, der);
    }
}

/// Bytes that are allocated from the heap of the C runtime, which library and test share.
std::size_t allocated()
{
    _HEAPINFO entry{};
    std::size_t size = 0;
    while (_heapwalk(&entry) == _HEAPOK)
        size += entry._useflag == _USEDENTRY ? entry._size : 0;
    return size;
}

TEST_F(WindowsTest, ThreadsThatEndLeaveNothingBehind)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    const auto useFromThreads = [&](int count) {
        for (int i = 0; i < count; ++i)
            std::thread([&] {
                EXPECT_EQ(trySign(key, Data(32, 1)), 0);
                EXPECT_EQ(keyPairs().size(), 1U);
            }).join();
    };
    useFromThreads(10);
    const std::size_t before = allocated();
    useFromThreads(100);
    EXPECT_LT(allocated(), before + 10'000);
}

TEST_F(WindowsTest, AFileKeptLockedIsBusyAndNotChanged)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    Database other(keyPath(), Database::Mode::Existing);
    other.execute("BEGIN EXCLUSIVE");
    EXPECT_EQ(velkor_deleteKeyPair(SERIAL, key.keyIdentifier, PIN, false, instance), code(SoftkeyStatus::StorageBusy));
    other.execute("ROLLBACK");
    EXPECT_EQ(keyPairs().size(), 1U);
    EXPECT_EQ(velkor_deleteKeyPair(SERIAL, key.keyIdentifier, PIN, false, instance), 0);
}

TEST_F(WindowsTest, DraftsOfKilledProcessesAreSwept)
{
    const std::filesystem::path draft = home.path() / ".GONE.SK0123456789.draft";
    writeFile(draft, Data(100, 1));
    createKey(cheapSettings("NEW"));
    EXPECT_FALSE(std::filesystem::exists(draft));
    EXPECT_TRUE(std::filesystem::exists(keyPath("NEW")));
}

TEST_F(WindowsTest, LoadingAndUnloadingWhileAThreadHoldsAListDoesNotCrash)
{
    generate(KEY_KIND_EC_P256);
    generate(KEY_KIND_EC_P256);
    const std::filesystem::path here = test_system::program().parent_path();
    const std::string library = (here / "VelkorDSCLibrary.dll").string();
    const Outcome outcome = run((here / "softkey_loader.exe").string() + " " + library + " KEY1");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
}

} // namespace
} // namespace softkey::test
