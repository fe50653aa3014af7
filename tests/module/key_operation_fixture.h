// What the tests of operations on keys share: their keys, buffers of the library, firmware versions.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "firmware_versions.h"
#include "operation_in_progress.h"
#include "template.h"

constexpr CK_ULONG ALL_BITS = CK_UNAVAILABLE_INFORMATION;

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
class KeyOperationTest : public OperationInProgressTest
{
protected:
    void SetUp() override
    {
        ON_CALL(*device_, velkor_createInstance).WillByDefault(testing::SetArgPointee<0>(&instance_));
        OperationInProgressTest::SetUp();
    }

    /// Opens another session in place of the one of the fixture.
    void reopenSession(CK_FLAGS flags = CKF_SERIAL_SESSION | CKF_RW_SESSION, CK_SLOT_ID slotID = FIRST_SLOT)
    {
        ASSERT_EQ(C_CloseSession(hSession_), CKR_OK);
        hSession_ = openSession(flags, slotID);
    }

    VelkorKeyPair& keyPair(std::uint32_t id) const
    {
        std::vector<VelkorKeyPair>& keyPairs = first().keyPairs;
        return *std::find_if(keyPairs.begin(), keyPairs.end(), [&](const auto& each) { return each.id == id; });
    }

    int instance_ = 0;
};
