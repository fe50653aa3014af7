// Key pairs and certificates on a device.
#include "world.h"

#include "crypto/keys.h"
#include "store/schema.h"

#include <openssl/core_names.h>

#include <cstdlib>
#include <cstring>
#include <thread>

namespace softkey::test
{
namespace
{

class ObjectsTest : public SoftkeyTest
{
protected:
    int import(ImportPFXDetails& details) const { return velkor_importPfx(SERIAL, PIN, &details, instance); }
    int import(VelkorCertificate& certificate) const
    {
        return velkor_importCertificate(SERIAL, PIN, &certificate, instance);
    }
    int remove(const VelkorKeyPair& key) const
    {
        return velkor_deleteKeyPair(SERIAL, key.keyIdentifier, PIN, key.deviceFlag, instance);
    }
    int update(const VelkorKeyPair& key, const char* label, const Data& objectId) const
    {
        return velkor_updateKeyPairDetails(SERIAL, key.keyIdentifier, PIN, label, objectId.data(), length(objectId),
                                           instance);
    }

    VelkorCertificate certificate(const std::string& commonName, const std::string& label = "") const
    {
        VelkorCertificate made;
        made.der = certificateNamed(commonName);
        std::copy(label.begin(), label.end(), made.label);
        return made;
    }

    static ImportPFXDetails importOf(const RsaVectorKey& key)
    {
        ImportPFXDetails details;
        details.kind = IMPORT_KIND_RSA_COMPONENTS;
        details.label = "imported";
        details.objectId = {1, 2, 3};
        details.modulus = key.modulus;
        details.privateExponent = key.privateExponent;
        details.prime1 = key.prime1;
        return details;
    }
};

Data objectIdOf(const VelkorKeyPair& key)
{
    return Data(key.objectId, key.objectId + key.objectIdLength);
}

/// One of the numbers of an RSA key.
Data numberOf(const EVP_PKEY* key, const char* name)
{
    BIGNUM* number = nullptr;
    EXPECT_EQ(EVP_PKEY_get_bn_param(key, name, &number), 1);
    Data bytes(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    BN_free(number);
    return bytes;
}

class GenerationTest : public ObjectsTest, public ::testing::WithParamInterface<KeyKind>
{
};

TEST_P(GenerationTest, FillsTheRecordAndTheKeySigns)
{
    const KeyKindTraits& traits = traitsOf(GetParam());
    const VelkorKeyPair key = generate(GetParam(), "label", {9, 8, 7}, USAGE_SIGN_VERIFY);
    EXPECT_EQ(key.id, 1U);
    EXPECT_EQ(key.keyKind, static_cast<std::uint32_t>(GetParam()));
    EXPECT_EQ(key.usageFlags, USAGE_SIGN_VERIFY);
    EXPECT_STREQ(key.label, "label");
    EXPECT_EQ(objectIdOf(key), (Data{9, 8, 7}));
    EXPECT_EQ(static_cast<std::size_t>(key.publicKeyLength), traits.isRsa() ? traits.size() : traits.pointSize());
    if (!traits.isRsa()) {
        EXPECT_EQ(key.publicKey[0], 4);
    }
    const std::vector<VelkorKeyPair> listed = keyPairs();
    ASSERT_EQ(listed.size(), 1U);
    EXPECT_EQ(std::memcmp(listed[0].keyIdentifier, key.keyIdentifier, KEY_IDENTIFIER_SIZE), 0);
    EXPECT_EQ(publicKeyBytes(listed[0]), publicKeyBytes(key));
    const Data hash(32, 5);
    EXPECT_EQ(verify(key, hash, sign(key, hash)), 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, GenerationTest,
                         ::testing::Values(KEY_KIND_RSA_1024, KEY_KIND_RSA_2048, KEY_KIND_RSA_3072, KEY_KIND_RSA_4096,
                                           KEY_KIND_EC_P256, KEY_KIND_EC_P384, KEY_KIND_EC_P521));

TEST_F(ObjectsTest, AnUnknownKindIsRsa2048AndNoUsageIsEveryUsage)
{
    const VelkorKeyPair key = generate(static_cast<KeyKind>(99));
    EXPECT_EQ(key.keyKind, static_cast<std::uint32_t>(KEY_KIND_RSA_2048));
    EXPECT_EQ(key.publicKeyLength, 256);
    EXPECT_EQ(key.usageFlags, USAGE_SIGN_VERIFY | USAGE_DECRYPT_ENCRYPT);
}

TEST_F(ObjectsTest, NumbersAreTheSmallestFreeOnesAndStayTheSame)
{
    generate(KEY_KIND_EC_P256, "a");
    const VelkorKeyPair second = generate(KEY_KIND_EC_P256, "b");
    EXPECT_EQ(generate(KEY_KIND_EC_P256, "c").id, 3U);
    EXPECT_EQ(remove(second), 0);
    EXPECT_STREQ(keyPairs()[1].label, "c");
    EXPECT_EQ(keyPairs()[1].id, 3U);
    EXPECT_EQ(generate(KEY_KIND_EC_P256, "d").id, 2U);
}

TEST_F(ObjectsTest, AFullDeviceTakesNoMore)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    otherProcess()->change(PIN, [&](Database& database) {
        for (std::int64_t number = 2; number <= 4095; ++number) {
            const Data publicKey = bytesOf("public key " + std::to_string(number));
            const Identifier identifier = identifierOf(publicKey);
            Statement(database, "INSERT INTO key_pair SELECT ?, ?, kind, object_id, label, ?, sealed_private_key, "
                                "usage_flags, oaep_only FROM key_pair WHERE id = 1")
                .bind(number)
                .bind(Bytes(identifier))
                .bind(Bytes(publicKey))
                .run();
        }
    });
    VelkorKeyPair request;
    request.keyKind = KEY_KIND_EC_P256;
    EXPECT_EQ(velkor_generateKeyPair(SERIAL, PIN, &request, instance), code(SoftkeyStatus::DeviceFull));
    EXPECT_EQ(keyPairs().size(), 4095U);
    EXPECT_EQ(keyPairs().back().id, 4095U);
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
}

TEST_F(ObjectsTest, LabelAndObjectIdAreUpdatedOneByOne)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256, "first", {1});
    EXPECT_EQ(update(key, "second", {}), 0);
    EXPECT_STREQ(keyPairs()[0].label, "second");
    EXPECT_EQ(objectIdOf(keyPairs()[0]), Data{1});
    EXPECT_EQ(update(key, "", {4, 5}), 0);
    EXPECT_STREQ(keyPairs()[0].label, "second");
    EXPECT_EQ(objectIdOf(keyPairs()[0]), (Data{4, 5}));
    EXPECT_EQ(velkor_updateKeyPairDetails(SERIAL, key.keyIdentifier, PIN, nullptr, nullptr, 0, instance), 0);
    EXPECT_EQ(update(key, std::string(128, 'x').c_str(), Data(128, 7)), 0);
    EXPECT_EQ(std::strlen(keyPairs()[0].label), 128U);
    EXPECT_EQ(keyPairs()[0].objectIdLength, 128);
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
}

TEST_F(ObjectsTest, UpdatesOutOfRangeChangeNothing)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256, "first", {1});
    EXPECT_EQ(update(key, std::string(129, 'x').c_str(), {}), code(SoftkeyStatus::BadArgument));
    EXPECT_EQ(update(key, "second", Data(129, 7)), code(SoftkeyStatus::BadArgument));
    VelkorKeyPair unknown = key;
    unknown.keyIdentifier[3] ^= 1;
    EXPECT_EQ(update(unknown, "second", {2}), code(SoftkeyStatus::NoSuchObject));
    EXPECT_STREQ(keyPairs()[0].label, "first");
    EXPECT_EQ(objectIdOf(keyPairs()[0]), Data{1});
}

TEST_F(ObjectsTest, ADeletedKeyPairIsGoneAtOnce)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
    EXPECT_EQ(remove(key), 0);
    EXPECT_EQ(trySign(key, Data(32, 1)), code(SoftkeyStatus::NoSuchObject));
    EXPECT_EQ(remove(key), code(SoftkeyStatus::NoSuchObject));
    EXPECT_TRUE(keyPairs().empty());
}

TEST_F(ObjectsTest, AKeyPairDeletedByAnotherProcessIsGoneForTheNextCall)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
    otherProcess()->change(PIN, [&](Database& database) { deleteKeyPair(database, std::to_array(key.keyIdentifier)); });
    EXPECT_EQ(trySign(key, Data(32, 1)), code(SoftkeyStatus::NoSuchObject));
}

TEST_F(ObjectsTest, ListsOfTwoDevicesInOneThreadDoNotMix)
{
    createKey(cheapSettings("KEY2"));
    generate(KEY_KIND_EC_P256);
    EXPECT_EQ(velkor_getKeyPairList(SERIAL, instance).size(), 1U);
    EXPECT_EQ(velkor_getKeyPairList("KEY2", instance).size(), 0U);
    std::vector<VelkorKeyPair>& list = velkor_getKeyPairList(SERIAL, instance);
    list.clear(); // The caller's to spoil.
    EXPECT_EQ(velkor_getKeyPairList(SERIAL, instance).size(), 1U);
}

// ---- Lists that are filled when something has changed ----

TEST_F(ObjectsTest, AListThatIsKeptStaysAsItIsUntilTheThreadsNextCall)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256, "before");
    const std::vector<VelkorKeyPair>& kept = velkor_getKeyPairList(SERIAL, instance);
    otherProcess()->change(PIN, [&](Database& database) {
        updateKeyPair(database, std::to_array(key.keyIdentifier), {{}, "after"});
    });
    EXPECT_EQ(trySign(key, Data(32, 1)), 0);
    EXPECT_EQ(velkor_initDevice(SERIAL, true, instance), 0);
    EXPECT_TRUE(certificates().empty());
    std::thread([&] { EXPECT_STREQ(keyPairs().at(0).label, "after"); }).join();
    EXPECT_STREQ(kept.at(0).label, "before");
    EXPECT_EQ(&velkor_getKeyPairList(SERIAL, instance), &kept);
    EXPECT_STREQ(kept.at(0).label, "after");
}

TEST_F(ObjectsTest, EveryChangeByAnotherProcessIsInTheNextList)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256, "first");
    VelkorCertificate stored = certificate("Certificate");
    ASSERT_EQ(import(stored), 0);
    const std::unique_ptr<SoftKey> other = otherProcess();
    for (int round = 0; round < 20; ++round) {
        const std::string label = "label " + std::to_string(round);
        other->change(PIN, [&](Database& database) {
            updateKeyPair(database, std::to_array(key.keyIdentifier), {{}, label});
        });
        EXPECT_STREQ(keyPairs().at(0).label, label.c_str());
        EXPECT_EQ(velkor_initDevice(SERIAL, true, instance), 0);
        EXPECT_STREQ(keyPairs().at(0).label, label.c_str());
        EXPECT_EQ(certificates().size(), 1U);
    }
}

TEST_F(ObjectsTest, AListIsEmptyWhileItsKeyCannotBeReadAndFullAgainAfterwards)
{
    generate(KEY_KIND_EC_P256, "pair");
    const std::vector<VelkorKeyPair>& list = velkor_getKeyPairList(SERIAL, instance);
    EXPECT_EQ(list.size(), 1U);
    EXPECT_TRUE(velkor_getKeyPairList("NONE", instance).empty());
    EXPECT_EQ(velkor_getKeyPairList(SERIAL, instance).size(), 1U);
    otherProcess()->file().setPlugged(false);
    EXPECT_TRUE(velkor_getKeyPairList(SERIAL, instance).empty());
    otherProcess()->file().setPlugged(true);
    EXPECT_EQ(velkor_getKeyPairList(SERIAL, instance).size(), 1U);
}

TEST_F(ObjectsTest, WithoutKeyPairsTheListIsEmptyHoweverOftenItIsAskedFor)
{
    for (int time = 0; time < 3; ++time) {
        EXPECT_TRUE(velkor_getKeyPairList(SERIAL, instance).empty());
        EXPECT_EQ(velkor_initDevice(SERIAL, true, instance), 0);
    }
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(velkor_getKeyPairList(SERIAL, instance).size(), 1U);
    EXPECT_EQ(remove(key), 0);
    EXPECT_TRUE(velkor_getKeyPairList(SERIAL, instance).empty());
}

TEST_F(ObjectsTest, TheWidestRecordsAreListedWhole)
{
    generate(KEY_KIND_EC_P256);
    const Data publicKey(PUBLIC_KEY_CAPACITY, 0x5A);
    const Data objectId(OBJECT_ID_CAPACITY, 0xA5);
    const std::string label(LABEL_CAPACITY, 'l');
    otherProcess()->change(PIN, [&](Database& database) {
        const Identifier identifier = identifierOf(publicKey);
        Statement(database, "INSERT INTO key_pair SELECT 4095, ?, 4, ?, ?, ?, sealed_private_key, usage_flags, "
                            "oaep_only FROM key_pair WHERE id = 1")
            .bind(Bytes(identifier))
            .bind(Bytes(objectId))
            .bind(Bytes(bytesOf(label)))
            .bind(Bytes(publicKey))
            .run();
    });
    for (int time = 0; time < 2; ++time) {
        const std::vector<VelkorKeyPair> listed = keyPairs();
        ASSERT_EQ(listed.size(), 2U);
        EXPECT_EQ(listed[1].id, 4095U);
        EXPECT_EQ(publicKeyBytes(listed[1]), publicKey);
        EXPECT_EQ(objectIdOf(listed[1]), objectId);
        EXPECT_STREQ(listed[1].label, label.c_str());
    }
}

TEST_F(ObjectsTest, AnRsaKeyIsImportedFromThreeComponents)
{
    ImportPFXDetails details = importOf(signatureVectorKey());
    ASSERT_EQ(import(details), 0);
    const VelkorKeyPair key = keyPairs().at(0);
    EXPECT_EQ(std::memcmp(key.keyIdentifier, details.keyIdentifier, KEY_IDENTIFIER_SIZE), 0);
    EXPECT_EQ(publicKeyBytes(key), details.modulus);
    EXPECT_EQ(key.keyKind, static_cast<std::uint32_t>(KEY_KIND_RSA_1024));
    EXPECT_STREQ(key.label, "imported");
    EXPECT_EQ(objectIdOf(key), (Data{1, 2, 3}));
    const Data hash(20, 3);
    EXPECT_EQ(verify(key, hash, sign(key, hash)), 0);
}

TEST_F(ObjectsTest, LeadingZerosAndTheOtherPrimeDoNotMatter)
{
    ImportPFXDetails details = importOf(signatureVectorKey());
    details.modulus.insert(details.modulus.begin(), 2, 0);
    details.prime1.insert(details.prime1.begin(), 0);
    EXPECT_EQ(import(details), 0);
    EXPECT_EQ(keyPairs().at(0).publicKeyLength, 128);
    EXPECT_EQ(remove(keyPairs().at(0)), 0);
    details = importOf(signatureVectorKey());
    details.prime1 = numberOf(keyOf(signatureVectorKey()).get(), OSSL_PKEY_PARAM_RSA_FACTOR2);
    EXPECT_NE(details.prime1, signatureVectorKey().prime1);
    ASSERT_EQ(import(details), 0);
    const Data hash(32, 3);
    EXPECT_EQ(verify(keyPairs().at(0), hash, sign(keyPairs().at(0), hash)), 0);
}

class ImportTest : public ObjectsTest, public ::testing::WithParamInterface<KeyKind>
{
};

TEST_P(ImportTest, AnImportedKeySignsAndDecrypts)
{
    const KeyKindTraits& traits = traitsOf(GetParam());
    const EvpKey fresh = generateKey(traits);
    ImportPFXDetails details =
        importOf({numberOf(fresh.get(), OSSL_PKEY_PARAM_RSA_N), numberOf(fresh.get(), OSSL_PKEY_PARAM_RSA_D),
                  numberOf(fresh.get(), OSSL_PKEY_PARAM_RSA_FACTOR1)});
    ASSERT_EQ(import(details), 0);
    const VelkorKeyPair key = keyPairs().at(0);
    EXPECT_EQ(key.keyKind, static_cast<std::uint32_t>(GetParam()));
    const Data hash(32, 3);
    EXPECT_EQ(verify(key, hash, sign(key, hash)), 0);
    EXPECT_EQ(verify(key, hash, sign(key, hash, true), true), 0);
    const Data publicKey = publicKeyInfo(key);
    for (const PaddingMode padding : {PaddingMode::Pkcs1, PaddingMode::Oaep}) {
        Data ciphertext(1024);
        int size = 0;
        ASSERT_EQ(velkor_encrypt(traits.encryptionType, padding, hash.data(), length(hash), ciphertext.data(), &size,
                                 publicKey.data(), length(publicKey), instance),
                  0);
        EXPECT_EQ(static_cast<std::size_t>(size), traits.size());
        unsigned char* plaintext = nullptr;
        int plaintextLength = 0;
        ASSERT_EQ(velkor_decrypt(SERIAL, key.keyIdentifier, PIN, ciphertext.data(), size, &plaintext, &plaintextLength,
                                 false, instance),
                  0);
        EXPECT_EQ(Data(plaintext, plaintext + plaintextLength), hash);
        std::free(plaintext);
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, ImportTest, ::testing::Values(KEY_KIND_RSA_2048, KEY_KIND_RSA_3072, KEY_KIND_RSA_4096));

TEST_F(ObjectsTest, TheSameKeyTwiceIsOneKeyPair)
{
    ImportPFXDetails details = importOf(signatureVectorKey());
    ASSERT_EQ(import(details), 0);
    details.label = "renamed";
    details.objectId.clear();
    ASSERT_EQ(import(details), 0);
    ASSERT_EQ(keyPairs().size(), 1U);
    EXPECT_STREQ(keyPairs()[0].label, "renamed");
    EXPECT_EQ(objectIdOf(keyPairs()[0]), (Data{1, 2, 3}));
}

TEST_F(ObjectsTest, ComponentsThatMakeNoKeyAreRefused)
{
    const auto refused = [&](auto change, SoftkeyStatus status = SoftkeyStatus::BadPrivateKey) {
        ImportPFXDetails details = importOf(signatureVectorKey());
        change(details);
        EXPECT_EQ(import(details), code(status));
    };
    refused([](auto& d) { d.modulus.clear(); });
    refused([](auto& d) { d.privateExponent.clear(); });
    refused([](auto& d) { d.prime1 = {0, 0}; });
    refused([](auto& d) { d.prime1 = {1}; });
    refused([](auto& d) { d.prime1 = d.modulus; });
    refused([](auto& d) { d.prime1[5] ^= 4; });
    refused([](auto& d) { d.modulus[100] ^= 4; });
    refused([](auto& d) { d.privateExponent[100] ^= 4; });
    refused([](auto& d) { d.prime1 = oaepVectorKey().prime1; });
    refused([](auto& d) { d.modulus.assign(1 << 20, 0xff); });
    refused([](auto& d) { d.modulus = d.prime1; });
    refused([](auto& d) { d.kind = 1; }, SoftkeyStatus::NotSupported);
    refused([](auto& d) { d.label = std::string(129, 'x'); }, SoftkeyStatus::BadArgument);
    refused([](auto& d) { d.label = std::string("a\0b", 3); }, SoftkeyStatus::BadArgument);
    refused([](auto& d) { d.objectId.assign(129, 1); }, SoftkeyStatus::BadArgument);
    EXPECT_TRUE(keyPairs().empty());
}

TEST_F(ObjectsTest, ACertificateIsStoredAndListed)
{
    VelkorCertificate request = certificate("One", "label");
    request.objectId[0] = 7;
    request.objectIdLength = 1;
    ASSERT_EQ(import(request), 0);
    EXPECT_EQ(request.id, 1U);
    ASSERT_EQ(certificates().size(), 1U);
    const VelkorCertificate stored = certificates()[0];
    EXPECT_EQ(stored.id, 1U);
    EXPECT_EQ(stored.der, request.der);
    EXPECT_STREQ(stored.label, "label");
    EXPECT_EQ(stored.objectIdLength, 1);
    EXPECT_EQ(stored.objectId[0], 7);
    EXPECT_EQ(std::memcmp(stored.certificateIdentifier, request.certificateIdentifier, KEY_IDENTIFIER_SIZE), 0);
}

TEST_F(ObjectsTest, TheSameCertificateTwiceIsOneCertificate)
{
    VelkorCertificate first = certificate("One", "label");
    VelkorCertificate other = certificate("Two");
    ASSERT_EQ(import(first), 0);
    ASSERT_EQ(import(other), 0);
    VelkorCertificate again;
    again.der = first.der;
    std::strcpy(again.label, "renamed");
    ASSERT_EQ(import(again), 0);
    EXPECT_EQ(again.id, first.id);
    EXPECT_EQ(std::memcmp(again.certificateIdentifier, first.certificateIdentifier, KEY_IDENTIFIER_SIZE), 0);
    EXPECT_EQ(certificates().size(), 2U);
    EXPECT_STREQ(certificates()[0].label, "renamed");
}

TEST_F(ObjectsTest, WhatIsNoCertificateIsRefused)
{
    const VelkorCertificate good = certificate("One");
    const auto refused = [&](auto change, SoftkeyStatus status = SoftkeyStatus::BadCertificate) {
        VelkorCertificate request = good;
        change(request);
        EXPECT_EQ(import(request), code(status));
    };
    refused([](auto& c) { c.der.clear(); });
    refused([](auto& c) { c.der.pop_back(); });
    refused([](auto& c) { c.der.push_back(0); });
    refused([](auto& c) { c.der.assign(100, 0x30); });
    refused([](auto& c) { c.der.resize(1 << 20); });
    refused([](auto& c) { c.objectIdLength = -1; }, SoftkeyStatus::BadArgument);
    refused([](auto& c) { c.objectIdLength = 129; }, SoftkeyStatus::BadArgument);
    refused([](auto& c) { std::memset(c.label, 'x', sizeof c.label); }, SoftkeyStatus::BadArgument);
    EXPECT_TRUE(certificates().empty());
}

TEST_F(ObjectsTest, ACertificateIsDeleted)
{
    VelkorCertificate request = certificate("One");
    ASSERT_EQ(import(request), 0);
    const auto removeIt = [&](const char* pin) {
        return velkor_deleteCertificate(SERIAL, request.certificateIdentifier, pin, instance);
    };
    EXPECT_EQ(removeIt(""), code(SoftkeyStatus::PinRequired));
    EXPECT_EQ(removeIt(WRONG_PIN), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(certificates().size(), 1U);
    EXPECT_EQ(removeIt(PIN), 0);
    EXPECT_TRUE(certificates().empty());
    EXPECT_EQ(removeIt(PIN), code(SoftkeyStatus::NoSuchObject));
}

TEST_F(ObjectsTest, EveryChangeNeedsThePin)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256, "label");
    const Data before = readFile(keyPath());
    ImportPFXDetails details = importOf(signatureVectorKey());
    VelkorCertificate request = certificate("One");
    VelkorKeyPair pairRequest;
    const int required = code(SoftkeyStatus::PinRequired);
    EXPECT_EQ(velkor_importPfx(SERIAL, "", &details, instance), required);
    EXPECT_EQ(velkor_importCertificate(SERIAL, "", &request, instance), required);
    EXPECT_EQ(velkor_generateKeyPair(SERIAL, "", &pairRequest, instance), required);
    EXPECT_EQ(velkor_deleteKeyPair(SERIAL, key.keyIdentifier, "", false, instance), required);
    EXPECT_EQ(velkor_updateKeyPairDetails(SERIAL, key.keyIdentifier, "", "x", nullptr, 0, instance), required);
    EXPECT_EQ(readFile(keyPath()), before);
}

} // namespace
} // namespace softkey::test
