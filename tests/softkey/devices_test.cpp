// Instances, the device list, and what a device says of itself.
#include "test_system.h"
#include "world.h"

#include <cstdlib>
#include <thread>

namespace softkey::test
{
namespace
{

using Names = std::vector<std::string>;

class DevicesTest : public SoftkeyTest
{
};

TEST_F(DevicesTest, ListNamesPluggedKeysInOrder)
{
    createKey(cheapSettings("B2"));
    createKey(cheapSettings("A1"));
    EXPECT_EQ(devices(), (Names{"A1", "B2", "KEY1"}));
}

TEST_F(DevicesTest, UnpluggingAndPluggingByAnotherProcessIsSeenByTheNextCall)
{
    EXPECT_EQ(devices(), Names{SERIAL});
    otherProcess()->file().setPlugged(false);
    EXPECT_EQ(devices(), Names{});
    EXPECT_EQ(velkor_getTokenInfo(SERIAL, instance).serialNumber, "");
    otherProcess()->file().setPlugged(true);
    EXPECT_EQ(devices(), Names{SERIAL});
    EXPECT_EQ(velkor_getTokenInfo(SERIAL, instance).serialNumber, SERIAL);
}

TEST_F(DevicesTest, TokenInformationIsWhatWasChosen)
{
    KeySettings settings = cheapSettings("FULL");
    settings.label = "Label of mine";
    settings.model = "VK2 FIPS";
    settings.firmwareVersion = "1.9.9";
    settings.userPin = {true, 7, 2};
    settings.soPin = {false, 9, 0};
    createKey(settings);
    const TokenInfo info = velkor_getTokenInfo("FULL", instance);
    EXPECT_EQ(info.serialNumber, "FULL");
    EXPECT_EQ(info.manufacturer, "Brenmoor");
    EXPECT_EQ(info.label, "Label of mine");
    EXPECT_EQ(info.model, "VK2 FIPS");
    EXPECT_EQ(info.firmwareVersion, "1.9.9");
    EXPECT_EQ(info.pinChanged, 1);
    EXPECT_EQ(info.pinTriesMax, 7);
    EXPECT_EQ(info.pinTriesLeft, 2);
    EXPECT_EQ(info.soPinChanged, 0);
    EXPECT_EQ(info.soPinTriesMax, 9);
    EXPECT_EQ(info.soPinTriesLeft, 0);
    EXPECT_EQ(info.devicePath, keyPath("FULL").string());
}

TEST_F(DevicesTest, DefaultsLetEveryMechanismWork)
{
    const TokenInfo info = velkor_getTokenInfo(SERIAL, instance);
    EXPECT_EQ(info.model.at(2), '1');
    EXPECT_GE(info.firmwareVersion, "2.0.0");
    EXPECT_EQ(info.pinChanged, 0);
}

TEST_F(DevicesTest, CountsFollowTheContents)
{
    generate(KEY_KIND_EC_P256);
    generate(KEY_KIND_EC_P256);
    EXPECT_EQ(velkor_getTokenInfo(SERIAL, instance).keyPairCount, 2);
    EXPECT_EQ(velkor_getTokenInfo(SERIAL, instance).certificateCount, 0);
}

TEST_F(DevicesTest, SettingsOutOfRangeAreRefused)
{
    const auto refused = [&](auto change) {
        KeySettings settings = cheapSettings("X");
        change(settings);
        EXPECT_THROW(createKey(settings), Refusal);
        EXPECT_FALSE(std::filesystem::exists(keyPath("X")));
    };
    refused([](KeySettings& s) { s.serialNumber = "12345678901234567"; });
    refused([](KeySettings& s) { s.serialNumber = "../up"; });
    refused([](KeySettings& s) { s.serialNumber = ".hidden"; });
    refused([](KeySettings& s) { s.serialNumber = ""; });
    refused([](KeySettings& s) { s.model = "sixteen letters!"; });
    refused([](KeySettings& s) { s.label = std::string(64, 'x'); });
    refused([](KeySettings& s) { s.label = "two\nlines"; });
    refused([](KeySettings& s) { s.userPin.triesMax = 0; });
    refused([](KeySettings& s) { s.userPin.triesLeft = 6; });
    refused([](KeySettings& s) { s.soPin.triesMax = 256; });
    refused([](KeySettings& s) { s.cost.logN = 40; });
    EXPECT_THROW(createKeyFile(home.path(), cheapSettings("X"), "123", SO_PIN), Refusal);
}

TEST_F(DevicesTest, AnExistingKeyIsNeverReplaced)
{
    const Data before = readFile(keyPath());
    try {
        createKey(cheapSettings(SERIAL));
        FAIL() << "the key was replaced";
    } catch (const Refusal& refusal) {
        EXPECT_EQ(refusal.status(), SoftkeyStatus::AlreadyExists);
    }
    EXPECT_EQ(readFile(keyPath()), before);
    for (const auto& file : std::filesystem::directory_iterator(home.path()))
        EXPECT_TRUE(file.path() == keyPath() || file.path().filename() == ".lock") << file.path() << " was left behind";
}

TEST_F(DevicesTest, SeveralInstancesShareTheKeysAndAReleasedOneIsRefused)
{
    void* second = nullptr;
    velkor_createInstance(&second);
    ASSERT_NE(second, nullptr);
    velkor_releaseInstance(second);
    EXPECT_EQ(velkor_getConnectedDeviceList(false, second), Names{});
    EXPECT_EQ(velkor_initDevice(SERIAL, true, second), code(SoftkeyStatus::BadInstance));
    EXPECT_EQ(devices(), Names{SERIAL});
    velkor_releaseInstance(second); // Twice is harmless.
    velkor_createInstance(nullptr);
    EXPECT_EQ(devices(), Names{SERIAL});
}

TEST_F(DevicesTest, TheSixtyFifthInstanceIsNull)
{
    std::vector<void*> instances(63);
    for (void*& another : instances) {
        velkor_createInstance(&another);
        EXPECT_NE(another, nullptr);
    }
    void* tooMany = this;
    velkor_createInstance(&tooMany);
    EXPECT_EQ(tooMany, nullptr);
    velkor_releaseInstance(instances.back());
    velkor_createInstance(&instances.back());
    EXPECT_NE(instances.back(), nullptr);
    for (void* another : instances)
        velkor_releaseInstance(another);
    EXPECT_EQ(devices(), Names{SERIAL});
}

TEST_F(DevicesTest, InitDeviceReadsAgainAndRefusesWhatIsNotThere)
{
    EXPECT_EQ(velkor_initDevice(SERIAL, true, instance), 0);
    EXPECT_EQ(velkor_initDevice(SERIAL, false, instance), 0);
    EXPECT_EQ(velkor_initDevice("NONE", true, instance), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(velkor_initDevice("../KEY1", true, instance), STATUS_DEVICE_REMOVED);
    otherProcess()->file().setPlugged(false);
    EXPECT_EQ(velkor_initDevice(SERIAL, true, instance), STATUS_DEVICE_REMOVED);
}

} // namespace
} // namespace softkey::test
