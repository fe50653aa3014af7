#include "velkor/record_fields.h"

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace velkor;

namespace
{

using ByteVector = std::vector<unsigned char>;

struct LengthCase {
    std::int32_t length;
    std::size_t publicKey; ///< Bytes used of 1024.
    std::size_t objectId;  ///< Bytes used of 128.

    friend std::ostream& operator<<(std::ostream& out, const LengthCase& each) { return out << each.length; }
};

class RecordLengthTest : public testing::TestWithParam<LengthCase>
{
};

INSTANTIATE_TEST_SUITE_P(All, RecordLengthTest,
                         testing::Values(LengthCase{std::numeric_limits<std::int32_t>::min(), 0, 0},
                                         LengthCase{-1, 0, 0}, LengthCase{0, 0, 0}, LengthCase{1, 1, 1},
                                         LengthCase{128, 128, 128}, LengthCase{129, 129, 128},
                                         LengthCase{1024, 1024, 128}, LengthCase{1025, 1024, 128},
                                         LengthCase{std::numeric_limits<std::int32_t>::max(), 1024, 128}));

TEST_P(RecordLengthTest, NeverLeadsOutsideTheField)
{
    VelkorKeyPair keyPair;
    keyPair.publicKeyLength = GetParam().length;
    keyPair.objectIdLength = GetParam().length;
    EXPECT_EQ(publicKeyOf(keyPair).data(), keyPair.publicKey);
    EXPECT_EQ(publicKeyOf(keyPair).size(), GetParam().publicKey);
    EXPECT_EQ(objectIdOf(keyPair).data(), keyPair.objectId);
    EXPECT_EQ(objectIdOf(keyPair).size(), GetParam().objectId);
    VelkorCertificate certificate;
    certificate.objectIdLength = GetParam().length;
    EXPECT_EQ(objectIdOf(certificate).data(), certificate.objectId);
    EXPECT_EQ(objectIdOf(certificate).size(), GetParam().objectId);
}

TEST(DeviceLength, KeepsTheLow32BitsAndMakesLargerOnesNegative)
{
    constexpr int LARGEST = std::numeric_limits<int>::max();
    constexpr int SMALLEST = std::numeric_limits<int>::min();
    EXPECT_EQ(deviceLength(0), 0);
    EXPECT_EQ(deviceLength(1), 1);
    EXPECT_EQ(deviceLength(0x7FFFFFFF), LARGEST);
    EXPECT_EQ(deviceLength(0x80000000), SMALLEST);
    EXPECT_EQ(deviceLength(0x80000001), SMALLEST + 1);
    EXPECT_EQ(deviceLength(0xFFFFFFFF), -1);
    if constexpr (sizeof(std::size_t) > 4) {
        EXPECT_EQ(deviceLength(static_cast<std::size_t>(0x100000000ULL)), -1);
        EXPECT_EQ(deviceLength(static_cast<std::size_t>(0x100000001ULL)), -1);
    }
    EXPECT_EQ(deviceLength(std::numeric_limits<std::size_t>::max()), -1);
}

TEST(StoredLabel, EndsAtItsZeroByte)
{
    VelkorKeyPair keyPair;
    EXPECT_EQ(storedLabelOf(keyPair), "");
    std::memcpy(keyPair.label, "label\0rest", 10);
    EXPECT_EQ(storedLabelOf(keyPair), "label");
}

TEST(StoredLabel, EndsWithItsFieldWhenItHasNoZeroByte)
{
    VelkorCertificate certificate;
    std::memset(certificate.label, 'x', sizeof certificate.label);
    EXPECT_EQ(storedLabelOf(certificate), std::string(LABEL_CAPACITY + 1, 'x'));
}

TEST(SetLabel, ReplacesTheWholeField)
{
    VelkorKeyPair keyPair;
    std::memset(keyPair.label, 'x', sizeof keyPair.label);
    setLabel(keyPair, std::string("new"));
    EXPECT_EQ(std::string(keyPair.label, sizeof keyPair.label), "new" + std::string(LABEL_CAPACITY - 2, '\0'));
}

TEST(SetLabel, CutsAtTheCapacityAndKeepsAZeroByteBehind)
{
    VelkorKeyPair keyPair;
    setLabel(keyPair, std::string(LABEL_CAPACITY, 'a'));
    EXPECT_EQ(keyPair.label, std::string(LABEL_CAPACITY, 'a'));
    setLabel(keyPair, std::string(LABEL_CAPACITY + 10, 'b'));
    EXPECT_EQ(keyPair.label, std::string(LABEL_CAPACITY, 'b'));
}

TEST(CopyInto, CutsAtTheFieldsEnd)
{
    unsigned char field[4] = {9, 9, 9, 9};
    EXPECT_EQ(copyInto(field, ByteVector{1, 2}), 2);
    EXPECT_EQ(ByteVector(field, field + 4), (ByteVector{1, 2, 9, 9}));
    EXPECT_EQ(copyInto(field, ByteVector{5, 6, 7, 8, 10}), 4);
    EXPECT_EQ(ByteVector(field, field + 4), (ByteVector{5, 6, 7, 8}));
    EXPECT_EQ(copyInto(field, {}), 0);
}

TEST(SameBytes, WantsTheSameLengthAndBytes)
{
    EXPECT_TRUE(sameBytes({}, {}));
    EXPECT_TRUE(sameBytes(ByteVector{1, 0, 2}, ByteVector{1, 0, 2}));
    EXPECT_FALSE(sameBytes(ByteVector{1, 0, 2}, ByteVector{1, 0}));
    EXPECT_FALSE(sameBytes(ByteVector{1, 0}, ByteVector{1, 0, 2}));
    EXPECT_FALSE(sameBytes(ByteVector{1, 0, 2}, ByteVector{1, 0, 3}));
    EXPECT_FALSE(sameBytes({}, ByteVector{0}));
}

} // namespace
