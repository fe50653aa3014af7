// The module over keys of every size: none, as many key pairs as a key may have, and records of the widest size.
#include "crypto/keys.h"
#include "cryptoki.h"
#include "world.h"

#include <array>

namespace softkey::test
{
namespace
{

constexpr std::uint32_t MOST = 4095;
constexpr CK_SLOT_ID FIRST_SLOT = 0x50000001;
constexpr CK_OBJECT_HANDLE PRIVATE_KEYS = 0x70000000;
constexpr CK_OBJECT_HANDLE PUBLIC_KEYS = 0x70001000;

using Handles = std::vector<CK_OBJECT_HANDLE>;

class ModuleSizesTest : public SoftkeyTest
{
protected:
    void SetUp() override
    {
        test_system::setTemporaryFolder(scratch.path());
        test_system::setEnvironment("VELKOR_CONFIG", scratch.file("velkor.conf", bytesOf("logLevel = 0\n")));
    }

    void TearDown() override
    {
        C_Finalize(nullptr);
        test_system::setTemporaryFolder(temporaryFolder_);
    }

    /// Logged in.
    static CK_SESSION_HANDLE begin()
    {
        EXPECT_EQ(C_Initialize(nullptr), CKR_OK);
        std::array<CK_SLOT_ID, 4> slots{};
        CK_ULONG count = slots.size();
        EXPECT_EQ(C_GetSlotList(CK_TRUE, slots.data(), &count), CKR_OK);
        CK_SESSION_HANDLE session = 0;
        EXPECT_EQ(C_OpenSession(FIRST_SLOT, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session), CKR_OK);
        Data pin = bytesOf(PIN);
        EXPECT_EQ(C_Login(session, CKU_USER, pin.data(), static_cast<CK_ULONG>(pin.size())), CKR_OK);
        return session;
    }

    /// All that a search finds, in pages of 100.
    static Handles find(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass, Data objectId = {})
    {
        std::array<CK_ATTRIBUTE, 2> criteria{
            CK_ATTRIBUTE{CKA_CLASS, &objectClass, sizeof objectClass},
            CK_ATTRIBUTE{CKA_ID, objectId.data(), static_cast<CK_ULONG>(objectId.size())}};
        EXPECT_EQ(C_FindObjectsInit(session, criteria.data(), objectId.empty() ? 1 : 2), CKR_OK);
        Handles found;
        std::array<CK_OBJECT_HANDLE, 100> page{};
        for (CK_ULONG count = 1; count > 0;) {
            EXPECT_EQ(C_FindObjects(session, page.data(), page.size(), &count), CKR_OK);
            found.insert(found.end(), page.begin(), page.begin() + static_cast<std::ptrdiff_t>(count));
        }
        EXPECT_EQ(C_FindObjectsFinal(session), CKR_OK);
        return found;
    }

    static Data attribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
    {
        CK_ATTRIBUTE query{type, nullptr, 0};
        EXPECT_EQ(C_GetAttributeValue(session, object, &query, 1), CKR_OK);
        Data value(query.ulValueLen);
        query.pValue = value.data();
        EXPECT_EQ(C_GetAttributeValue(session, object, &query, 1), CKR_OK);
        return value;
    }

    static CK_RV sign(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key)
    {
        CK_MECHANISM mechanism{CKM_ECDSA, nullptr, 0};
        if (const CK_RV refused = C_SignInit(session, &mechanism, key); refused != CKR_OK)
            return refused;
        Data hash(32, 1);
        Data signature(64);
        auto length = static_cast<CK_ULONG>(signature.size());
        return C_Sign(session, hash.data(), static_cast<CK_ULONG>(hash.size()), signature.data(), &length);
    }

    /// Puts a copy of the first record on the key, under another number and with these fields.
    static void copyFirst(Database& database, std::uint32_t number, const Data& publicKey, const Data& objectId,
                          const std::string& label)
    {
        const Identifier identifier = identifierOf(publicKey);
        Statement(database, "INSERT INTO key_pair SELECT ?, ?, kind, ?, ?, ?, sealed_private_key, usage_flags, "
                            "oaep_only FROM key_pair WHERE id = 1")
            .bind(std::int64_t{number})
            .bind(Bytes(identifier))
            .bind(Bytes(objectId))
            .bind(Bytes(bytesOf(label)))
            .bind(Bytes(publicKey))
            .run();
    }

    static Data objectIdOf(std::uint32_t number) { return bytesOf("id " + std::to_string(number)); }

private:
    const std::filesystem::path temporaryFolder_ = std::filesystem::temp_directory_path();
};

TEST_F(ModuleSizesTest, AKeyWithoutKeyPairsHasNoObjects)
{
    const CK_SESSION_HANDLE session = begin();
    for (int time = 0; time < 2; ++time) {
        EXPECT_EQ(find(session, CKO_PUBLIC_KEY), Handles());
        EXPECT_EQ(find(session, CKO_PRIVATE_KEY), Handles());
        EXPECT_EQ(find(session, CKO_PRIVATE_KEY, {1}), Handles());
        EXPECT_EQ(find(session, CKO_CERTIFICATE), Handles());
    }
    CK_ATTRIBUTE query{CKA_ID, nullptr, 0};
    EXPECT_NE(C_GetAttributeValue(session, PRIVATE_KEYS + 1, &query, 1), CKR_OK);
    EXPECT_EQ(sign(session, PRIVATE_KEYS + 1), CKR_OBJECT_HANDLE_INVALID);
}

TEST_F(ModuleSizesTest, AsManyKeyPairsAsAKeyMayHaveAreListedAndFound)
{
    generate(KEY_KIND_EC_P256, "first", objectIdOf(1));
    otherProcess()->change(PIN, [&](Database& database) {
        for (std::uint32_t number = 2; number <= MOST; ++number)
            copyFirst(database, number, bytesOf("public key " + std::to_string(number)), objectIdOf(number),
                      "label " + std::to_string(number));
    });
    const CK_SESSION_HANDLE session = begin();
    for (const auto& [objectClass, base] :
         {std::pair<CK_OBJECT_CLASS, CK_OBJECT_HANDLE>{CKO_PUBLIC_KEY, PUBLIC_KEYS}, {CKO_PRIVATE_KEY, PRIVATE_KEYS}}) {
        const Handles all = find(session, objectClass);
        ASSERT_EQ(all.size(), MOST);
        for (std::uint32_t number = 1; number <= MOST; ++number)
            EXPECT_EQ(all[number - 1], base + number);
        for (const std::uint32_t number : {1U, 2U, 2048U, MOST}) {
            EXPECT_EQ(find(session, objectClass, objectIdOf(number)), Handles{base + number});
            EXPECT_EQ(attribute(session, base + number, CKA_ID), objectIdOf(number));
        }
        EXPECT_EQ(attribute(session, base + MOST, CKA_LABEL), bytesOf("label " + std::to_string(MOST)));
        EXPECT_EQ(find(session, objectClass, objectIdOf(MOST + 1)), Handles());
    }
    EXPECT_EQ(sign(session, PRIVATE_KEYS + 1), CKR_OK);
}

TEST_F(ModuleSizesTest, TheWidestRecordIsFoundAndToldWhole)
{
    generate(KEY_KIND_EC_P256);
    const Data objectId(OBJECT_ID_CAPACITY, 0xA5);
    const std::string label(LABEL_CAPACITY, 'l');
    otherProcess()->change(
        PIN, [&](Database& database) { copyFirst(database, MOST, Data(PUBLIC_KEY_CAPACITY, 0x5A), objectId, label); });
    const CK_SESSION_HANDLE session = begin();
    EXPECT_EQ(find(session, CKO_PUBLIC_KEY, objectId), Handles{PUBLIC_KEYS + MOST});
    EXPECT_EQ(find(session, CKO_PRIVATE_KEY, objectId), Handles{PRIVATE_KEYS + MOST});
    for (const CK_OBJECT_HANDLE key : {PUBLIC_KEYS + MOST, PRIVATE_KEYS + MOST}) {
        EXPECT_EQ(attribute(session, key, CKA_ID), objectId);
        EXPECT_EQ(attribute(session, key, CKA_LABEL), bytesOf(label));
    }
    Data shorter = objectId;
    shorter.pop_back();
    EXPECT_EQ(find(session, CKO_PUBLIC_KEY, shorter), Handles());
}

} // namespace
} // namespace softkey::test
