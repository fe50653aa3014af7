#include "mechanisms/key_kinds.h"

#include <ostream>
#include <vector>

#include <gtest/gtest.h>

#include "velkor/device_service.h"

using namespace velkor;

namespace
{

using ByteVector = std::vector<unsigned char>;

const ByteVector P256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
const ByteVector P384 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
const ByteVector P521 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};

struct KindCase {
    std::uint32_t keyKind;
    CK_KEY_TYPE keyType;
    CK_ULONG bits;
    CK_MECHANISM_TYPE mechanism;
    ByteVector ecParams;

    friend std::ostream& operator<<(std::ostream& out, const KindCase& kind) { return out << kind.keyKind; }
};

class KeyKindTest : public testing::TestWithParam<KindCase>
{
};

INSTANTIATE_TEST_SUITE_P(All, KeyKindTest,
                         testing::Values(KindCase{1, CKK_RSA, 1024, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
                                         KindCase{2, CKK_RSA, 2048, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
                                         KindCase{3, CKK_RSA, 3072, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
                                         KindCase{4, CKK_RSA, 4096, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
                                         KindCase{5, CKK_EC, 256, CKM_EC_KEY_PAIR_GEN, P256},
                                         KindCase{6, CKK_EC, 384, CKM_EC_KEY_PAIR_GEN, P384},
                                         KindCase{7, CKK_EC, 521, CKM_EC_KEY_PAIR_GEN, P521},
                                         KindCase{0, CKK_RSA, 2048, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
                                         KindCase{8, CKK_RSA, 2048, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
                                         KindCase{0xFFFFFFFF, CKK_RSA, 2048, CKM_RSA_PKCS_KEY_PAIR_GEN, {}}));

TEST_P(KeyKindTest, HasTypeSizeMechanismAndCurve)
{
    const KeyKindInfo& kind = keyKindInfo(GetParam().keyKind);
    EXPECT_EQ(kind.keyType, GetParam().keyType);
    EXPECT_EQ(kind.bits, GetParam().bits);
    EXPECT_EQ(kind.generationMechanism, GetParam().mechanism);
    EXPECT_EQ(ByteVector(kind.ecParams.begin(), kind.ecParams.end()), GetParam().ecParams);
}

TEST(KeyKinds, OfRsaAreFoundBySize)
{
    const std::pair<CK_ULONG, std::uint32_t> kinds[] = {{1024, 1}, {2048, 2}, {3072, 3}, {4096, 4}};
    for (const auto& [bits, keyKind] : kinds) {
        const KeyKindInfo* kind = findRsaKind(bits);
        ASSERT_NE(kind, nullptr) << bits;
        EXPECT_EQ(kind->keyKind, keyKind);
    }
    for (const CK_ULONG bits : {0u, 256u, 384u, 521u, 1023u, 1536u, 8192u})
        EXPECT_EQ(findRsaKind(bits), nullptr) << bits;
}

TEST(KeyKinds, OfCurvesAreFoundByTheirParameters)
{
    const std::pair<ByteVector, std::uint32_t> kinds[] = {{P256, 5}, {P384, 6}, {P521, 7}};
    for (const auto& [parameters, keyKind] : kinds) {
        const KeyKindInfo* kind = findCurveKind(parameters);
        ASSERT_NE(kind, nullptr) << keyKind;
        EXPECT_EQ(kind->keyKind, keyKind);
        EXPECT_EQ(findCurveKind(ByteVector(parameters.begin(), parameters.end() - 1)), nullptr) << keyKind;
        ByteVector longer = parameters;
        longer.push_back(0);
        EXPECT_EQ(findCurveKind(longer), nullptr) << keyKind;
    }
    EXPECT_EQ(findCurveKind({}), nullptr);
    EXPECT_EQ(findCurveKind(ByteVector{0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x21}), nullptr);
}

} // namespace
