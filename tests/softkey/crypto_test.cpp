// Cryptography of the key against published vectors and the openssl command line.
#include "world.h"

#include "crypto/keyed_digest.h"
#include "crypto/keys.h"
#include "crypto/public_key.h"
#include "crypto/public_keys.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdlib>
#include <map>

namespace softkey::test
{
namespace
{

class CryptoTest : public SoftkeyTest
{
protected:
    struct Result {
        int status = -1;
        Data bytes;
    };
    Result decrypt(const VelkorKeyPair& key, const Data& ciphertext, const char* pin = PIN) const
    {
        unsigned char* out = nullptr;
        int size = 0;
        Result result;
        result.status = velkor_decrypt(SERIAL, key.keyIdentifier, pin, ciphertext.data(), length(ciphertext), &out,
                                       &size, key.deviceFlag, instance);
        result.bytes.assign(out, out + size);
        std::free(out);
        return result;
    }
    Result derive(const VelkorKeyPair& key, const Data& peer) const
    {
        unsigned char* out = nullptr;
        int size = 0;
        Result result;
        result.status =
            velkor_ecdhDerive(SERIAL, key.keyIdentifier, PIN, peer.data(), length(peer), &out, &size, instance);
        result.bytes.assign(out, out + size);
        std::free(out);
        return result;
    }
    Result encrypt(EncryptionType type, PaddingMode padding, const Data& plaintext, const Data& publicKey) const
    {
        Result result;
        result.bytes.resize(1024);
        int size = 0;
        result.status = velkor_encrypt(type, padding, plaintext.data(), length(plaintext), result.bytes.data(), &size,
                                       publicKey.data(), length(publicKey), instance);
        result.bytes.resize(static_cast<std::size_t>(size));
        return result;
    }

    std::string path(const std::string& name) const { return (scratch.path() / name).string(); }

    /// Whether the openssl command line accepts a signature over a hash.
    bool opensslVerifies(const VelkorKeyPair& key, const Data& hash, const Data& signature,
                         const std::string& options) const
    {
        scratch.file("key.pem", bytesOf(publicKeyPem(key)));
        scratch.file("hash", hash);
        scratch.file("signature", signature);
        return run("openssl pkeyutl -verify -pubin -inkey " + path("key.pem") + " -in " + path("hash") + " -sigfile " +
                   path("signature") + " " + options)
                   .exitCode == 0;
    }
};

Data hashOf(const std::string& algorithm, const Data& message)
{
    Data hash(EVP_MAX_MD_SIZE);
    std::size_t size = 0;
    EXPECT_EQ(EVP_Q_digest(nullptr, algorithm.c_str(), nullptr, message.data(), message.size(), hash.data(), &size), 1);
    hash.resize(size);
    return hash;
}

/// DER of an ECDSA signature given as r and s of fixed width.
Data derSignature(const Data& fixed)
{
    const auto half = static_cast<std::ptrdiff_t>(fixed.size() / 2);
    Data content;
    for (Data integer : {Data(fixed.begin(), fixed.begin() + half), Data(fixed.begin() + half, fixed.end())}) {
        while (integer.size() > 1 && integer[0] == 0)
            integer.erase(integer.begin());
        if ((integer[0] & 0x80) != 0)
            integer.insert(integer.begin(), 0);
        content.push_back(2);
        content.push_back(static_cast<unsigned char>(integer.size()));
        content.insert(content.end(), integer.begin(), integer.end());
    }
    Data der{0x30};
    if (content.size() >= 0x80)
        der.push_back(0x81);
    der.push_back(static_cast<unsigned char>(content.size()));
    der.insert(der.end(), content.begin(), content.end());
    return der;
}

// Hashes by their size, with their openssl names.
const std::map<std::size_t, std::string> DIGESTS = {
    {20, "sha1"}, {28, "sha224"}, {32, "sha256"}, {48, "sha384"}, {64, "sha512"}};

// ---- Published vectors ----

struct Pkcs1Vector {
    const char* digest;
    const char* message;
    const char* signature;
};

// NIST CAVP, SigGen PKCS #1 v1.5, 1024 bits; the public exponent of the key is 4097.
const Pkcs1Vector PKCS1_VECTORS[] = {
    {"sha1",
     "1018469fda81f41922cfdb2dca679f7f3a286f11ba448ab71e4e02cca994c0242caec9416e57c0cad07cab383193fad3102ec5ddf0d0550d"
     "01ffe63ffc9aab694f6d13d17a034b7db9bb04ebe31e76039270a44a8485e25841d7958cfed53bfec27dabb5c72c9d1b23b56cada7b11bf7"
     "081797c03c0d3b8227fd991d77ea78cb",
     "147a8797d9d653f52d210135f61bbdfe59698d755b076230f2b252e7792c86121469fab7b410789df4f193a76e8be99a2162e422c6a56106"
     "fa4e2fe5abafc542ff1a899d8580f9f6b4cd29a8310cd34964ce22bbad9618d97e4c36695b246bdd0c0d5d0c75d044265e6f275a272718b0"
     "c2b93974dc76ddcca985bef994ce67bd"},
    {"sha224",
     "ee957a3107024f9a51d212fc6ff18d46a26a2d80df2cb6b1250f36010d12381ba3e639d574b16013e80c69e8d24de3ff460c9b3aabe05898"
     "106ac85cc495bb6c201b8ff7a84ceb5a530bb14526192d1907969395d1c4a8b2a40fbfcb7f4ae701103c63deca5b5a3939d7d05992dad55d"
     "8f0ffcda79610fc78605019666ba24a4",
     "10fafcf4b543c9d58c1658a9d96e2d3ba1276406951b2d2ea5a7930fa18a88f88a0ebdc53038c0277f7f00e699b5aa4977b25d42edacf3ed"
     "6eba656c177bbba622b710e5bd78de381f626e38b5d49fa06fd5e0e9acb5fc67ae86107313575be75bb4535864b57adef917dae1f04b0ed4"
     "bd02ee81cc3f0caa9b7a9a9d940d9372"},
    {"sha256",
     "dfce08b64b9ea4014947012670548da4ceeee084dbfe509aac92bf096982b8050153bbdd1c5bd4385226729e9a19773b05558ce0acdfb74b"
     "e6fd2fa8bfe36f58a68e89f066f1bd85584f4a27d6e884abf2d727ae683bebd6d295585b1b71dcc636491bf910a68670c3882fc60c08db7b"
     "ff3c59f4f95b13c3d721e329657528d9",
     "8d9d30a87df0c2f6cd651fcaf2b9ac1296287ad3d4b03132e330f08ab701fc197040d0a261f631e7e34478b592551e1f682395c9e2b54c8c"
     "e8b0c72c1b5a79748cc34f9152730a7f67fae1225a4ce750f1d5d4e288176df197e7503c88b5baecef3abcf2875f111e6d7f7b4dc8afa2ed"
     "3c1d7ad8e7cf45a77f0b1cb178518402"},
};

TEST_F(CryptoTest, Pkcs1SignaturesOfTheCavpVectorsVerify)
{
    const Data info = fromHex("30819e300d06092a864886f70d010101050003818c0030818802818100"
                              "a3ecf80ff1804833c36a89a1583f58ef3332476a50a153e73ced17796139636045c131a6b17222ba8848f701"
                              "50b18dfa390bfb1670ae982d"
                              "fbc311fd0ede055564687af3805ca883944bb5ac9ec19b0e0cfbd9a314d70b17080c3d49b50cbf417062eb41"
                              "bd639d67a5fb330ec55a0489"
                              "fee08eeec97ed487c114b20393fe0aef02021001");
    const auto check = [&](const Data& hash, const Data& signature) {
        return velkor_verifySignatureHash(KEY_KIND_RSA_1024, SERIAL, hash.data(), length(hash), info.data(),
                                          length(info), signature.data(), length(signature), instance, false);
    };
    for (const Pkcs1Vector& vector : PKCS1_VECTORS) {
        Data hash = hashOf(vector.digest, fromHex(vector.message));
        const Data signature = fromHex(vector.signature);
        EXPECT_EQ(check(hash, signature), 0);
        hash[0] ^= 1;
        EXPECT_EQ(check(hash, signature), code(SoftkeyStatus::SignatureInvalid));
    }
}

TEST_F(CryptoTest, Pkcs1SignaturesAreByteForByteThoseOfOpenssl)
{
    REQUIRE_OPENSSL_PROGRAM();
    const EvpKey privateKey = keyOf(signatureVectorKey());
    const VelkorKeyPair key = store(privateKey.get());
    const SecretBuffer pkcs8 = encodePrivateKey(privateKey.get());
    scratch.file("key.p8", pkcs8);
    for (const auto& [size, digest] : DIGESTS) {
        const Data hash(size, 0x77);
        const std::string in = scratch.file("hash", hash);
        run("openssl pkeyutl -sign -keyform DER -inkey " + path("key.p8") + " -in " + in + " -out " + path("s") +
            " -pkeyopt digest:" + digest);
        EXPECT_EQ(toHex(sign(key, hash)), toHex(readFile(path("s")))) << digest;
    }
}

TEST_F(CryptoTest, PssSignatureOfTheRsaLaboratoriesVectorVerifies)
{
    VelkorKeyPair key;
    key.keyKind = KEY_KIND_RSA_1024;
    const Data modulus = fromHex(
        "a56e4a0e701017589a5187dc7ea841d156f2ec0e36ad52a44dfeb1e61f7ad991d8c51056ffedb162b4c0f283a12a88a394dff526ab7291"
        "cbb307ceabfce0b1dfd5cd9508096d5b2b8b6df5d671ef6377c0921cb23c270a70e2598e6ff89d19f105acc2d3f0cb35f29280e1386b6f"
        "64c4ef22e1e1f20d0ce8cffb2249bd9a2137");
    std::copy(modulus.begin(), modulus.end(), key.publicKey);
    key.publicKeyLength = length(modulus);
    const Data message = fromHex(
        "cdc87da223d786df3b45e0bbbc721326d1ee2af806cc315475cc6f0d9c66e1b62371d45ce2392e1ac92844c310102f156a0d8d52c1f4c4"
        "0ba3aa65095786cb769757a6563ba958fed0bcc984e8b517a3d5f515b23b8a41e74aa867693f90dfb061a6e86dfaaee64472c00e5f2094"
        "5729cbebe77f06ce78e08f4098fba41f9d6193c0317e8b60d4b6084acb42d29e3808a3bc372d85e331170fcbf7cc72d0b71c296648b3a4"
        "d10f416295d0807aa625cab2744fd9ea8fd223c42537029828bd16be02546f130fd2e33b936d2676e08aed1b73318b750a0167d0");
    Data signature = fromHex(
        "9074308fb598e9701b2294388e52f971faac2b60a5145af185df5287b5ed2887e57ce7fd44dc8634e407c8e0e4360bc226f3ec227f9d9e"
        "54638e8d31f5051215df6ebb9c2f9579aa77598a38f914b5b9c1bd83c4e2f9f382a0d0aa3542ffee65984a601bc69eb28deb27dca12c82"
        "c2d4c3f66cd500f1ff2b994d8a4e30cbb33c");
    const Data hash = hashOf("sha1", message);
    EXPECT_EQ(verify(key, hash, signature, true), 0);
    EXPECT_EQ(verify(key, hash, signature, false), code(SoftkeyStatus::SignatureInvalid));
    signature[40] ^= 1;
    EXPECT_EQ(verify(key, hash, signature, true), code(SoftkeyStatus::SignatureInvalid));
}

TEST_F(CryptoTest, OaepCiphertextOfTheRsaLaboratoriesVectorDecrypts)
{
    const VelkorKeyPair key = store(keyOf(oaepVectorKey()).get());
    const Data ciphertext = fromHex(
        "354fe67b4a126d5d35fe36c777791a3f7ba13def484e2d3908aff722fad468fb21696de95d0be911c2d3174f8afcc201035f7b6d8e6940"
        "2de5451618c21a535fa9d7bfc5b8dd9fc243f8cf927db31322d6e881eaa91a996170e657a05a266426d98c88003f8477c1227094a0d9fa"
        "1e8c4024309ce1ecccb5210035d47ac72e8a");
    const Result result = decrypt(key, ciphertext);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(toHex(result.bytes), "6628194e12073db03ba94cda9ef9532397d50dba79b987004afefe34");
}

struct EcdsaVector {
    KeyKind kind;
    const char* privateKey;
    const char* digest;
    const char* signature;
};

// RFC 6979, message "sample".
const EcdsaVector ECDSA_VECTORS[] = {
    {KEY_KIND_EC_P256, "c9afa9d845ba75166b5c215767b1d6934e50c3db36e89b127b8a622b120f6721", "sha256",
     "efd48b2aacb6a8fd1140dd9cd45e81d69d2c877b56aaf991c34d0ea84eaf3716"
     "f7cb1c942d657c41d436c7a1b6e29f65f3e900dbb9aff4064dc4ab2f843acda8"},
    {KEY_KIND_EC_P384,
     "6b9d3dad2e1b8c1c05b19875b6659f4de23c3b667bf297ba9aa47740787137d896d5724e4c70a825f872c9ea60d2edf5", "sha384",
     "94edbb92a5ecb8aad4736e56c691916b3f88140666ce9fa73d64c4ea95ad133c81a648152e44acf96e36dd1e80fabe46"
     "99ef4aeb15f178cea1fe40db2603138f130e740a19624526203b6351d0a3a94fa329c145786e679e7b82c71a38628ac8"},
    // A hash longer than the field: its leftmost bits count.
    {KEY_KIND_EC_P384,
     "6b9d3dad2e1b8c1c05b19875b6659f4de23c3b667bf297ba9aa47740787137d896d5724e4c70a825f872c9ea60d2edf5", "sha512",
     "ed0959d5880ab2d869ae7f6c2915c6d60f96507f9cb3e047c0046861da4a799cfe30f35cc900056d7c99cd7882433709"
     "512c8cceee3890a84058ce1e22dbc2198f42323ce8aca9135329f03c068e5112dc7cc3ef3446defceb01a45c2667fdd5"},
    {KEY_KIND_EC_P521,
     "00fad06daa62ba3b25d2fb40133da757205de67f5bb0018fee8c86e1b68c7e75caa896eb32f1f47c70855836a6d16fcc1466f6d8fbec67db"
     "89ec0c08b0e996b83538",
     "sha512",
     "00c328fafcbd79dd77850370c46325d987cb525569fb63c5d3bc53950e6d4c5f174e25a1ee9017b5d450606add152b534931d7d4e8455cc9"
     "1f9b15bf05ec36e377fa"
     "00617cce7cf5064806c467f678d3b4080d6f1cc50af26ca209417308281b68af282623eaa63e5b5c0723d8b8c37ff0777b1a20f8ccb1dccc"
     "43997f1ee0e44da4a67a"},
};

TEST_F(CryptoTest, EcdsaSignaturesOfTheRfc6979VectorsVerify)
{
    for (const EcdsaVector& vector : ECDSA_VECTORS) {
        const VelkorKeyPair key = storeEcKey(vector.kind, vector.privateKey);
        const Data hash = hashOf(vector.digest, bytesOf("sample"));
        Data signature = fromHex(vector.signature);
        EXPECT_EQ(verify(key, hash, signature), 0);
        EXPECT_EQ(verify(key, hash, sign(key, hash)), 0);
        signature.back() ^= 1;
        EXPECT_EQ(verify(key, hash, signature), code(SoftkeyStatus::SignatureInvalid));
    }
}

struct EcdhVector {
    KeyKind kind;
    const char* one;
    const char* other;
    const char* shared;
};

// RFC 5903, section 8.
const EcdhVector ECDH_VECTORS[] = {
    {KEY_KIND_EC_P256, "c88f01f510d9ac3f70a292daa2316de544e9aab8afe84049c62a9c57862d1433",
     "c6ef9c5d78ae012a011164acb397ce2088685d8f06bf9be0b283ab46476bee53",
     "d6840f6b42f6edafd13116e0e12565202fef8e9ece7dce03812464d04b9442de"},
    {KEY_KIND_EC_P384,
     "099f3c7034d4a2c699884d73a375a67f7624ef7c6b3c0f160647b67414dce655e35b538041e649ee3faef896783ab194",
     "41cb0779b4bdb85d47846725fbec3c9430fab46cc8dc5060855cc9bda0aa2942e0308312916b8ed2960e4bd55a7448fc",
     "11187331c279962d93d604243fd592cb9d0a926f422e47187521287e7156c5c4d603135569b9e9d09cf5d4a270f59746"},
    {KEY_KIND_EC_P521,
     "0037ade9319a89f4dabdb3ef411aaccca5123c61acab57b5393dce47608172a095aa85a30fe1c2952c6771d937ba9777f5957b2639bab072"
     "462f68c27a57382d4a52",
     "0145ba99a847af43793fdd0e872e7cdfa16be30fdc780f97bccc3f078380201e9c677d600b343757a3bdbf2a3163e4c2f869cca7458aa4a4"
     "effc311f5cb151685eb9",
     "01144c7d79ae6956bc8edb8e7c787c4521cb086fa64407f97894e5e6b2d79b04d1427e73ca4baa240a34786859810c06b3c715a3a8cc3151"
     "f2bee417996d19f3ddea"},
};

Data asOctetString(const Data& point)
{
    Data der{4};
    if (point.size() >= 0x80)
        der.push_back(0x81);
    der.push_back(static_cast<unsigned char>(point.size()));
    der.insert(der.end(), point.begin(), point.end());
    return der;
}

TEST_F(CryptoTest, SharedSecretsOfTheRfc5903Vectors)
{
    for (const EcdhVector& vector : ECDH_VECTORS) {
        const VelkorKeyPair one = storeEcKey(vector.kind, vector.one);
        const VelkorKeyPair other = storeEcKey(vector.kind, vector.other);
        EXPECT_EQ(toHex(derive(one, publicKeyBytes(other)).bytes), vector.shared);
        EXPECT_EQ(toHex(derive(other, publicKeyBytes(one)).bytes), vector.shared);
        EXPECT_EQ(toHex(derive(one, asOctetString(publicKeyBytes(other))).bytes), vector.shared);
    }
}

// ---- Signatures against the openssl command line ----

TEST_F(CryptoTest, OpensslAcceptsEveryPkcs1AndPssSignature)
{
    REQUIRE_OPENSSL_PROGRAM();
    for (const VelkorKeyPair& key : {generate(KEY_KIND_RSA_2048), store(keyOf(signatureVectorKey()).get())}) {
        for (const auto& [size, digest] : DIGESTS) {
            const Data hash(size, 0x5a);
            EXPECT_TRUE(opensslVerifies(key, hash, sign(key, hash), "-pkeyopt digest:" + digest)) << digest;
            if (size == 64 && key.keyKind == KEY_KIND_RSA_1024) {
                EXPECT_EQ(trySign(key, hash, true), code(SoftkeyStatus::DataLength)) << "no room for hash and salt";
                continue;
            }
            const Data pss = sign(key, hash, true);
            EXPECT_TRUE(opensslVerifies(key, hash, pss,
                                        "-pkeyopt digest:" + digest +
                                            " -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:digest"))
                << digest;
            EXPECT_EQ(verify(key, hash, pss, true), 0);
            EXPECT_EQ(verify(key, hash, pss, false), code(SoftkeyStatus::SignatureInvalid));
        }
    }
}

TEST_F(CryptoTest, DataThatIsNoHashIsPaddedAsItIs)
{
    REQUIRE_OPENSSL_PROGRAM();
    const VelkorKeyPair key = store(keyOf(signatureVectorKey()).get());
    for (const std::size_t size : {1U, 19U, 36U, 51U, 117U}) {
        const Data data(size, 0x33);
        const Data signature = sign(key, data);
        scratch.file("key.pem", bytesOf(publicKeyPem(key)));
        const std::string file = scratch.file("signature", signature);
        run("openssl pkeyutl -verifyrecover -pubin -inkey " + path("key.pem") + " -in " + file + " -out " +
            path("recovered"));
        EXPECT_EQ(readFile(path("recovered")), data);
        EXPECT_EQ(verify(key, data, signature), 0);
    }
    EXPECT_EQ(trySign(key, Data(118, 1)), code(SoftkeyStatus::DataLength));
}

TEST_F(CryptoTest, OpensslAcceptsEveryEcdsaSignature)
{
    REQUIRE_OPENSSL_PROGRAM();
    for (const KeyKind kind : {KEY_KIND_EC_P256, KEY_KIND_EC_P384, KEY_KIND_EC_P521}) {
        const VelkorKeyPair key = generate(kind);
        for (const auto& [size, digest] : DIGESTS) {
            const Data hash(size, 0xa5);
            const Data signature = sign(key, hash);
            EXPECT_EQ(signature.size(), traitsOf(kind).signatureSize());
            EXPECT_TRUE(opensslVerifies(key, hash, derSignature(signature), "")) << digest;
        }
    }
}

TEST_F(CryptoTest, EcdsaSignaturesHaveFixedWidthEvenForSmallNumbers)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    const Data hash(32, 1);
    // One in 128 signatures has a short r or s.
    for (int i = 0; i < 600; ++i) {
        const Data signature = sign(key, hash);
        ASSERT_EQ(signature.size(), 64U);
        ASSERT_EQ(verify(key, hash, signature), 0);
    }
}

TEST_F(CryptoTest, ASignatureOfOpensslVerifies)
{
    REQUIRE_OPENSSL_PROGRAM();
    const std::string keyFile = path("k.pem");
    ASSERT_EQ(run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + keyFile +
                  " && openssl pkey -in " + keyFile + " -pubout -outform DER -out " + path("k.der"))
                  .exitCode,
              0);
    const Data info = readFile(path("k.der"));
    const Data hash(32, 9);
    const std::string hashFile = scratch.file("hash", hash);
    run("openssl pkeyutl -sign -inkey " + keyFile + " -in " + hashFile + " -out " + path("s") +
        " -pkeyopt digest:sha256 -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:digest");
    const Data signature = readFile(path("s"));
    EXPECT_EQ(velkor_verifySignatureHash(KEY_KIND_RSA_2048, SERIAL, hash.data(), length(hash), info.data(),
                                         length(info), signature.data(), length(signature), instance, true),
              0);
}

// ---- Verification: forms of keys, wrong kinds ----

TEST_F(CryptoTest, ThePublicKeyMayComeInEachOfItsForms)
{
    const Data hash(32, 1);
    for (const VelkorKeyPair& key : {generate(KEY_KIND_RSA_2048), generate(KEY_KIND_EC_P521)}) {
        const Data signature = sign(key, hash);
        const Data info = publicKeyInfo(key);
        const auto verifyWith = [&](const Data& publicKey, unsigned int kind) {
            return velkor_verifySignatureHash(kind, SERIAL, hash.data(), length(hash), publicKey.data(),
                                              length(publicKey), signature.data(), length(signature), instance, false);
        };
        EXPECT_EQ(verifyWith(publicKeyBytes(key), key.keyKind), 0);
        EXPECT_EQ(verifyWith(info, key.keyKind), 0);
        EXPECT_EQ(verifyWith(info, KEY_KIND_EC_P256), code(SoftkeyStatus::BadPublicKey));
        EXPECT_EQ(verifyWith(info, KEY_KIND_RSA_3072), code(SoftkeyStatus::BadPublicKey));
        Data longer = info;
        longer.push_back(0);
        EXPECT_EQ(verifyWith(longer, key.keyKind), code(SoftkeyStatus::BadPublicKey));
        Data shorter = publicKeyBytes(key);
        shorter.pop_back();
        EXPECT_EQ(verifyWith(shorter, key.keyKind), code(SoftkeyStatus::BadPublicKey));
        Data broken = publicKeyBytes(key);
        broken.back() ^= 1; // An even modulus; a point off the curve.
        EXPECT_EQ(verifyWith(broken, key.keyKind), code(SoftkeyStatus::BadPublicKey));
    }
}

// ---- Public keys that are kept ----

TEST(PublicKeysTest, AKeyIsParsedOnceForItsBytesItsKindAndItsForm)
{
    const KeyKindTraits& p256 = traitsOf(KEY_KIND_EC_P256);
    const Data point = publicKeyValue(generateKey(p256).get());
    PublicKeys keys;
    const auto known = keys.find(p256, PublicKeyForm::Any, point);
    EXPECT_EQ(keys.find(p256, PublicKeyForm::Any, Data(point)), known);
    EXPECT_NE(keys.find(p256, PublicKeyForm::Any, publicKeyValue(generateKey(p256).get())), known);
    EXPECT_THROW(keys.find(p256, PublicKeyForm::Info, point), Refusal);
    EXPECT_THROW(keys.find(traitsOf(KEY_KIND_EC_P384), PublicKeyForm::Any, point), Refusal);
    Data broken = point;
    broken.back() ^= 1;
    for (int time = 0; time < 2; ++time)
        EXPECT_THROW(keys.find(p256, PublicKeyForm::Any, broken), Refusal) << "no point of the curve";
    keys.clear();
    EXPECT_NE(keys.find(p256, PublicKeyForm::Any, point), known);
}

TEST(PublicKeysTest, ThoseThatWereUsedLastAreKept)
{
    const KeyKindTraits& p256 = traitsOf(KEY_KIND_EC_P256);
    PublicKeys keys;
    const Data often = publicKeyValue(generateKey(p256).get());
    const Data once = publicKeyValue(generateKey(p256).get());
    const auto usedOften = keys.find(p256, PublicKeyForm::Any, often);
    const auto usedOnce = keys.find(p256, PublicKeyForm::Any, once);
    for (int other = 0; other < 200; ++other) {
        keys.find(p256, PublicKeyForm::Any, publicKeyValue(generateKey(p256).get()));
        EXPECT_EQ(keys.find(p256, PublicKeyForm::Any, often), usedOften);
    }
    EXPECT_NE(keys.find(p256, PublicKeyForm::Any, once), usedOnce);
}

TEST(PublicKeysTest, OfThoseThatWereUsedTheLast128AreKept)
{
    const KeyKindTraits& p256 = traitsOf(KEY_KIND_EC_P256);
    PublicKeys keys;
    const Data first = publicKeyValue(generateKey(p256).get());
    const auto useOthers = [&](int count) {
        for (int other = 0; other < count; ++other)
            keys.find(p256, PublicKeyForm::Any, publicKeyValue(generateKey(p256).get()));
    };
    const auto known = keys.find(p256, PublicKeyForm::Any, first);
    useOthers(127);
    EXPECT_EQ(keys.find(p256, PublicKeyForm::Any, first), known);
    useOthers(128);
    EXPECT_NE(keys.find(p256, PublicKeyForm::Any, first), known);
}

TEST(KeyedDigestTest, TellsSaltsPinsAndObjectsApart)
{
    const KeyedDigest digest;
    const Data salt = bytesOf("salt");
    const Data pin = bytesOf("pin");
    EXPECT_TRUE(sameDigest(digest.of(salt, pin), digest.of(Data(salt), Data(pin))));
    EXPECT_FALSE(sameDigest(digest.of(salt, pin), digest.of(salt, bytesOf("pim"))));
    EXPECT_FALSE(sameDigest(digest.of(salt, pin), digest.of(bytesOf("sal"), bytesOf("tpin")))) << "where the one ends";
    EXPECT_FALSE(sameDigest(digest.of(salt, pin), KeyedDigest().of(salt, pin))) << "under another key";
}

TEST_F(CryptoTest, ABadSignatureLeavesTheKeyFitForGoodOnes)
{
    const Data hash(32, 1);
    for (const VelkorKeyPair& key : {generate(KEY_KIND_RSA_2048), generate(KEY_KIND_EC_P256)}) {
        for (const bool isPss : {false, true}) {
            if (isPss && key.keyKind == KEY_KIND_EC_P256)
                continue;
            const Data good = sign(key, hash, isPss);
            Data bad = good;
            bad.back() ^= 1;
            for (int time = 0; time < 3; ++time) {
                EXPECT_EQ(verify(key, hash, good, isPss), 0);
                EXPECT_EQ(verify(key, hash, bad, isPss), code(SoftkeyStatus::SignatureInvalid));
                EXPECT_EQ(verify(key, Data(32, 2), good, isPss), code(SoftkeyStatus::SignatureInvalid));
            }
        }
    }
}

TEST_F(CryptoTest, OneSchemeDoesNotDisturbTheNext)
{
    const VelkorKeyPair key = generate(KEY_KIND_RSA_2048);
    std::map<std::size_t, std::array<Data, 2>> signatures;
    const std::size_t sizes[] = {20, 28, 32, 48, 64};
    for (const std::size_t size : sizes)
        signatures[size] = {sign(key, Data(size, 1)), sign(key, Data(size, 1), true)};
    for (int time = 0; time < 2; ++time) {
        for (const std::size_t size : sizes) {
            for (const bool isPss : {false, true}) {
                EXPECT_EQ(verify(key, Data(size, 1), signatures[size][isPss ? 1 : 0], isPss), 0);
                EXPECT_NE(verify(key, Data(size, 1), signatures[size][isPss ? 0 : 1], isPss), 0);
            }
        }
    }
}

/// DER of an RSA public key as the openssl program never makes one.
Data publicKeyInfoWith(const Data& modulus, const Data& exponent)
{
    const auto wrapped = [](unsigned char tag, const Data& content) {
        Data der{tag, 0x82, static_cast<unsigned char>(content.size() >> 8),
                 static_cast<unsigned char>(content.size())};
        der.insert(der.end(), content.begin(), content.end());
        return der;
    };
    const auto joined = [](Data first, const Data& second) {
        first.insert(first.end(), second.begin(), second.end());
        return first;
    };
    const Data numbers = joined(wrapped(2, joined({0}, modulus)), wrapped(2, joined({0}, exponent)));
    const Data algorithm = fromHex("300d06092a864886f70d0101010500");
    return wrapped(0x30, joined(algorithm, wrapped(3, joined({0}, wrapped(0x30, numbers)))));
}

TEST_F(CryptoTest, APublicKeyWithAnExponentThatVerifiesForgeriesIsRefused)
{
    const VelkorKeyPair key = generate(KEY_KIND_RSA_2048);
    const Data modulus = publicKeyBytes(key);
    const Data hash(32, 0x11);
    // What is padded is its own signature under the exponent 1.
    Data forged(256, 0xff);
    const Data info = fromHex("3031300d060960864801650304020105000420");
    forged[0] = 0;
    forged[1] = 1;
    forged[256 - 32 - info.size() - 1] = 0;
    std::copy(info.begin(), info.end(), forged.end() - 32 - static_cast<std::ptrdiff_t>(info.size()));
    std::copy(hash.begin(), hash.end(), forged.end() - 32);
    const auto verifyWith = [&](const Data& exponent, const Data& signature) {
        const Data publicKey = publicKeyInfoWith(modulus, exponent);
        return velkor_verifySignatureHash(KEY_KIND_RSA_2048, SERIAL, hash.data(), length(hash), publicKey.data(),
                                          length(publicKey), signature.data(), length(signature), instance, false);
    };
    EXPECT_EQ(verifyWith({1}, forged), code(SoftkeyStatus::BadPublicKey));
    EXPECT_EQ(verifyWith({2}, forged), code(SoftkeyStatus::BadPublicKey));
    EXPECT_EQ(verifyWith({1, 0, 0}, forged), code(SoftkeyStatus::BadPublicKey));
    EXPECT_EQ(verifyWith({1, 0, 0, 0, 0, 0, 0, 0, 1}, forged), code(SoftkeyStatus::BadPublicKey)) << "2^64 + 1";
    EXPECT_EQ(verifyWith({1, 0, 1}, sign(key, hash)), 0);
    EXPECT_EQ(verifyWith({3}, forged), code(SoftkeyStatus::SignatureInvalid));
    EXPECT_EQ(verifyWith(Data(8, 0xff), forged), code(SoftkeyStatus::SignatureInvalid)) << "2^64 - 1";
}

TEST_F(CryptoTest, AnUnknownKindVerifiesAsRsa2048)
{
    const VelkorKeyPair key = generate(KEY_KIND_RSA_2048);
    const Data hash(32, 1);
    const Data signature = sign(key, hash);
    VelkorKeyPair other = key;
    other.keyKind = 0;
    EXPECT_EQ(verify(other, hash, signature), 0);
}

TEST_F(CryptoTest, SignaturesOfAnyOtherLengthAreInvalid)
{
    const Data hash(32, 1);
    for (const VelkorKeyPair& key : {generate(KEY_KIND_RSA_2048), generate(KEY_KIND_EC_P256)}) {
        Data signature = sign(key, hash);
        signature.push_back(0);
        EXPECT_EQ(verify(key, hash, signature), code(SoftkeyStatus::SignatureInvalid));
        signature.resize(signature.size() - 2);
        EXPECT_EQ(verify(key, hash, signature), code(SoftkeyStatus::SignatureInvalid));
        EXPECT_EQ(verify(key, hash, Data(1, 0)), code(SoftkeyStatus::SignatureInvalid));
        EXPECT_EQ(verify(key, hash, Data(traitsOf(key.keyKind).signatureSize(), 0)),
                  code(SoftkeyStatus::SignatureInvalid));
        EXPECT_EQ(verify(key, hash, Data(traitsOf(key.keyKind).signatureSize(), 0xff)),
                  code(SoftkeyStatus::SignatureInvalid));
    }
}

TEST_F(CryptoTest, KeysOfTheWrongKindAreRefused)
{
    const VelkorKeyPair rsa = store(keyOf(signatureVectorKey()).get());
    const VelkorKeyPair ec = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(trySign(ec, Data(32, 1), true), code(SoftkeyStatus::WrongKeyKind));
    EXPECT_EQ(decrypt(ec, Data(128, 1)).status, code(SoftkeyStatus::WrongKeyKind));
    EXPECT_EQ(derive(rsa, publicKeyBytes(ec)).status, code(SoftkeyStatus::WrongKeyKind));
    EXPECT_EQ(trySign(rsa, Data(33, 1), true), code(SoftkeyStatus::DataLength)) << "no hash has 33 bytes";
}

TEST_F(CryptoTest, UsageFlagsAreKept)
{
    const VelkorKeyPair signer = generate(KEY_KIND_RSA_2048, "", {}, USAGE_SIGN_VERIFY);
    const VelkorKeyPair decrypter = generate(KEY_KIND_RSA_2048, "", {}, USAGE_DECRYPT_ENCRYPT);
    EXPECT_EQ(trySign(signer, Data(32, 1)), 0);
    EXPECT_EQ(trySign(decrypter, Data(32, 1)), code(SoftkeyStatus::UsageNotPermitted));
    EXPECT_EQ(decrypt(signer, Data(256, 1)).status, code(SoftkeyStatus::UsageNotPermitted));
}

TEST_F(CryptoTest, ASignatureThatDoesNotFitIsNotWritten)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    const Data hash(32, 1);
    Data signature(63, 0xee);
    int size = length(signature);
    EXPECT_EQ(velkor_signHash(SERIAL, key.keyIdentifier, PIN, hash.data(), 32, signature.data(), &size, false, instance,
                              false),
              code(SoftkeyStatus::BufferTooSmall));
    EXPECT_EQ(signature, Data(63, 0xee));
    EXPECT_EQ(size, 63);
}

// ---- Encryption ----

TEST_F(CryptoTest, WhatIsEncryptedHereOpensslDecrypts)
{
    REQUIRE_OPENSSL_PROGRAM();
    const std::string keyFile = path("k.pem");
    const Data plaintext = bytesOf("to be kept");
    const std::pair<int, EncryptionType> sizes[] = {{1024, EncryptionType::Rsa1024}, {2048, EncryptionType::Rsa2048}};
    for (const auto& [bits, type] : sizes) {
        run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:" + std::to_string(bits) + " -out " + keyFile +
            " && openssl pkey -in " + keyFile + " -pubout -outform DER -out " + path("k.der"));
        const Data info = readFile(path("k.der"));
        for (const PaddingMode padding : {PaddingMode::Pkcs1, PaddingMode::Oaep}) {
            const Result result = encrypt(type, padding, plaintext, info);
            ASSERT_EQ(result.status, 0);
            const std::string in = scratch.file("ciphertext", result.bytes);
            run("openssl pkeyutl -decrypt -inkey " + keyFile + " -in " + in + " -out " + path("plain") +
                " -pkeyopt rsa_padding_mode:" + (padding == PaddingMode::Oaep ? "oaep" : "pkcs1"));
            EXPECT_EQ(readFile(path("plain")), plaintext);
        }
    }
}

TEST_F(CryptoTest, WhatOpensslEncryptsIsDecryptedHere)
{
    REQUIRE_OPENSSL_PROGRAM();
    const VelkorKeyPair key = generate(KEY_KIND_RSA_2048);
    scratch.file("key.pem", bytesOf(publicKeyPem(key)));
    for (const std::string padding : {"oaep", "pkcs1"}) {
        const Data plaintext = bytesOf("padded as " + padding);
        const std::string in = scratch.file("plain", plaintext);
        run("openssl pkeyutl -encrypt -pubin -inkey " + path("key.pem") + " -in " + in + " -out " + path("cipher") +
            " -pkeyopt rsa_padding_mode:" + padding);
        const Result result = decrypt(key, readFile(path("cipher")));
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.bytes, plaintext);
        EXPECT_EQ(decrypt(key, readFile(path("cipher")), "").status, code(SoftkeyStatus::PinRequired));
    }
}

TEST_F(CryptoTest, BlocksThatFitNeitherPaddingGiveNoPlaintext)
{
    const VelkorKeyPair key = store(keyOf(oaepVectorKey()).get());
    const Data plaintext = bytesOf("secret");
    Data ciphertext = encrypt(EncryptionType::Rsa1024, PaddingMode::Oaep, plaintext, publicKeyInfo(key)).bytes;
    ciphertext[60] ^= 1;
    const Result broken = decrypt(key, ciphertext);
    EXPECT_EQ(broken.status, 0) << "a text of no meaning, as for a bad v1.5 block";
    EXPECT_NE(broken.bytes, plaintext);
    EXPECT_EQ(decrypt(key, Data(127, 1)).status, code(SoftkeyStatus::DataLength));
    EXPECT_EQ(decrypt(key, Data(129, 1)).status, code(SoftkeyStatus::DataLength));
}

TEST_F(CryptoTest, PlaintextHasRoomUpToThePadding)
{
    const VelkorKeyPair key = store(keyOf(oaepVectorKey()).get());
    const Data info = publicKeyInfo(key);
    const auto status = [&](PaddingMode padding, std::size_t size) {
        return encrypt(EncryptionType::Rsa1024, padding, Data(size, 1), info).status;
    };
    EXPECT_EQ(status(PaddingMode::Pkcs1, 117), 0);
    EXPECT_EQ(status(PaddingMode::Pkcs1, 118), code(SoftkeyStatus::DataLength));
    EXPECT_EQ(status(PaddingMode::Oaep, 86), 0);
    EXPECT_EQ(status(PaddingMode::Oaep, 87), code(SoftkeyStatus::DataLength));
}

TEST_F(CryptoTest, EncryptionRefusesOtherKeysAndPaddings)
{
    const VelkorKeyPair rsa = store(keyOf(oaepVectorKey()).get());
    const VelkorKeyPair ec = generate(KEY_KIND_EC_P256);
    const Data data(10, 1);
    const auto oaep = PaddingMode::Oaep;
    EXPECT_EQ(encrypt(EncryptionType::Rsa2048, oaep, data, publicKeyInfo(rsa)).status,
              code(SoftkeyStatus::BadPublicKey));
    EXPECT_EQ(encrypt(EncryptionType::Rsa2048, oaep, data, publicKeyInfo(ec)).status,
              code(SoftkeyStatus::BadPublicKey));
    EXPECT_EQ(encrypt(EncryptionType::Rsa1024, oaep, data, publicKeyBytes(rsa)).status,
              code(SoftkeyStatus::BadPublicKey));
    EXPECT_EQ(encrypt(static_cast<EncryptionType>(0), oaep, data, publicKeyInfo(rsa)).status,
              code(SoftkeyStatus::NotSupported));
    EXPECT_EQ(encrypt(EncryptionType::Rsa1024, static_cast<PaddingMode>(3), data, publicKeyInfo(rsa)).status,
              code(SoftkeyStatus::NotSupported));
}

// ---- ECDH ----

TEST_F(CryptoTest, PointsThatAreNoneOfTheCurveAreRefused)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    const Data good = publicKeyBytes(generate(KEY_KIND_EC_P256));
    const auto refused = [&](const Data& point) {
        EXPECT_EQ(derive(key, point).status, code(SoftkeyStatus::BadPublicKey)) << toHex(point);
    };
    Data off = good;
    off[64] ^= 1;
    refused(off);
    refused(asOctetString(off));
    refused(Data(1, 0)); // The point at infinity.
    refused(Data(65, 0));
    refused(Data(65, 4));
    Data tooLarge(65, 0xff); // Coordinates beyond the field.
    tooLarge[0] = 4;
    refused(tooLarge);
    refused(publicKeyBytes(generate(KEY_KIND_EC_P384)));
    Data wrongLength = asOctetString(good);
    wrongLength[1] = 0x40;
    refused(wrongLength);
    Data hybrid = good;
    hybrid[0] = 6;
    refused(hybrid);
}

// ---- Random numbers ----

TEST_F(CryptoTest, RandomNumbersFillTheBufferAndDiffer)
{
    Data one(100'000, 0), other(100'000, 0);
    EXPECT_EQ(velkor_generateRamdomNumber(SERIAL, length(one), one.data(), true, nullptr), 0);
    EXPECT_EQ(velkor_generateRamdomNumber(SERIAL, length(other), other.data(), true, instance), 0);
    EXPECT_NE(one, other);
    std::vector<int> counts(256);
    for (const unsigned char byte : one)
        ++counts[byte];
    for (const int count : counts) // 390 expected, standard deviation 20.
        EXPECT_TRUE(count > 200 && count < 580) << count;
    int stale = 0;
    EXPECT_EQ(velkor_generateRamdomNumber(SERIAL, 4, one.data(), true, &stale), code(SoftkeyStatus::BadInstance));
}

} // namespace
} // namespace softkey::test
