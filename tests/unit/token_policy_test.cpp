#include "mechanisms/token_policy.h"

#include <gtest/gtest.h>

using namespace velkor;

namespace
{

TEST(TokenPolicy, OnlyAOneInThirdPlaceOfTheModelEscapesFips)
{
    const std::pair<const char*, bool> models[] = {
        {"", true},      {"A", true},    {"AB", true},   {"11", true},     {"AB0", true}, {"AB2", true},
        {"AB 1", true},  {"1AB", true},  {"A1B", true},  {"ABI", true},    {"110", true}, {"AB1", false},
        {"AB1x", false}, {"111", false}, {"  1", false}, {"AB1.0", false},
    };
    for (const auto& [model, isFips] : models) {
        TokenInfo token;
        token.model = model;
        EXPECT_EQ(isFipsToken(token), isFips) << '"' << model << '"';
    }
}

TEST(TokenPolicy, NoOtherTextDecidesOnFips)
{
    TokenInfo token;
    token.serialNumber = token.manufacturer = token.label = token.productName = token.firmwareVersion =
        token.hardwareVersion = token.readerName = token.devicePath = "AB1";
    EXPECT_TRUE(isFipsToken(token));
}

TEST(TokenPolicy, FirmwareIsRecentFromTwo)
{
    const std::pair<const char*, bool> versions[] = {
        {"", false},          {"1.9", false},  {"1.9.12", false}, {"-1", false},     {"2.0.-1", false},
        {"2", true},          {"2.0", true},   {"2.0.0", true},   {"2.0.0.0", true}, {" 2.0.0", true},
        {"2.0.0-beta", true}, {"2.0.1", true}, {"10.0.0", true},
    };
    for (const auto& [version, isRecent] : versions) {
        TokenInfo token;
        token.firmwareVersion = version;
        EXPECT_EQ(isFirmwareRecent(token), isRecent) << '"' << version << '"';
    }
}

TEST(TokenPolicy, NoOtherTextDecidesOnFirmware)
{
    TokenInfo token;
    token.serialNumber = token.manufacturer = token.label = token.productName = token.model = token.hardwareVersion =
        token.readerName = token.devicePath = "2.0.0";
    EXPECT_FALSE(isFirmwareRecent(token));
}

} // namespace
