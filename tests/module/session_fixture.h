// A module with the double's two devices as slots, and with a read/write session on the first.
#pragma once

#include <array>
#include <string>

#include "module_fixture.h"

constexpr CK_SLOT_ID FIRST_SLOT = 0x50000001;
constexpr CK_SLOT_ID SECOND_SLOT = 0x50000002;
constexpr CK_SESSION_HANDLE FIRST_SESSION = 0x60000001;

constexpr CK_FLAGS READ_ONLY = CKF_SERIAL_SESSION;
constexpr CK_FLAGS READ_WRITE = CKF_SERIAL_SESSION | CKF_RW_SESSION;

/// The PINs of the double's devices.
inline const std::string USER_PIN = "1234";
inline const std::string SO_PIN = "12345678";

inline CK_UTF8CHAR_PTR characters(const std::string& text)
{
    return reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(text.data()));
}

inline CK_ULONG lengthOf(const std::string& text)
{
    return static_cast<CK_ULONG>(text.size());
}

/// Handles of a key pair's halves and of a certificate.
constexpr CK_OBJECT_HANDLE privateKey(CK_ULONG id)
{
    return 0x70000000 + id;
}

constexpr CK_OBJECT_HANDLE publicKey(CK_ULONG id)
{
    return 0x70001000 + id;
}

constexpr CK_OBJECT_HANDLE certificate(CK_ULONG id)
{
    return 0x70002000 + id;
}

/// What looks negative in the device's count and in the log of a module with 32-bit numbers.
constexpr CK_ULONG TOO_LARGE_FOR_INT = 0x80000000;

/// A number as the log has it: the top bit is its sign.
inline std::string logged(CK_ULONG number)
{
    return std::to_string(static_cast<CK_LONG>(number));
}

/// No session is open yet, and nobody is logged in.
class SessionTest : public InitializedModuleTest
{
protected:
    void SetUp() override
    {
        InitializedModuleTest::SetUp();
        listSlots();
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

    static CK_STATE stateOf(CK_SESSION_HANDLE hSession)
    {
        CK_SESSION_INFO info{};
        EXPECT_EQ(C_GetSessionInfo(hSession, &info), CKR_OK);
        return info.state;
    }

    static CK_RV loginAs(CK_USER_TYPE userType, CK_SESSION_HANDLE hSession, const std::string& pin)
    {
        return C_Login(hSession, userType, characters(pin), lengthOf(pin));
    }

    static CK_RV loginAs(CK_USER_TYPE userType, CK_SESSION_HANDLE hSession)
    {
        return loginAs(userType, hSession, userType == CKU_USER ? USER_PIN : SO_PIN);
    }

    /// Whether the module holds a user PIN, on whichever token it was given.
    static bool isUserLoggedIn()
    {
        const CK_SESSION_HANDLE probe = openSession(READ_ONLY);
        const bool loggedIn = stateOf(probe) == CKS_RO_USER_FUNCTIONS;
        EXPECT_EQ(C_CloseSession(probe), CKR_OK);
        return loggedIn;
    }

    /// What the devices hold.
    DeviceRecords& first() const { return device_->defaults.devices.at(FIRST_DEVICE); }
    DeviceRecords& second() const { return device_->defaults.devices.at(SECOND_DEVICE); }
};

class OpenSessionTest : public SessionTest
{
protected:
    void SetUp() override
    {
        SessionTest::SetUp();
        hSession_ = openSession(READ_WRITE);
    }

    /// Changes the first device's token information and opens the session anew, which keeps a copy of it.
    template <typename Change>
    void reopenWithToken(const Change& change)
    {
        change(first().token);
        listSlots();
        ASSERT_EQ(C_CloseSession(hSession_), CKR_OK);
        hSession_ = openSession(READ_WRITE);
    }

    void setFirmware(const std::string& version)
    {
        reopenWithToken([&](TokenInfo& token) { token.firmwareVersion = version; });
    }

    void login(CK_USER_TYPE userType = CKU_USER) const { ASSERT_EQ(loginAs(userType, hSession_), CKR_OK); }

    CK_SESSION_HANDLE hSession_ = 0;
};
