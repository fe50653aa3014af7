// C_GetSlotList, C_GetSlotInfo and C_GetTokenInfo.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <stdexcept>

#include "session_fixture.h"

namespace
{

using testing::_;
using testing::StrEq;

using Slots = std::vector<CK_SLOT_ID>;

/// A slot ID that no call hands out.
constexpr CK_SLOT_ID UNTOUCHED = 77;
constexpr unsigned char GUARD = 0xAA;

/// A text of a given length in which no character is like its neighbours.
std::string textOf(std::size_t length)
{
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i)
        text[i] = static_cast<char>('A' + i % 26);
    return text;
}

/// All bytes of a field that holds `text` and zeros behind it.
template <std::size_t Size>
std::string padded(const std::string& text, const CK_BYTE (&/*field*/)[Size])
{
    return text + std::string(Size - text.size(), '\0');
}

template <std::size_t Size>
std::string contentOf(const CK_BYTE (&field)[Size])
{
    return {std::begin(field), std::end(field)};
}

/// A structure in the middle of memory that nobody may write to.
template <typename Info>
class Guarded
{
public:
    Info* operator&() { return reinterpret_cast<Info*>(memory_.data() + ROOM); }
    Info* operator->() { return &*this; }

    bool isTouched() const
    {
        return std::any_of(memory_.begin(), memory_.end(), [](unsigned char byte) { return byte != GUARD; });
    }

    bool areGuardsUntouched() const
    {
        const auto isGuard = [](unsigned char byte) { return byte == GUARD; };
        return std::all_of(memory_.begin(), memory_.begin() + ROOM, isGuard) &&
               std::all_of(memory_.end() - ROOM, memory_.end(), isGuard);
    }

private:
    static constexpr std::ptrdiff_t ROOM = 4096;
    std::vector<unsigned char> memory_ = std::vector<unsigned char>(2 * ROOM + sizeof(Info), GUARD);
};

class SlotTest : public InitializedModuleTest
{
protected:
    /// Asks for the slot list with room for some IDs; gives the array as the call left it.
    Slots fillList(CK_ULONG room, int tokenPresent = CK_TRUE)
    {
        Slots slots(4, UNTOUCHED);
        count_ = room;
        answer_ = answer(C_GetSlotList, tokenPresent, slots.data(), &count_);
        return slots;
    }

    static CK_RV slotInfo(CK_SLOT_ID slotID)
    {
        CK_SLOT_INFO info;
        return C_GetSlotInfo(slotID, &info);
    }

    static std::string descriptionOf(CK_SLOT_ID slotID)
    {
        CK_SLOT_INFO info{};
        EXPECT_EQ(C_GetSlotInfo(slotID, &info), CKR_OK);
        return reinterpret_cast<const char*>(info.slotDescription);
    }

    void setConnected(const std::vector<std::string>& names) { device_->defaults.setConnected(names); }
    TokenInfo& tokenOf(const char* device) { return device_->defaults.devices[device].token; }

    CK_ULONG count_ = 0;
    Answer answer_{};
};

const Answer LISTED = {CKR_OK, {"DEBUG C_GetSlotList"}};
const Answer NONE_FOUND = {CKR_OK, {"DEBUG C_GetSlotList", "ERROR No valid token found"}};

using SlotListTest = SlotTest;

TEST_F(SlotListTest, GivesOneIdPerDevice)
{
    EXPECT_EQ(fillList(4), (Slots{FIRST_SLOT, SECOND_SLOT, UNTOUCHED, UNTOUCHED}));
    EXPECT_EQ(answer_, LISTED);
    EXPECT_EQ(count_, 2u);
    EXPECT_EQ(descriptionOf(FIRST_SLOT), "First key");
    EXPECT_EQ(descriptionOf(SECOND_SLOT), "Second key");
}

TEST_F(SlotListTest, AcceptsABufferOfExactlyTheRightSize)
{
    EXPECT_EQ(fillList(2), (Slots{FIRST_SLOT, SECOND_SLOT, UNTOUCHED, UNTOUCHED}));
    EXPECT_EQ(count_, 2u);
}

TEST_F(SlotListTest, IgnoresTokenPresent)
{
    tokenOf(FIRST_DEVICE).serialNumber = "";
    for (const int tokenPresent : {0, 1, 255}) {
        CK_ULONG count = 0;
        EXPECT_EQ(answer(C_GetSlotList, tokenPresent, nullptr, &count), LISTED);
        EXPECT_EQ(count, 2u);
        EXPECT_EQ(fillList(4, tokenPresent), (Slots{FIRST_SLOT, UNTOUCHED, UNTOUCHED, UNTOUCHED}));
        EXPECT_EQ(answer_, LISTED);
        EXPECT_EQ(count_, 1u);
        EXPECT_EQ(descriptionOf(FIRST_SLOT), "Second key");
    }
}

TEST_F(SlotListTest, ReadsEveryTokenInListOrder)
{
    const testing::InSequence sequence;
    EXPECT_CALL(*device_, velkor_getTokenInfo(StrEq(SECOND_DEVICE), instance()));
    EXPECT_CALL(*device_, velkor_getTokenInfo(StrEq(FIRST_DEVICE), instance()));
    setConnected({SECOND_DEVICE, FIRST_DEVICE});
    fillList(4);
}

TEST_F(SlotListTest, CountQueryWithoutDevicesGivesZero)
{
    setConnected({});
    count_ = 5;
    EXPECT_EQ(answer(C_GetSlotList, CK_TRUE, nullptr, &count_), NONE_FOUND);
    EXPECT_EQ(count_, 0u);
}

TEST_F(SlotListTest, FillingWithoutDevicesGivesZeroAndEmptiesTheTable)
{
    fillList(4);
    setConnected({});
    EXPECT_EQ(fillList(4), Slots(4, UNTOUCHED));
    EXPECT_EQ(answer_, NONE_FOUND);
    EXPECT_EQ(count_, 0u);
    EXPECT_EQ(slotInfo(FIRST_SLOT), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotListTest, CountQueryWithoutDevicesEmptiesTheTable)
{
    fillList(4);
    setConnected({});
    ASSERT_EQ(C_GetSlotList(CK_TRUE, nullptr, &count_), CKR_OK);
    EXPECT_EQ(slotInfo(FIRST_SLOT), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotListTest, CountQueryCountsUnusableDevicesAndFillingSkipsThem)
{
    tokenOf(FIRST_DEVICE).serialNumber = "";
    ASSERT_EQ(C_GetSlotList(CK_TRUE, nullptr, &count_), CKR_OK);
    EXPECT_EQ(count_, 2u);
    EXPECT_EQ(fillList(count_), (Slots{FIRST_SLOT, UNTOUCHED, UNTOUCHED, UNTOUCHED}));
    EXPECT_EQ(answer_, LISTED);
    EXPECT_EQ(count_, 1u);
    EXPECT_EQ(descriptionOf(FIRST_SLOT), "Second key");
    EXPECT_EQ(slotInfo(SECOND_SLOT), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotListTest, OnlyUnusableDevicesGiveAnEmptyListWithoutAnError)
{
    fillList(4);
    tokenOf(FIRST_DEVICE).serialNumber = "";
    tokenOf(SECOND_DEVICE).serialNumber = "";
    EXPECT_EQ(fillList(4), Slots(4, UNTOUCHED));
    EXPECT_EQ(answer_, LISTED);
    EXPECT_EQ(count_, 0u);
    EXPECT_EQ(slotInfo(FIRST_SLOT), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotListTest, CountQueryReadsNoTokenAndLeavesTheTable)
{
    EXPECT_CALL(*device_, velkor_getTokenInfo(_, _)).Times(0);
    ASSERT_EQ(C_GetSlotList(CK_TRUE, nullptr, &count_), CKR_OK);
    EXPECT_EQ(slotInfo(FIRST_SLOT), CKR_SLOT_ID_INVALID);
    testing::Mock::VerifyAndClearExpectations(device_.get());
    fillList(4);
    setConnected({FIRST_DEVICE});
    ASSERT_EQ(C_GetSlotList(CK_TRUE, nullptr, &count_), CKR_OK);
    EXPECT_EQ(count_, 1u);
    EXPECT_EQ(descriptionOf(SECOND_SLOT), "Second key");
}

TEST_F(SlotListTest, ShortBufferLeavesCountListAndTable)
{
    EXPECT_CALL(*device_, velkor_getTokenInfo(_, _)).Times(0);
    const auto tooSmall = [](const std::string& room) {
        return refusal(CKR_BUFFER_TOO_SMALL, "C_GetSlotList",
                       "C_GetSlotList: buffer too small, *pulCount=" + room + " slotCount=2");
    };
    EXPECT_EQ(fillList(1), Slots(4, UNTOUCHED));
    EXPECT_EQ(answer_, tooSmall("1"));
    EXPECT_EQ(count_, 1u);
    EXPECT_EQ(fillList(0), Slots(4, UNTOUCHED));
    EXPECT_EQ(answer_, tooSmall("0"));
    EXPECT_EQ(count_, 0u);
    EXPECT_EQ(slotInfo(FIRST_SLOT), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotListTest, ShortBufferKeepsTheSlotsOfTheLastList)
{
    setConnected({FIRST_DEVICE});
    fillList(4);
    setConnected({FIRST_DEVICE, SECOND_DEVICE});
    fillList(1);
    EXPECT_EQ(answer_.code, CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(descriptionOf(FIRST_SLOT), "First key");
    EXPECT_EQ(slotInfo(SECOND_SLOT), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotListTest, ShortBufferIsRefusedForUnusableDevicesToo)
{
    tokenOf(FIRST_DEVICE).serialNumber = "";
    fillList(1);
    EXPECT_EQ(answer_.code, CKR_BUFFER_TOO_SMALL);
}

TEST_F(SlotListTest, NullCountIsRefusedAndLeavesTheTable)
{
    fillList(4);
    setConnected({});
    Slots slots(4, UNTOUCHED);
    const Answer refused = refusal(CKR_ARGUMENTS_BAD, "C_GetSlotList", "C_GetSlotList: pulCount is NULL");
    EXPECT_EQ(answer(C_GetSlotList, CK_TRUE, slots.data(), nullptr), refused);
    EXPECT_EQ(answer(C_GetSlotList, CK_TRUE, nullptr, nullptr), refused);
    EXPECT_EQ(slots, Slots(4, UNTOUCHED));
    EXPECT_EQ(descriptionOf(FIRST_SLOT), "First key");
}

TEST_F(SlotListTest, IdsCountListOrderButNameOrderResolvesThem)
{
    setConnected({SECOND_DEVICE, FIRST_DEVICE});
    EXPECT_EQ(fillList(4), (Slots{FIRST_SLOT, SECOND_SLOT, UNTOUCHED, UNTOUCHED}));
    EXPECT_EQ(descriptionOf(FIRST_SLOT), "First key");
    EXPECT_EQ(descriptionOf(SECOND_SLOT), "Second key");
}

TEST_F(SlotListTest, NamesAreOrderedByTheirBytes)
{
    const std::vector<std::string> names = {"\xC3\xA4", "b", "B", "a10", "a9"};
    for (const std::string& name : names) {
        tokenOf(name.c_str()).serialNumber = "serial";
        tokenOf(name.c_str()).label = name;
    }
    setConnected(names);
    Slots slots(names.size());
    count_ = static_cast<CK_ULONG>(slots.size());
    ASSERT_EQ(C_GetSlotList(CK_TRUE, slots.data(), &count_), CKR_OK);
    std::vector<std::string> order;
    for (const CK_SLOT_ID slot : slots)
        order.push_back(descriptionOf(slot));
    EXPECT_EQ(order, (std::vector<std::string>{"B", "a10", "a9", "b", "\xC3\xA4"}));
}

TEST_F(SlotListTest, UnpluggedDeviceKeepsItsSlotUntilTheNextList)
{
    fillList(4);
    setConnected({SECOND_DEVICE});
    EXPECT_EQ(descriptionOf(FIRST_SLOT), "First key");
    fillList(4);
    EXPECT_EQ(descriptionOf(FIRST_SLOT), "Second key");
    EXPECT_EQ(slotInfo(SECOND_SLOT), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotListTest, FinalizeEmptiesTheTable)
{
    fillList(4);
    ASSERT_EQ(finalize(), CKR_OK);
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(slotInfo(FIRST_SLOT), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotListTest, NameThatIsListedTwiceHasTwoIdsAndOneSlot)
{
    setConnected({FIRST_DEVICE, FIRST_DEVICE});
    EXPECT_EQ(fillList(4), (Slots{FIRST_SLOT, SECOND_SLOT, UNTOUCHED, UNTOUCHED}));
    EXPECT_EQ(count_, 2u);
    EXPECT_EQ(descriptionOf(FIRST_SLOT), "First key");
    EXPECT_EQ(slotInfo(SECOND_SLOT), CKR_SLOT_ID_INVALID);
}

const Answer BROKEN = refusal(CKR_GENERAL_ERROR, "C_GetSlotList", "C_GetSlotList: unexpected exception: broken");

TEST_F(SlotListTest, ExceptionWhileTokensAreReadLeavesCountAndTable)
{
    fillList(4);
    tokenOf(FIRST_DEVICE).label = "Renamed";
    EXPECT_CALL(*device_, velkor_getTokenInfo(StrEq(FIRST_DEVICE), _));
    EXPECT_CALL(*device_, velkor_getTokenInfo(StrEq(SECOND_DEVICE), _))
        .WillOnce(testing::Throw(std::runtime_error("broken")));
    fillList(4);
    EXPECT_EQ(answer_, BROKEN);
    EXPECT_EQ(count_, 4u);
    EXPECT_EQ(descriptionOf(FIRST_SLOT), "First key");
    EXPECT_EQ(descriptionOf(SECOND_SLOT), "Second key");
}

TEST_F(SlotListTest, ExceptionWhileDevicesAreListedLeavesCountAndTable)
{
    fillList(4);
    EXPECT_CALL(*device_, velkor_getConnectedDeviceList)
        .WillRepeatedly([test = std::this_thread::get_id()](bool, void*) -> std::vector<std::string> {
            if (std::this_thread::get_id() == test)
                throw std::runtime_error("broken");
            return {FIRST_DEVICE, SECOND_DEVICE};
        });
    EXPECT_EQ(fillList(4), Slots(4, UNTOUCHED));
    EXPECT_EQ(answer_, BROKEN);
    EXPECT_EQ(answer(C_GetSlotList, CK_TRUE, nullptr, &count_), BROKEN);
    EXPECT_EQ(count_, 4u);
    EXPECT_EQ(descriptionOf(SECOND_SLOT), "Second key");
}

using SlotListQueryTest = ModuleTest;

TEST_F(SlotListQueryTest, AsksForTheDevicesAsTheLibraryKnowsThem)
{
    // The monitor asks in the same way, so the calls are told apart by their thread.
    const auto thisThread = std::this_thread::get_id();
    int queries = 0;
    EXPECT_CALL(*device_, velkor_getConnectedDeviceList(false, instance())).WillRepeatedly([&](bool, void*) {
        if (std::this_thread::get_id() == thisThread)
            ++queries;
        return std::vector<std::string>{FIRST_DEVICE};
    });
    ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    CK_ULONG count = 0;
    EXPECT_EQ(C_GetSlotList(CK_TRUE, nullptr, nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(queries, 0);
    EXPECT_EQ(C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(queries, 1);
    EXPECT_EQ(count, 1u);
    ASSERT_EQ(finalize(), CKR_OK);
}

// ---- Slot IDs and pointers that are refused ----

class SlotIdTest : public SlotTest, public testing::WithParamInterface<CK_SLOT_ID>
{
};

INSTANTIATE_TEST_SUITE_P(Invalid, SlotIdTest,
                         testing::Values(0, FIRST_SLOT - 1, SECOND_SLOT + 1, FIRST_SESSION, 0x80000000, 0xFFFFFFFF,
                                         static_cast<CK_SLOT_ID>(-1)));

TEST_P(SlotIdTest, IsRefusedBeforeThePointerIsLookedAt)
{
    fillList(4);
    const CK_SLOT_ID slotID = GetParam();
    Guarded<CK_SLOT_INFO> slot;
    Guarded<CK_TOKEN_INFO> token;
    const Answer noSlot =
        refusal(CKR_SLOT_ID_INVALID, "C_GetSlotInfo", "C_GetSlotInfo: invalid slotID=" + logged(slotID));
    const Answer noToken =
        refusal(CKR_SLOT_ID_INVALID, "C_GetTokenInfo", "C_GetTokenInfo: invalid slotID=" + logged(slotID));
    EXPECT_EQ(answer(C_GetSlotInfo, slotID, &slot), noSlot);
    EXPECT_EQ(answer(C_GetSlotInfo, slotID, nullptr), noSlot);
    EXPECT_EQ(answer(C_GetTokenInfo, slotID, &token), noToken);
    EXPECT_EQ(answer(C_GetTokenInfo, slotID, nullptr), noToken);
    EXPECT_FALSE(slot.isTouched());
    EXPECT_FALSE(token.isTouched());
}

TEST_F(SlotTest, FirstSlotIsValidOnlyAfterAListFoundAUsableToken)
{
    CK_TOKEN_INFO info;
    EXPECT_EQ(slotInfo(FIRST_SLOT), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(C_GetTokenInfo(FIRST_SLOT, &info), CKR_SLOT_ID_INVALID);
    setConnected({FIRST_DEVICE});
    fillList(4);
    EXPECT_EQ(slotInfo(FIRST_SLOT), CKR_OK);
    EXPECT_EQ(C_GetTokenInfo(FIRST_SLOT, &info), CKR_OK);
    EXPECT_EQ(slotInfo(SECOND_SLOT), CKR_SLOT_ID_INVALID);
}

TEST_F(SlotTest, NullPointersAreRefused)
{
    fillList(4);
    EXPECT_EQ(answer(C_GetSlotInfo, FIRST_SLOT, nullptr),
              refusal(CKR_ARGUMENTS_BAD, "C_GetSlotInfo", "C_GetSlotInfo: pInfo is NULL"));
    EXPECT_EQ(answer(C_GetTokenInfo, FIRST_SLOT, nullptr),
              refusal(CKR_ARGUMENTS_BAD, "C_GetTokenInfo", "C_GetTokenInfo: pInfo is NULL"));
}

TEST_F(SlotTest, InformationIsASnapshotOfTheLastList)
{
    fillList(4);
    EXPECT_CALL(*device_, velkor_getTokenInfo(_, _)).Times(0);
    tokenOf(FIRST_DEVICE).label = "Renamed";
    tokenOf(FIRST_DEVICE).pinTriesLeft = 0;
    CK_TOKEN_INFO info;
    ASSERT_EQ(C_GetTokenInfo(FIRST_SLOT, &info), CKR_OK);
    EXPECT_EQ(descriptionOf(FIRST_SLOT), "First key");
    EXPECT_STREQ(reinterpret_cast<const char*>(info.label), "First key");
    EXPECT_EQ(CK_FLAGS{info.flags}, 0x40Du);
    testing::Mock::VerifyAndClearExpectations(device_.get());
    fillList(4);
    EXPECT_EQ(descriptionOf(FIRST_SLOT), "Renamed");
}

// ---- What is told of a slot and its token ----

class SlotInfoTest : public SlotTest
{
protected:
    void readSlot()
    {
        fillList(4);
        ASSERT_EQ(answer(C_GetSlotInfo, FIRST_SLOT, &slot_), (Answer{CKR_OK, {"DEBUG C_GetSlotInfo"}}));
        ASSERT_TRUE(slot_.areGuardsUntouched());
    }

    void readToken()
    {
        fillList(4);
        ASSERT_EQ(answer(C_GetTokenInfo, FIRST_SLOT, &token_),
                  (Answer{CKR_OK, {"DEBUG C_GetTokenInfo", "DEBUG C_GetTokenInfo -- exit"}}));
        ASSERT_TRUE(token_.areGuardsUntouched());
    }

    Guarded<CK_SLOT_INFO> slot_;
    Guarded<CK_TOKEN_INFO> token_;
};

TEST_F(SlotInfoTest, DescribesTheSlot)
{
    readSlot();
    EXPECT_EQ(contentOf(slot_->slotDescription), padded("First key", slot_->slotDescription));
    EXPECT_EQ(contentOf(slot_->manufacturerID), padded("Brenmoor", slot_->manufacturerID));
    EXPECT_EQ(CK_FLAGS{slot_->flags}, CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE | CKF_HW_SLOT);
    EXPECT_EQ(slot_->hardwareVersion.major, 1);
    EXPECT_EQ(slot_->hardwareVersion.minor, 0);
    EXPECT_EQ(slot_->firmwareVersion.major, 2);
    EXPECT_EQ(slot_->firmwareVersion.minor, 1);
}

TEST_F(SlotInfoTest, DescribesTheToken)
{
    readToken();
    EXPECT_EQ(contentOf(token_->label), padded("First key", token_->label));
    EXPECT_EQ(contentOf(token_->manufacturerID), padded("Brenmoor", token_->manufacturerID));
    EXPECT_EQ(contentOf(token_->model), padded("VK1 Key", token_->model));
    EXPECT_EQ(contentOf(token_->serialNumber), padded(FIRST_DEVICE, token_->serialNumber));
    EXPECT_EQ(contentOf(token_->utcTime), std::string(16, ' '));
    EXPECT_EQ(token_->hardwareVersion.major, 1);
    EXPECT_EQ(token_->hardwareVersion.minor, 0);
    EXPECT_EQ(token_->firmwareVersion.major, 2);
    EXPECT_EQ(token_->firmwareVersion.minor, 1);
}

TEST_F(SlotInfoTest, TellsLimitsOfSessionsPinsAndMemory)
{
    readToken();
    EXPECT_EQ(CK_ULONG{token_->ulMaxSessionCount}, 0u);
    EXPECT_EQ(CK_ULONG{token_->ulSessionCount}, 0u);
    EXPECT_EQ(CK_ULONG{token_->ulMaxRwSessionCount}, 0u);
    EXPECT_EQ(CK_ULONG{token_->ulRwSessionCount}, 0u);
    EXPECT_EQ(CK_ULONG{token_->ulMaxPinLen}, 63u);
    EXPECT_EQ(CK_ULONG{token_->ulMinPinLen}, 4u);
    EXPECT_EQ(CK_ULONG{token_->ulTotalPublicMemory}, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(CK_ULONG{token_->ulFreePublicMemory}, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(CK_ULONG{token_->ulTotalPrivateMemory}, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(CK_ULONG{token_->ulFreePrivateMemory}, CK_UNAVAILABLE_INFORMATION);
}

struct LabelLength {
    std::size_t length;
    std::size_t inDescription; ///< Characters kept in the slot's description,
    std::size_t inLabel;       ///< and in the token's label.
    bool reachesModel;         ///< The label shows behind the end of the model.

    friend std::ostream& operator<<(std::ostream& out, const LabelLength& label) { return out << label.length; }
};

class LabelTest : public SlotInfoTest, public testing::WithParamInterface<LabelLength>
{
protected:
    void SetUp() override
    {
        SlotInfoTest::SetUp();
        tokenOf(FIRST_DEVICE).label = label_;
    }

    const std::string label_ = textOf(GetParam().length);
};

INSTANTIATE_TEST_SUITE_P(Lengths, LabelTest,
                         testing::Values(LabelLength{0, 0, 0, false}, LabelLength{30, 30, 30, false},
                                         LabelLength{31, 31, 30, false}, LabelLength{32, 32, 30, false},
                                         LabelLength{33, 33, 32, false}, LabelLength{63, 63, 32, false},
                                         LabelLength{64, 63, 32, false}, LabelLength{95, 63, 32, true},
                                         LabelLength{96, 63, 32, true}, LabelLength{4000, 63, 32, true}));

TEST_P(LabelTest, FitsIntoTheSlotDescription)
{
    readSlot();
    EXPECT_EQ(contentOf(slot_->slotDescription),
              padded(label_.substr(0, GetParam().inDescription), slot_->slotDescription));
    EXPECT_EQ(contentOf(slot_->manufacturerID), padded("Brenmoor", slot_->manufacturerID));
}

TEST_P(LabelTest, IsCutOrRunsIntoTheFieldsBehindIt)
{
    readToken();
    EXPECT_EQ(contentOf(token_->label), padded(label_.substr(0, GetParam().inLabel), token_->label));
    EXPECT_EQ(contentOf(token_->manufacturerID), padded("Brenmoor", token_->manufacturerID));
    const std::string model = std::string("VK1 Key") + '\0';
    EXPECT_EQ(contentOf(token_->model),
              GetParam().reachesModel ? model + label_.substr(64 + model.size(), 8) : padded(model, token_->model));
    EXPECT_EQ(contentOf(token_->serialNumber), padded(FIRST_DEVICE, token_->serialNumber));
    EXPECT_EQ(CK_FLAGS{token_->flags}, 0x40Du);
}

class TextLengthTest : public SlotInfoTest, public testing::WithParamInterface<std::size_t>
{
protected:
    const std::string text_ = textOf(GetParam());
};

INSTANTIATE_TEST_SUITE_P(Lengths, TextLengthTest, testing::Values(1, 14, 15, 16, 17, 32, 64, 4000));

TEST_P(TextLengthTest, ModelKeepsRoomForItsTerminator)
{
    tokenOf(FIRST_DEVICE).model = text_;
    readToken();
    EXPECT_EQ(contentOf(token_->model), padded(text_.substr(0, 15), token_->model));
    EXPECT_EQ(contentOf(token_->serialNumber), padded(FIRST_DEVICE, token_->serialNumber));
}

TEST_P(TextLengthTest, SerialNumberFillsItsFieldWithoutATerminator)
{
    tokenOf(FIRST_DEVICE).serialNumber = text_;
    readToken();
    EXPECT_EQ(contentOf(token_->serialNumber), padded(text_.substr(0, 16), token_->serialNumber));
    EXPECT_EQ(CK_FLAGS{token_->flags}, 0x40Du);
}

TEST_P(TextLengthTest, AllTextsAtOnceStayInTheStructures)
{
    TokenInfo& token = tokenOf(FIRST_DEVICE);
    token.label = token.model = token.serialNumber = token.firmwareVersion = text_;
    readSlot();
    readToken();
    EXPECT_EQ(contentOf(token_->serialNumber), padded(text_.substr(0, 16), token_->serialNumber));
}

TEST_F(SlotInfoTest, EmptyModelIsAllZeros)
{
    tokenOf(FIRST_DEVICE).model = "";
    readToken();
    EXPECT_EQ(contentOf(token_->model), padded("", token_->model));
}

struct FirmwareText {
    const char* text;
    int major;
    int minor;

    friend std::ostream& operator<<(std::ostream& out, const FirmwareText& firmware) { return out << firmware.text; }
};

class FirmwareTest : public SlotInfoTest, public testing::WithParamInterface<FirmwareText>
{
};

INSTANTIATE_TEST_SUITE_P(Texts, FirmwareTest,
                         testing::Values(FirmwareText{"2.0.0", 2, 0}, FirmwareText{"12.34.56", 12, 34},
                                         FirmwareText{"7", 7, 0}, FirmwareText{"7.", 7, 0}, FirmwareText{"", 0, 0},
                                         FirmwareText{".5", 0, 5}, FirmwareText{"3..9", 3, 0},
                                         FirmwareText{"+3.-1", 3, 255}, FirmwareText{" 4.  5", 4, 5},
                                         FirmwareText{"v1.x", 0, 0}, FirmwareText{"3a.4-b", 3, 4},
                                         FirmwareText{"256.257", 0, 1}, FirmwareText{"-1.-256", 255, 0},
                                         FirmwareText{"65535.65536", 255, 0},
                                         FirmwareText{"4294967296.-4294967296", 255, 0},
                                         FirmwareText{"99999999999999999999.-99999999999999999999", 255, 0}));

TEST_P(FirmwareTest, GivesTheLowBytesOfItsFirstTwoNumbers)
{
    tokenOf(FIRST_DEVICE).firmwareVersion = GetParam().text;
    readSlot();
    readToken();
    EXPECT_EQ(slot_->firmwareVersion.major, GetParam().major);
    EXPECT_EQ(slot_->firmwareVersion.minor, GetParam().minor);
    EXPECT_EQ(token_->firmwareVersion.major, GetParam().major);
    EXPECT_EQ(token_->firmwareVersion.minor, GetParam().minor);
}

struct PinState {
    std::int32_t changed;
    std::int32_t triesLeft;
    CK_FLAGS flags;

    friend std::ostream& operator<<(std::ostream& out, const PinState& pin)
    {
        return out << "changed " << pin.changed << ", tries left " << pin.triesLeft;
    }
};

class PinFlagsTest : public SlotInfoTest, public testing::WithParamInterface<PinState>
{
};

INSTANTIATE_TEST_SUITE_P(States, PinFlagsTest,
                         testing::Values(PinState{1, 0, CKF_USER_PIN_LOCKED}, PinState{1, 1, CKF_USER_PIN_FINAL_TRY},
                                         PinState{1, 2, CKF_USER_PIN_COUNT_LOW}, PinState{1, 3, 0}, PinState{1, 4, 0},
                                         PinState{1, 255, 0}, PinState{1, -1, 0},
                                         PinState{0, 3, CKF_USER_PIN_TO_BE_CHANGED},
                                         PinState{2, 3, CKF_USER_PIN_TO_BE_CHANGED},
                                         PinState{-1, 3, CKF_USER_PIN_TO_BE_CHANGED},
                                         PinState{0, 0, CKF_USER_PIN_TO_BE_CHANGED | CKF_USER_PIN_LOCKED}));

TEST_P(PinFlagsTest, AreAddedToThoseOfEveryToken)
{
    tokenOf(FIRST_DEVICE).pinChanged = GetParam().changed;
    tokenOf(FIRST_DEVICE).pinTriesLeft = GetParam().triesLeft;
    readToken();
    EXPECT_EQ(CK_FLAGS{token_->flags},
              (CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED | GetParam().flags));
}

// ---- Session counts ----

class SessionCountTest : public SessionTest
{
protected:
    using Counts = std::pair<CK_ULONG, CK_ULONG>;

    static Counts countsOf(CK_SLOT_ID slotID)
    {
        CK_TOKEN_INFO info{};
        EXPECT_EQ(C_GetTokenInfo(slotID, &info), CKR_OK);
        return {info.ulSessionCount, info.ulRwSessionCount};
    }
};

TEST_F(SessionCountTest, CoversPublicSessionsOfAllSlots)
{
    for (const CK_SLOT_ID slot : {FIRST_SLOT, FIRST_SLOT, SECOND_SLOT})
        openSession(READ_ONLY, slot);
    openSession(READ_WRITE, FIRST_SLOT);
    openSession(READ_WRITE, SECOND_SLOT);
    EXPECT_EQ(countsOf(FIRST_SLOT), Counts(3, 2));
    EXPECT_EQ(countsOf(SECOND_SLOT), Counts(3, 2));
}

TEST_F(SessionCountTest, LeavesLoggedInSessionsOut)
{
    openSession(READ_ONLY);
    const CK_SESSION_HANDLE user = openSession(READ_WRITE);
    openSession(READ_ONLY, SECOND_SLOT);
    const CK_SESSION_HANDLE officer = openSession(READ_WRITE, SECOND_SLOT);
    ASSERT_EQ(loginAs(CKU_USER, user), CKR_OK);
    EXPECT_EQ(countsOf(FIRST_SLOT), Counts(1, 1));
    ASSERT_EQ(loginAs(CKU_SO, officer), CKR_SESSION_READ_ONLY_EXISTS);
    EXPECT_EQ(countsOf(FIRST_SLOT), Counts(1, 0));
}

} // namespace
