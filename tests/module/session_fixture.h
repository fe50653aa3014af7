// A module with the double's two devices as slots and a read/write session on the first.
#pragma once

#include <array>

#include "module_fixture.h"

constexpr CK_SLOT_ID FIRST_SLOT = 0x50000001;
constexpr CK_SLOT_ID SECOND_SLOT = 0x50000002;

class OpenSessionTest : public InitializedModuleTest
{
protected:
    void SetUp() override
    {
        InitializedModuleTest::SetUp();
        listSlots();
        hSession_ = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    }

    /// Makes the connected devices slots, as the double reports them now.
    static void listSlots()
    {
        std::array<CK_SLOT_ID, 8> slots{};
        CK_ULONG count = slots.size();
        ASSERT_EQ(C_GetSlotList(CK_TRUE, slots.data(), &count), CKR_OK);
    }

    static CK_SESSION_HANDLE openSession(CK_FLAGS flags, CK_SLOT_ID slotID = FIRST_SLOT)
    {
        CK_SESSION_HANDLE handle = 0;
        EXPECT_EQ(C_OpenSession(slotID, flags, nullptr, nullptr, &handle), CKR_OK);
        return handle;
    }

    /// Changes the first device's token information and opens the session anew, which keeps a copy of it.
    template <typename Change>
    void reopenWithToken(const Change& change)
    {
        change(first().token);
        listSlots();
        ASSERT_EQ(C_CloseSession(hSession_), CKR_OK);
        hSession_ = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    }

    void login(CK_USER_TYPE userType = CKU_USER) const
    {
        std::string pin = userType == CKU_USER ? "1234" : "12345678";
        ASSERT_EQ(C_Login(hSession_, userType, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                          static_cast<CK_ULONG>(pin.size())),
                  CKR_OK);
    }

    /// What the first device holds.
    DeviceRecords& first() const { return device_->defaults.devices.at(FIRST_DEVICE); }

    CK_SESSION_HANDLE hSession_ = 0;
};
