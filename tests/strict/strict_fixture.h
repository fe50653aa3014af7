// The world of a test of the strict front: the built library, loaded as a host loads it, over the module beside it and
// a device of the test. Two devices are connected; both have the user PIN 1234 unless a test changes that.
#pragma once

#include <array>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cryptoki.h"
#include "strict_device.h"

using ByteVector = std::vector<unsigned char>;
using Handles = std::vector<CK_OBJECT_HANDLE>;

inline constexpr CK_FLAGS READ_ONLY = CKF_SERIAL_SESSION;
inline constexpr CK_FLAGS READ_WRITE = CKF_SERIAL_SESSION | CKF_RW_SESSION;

/// The function table of the library under test, which is loaded on first use.
const CK_FUNCTION_LIST& strictFront();

template <std::size_t Size>
std::string textIn(const unsigned char (&field)[Size])
{
    return std::string(reinterpret_cast<const char*>(field), Size);
}

std::string padded(std::string text, std::size_t size);

template <typename Value>
CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, Value& value)
{
    return {type, &value, sizeof value};
}

inline CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, ByteVector& value)
{
    return {type, value.data(), static_cast<CK_ULONG>(value.size())};
}

inline CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, std::string& value)
{
    return {type, value.data(), static_cast<CK_ULONG>(value.size())};
}

class StrictTest : public testing::Test
{
protected:
    StrictTest();
    ~StrictTest() override;

    /// Starts the front; most tests begin with it.
    void start() { ASSERT_EQ(p11.C_Initialize(nullptr), CKR_OK); }

    std::vector<CK_SLOT_ID> slots(CK_BBOOL tokenPresent = CK_TRUE) const;
    CK_SESSION_HANDLE open(CK_SLOT_ID slot, CK_FLAGS flags = READ_WRITE) const;
    CK_RV login(CK_SESSION_HANDLE session, std::string pin = "1234", CK_USER_TYPE user = CKU_USER) const;
    CK_RV setPin(CK_SESSION_HANDLE session, std::string oldPin, std::string newPin) const;
    CK_STATE stateOf(CK_SESSION_HANDLE session) const;
    CK_TOKEN_INFO tokenInfo(CK_SLOT_ID slot) const;

    /// A read/write session on the first slot, logged in.
    CK_SESSION_HANDLE userSession() const;

    Handles find(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE> criteria) const;
    /// The one object of a class with that label.
    CK_OBJECT_HANDLE findOne(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass, std::string label) const;
    CK_OBJECT_HANDLE privateKey(CK_SESSION_HANDLE session, int number) const;
    CK_OBJECT_HANDLE publicKey(CK_SESSION_HANDLE session, int number) const;

    ByteVector value(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;
    bool flag(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;
    CK_ULONG number(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;
    /// What the call answers for one attribute.
    CK_RV ask(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;

    CK_RV sign(CK_SESSION_HANDLE session, CK_MECHANISM mechanism, CK_OBJECT_HANDLE key, ByteVector data,
               ByteVector& signature) const;
    CK_RV verify(CK_SESSION_HANDLE session, CK_MECHANISM mechanism, CK_OBJECT_HANDLE key, ByteVector data,
                 ByteVector signature) const;

    struct KeyPair {
        CK_OBJECT_HANDLE publicKey = 0;
        CK_OBJECT_HANDLE privateKey = 0;
    };
    CK_RV generate(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, std::vector<CK_ATTRIBUTE> ofPublic,
                   std::vector<CK_ATTRIBUTE> ofPrivate, KeyPair& pair) const;

    /// Lines of the log, from "ERROR" on.
    std::vector<std::string> logLines() const;
    bool isLogged(const std::string& text) const;
    /// Makes the log's folder one that is not there, or the test's own again.
    void hideLogFolder(bool isHidden) const;

    const CK_FUNCTION_LIST& p11;
    std::shared_ptr<StrictDevice> device;
};
