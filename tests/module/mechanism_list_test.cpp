// C_GetMechanismList and C_GetMechanismInfo.
#include <algorithm>
#include <array>
#include <iterator>
#include <optional>

#include "session_fixture.h"

namespace
{

constexpr CK_FLAGS MAY_GENERATE = 0x10000;
constexpr CK_FLAGS MAY_DERIVE = 0x80000;
constexpr CK_FLAGS MAY_DIGEST = 0x400;
constexpr CK_FLAGS MAY_ENCRYPT_DECRYPT = 0x300;
constexpr CK_FLAGS MAY_SIGN_VERIFY = 0x2800;
constexpr CK_FLAGS MAY_VERIFY = 0x2000;

struct Info {
    CK_ULONG minKeySize;
    CK_ULONG maxKeySize;
    CK_FLAGS flags;

    bool operator==(const Info&) const = default;

    friend std::ostream& operator<<(std::ostream& out, const Info& info)
    {
        return out << info.minKeySize << ", " << info.maxKeySize << ", 0x" << std::hex << info.flags << std::dec;
    }
};

struct MechanismRow {
    CK_MECHANISM_TYPE type;
    Info onUnknownSlot;
    Info onKnownSlot;
    std::optional<Info> onFipsToken = std::nullopt; ///< Where it differs; such a mechanism is not listed there.
};

constexpr Info RSA_SIGN = {1024, 4096, MAY_SIGN_VERIFY};
constexpr Info RSA_SIGN_KNOWN = {2048, 4096, MAY_SIGN_VERIFY};
constexpr Info RSA_VERIFY = {1024, 4096, MAY_VERIFY};
constexpr Info EC_SIGN = {256, 521, MAY_SIGN_VERIFY};
constexpr Info EC_VERIFY = {256, 521, MAY_VERIFY};
constexpr Info HASH = {0, 0, MAY_DIGEST};

// In the order in which they are listed.
const MechanismRow ROWS[] = {
    {0x0, {1024, 4096, MAY_GENERATE}, {2048, 4096, MAY_GENERATE}},
    {0x1, {1024, 4096, MAY_ENCRYPT_DECRYPT | MAY_SIGN_VERIFY}, {2048, 4096, MAY_ENCRYPT_DECRYPT | MAY_SIGN_VERIFY}},
    {0x9, {1024, 4096, MAY_ENCRYPT_DECRYPT}, {1024, 4096, MAY_ENCRYPT_DECRYPT}},
    {0xD, RSA_SIGN, RSA_SIGN_KNOWN},
    {0x6, RSA_SIGN, RSA_SIGN_KNOWN, RSA_VERIFY},
    {0x46, RSA_SIGN, RSA_SIGN_KNOWN},
    {0x40, RSA_SIGN, RSA_SIGN_KNOWN},
    {0x41, RSA_SIGN, RSA_SIGN_KNOWN},
    {0x42, RSA_SIGN, RSA_SIGN_KNOWN},
    {0xE, RSA_SIGN, RSA_SIGN_KNOWN, RSA_VERIFY},
    {0x47, RSA_SIGN, RSA_SIGN_KNOWN},
    {0x43, RSA_SIGN, RSA_SIGN_KNOWN},
    {0x44, RSA_SIGN, RSA_SIGN_KNOWN},
    {0x45, RSA_SIGN, RSA_SIGN_KNOWN},
    {0x1040, {256, 521, MAY_GENERATE}, {256, 521, MAY_GENERATE}},
    {0x1050, {256, 521, MAY_DERIVE}, {256, 521, MAY_DERIVE}},
    {0x1041, EC_SIGN, EC_SIGN},
    {0x1042, EC_SIGN, EC_SIGN, EC_VERIFY},
    {0x1043, EC_SIGN, EC_SIGN},
    {0x1044, EC_SIGN, EC_SIGN},
    {0x1045, EC_SIGN, EC_SIGN},
    {0x220, HASH, HASH},
    {0x255, HASH, HASH},
    {0x250, HASH, HASH},
    {0x260, HASH, HASH},
    {0x270, HASH, HASH},
};

std::vector<CK_MECHANISM_TYPE> listedTypes(bool onFipsToken)
{
    std::vector<CK_MECHANISM_TYPE> types;
    for (const MechanismRow& row : ROWS) {
        if (!onFipsToken || !row.onFipsToken)
            types.push_back(row.type);
    }
    return types;
}

std::string lastLine(CK_ULONG count, CK_ULONG available)
{
    return "C_GetMechanismList: buffer too small, *pulCount=" + std::to_string(count) +
           " mechanismCount=" + std::to_string(available);
}

class MechanismListTest : public OpenSessionTest
{
protected:
    static constexpr CK_MECHANISM_TYPE UNTOUCHED = 0xEEEEEEEE;

    /// The list as a buffer of just this size gets it; its size query gives the same number.
    std::vector<CK_MECHANISM_TYPE> list(CK_SLOT_ID slotID) const
    {
        CK_ULONG count = 0;
        EXPECT_EQ(answer(C_GetMechanismList, slotID, nullptr, &count), ENTRY_LINE_ONLY);
        std::vector<CK_MECHANISM_TYPE> types(count, UNTOUCHED);
        EXPECT_EQ(answer(C_GetMechanismList, slotID, types.data(), &count), ENTRY_LINE_ONLY);
        EXPECT_EQ(count, types.size());
        return types;
    }

    Info info(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type) const
    {
        CK_MECHANISM_INFO info = {UNTOUCHED, UNTOUCHED, UNTOUCHED};
        EXPECT_EQ(answer(C_GetMechanismInfo, slotID, type, &info),
                  (Answer{CKR_OK,
                          {"DEBUG C_GetMechanismInfo", "DEBUG C_GetMechanismInfo -- type : " + std::to_string(type),
                           "DEBUG C_GetMechanismInfo -- exit"}}));
        return {info.ulMinKeySize, info.ulMaxKeySize, info.flags};
    }

    void setFirstModel(const std::string& model) const
    {
        first().token.model = model;
        listSlots();
    }

    const Answer ENTRY_LINE_ONLY = {CKR_OK, {"DEBUG C_GetMechanismList"}};
};

using UnlistedSlotsTest = InitializedModuleTest;

TEST_F(UnlistedSlotsTest, AreUnknownAndGetTheWholeTableWithItsBaseValues)
{
    for (const CK_SLOT_ID slotID : {CK_SLOT_ID{0}, FIRST_SLOT}) {
        CK_ULONG count = 26;
        std::array<CK_MECHANISM_TYPE, 26> types{};
        ASSERT_EQ(C_GetMechanismList(slotID, types.data(), &count), CKR_OK);
        EXPECT_THAT(types, testing::ElementsAreArray(listedTypes(false)));
        CK_MECHANISM_INFO info{};
        ASSERT_EQ(C_GetMechanismInfo(slotID, CKM_SHA1_RSA_PKCS, &info), CKR_OK);
        EXPECT_EQ((Info{info.ulMinKeySize, info.ulMaxKeySize, info.flags}), RSA_SIGN);
    }
}

TEST_F(MechanismListTest, AnUnknownSlotGetsTheWholeTableAlsoBesideAFipsToken)
{
    setFirstModel("VK3 Key");
    for (const CK_SLOT_ID slotID : {CK_SLOT_ID{0}, FIRST_SLOT - 1, SECOND_SLOT + 1, CK_SLOT_ID{0xFFFFFFFF}})
        EXPECT_EQ(list(slotID), listedTypes(false)) << slotID;
}

TEST_F(MechanismListTest, AnUnknownSlotGetsTheBaseValues)
{
    for (const MechanismRow& row : ROWS)
        EXPECT_EQ(info(SECOND_SLOT + 1, row.type), row.onUnknownSlot) << row.type;
}

TEST_F(MechanismListTest, ATokenWhoseModelHasAOneInThirdPlaceOffersAll)
{
    setFirstModel("AB1");
    EXPECT_EQ(list(FIRST_SLOT), listedTypes(false));
    for (const MechanismRow& row : ROWS)
        EXPECT_EQ(info(FIRST_SLOT, row.type), row.onKnownSlot) << row.type;
}

TEST_F(MechanismListTest, AFipsTokenHidesSha1SignaturesAndLimitsThemToVerification)
{
    setFirstModel("AB0");
    EXPECT_EQ(listedTypes(true).size(), 23u);
    EXPECT_EQ(list(FIRST_SLOT), listedTypes(true));
    for (const MechanismRow& row : ROWS)
        EXPECT_EQ(info(FIRST_SLOT, row.type), row.onFipsToken.value_or(row.onKnownSlot)) << row.type;
}

TEST_F(MechanismListTest, AShortOrEmptyModelCountsAsFips)
{
    for (const char* model : {"", "1", "11", "110"}) {
        setFirstModel(model);
        EXPECT_EQ(list(FIRST_SLOT), listedTypes(true)) << model;
        EXPECT_EQ(info(FIRST_SLOT, CKM_SHA1_RSA_PKCS), RSA_VERIFY) << model;
    }
}

TEST_F(MechanismListTest, EachSlotGoesByItsOwnToken)
{
    setFirstModel("VK3 Key");
    EXPECT_EQ(list(FIRST_SLOT).size(), 23u);
    EXPECT_EQ(list(SECOND_SLOT).size(), 26u);
}

TEST_F(MechanismListTest, ATokenIsAsItWasWhenTheSlotsWereListed)
{
    first().token.model = "VK3 Key";
    EXPECT_EQ(list(FIRST_SLOT).size(), 26u);
    listSlots();
    EXPECT_EQ(list(FIRST_SLOT).size(), 23u);
}

TEST_F(MechanismListTest, FirmwareMakesNoDifference)
{
    first().token.firmwareVersion = "1.0";
    listSlots();
    EXPECT_EQ(list(FIRST_SLOT), listedTypes(false));
    EXPECT_EQ(info(FIRST_SLOT, CKM_RSA_PKCS_PSS), RSA_SIGN_KNOWN);
}

TEST_F(MechanismListTest, ABufferThatIsTooSmallIsLeftAloneWithItsCount)
{
    std::array<CK_MECHANISM_TYPE, 26> types{};
    types.fill(UNTOUCHED);
    for (const CK_ULONG given : {0u, 10u, 25u}) {
        CK_ULONG count = given;
        EXPECT_EQ(answer(C_GetMechanismList, FIRST_SLOT, types.data(), &count),
                  refusal(CKR_BUFFER_TOO_SMALL, "C_GetMechanismList", lastLine(given, 26)));
        EXPECT_EQ(count, given);
    }
    EXPECT_THAT(types, testing::Each(UNTOUCHED));
}

TEST_F(MechanismListTest, ABufferForAFipsTokenNeedsRoomForTwentyThree)
{
    setFirstModel("");
    std::array<CK_MECHANISM_TYPE, 26> types{};
    CK_ULONG count = 22;
    EXPECT_EQ(answer(C_GetMechanismList, FIRST_SLOT, types.data(), &count),
              refusal(CKR_BUFFER_TOO_SMALL, "C_GetMechanismList", lastLine(22, 23)));
    EXPECT_EQ(count, 22u);
}

TEST_F(MechanismListTest, ALargerBufferIsFilledInPart)
{
    std::array<CK_MECHANISM_TYPE, 30> types{};
    types.fill(UNTOUCHED);
    CK_ULONG count = 30;
    EXPECT_EQ(answer(C_GetMechanismList, FIRST_SLOT, types.data(), &count), ENTRY_LINE_ONLY);
    EXPECT_EQ(count, 26u);
    EXPECT_EQ(types[25], CKM_SHA512);
    EXPECT_EQ(types[26], UNTOUCHED);
}

TEST_F(MechanismListTest, NullPointersAreRefused)
{
    CK_MECHANISM_TYPE type = UNTOUCHED;
    EXPECT_EQ(answer(C_GetMechanismList, FIRST_SLOT, &type, nullptr),
              refusal(CKR_ARGUMENTS_BAD, "C_GetMechanismList", "C_GetMechanismList: pulCount is NULL"));
    EXPECT_EQ(type, UNTOUCHED);
    EXPECT_EQ(answer(C_GetMechanismInfo, FIRST_SLOT, CKM_MD5, nullptr),
              refusal(CKR_ARGUMENTS_BAD, "C_GetMechanismInfo", "C_GetMechanismInfo: pInfo is NULL"));
}

TEST_F(MechanismListTest, AnUnknownMechanismIsRefusedOnEverySlot)
{
    for (const CK_SLOT_ID slotID : {FIRST_SLOT, CK_SLOT_ID{0}}) {
        for (const CK_MECHANISM_TYPE type : {CK_MECHANISM_TYPE{0x1046}, CKM_MD5, CK_MECHANISM_TYPE{0x2}}) {
            CK_MECHANISM_INFO info = {1, 2, 3};
            const std::string decimal = std::to_string(type);
            EXPECT_EQ(answer(C_GetMechanismInfo, slotID, type, &info),
                      (Answer{CKR_MECHANISM_INVALID,
                              {"DEBUG C_GetMechanismInfo", "DEBUG C_GetMechanismInfo -- type : " + decimal,
                               "ERROR C_GetMechanismInfo: unsupported mechanism type=" + decimal}}));
            EXPECT_EQ((Info{info.ulMinKeySize, info.ulMaxKeySize, info.flags}), (Info{1, 2, 3}));
        }
    }
}

TEST_F(MechanismListTest, NumbersAreLoggedWithASign)
{
    CK_MECHANISM_INFO info;
    const std::string decimal = sizeof(CK_ULONG) == 4 ? "-2147483648" : "2147483648";
    EXPECT_EQ(answer(C_GetMechanismInfo, FIRST_SLOT, CK_MECHANISM_TYPE{0x80000000}, &info).lines.back(),
              "ERROR C_GetMechanismInfo: unsupported mechanism type=" + decimal);
}

} // namespace
