// Keys that are bound to their machine, and the turns that checks of PINs take.
#include "world.h"

#include "platform/file_lock.h"
#include "sleeps.h"
#include "test_system.h"

#include <thread>

namespace softkey::test
{
namespace
{

class MachineTest : public SoftkeyTest
{
protected:
    void SetUp() override
    {
        REQUIRE_PATHS_IN_EXCEPTIONS();
        test_system::setEnvironment("VELKOR_SOFTKEY_MACHINE_SECRET", secret.string());
        KeySettings settings = cheapSettings("BOUND");
        settings.boundToMachine = true;
        createKey(settings);
    }
    ~MachineTest() override { test_system::removeEnvironment("VELKOR_SOFTKEY_MACHINE_SECRET"); }

    int check(const char* pin, int& tries) const
    {
        return velkor_validatePassword("BOUND", pin, USER_TYPE_USER, &tries, instance);
    }
    int addKey() const
    {
        VelkorKeyPair request;
        request.keyKind = KEY_KIND_EC_P256;
        return velkor_generateKeyPair("BOUND", PIN, &request, instance);
    }
    /// What the key answers without its secret; no try is spent.
    void expectOtherMachine() const
    {
        EXPECT_EQ(addKey(), code(SoftkeyStatus::OtherMachine));
        int tries = 0;
        EXPECT_EQ(check(PIN, tries), STATUS_CHECK_NOT_POSSIBLE);
        EXPECT_EQ(check(WRONG_PIN, tries), STATUS_CHECK_NOT_POSSIBLE);
        EXPECT_EQ(otherProcess("BOUND")->contents()->userPin.triesLeft, 5);
    }

    std::filesystem::path secret = scratch.path() / "state" / "secret";
};

TEST_F(MachineTest, ABoundKeyWorksWhereItsSecretIs)
{
    EXPECT_TRUE(std::filesystem::exists(secret));
    EXPECT_EQ(addKey(), 0);
    int tries = 0;
    EXPECT_EQ(check(WRONG_PIN, tries), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(tries, 4);
    otherProcess("BOUND")->changePin(PinRole::User, PIN, "another-pin");
    EXPECT_FALSE(otherProcess("BOUND")->contents()->userPin.machine.empty());
    otherProcess("BOUND")->resetUserPin(SO_PIN, PIN);
    EXPECT_EQ(addKey(), 0);
}

TEST_F(MachineTest, WithoutTheSecretNothingOpensAndNoTryIsSpent)
{
    std::filesystem::rename(secret, scratch.path() / "kept");
    expectOtherMachine();
    std::filesystem::rename(scratch.path() / "kept", secret);
    EXPECT_EQ(addKey(), 0);
}

TEST_F(MachineTest, AnotherMachinesSecretOpensNothing)
{
    std::filesystem::rename(secret, scratch.path() / "kept");
    KeySettings settings = cheapSettings("OTHER"); // Makes a secret anew.
    settings.boundToMachine = true;
    createKey(settings);
    expectOtherMachine();
}

TEST_F(MachineTest, AllKeysOfAMachineShareItsSecret)
{
    const Data before = readFile(secret);
    KeySettings settings = cheapSettings("SECOND");
    settings.boundToMachine = true;
    createKey(settings);
    EXPECT_EQ(readFile(secret), before);
    EXPECT_EQ(addKey(), 0);
}

TEST_F(MachineTest, ASecretThatCannotBeMadeMakesNoKey)
{
    test_system::setEnvironment("VELKOR_SOFTKEY_MACHINE_SECRET", scratch.file("file", bytesOf("x")) + "/secret");
    KeySettings settings = cheapSettings("NONE");
    settings.boundToMachine = true;
    EXPECT_THROW(createKeyFile(home.path(), settings, PIN, SO_PIN), Refusal);
    EXPECT_FALSE(std::filesystem::exists(keyPath("NONE")));
}

TEST_F(MachineTest, ASecretThatLiesWithTheKeysBindsNone)
{
    KeySettings settings = cheapSettings("NONE");
    settings.boundToMachine = true;
    for (const std::filesystem::path& place : {home.path(), home.path() / "none" / ".."}) {
        test_system::setEnvironment("VELKOR_SOFTKEY_MACHINE_SECRET", (place / "secret").string());
        try {
            createKeyFile(home.path(), settings, PIN, SO_PIN);
            ADD_FAILURE() << place;
        } catch (const Refusal& refusal) {
            EXPECT_EQ(refusal.status(), SoftkeyStatus::BadArgument);
            EXPECT_NE(std::string(refusal.what()).find("keys' folder"), std::string::npos) << refusal.what();
        }
        EXPECT_FALSE(std::filesystem::exists(home.path() / "secret"));
        EXPECT_FALSE(std::filesystem::exists(keyPath("NONE")));
    }
}

#ifndef _WIN32
TEST_F(MachineTest, TheSecretIsItsUsersAloneOrOfNoUse)
{
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(secret).permissions(), perms::owner_read | perms::owner_write);
    EXPECT_EQ(readFile(secret).size(), 32U);
    std::filesystem::permissions(secret, perms::group_read, std::filesystem::perm_options::add);
    expectOtherMachine();
    std::filesystem::permissions(secret, perms::group_read, std::filesystem::perm_options::remove);
    EXPECT_EQ(addKey(), 0);
}
#endif

class DerivationSlotTest : public SoftkeyTest
{
protected:
    DerivationSlotTest()
    {
        for (const char* serialNumber : {"COSTLY", "OTHER"}) {
            KeySettings settings = cheapSettings(serialNumber);
            settings.cost.logN = 15;
            createKey(settings);
        }
    }
    int check(const char* serialNumber = "COSTLY") const
    {
        int tries = 0;
        return velkor_validatePassword(serialNumber, PIN, USER_TYPE_USER, &tries, instance);
    }
    std::vector<FileLock> holdAllSlots() const
    {
        std::vector<FileLock> held;
        for (unsigned number = 0; number < 8; ++number)
            held.emplace_back(derivationSlotOfKey(keyPath("COSTLY"), number), Patience());
        return held;
    }
};

#ifndef _WIN32 // Whose runtime sleeps in a way of its own.
TEST_F(DerivationSlotTest, ACostlyCheckWaitsForAFreeSlot)
{
    std::optional<std::vector<FileLock>> held = holdAllSlots();
    int pauses = 0;
    test_system::takeOverSleeps([&](std::chrono::milliseconds) {
        if (++pauses == 3)
            held.reset();
        return true;
    });
    EXPECT_EQ(check(), 0);
    test_system::takeOverSleeps({});
    EXPECT_EQ(pauses, 3);
}

TEST_F(DerivationSlotTest, AKeyWaitsForNoSlotOfAnotherOne)
{
    const std::vector<FileLock> held = holdAllSlots();
    int pauses = 0;
    test_system::takeOverSleeps([&](std::chrono::milliseconds) {
        ++pauses;
        return true;
    });
    EXPECT_EQ(check("OTHER"), 0);
    test_system::takeOverSleeps({});
    EXPECT_EQ(pauses, 0);
}
#endif

TEST_F(DerivationSlotTest, TheSlotsGoWithTheirKey)
{
    EXPECT_NO_THROW(otherProcess("COSTLY")->login(PinRole::User, PIN));
    const auto slots = [&] {
        return std::ranges::count_if(std::filesystem::directory_iterator(home.path()), [](const auto& file) {
            return file.path().filename().string().starts_with(".COSTLY.derive");
        });
    };
    EXPECT_GT(slots(), 0);
    removeKeyFile(keyPath("COSTLY"));
    EXPECT_EQ(slots(), 0);
}

TEST_F(DerivationSlotTest, SlotsThatNobodyGivesBackRefuseNoPin)
{
    const std::vector<FileLock> held = holdAllSlots();
    const int usual = Patience::limit.exchange(50);
    EXPECT_NO_THROW(otherProcess("COSTLY")->login(PinRole::User, PIN));
    Patience::limit = usual;
}

TEST_F(DerivationSlotTest, ACheapCheckNeedsNoSlot)
{
    const std::vector<FileLock> held = holdAllSlots();
    int tries = 0;
    EXPECT_EQ(velkor_validatePassword(SERIAL, PIN, USER_TYPE_USER, &tries, instance), 0);
}

} // namespace
} // namespace softkey::test
