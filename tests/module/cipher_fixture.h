// What the tests of operations on keys share: handles, templates, buffers of the library, the operation in progress.
#pragma once

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "session_fixture.h"

using Bytes = std::vector<unsigned char>;

/// Values of a session's operation in progress, as the log shows them.
constexpr CK_ULONG NO_OPERATION = 0;
constexpr CK_ULONG FIND = 1;
constexpr CK_ULONG ENCRYPT = 2;
constexpr CK_ULONG DECRYPT = 3;
constexpr CK_ULONG DIGEST = 4;
constexpr CK_ULONG SIGN = 5;
constexpr CK_ULONG VERIFY = 7;
constexpr CK_ULONG DIGEST_ENCRYPT = 9;
constexpr CK_ULONG DIGEST_DECRYPT = 10;

constexpr CK_ULONG TOO_LARGE_FOR_INT = 0x80000000;
constexpr CK_ULONG ALL_BITS = CK_UNAVAILABLE_INFORMATION;

inline Bytes bytesOf(std::string_view text)
{
    return {text.begin(), text.end()};
}

inline Bytes bytesOf(CK_ULONG number)
{
    Bytes bytes(sizeof number);
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

inline Bytes joined(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

/// A firmware version, and whether it counts as 2.0.0 or later.
struct Firmware {
    const char* version;
    bool recent;
};

constexpr Firmware FIRMWARES[] = {{"", false},      {"1.9", false},   {"1.9.9", false},     {"1.9.12", false},
                                  {"2", true},      {"2.0", true},    {"2.0.0", true},      {"2.0.0.0", true},
                                  {"2.1.0", true},  {"10.0.0", true}, {"2.0.0-beta", true}, {"-3.0.0", false},
                                  {"x.9.9", false}, {" 2.0", true}};

/// A template that holds its values. Each value has an allocation of its own size, so that sanitizers guard its end.
class Template
{
public:
    struct Entry {
        CK_ATTRIBUTE_TYPE type;
        Bytes value;
    };

    Template(std::initializer_list<Entry> entries) : values_(entries)
    {
        for (Entry& entry : values_)
            attributes_.push_back({entry.type, entry.value.data(), static_cast<CK_ULONG>(entry.value.size())});
    }

    Template(const Template&) = delete;
    Template& operator=(const Template&) = delete;

    CK_ATTRIBUTE& operator[](std::size_t index) { return attributes_[index]; }
    CK_ATTRIBUTE* data() { return attributes_.data(); }
    CK_ULONG size() const { return static_cast<CK_ULONG>(attributes_.size()); }

private:
    std::vector<Entry> values_;
    std::vector<CK_ATTRIBUTE> attributes_;
};

/// Matches a pointer to these bytes; what is behind them is not looked at.
MATCHER_P(PointsToBytes, bytes, "")
{
    return std::equal(bytes.begin(), bytes.end(), arg);
}

/// Allocates as the device library does where the module has to release. No copy of the bytes goes elsewhere.
inline int giveBuffer(std::string_view bytes, unsigned char** out, int* outLength)
{
    *out = static_cast<unsigned char*>(std::malloc(bytes.size()));
    bytes.copy(reinterpret_cast<char*>(*out), bytes.size());
    *outLength = static_cast<int>(bytes.size());
    return 0;
}

/// As `giveBuffer`, for the calls that have their output at these positions: decryption and derivation.
ACTION_P2(GivesBuffer, bytes, status)
{
    giveBuffer(bytes, arg5, arg6);
    return status;
}

/// As `GivesBuffer`, with a null buffer.
ACTION_P2(GivesNoBuffer, length, status)
{
    *arg5 = nullptr;
    *arg6 = length;
    return status;
}

/// An open session whose device library instance is known.
class CryptoTest : public OpenSessionTest
{
protected:
    void SetUp() override
    {
        ON_CALL(*device_, velkor_createInstance).WillByDefault(testing::SetArgPointee<0>(&instance_));
        OpenSessionTest::SetUp();
    }

    /// Opens another session in place of the one of the fixture.
    void reopenSession(CK_FLAGS flags = CKF_SERIAL_SESSION | CKF_RW_SESSION, CK_SLOT_ID slotID = FIRST_SLOT)
    {
        ASSERT_EQ(C_CloseSession(hSession_), CKR_OK);
        hSession_ = openSession(flags, slotID);
    }

    void setFirmware(const std::string& version)
    {
        reopenWithToken([&](TokenInfo& token) { token.firmwareVersion = version; });
    }

    VelkorKeyPair& keyPair(std::uint32_t id) const
    {
        std::vector<VelkorKeyPair>& keyPairs = first().keyPairs;
        return *std::find_if(keyPairs.begin(), keyPairs.end(), [&](const auto& each) { return each.id == id; });
    }

    void startDigest() const
    {
        CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
        ASSERT_EQ(C_DigestInit(hSession_, &mechanism), CKR_OK);
    }

    /// Begins one of the operations that the tests of this fixture meet.
    void start(CK_ULONG operation) const
    {
        CK_MECHANISM rsa = {CKM_RSA_PKCS, nullptr, 0};
        CK_RV code = CKR_OK;
        if (operation == DIGEST || operation == DIGEST_ENCRYPT || operation == DIGEST_DECRYPT)
            startDigest();
        if (operation == ENCRYPT || operation == DIGEST_ENCRYPT)
            code = C_EncryptInit(hSession_, &rsa, publicKey(2));
        else if (operation == DECRYPT || operation == DIGEST_DECRYPT)
            code = C_DecryptInit(hSession_, &rsa, privateKey(2));
        else if (operation == SIGN)
            code = C_SignInit(hSession_, &rsa, privateKey(2));
        else if (operation == VERIFY)
            code = C_VerifyInit(hSession_, &rsa, publicKey(2));
        else if (operation == FIND)
            code = C_FindObjectsInit(hSession_, nullptr, 0);
        ASSERT_EQ(code, CKR_OK);
    }

    /// The operation in progress, as a call tells that is never the right one while it is not signing.
    CK_ULONG operationInProgress() const
    {
        const Answer refused = answer(C_SignUpdate, hSession_, nullptr, 0);
        if (refused.code != CKR_OPERATION_NOT_INITIALIZED)
            return SIGN;
        const std::string& line = refused.lines.back();
        return static_cast<CK_ULONG>(std::stoul(line.substr(line.rfind('=') + 1)));
    }

    int instance_ = 0;
};
