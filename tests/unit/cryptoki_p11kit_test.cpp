// Owns the comparison of our header with an independent one. The names of constants and functions are taken from our
// header when the build is configured, so whatever is added there is compared without a change here.

#include "cryptoki_tables.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <string>

namespace
{

using cryptoki_tables::Tables;

const Tables& own()
{
    static const Tables tables = cryptoki_tables::ownTables();
    return tables;
}

const Tables& p11kit()
{
    static const Tables tables = cryptoki_tables::p11kitTables();
    return tables;
}

// Without this, a header written in a form the extraction does not recognize would pass by comparing nothing.
TEST(CryptokiAgainstP11Kit, TheExtractionFindsEveryFamilyOfConstants)
{
    for (const char* prefix : {"CK_", "CKA_", "CKC_", "CKD_", "CKF_", "CKG_", "CKH_", "CKK_", "CKM_", "CKN_", "CKO_",
                               "CKP_", "CKR_", "CKS_", "CKU_", "CKZ_"}) {
        const auto first = own().constants.lower_bound(prefix);
        EXPECT_TRUE(first != own().constants.end() && first->first.starts_with(prefix)) << prefix;
    }
    EXPECT_GT(own().constants.size(), 500U);
}

TEST(CryptokiAgainstP11Kit, SharedConstantsAreEqual)
{
    for (const auto& [name, value] : own().constants) {
        const auto other = p11kit().constants.find(name);
        if (other != p11kit().constants.end()) {
            EXPECT_EQ(other->second, value) << name;
        }
    }
}

// Their values stand here because nothing else would notice a slip in them.
TEST(CryptokiAgainstP11Kit, OnlyTheseConstantsHaveNoCounterpart)
{
    const std::map<std::string, unsigned long> expected{
        {"CKA_SUBPRIME_BITS", 0x134}, {"CKF_EC_ECPARAMETERS", 0x400000}, {"CKF_EC_F_2M", 0x200000},
        {"CKK_CAST5", 0x18},          {"CKP_PKCS5_PBKD2_HMAC_SHA1", 1},  {"CKZ_SALT_SPECIFIED", 1},
        {"CK_OTP_OUTPUT_FORMAT", 7},
    };
    std::map<std::string, unsigned long> missing;
    for (const auto& [name, value] : own().constants) {
        if (!p11kit().constants.contains(name)) {
            missing.emplace(name, value);
        }
    }
    EXPECT_EQ(expected, missing);
}

TEST(CryptokiAgainstP11Kit, SharedTypesHaveTheSameSizesAndOffsets)
{
    ASSERT_FALSE(own().types.empty());
    for (const auto& [name, description] : own().types) {
        EXPECT_EQ(p11kit().types.at(name), description) << name;
    }
}

TEST(CryptokiAgainstP11Kit, TheFunctionListHasTheSameOrderAndParameters)
{
    ASSERT_EQ(68U, own().functions.size());
    ASSERT_EQ(68U, p11kit().functions.size());
    std::size_t previous = 0;
    for (std::size_t index = 0; index < own().functions.size(); ++index) {
        const auto& mine = own().functions[index];
        const auto& other = p11kit().functions[index];
        EXPECT_EQ(other.offset, mine.offset) << mine.name;
        EXPECT_EQ(other.type, mine.type) << mine.name;
        EXPECT_LT(previous, mine.offset) << mine.name;
        previous = mine.offset;
    }
}

} // namespace
