// Every operation with null pointers and with zero, negative and huge lengths: a status, no crash, nothing changed.
#include "world.h"

#include <climits>
#include <cstdlib>
#include <functional>

namespace softkey::test
{
namespace
{

class BadInputTest : public SoftkeyTest
{
protected:
    BadInputTest() : key(generate(KEY_KIND_EC_P256, "label")), before(readFile(keyPath())) {}
    ~BadInputTest() override
    {
        EXPECT_EQ(readFile(keyPath()), before);
        EXPECT_EQ(trySign(key, Data(32, 1)), 0) << "the library still works";
    }

    const VelkorKeyPair key;
    const Data before;
    Data bytes = Data(64, 1);
    Data out = Data(1024, 0xee);
    int outSize = 1024;
    unsigned char* allocated = nullptr;
};

const int BAD_LENGTHS[] = {0, -1, -1000, INT_MIN};

TEST_F(BadInputTest, Signing)
{
    const auto attempt = [&](const char* device, const unsigned char* id, const char* pin, const unsigned char* hash,
                             int hashLength, unsigned char* signature, int* size) {
        EXPECT_NE(velkor_signHash(device, id, pin, hash, hashLength, signature, size, false, instance, false), 0);
    };
    const unsigned char* id = key.keyIdentifier;
    attempt(nullptr, id, PIN, bytes.data(), 32, out.data(), &outSize);
    attempt("", id, PIN, bytes.data(), 32, out.data(), &outSize);
    attempt("NONE", id, PIN, bytes.data(), 32, out.data(), &outSize);
    attempt(SERIAL, nullptr, PIN, bytes.data(), 32, out.data(), &outSize);
    attempt(SERIAL, bytes.data(), PIN, bytes.data(), 32, out.data(), &outSize);
    attempt(SERIAL, id, nullptr, bytes.data(), 32, out.data(), &outSize);
    attempt(SERIAL, id, PIN, nullptr, 32, out.data(), &outSize);
    attempt(SERIAL, id, PIN, bytes.data(), 32, nullptr, &outSize);
    attempt(SERIAL, id, PIN, bytes.data(), 32, out.data(), nullptr);
    for (const int bad : BAD_LENGTHS) {
        attempt(SERIAL, id, PIN, bytes.data(), bad, out.data(), &outSize);
        int size = bad;
        attempt(SERIAL, id, PIN, bytes.data(), 32, out.data(), &size);
        EXPECT_EQ(size, bad);
    }
    EXPECT_EQ(out, Data(1024, 0xee));
}

TEST_F(BadInputTest, Verifying)
{
    const auto attempt = [&](const char* device, const unsigned char* hash, int hashLength,
                             const unsigned char* publicKey, int keyLength, const unsigned char* signature, int size) {
        for (const unsigned int kind : {0U, 1U, 5U, 7U, UINT_MAX})
            EXPECT_NE(velkor_verifySignatureHash(kind, device, hash, hashLength, publicKey, keyLength, signature, size,
                                                 instance, false),
                      0);
    };
    const unsigned char* data = bytes.data();
    attempt(nullptr, data, 32, key.publicKey, 65, data, 64);
    attempt(SERIAL, nullptr, 32, key.publicKey, 65, data, 64);
    attempt(SERIAL, data, 32, nullptr, 65, data, 64);
    attempt(SERIAL, data, 32, key.publicKey, 65, nullptr, 64);
    for (const int bad : BAD_LENGTHS) {
        attempt(SERIAL, data, bad, key.publicKey, 65, data, 64);
        attempt(SERIAL, data, 32, key.publicKey, bad, data, 64);
        attempt(SERIAL, data, 32, key.publicKey, 65, data, bad);
    }
    attempt(SERIAL, data, 32, data, 64, data, 64);
}

TEST_F(BadInputTest, Encrypting)
{
    const Data info = publicKeyInfo(store(keyOf(oaepVectorKey()).get()));
    const_cast<Data&>(before) = readFile(keyPath());
    const auto attempt = [&](const unsigned char* data, int size, unsigned char* result, int* resultSize,
                             const unsigned char* der, int derSize, void* library) {
        EXPECT_NE(velkor_encrypt(EncryptionType::Rsa1024, PaddingMode::Oaep, data, size, result, resultSize, der,
                                 derSize, library),
                  0);
    };
    const int infoSize = length(info);
    attempt(nullptr, 5, out.data(), &outSize, info.data(), infoSize, instance);
    attempt(bytes.data(), 5, nullptr, &outSize, info.data(), infoSize, instance);
    attempt(bytes.data(), 5, out.data(), nullptr, info.data(), infoSize, instance);
    attempt(bytes.data(), 5, out.data(), &outSize, nullptr, infoSize, instance);
    attempt(bytes.data(), 5, out.data(), &outSize, info.data(), infoSize, nullptr);
    for (const int bad : BAD_LENGTHS) {
        attempt(bytes.data(), bad, out.data(), &outSize, info.data(), infoSize, instance);
        attempt(bytes.data(), 5, out.data(), &outSize, info.data(), bad, instance);
    }
    for (int cut = 1; cut < infoSize; ++cut)
        attempt(bytes.data(), 5, out.data(), &outSize, info.data(), cut, instance);
    EXPECT_EQ(out, Data(1024, 0xee));
}

TEST_F(BadInputTest, DecryptingAndDeriving)
{
    using Operation = std::function<int(const char*, const unsigned char*, const char*, const unsigned char*, int,
                                        unsigned char**, int*)>;
    const Operation operations[] = {
        [&](auto device, auto id, auto pin, auto data, auto size, auto result, auto resultSize) {
            return velkor_decrypt(device, id, pin, data, size, result, resultSize, false, instance);
        },
        [&](auto device, auto id, auto pin, auto data, auto size, auto result, auto resultSize) {
            return velkor_ecdhDerive(device, id, pin, data, size, result, resultSize, instance);
        },
    };
    const unsigned char* id = key.keyIdentifier;
    for (const Operation& operation : operations) {
        EXPECT_NE(operation(nullptr, id, PIN, bytes.data(), 64, &allocated, &outSize), 0);
        EXPECT_NE(operation(SERIAL, nullptr, PIN, bytes.data(), 64, &allocated, &outSize), 0);
        EXPECT_NE(operation(SERIAL, bytes.data(), PIN, bytes.data(), 64, &allocated, &outSize), 0);
        EXPECT_NE(operation(SERIAL, id, nullptr, bytes.data(), 64, &allocated, &outSize), 0);
        EXPECT_NE(operation(SERIAL, id, PIN, nullptr, 64, &allocated, &outSize), 0);
        EXPECT_NE(operation(SERIAL, id, PIN, bytes.data(), 64, nullptr, &outSize), 0);
        EXPECT_NE(operation(SERIAL, id, PIN, bytes.data(), 64, &allocated, nullptr), 0);
        for (const int bad : BAD_LENGTHS)
            EXPECT_NE(operation(SERIAL, id, PIN, bytes.data(), bad, &allocated, &outSize), 0);
        EXPECT_EQ(allocated, nullptr);
    }
}

TEST_F(BadInputTest, Hashing)
{
    void* context = nullptr;
    EXPECT_NE(velkor_initHash(nullptr, HASH_SHA256, &context, instance), 0);
    EXPECT_NE(velkor_initHash(SERIAL, HASH_SHA256, nullptr, instance), 0);
    EXPECT_NE(velkor_initHash(SERIAL, HASH_SHA256, &context, nullptr), 0);
    EXPECT_EQ(context, nullptr);
    ASSERT_EQ(velkor_initHash(SERIAL, HASH_SHA256, &context, instance), 0);
    EXPECT_NE(velkor_updateHash(context, nullptr, 5, instance), 0);
    for (const int bad : BAD_LENGTHS)
        EXPECT_NE(velkor_updateHash(context, bytes.data(), bad, instance), 0);
    EXPECT_EQ(velkor_updateHash(context, bytesOf("abc").data(), 3, instance), 0);
    EXPECT_EQ(velkor_finalHash(context, out.data(), &outSize, instance), 0);
    EXPECT_EQ(out[0], 0xba) << "refused updates left no trace";
    EXPECT_EQ(outSize, 32);
}

TEST_F(BadInputTest, ChangingContents)
{
    const unsigned char* id = key.keyIdentifier;
    VelkorKeyPair pairRequest;
    pairRequest.keyKind = KEY_KIND_EC_P256;
    VelkorCertificate certificate;
    ImportPFXDetails details;
    EXPECT_NE(velkor_updateKeyPairDetails(SERIAL, nullptr, PIN, "x", nullptr, 0, instance), 0);
    EXPECT_NE(velkor_updateKeyPairDetails(SERIAL, id, nullptr, "x", nullptr, 0, instance), 0);
    EXPECT_NE(velkor_updateKeyPairDetails(SERIAL, id, PIN, "x", nullptr, 5, instance), 0);
    EXPECT_NE(velkor_updateKeyPairDetails(SERIAL, id, PIN, "x", bytes.data(), -1, instance), 0);
    EXPECT_NE(velkor_updateKeyPairDetails(SERIAL, id, PIN, "x", bytes.data(), INT_MAX, instance), 0);
    EXPECT_NE(velkor_deleteKeyPair(SERIAL, nullptr, PIN, false, instance), 0);
    EXPECT_NE(velkor_deleteKeyPair(nullptr, id, PIN, false, instance), 0);
    EXPECT_NE(velkor_deleteKeyPair(SERIAL, id, nullptr, false, instance), 0);
    EXPECT_NE(velkor_deleteKeyPair(SERIAL, id, PIN, false, nullptr), 0);
    EXPECT_NE(velkor_deleteCertificate(SERIAL, nullptr, PIN, instance), 0);
    EXPECT_NE(velkor_deleteCertificate(SERIAL, id, PIN, instance), 0) << "a key pair is no certificate";
    EXPECT_NE(velkor_importCertificate(SERIAL, PIN, nullptr, instance), 0);
    EXPECT_NE(velkor_importCertificate(SERIAL, PIN, &certificate, instance), 0);
    EXPECT_NE(velkor_importPfx(SERIAL, PIN, nullptr, instance), 0);
    EXPECT_NE(velkor_importPfx(SERIAL, PIN, &details, instance), 0);
    EXPECT_NE(velkor_generateKeyPair(SERIAL, PIN, nullptr, instance), 0);
    EXPECT_NE(velkor_generateKeyPair(SERIAL, nullptr, &pairRequest, instance), 0);
    pairRequest.usageFlags = 4;
    EXPECT_NE(velkor_generateKeyPair(SERIAL, PIN, &pairRequest, instance), 0);
    pairRequest.usageFlags = 1;
    pairRequest.objectIdLength = INT_MAX;
    EXPECT_NE(velkor_generateKeyPair(SERIAL, PIN, &pairRequest, instance), 0);
}

TEST_F(BadInputTest, AskingForDevicesListsAndRandomNumbers)
{
    for (const char* device : {static_cast<const char*>(nullptr), "", "NONE", "..", "/etc/passwd", "KEY1\n"}) {
        EXPECT_TRUE(velkor_getKeyPairList(device, instance).empty());
        EXPECT_TRUE(velkor_getCertificateList(device, instance).empty());
        EXPECT_TRUE(velkor_getTokenInfo(device, instance).serialNumber.empty());
        EXPECT_NE(velkor_initDevice(device, true, instance), 0);
        EXPECT_NE(velkor_generateRamdomNumber(device, 4, out.data(), true, nullptr), 0);
    }
    EXPECT_TRUE(velkor_getKeyPairList(SERIAL, nullptr).empty());
    EXPECT_TRUE(velkor_getConnectedDeviceList(true, nullptr).empty());
    EXPECT_TRUE(velkor_getConnectedDeviceList(true, &outSize).empty());
    EXPECT_NE(velkor_generateRamdomNumber(SERIAL, 4, nullptr, true, nullptr), 0);
    for (const int bad : BAD_LENGTHS)
        EXPECT_NE(velkor_generateRamdomNumber(SERIAL, bad, out.data(), true, nullptr), 0);
    EXPECT_EQ(out, Data(1024, 0xee));
}

} // namespace
} // namespace softkey::test
