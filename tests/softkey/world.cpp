#include "world.h"

#include "crypto/keys.h"
#include "crypto/public_key.h"
#include "test_system.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <fstream>

namespace softkey::test
{

Data fromHex(std::string_view hex)
{
    Data bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoul(std::string(hex.substr(i, 2)), nullptr, 16)));
    return bytes;
}

std::string toHex(Bytes bytes)
{
    std::string text;
    for (const unsigned char byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

Data bytesOf(std::string_view text)
{
    return Data(text.begin(), text.end());
}

int length(const Data& data)
{
    return static_cast<int>(data.size());
}

Data readFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return Data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void writeFile(const std::filesystem::path& path, Bytes content)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
}

Outcome run(const std::string& command, const std::string& input)
{
    const TemporaryFolder folder;
    const std::string in = folder.file("in", bytesOf(input));
    const std::string out = (folder.path() / "out").string();
    const std::string error = (folder.path() / "error").string();
#ifdef _WIN32
    const int exitCode = std::system((command + " <" + in + " >" + out + " 2>" + error).c_str());
#else
    const int status = std::system(("{ " + command + "\n} <" + in + " >" + out + " 2>" + error).c_str());
    const int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
    const auto textOf = [](const std::string& path) {
        Data content = readFile(path);
#ifdef _WIN32
        std::erase(content, '\r');
#endif
        return std::string(content.begin(), content.end());
    };
    return {exitCode, textOf(out), textOf(error)};
}

int code(SoftkeyStatus status)
{
    return static_cast<int>(status);
}

TemporaryFolder::TemporaryFolder()
{
    path_ = std::filesystem::temp_directory_path() / ("softkey-test-" + randomSerialNumber());
    std::filesystem::create_directory(path_);
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all);
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryFolder::file(const std::string& name, Bytes content) const
{
    writeFile(path_ / name, content);
    return (path_ / name).string();
}

KeySettings cheapSettings(const std::string& serialNumber)
{
    KeySettings settings;
    settings.serialNumber = serialNumber;
    settings.cost.logN = SCRYPT_LOG_N_MIN;
    settings.userPin.changed = false;
    settings.soPin.changed = false;
    return settings;
}

SoftkeyTest::SoftkeyTest()
{
    test_system::setEnvironment("VELKOR_SOFTKEY_HOME", home.path().string());
    createKey(cheapSettings(SERIAL));
    velkor_createInstance(&instance);
}

SoftkeyTest::~SoftkeyTest()
{
    velkor_releaseInstance(instance);
}

void SoftkeyTest::createKey(const KeySettings& settings) const
{
    createKeyFile(home.path(), settings, PIN, SO_PIN);
}

std::filesystem::path SoftkeyTest::keyPath(const std::string& serialNumber) const
{
    return home.path() / (serialNumber + std::string(KEY_FILE_SUFFIX));
}

std::unique_ptr<SoftKey> SoftkeyTest::otherProcess(const std::string& serialNumber) const
{
    return std::make_unique<SoftKey>(keyPath(serialNumber));
}

VelkorKeyPair SoftkeyTest::generate(KeyKind kind, const std::string& label, const Data& objectId,
                                    std::uint32_t usage) const
{
    VelkorKeyPair keyPair;
    keyPair.keyKind = kind;
    keyPair.usageFlags = usage;
    std::copy(label.begin(), label.end(), keyPair.label);
    std::copy(objectId.begin(), objectId.end(), keyPair.objectId);
    keyPair.objectIdLength = length(objectId);
    EXPECT_EQ(velkor_generateKeyPair(SERIAL, PIN, &keyPair, instance), 0);
    return keyPair;
}

VelkorKeyPair SoftkeyTest::store(const EVP_PKEY* key) const
{
    return otherProcess()->addKeyPair(PIN, key, {}, {USAGE_SIGN_VERIFY | USAGE_DECRYPT_ENCRYPT});
}

VelkorKeyPair SoftkeyTest::storeEcKey(KeyKind kind, std::string_view privateHex) const
{
    const Owned<EC_GROUP, EC_GROUP_free> group(EC_GROUP_new_by_curve_name(kind == KEY_KIND_EC_P256
                                                                              ? NID_X9_62_prime256v1
                                                                          : kind == KEY_KIND_EC_P384 ? NID_secp384r1
                                                                                                     : NID_secp521r1));
    const Data bytes = fromHex(privateHex);
    const Owned<BIGNUM, BN_free> number(BN_bin2bn(bytes.data(), length(bytes), nullptr));
    const Owned<EC_POINT, EC_POINT_free> point(EC_POINT_new(group.get()));
    EC_POINT_mul(group.get(), point.get(), number.get(), nullptr, nullptr, nullptr);
    Data encoded(traitsOf(kind).pointSize());
    EC_POINT_point2oct(group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, encoded.data(), encoded.size(),
                       nullptr);

    const Owned<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free> builder(OSSL_PARAM_BLD_new());
    OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, traitsOf(kind).curve, 0);
    OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, encoded.data(), encoded.size());
    OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, number.get());
    const Owned<OSSL_PARAM, OSSL_PARAM_free> parameters(OSSL_PARAM_BLD_to_param(builder.get()));
    const EvpKeyContext context(EVP_PKEY_CTX_new_from_name(CryptoContext::get().library(), "EC", nullptr));
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(context.get());
    EXPECT_EQ(EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_KEYPAIR, parameters.get()), 1);
    const EvpKey owner(key);
    return store(key);
}

std::vector<VelkorKeyPair> SoftkeyTest::keyPairs(const char* serialNumber) const
{
    return velkor_getKeyPairList(serialNumber, instance);
}

std::vector<VelkorCertificate> SoftkeyTest::certificates() const
{
    return velkor_getCertificateList(SERIAL, instance);
}

std::vector<std::string> SoftkeyTest::devices(bool refresh) const
{
    return velkor_getConnectedDeviceList(refresh, instance);
}

int SoftkeyTest::trySign(const VelkorKeyPair& key, const Data& input, bool isPss, const char* pin) const
{
    Data signature(1024);
    int size = length(signature);
    return velkor_signHash(SERIAL, key.keyIdentifier, pin, input.data(), length(input), signature.data(), &size, false,
                           instance, isPss);
}

Data SoftkeyTest::sign(const VelkorKeyPair& key, const Data& input, bool isPss) const
{
    Data signature(1024);
    int size = length(signature);
    EXPECT_EQ(velkor_signHash(SERIAL, key.keyIdentifier, PIN, input.data(), length(input), signature.data(), &size,
                              false, instance, isPss),
              0);
    signature.resize(static_cast<std::size_t>(size));
    return signature;
}

int SoftkeyTest::verify(const VelkorKeyPair& key, const Data& input, const Data& signature, bool isPss) const
{
    return velkor_verifySignatureHash(key.keyKind, SERIAL, input.data(), length(input), key.publicKey,
                                      key.publicKeyLength, signature.data(), length(signature), instance, isPss);
}

int SoftkeyTest::triesLeft() const
{
    return velkor_getTokenInfo(SERIAL, instance).pinTriesLeft;
}

RsaVectorKey signatureVectorKey()
{
    return {fromHex("909d1c40da8b0840be7d0e626539c5884f907b505d7e573deeee1d66c5b73e6a38f376aaf4cdd97441034e9a7f055d5b"
                    "53f93567393364cdc591b8f86668cae2a5fb1432eac3883381e7cd299c7dbaaba74a22a02263678be43ccc01cb936b20"
                    "f7c968284524691f1ffa28ad8f00a8a929da99bc4b3bd757743912e5de708851"),
            fromHex("059a64c419839e09fe2773c579b513937cbbb51f6fc3eba6ed6941efdfb4c22114fc4fea7f4a3384f6d8e53484bbe53a"
                    "5ae652bca1617da42065cd442899a254b75eeca60aa8c38cb7921ae334314275b561269b2bcbc816170c0fda5fe38e81"
                    "0b970bad6ae989aa1d42bbe282744f59e79ea9d036a0922a859130a55b777f81"),
            fromHex("c28923393a9cb945e8596bb3533c96fb60a7dec1737d7207d7ec91a2608a4eea4ea490b675d9427ec4aa99e554370357"
                    "5e5e6e2c88066e8bfdaa4dd23ced2b31")};
}

RsaVectorKey oaepVectorKey()
{
    return {fromHex("a8b3b284af8eb50b387034a860f146c4919f318763cd6c5598c8ae4811a1e0abc4c7e0b082d693a5e7fced675cf46685"
                    "12772c0cbc64a742c6c630f533c8cc72f62ae833c40bf25842e984bb78bdbf97c0107d55bdb662f5c4e0fab9845cb514"
                    "8ef7392dd3aaff93ae1e6b667bb3d4247616d4f5ba10d4cfd226de88d39f16fb"),
            fromHex("53339cfdb79fc8466a655c7316aca85c55fd8f6dd898fdaf119517ef4f52e8fd8e258df93fee180fa0e4ab29693cd83b"
                    "152a553d4ac4d1812b8b9fa5af0e7f55fe7304df41570926f3311f15c4d65a732c483116ee3d3d2d0af3549ad9bf7cbf"
                    "b78ad884f84d5beb04724dc7369b31def37d0cf539e9cfcdd3de653729ead5d1"),
            fromHex("d32737e7267ffe1341b2d5c0d150a81b586fb3132bed2f8d5262864a9cb9f30af38be448598d413a172efb802c21acf1"
                    "c11c520c2f26a471dcad212eac7ca39d")};
}

EvpKey keyOf(const RsaVectorKey& components)
{
    return rsaKeyFromComponents(components.modulus, components.privateExponent, components.prime1);
}

Data publicKeyBytes(const VelkorKeyPair& key)
{
    return Data(key.publicKey, key.publicKey + key.publicKeyLength);
}

static Data contentOf(BIO* out)
{
    char* text = nullptr;
    const long size = BIO_get_mem_data(out, &text);
    return Data(text, text + size);
}

std::string publicKeyPem(const VelkorKeyPair& key)
{
    const EvpKey publicKey = publicKeyFrom(traitsOf(key.keyKind), publicKeyBytes(key));
    const BioOwner out(BIO_new(BIO_s_mem()));
    PEM_write_bio_PUBKEY(out.get(), publicKey.get());
    const Data text = contentOf(out.get());
    return std::string(text.begin(), text.end());
}

Data privateKeyPem(const EVP_PKEY* key)
{
    const BioOwner out(BIO_new(BIO_s_mem()));
    PEM_write_bio_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
    return contentOf(out.get());
}

Data certificatePem(const Data& der)
{
    const unsigned char* next = der.data();
    const Certificate certificate(d2i_X509(nullptr, &next, length(der)));
    const BioOwner out(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(out.get(), certificate.get());
    return contentOf(out.get());
}

Data publicKeyInfo(const VelkorKeyPair& key)
{
    const EvpKey publicKey = publicKeyFrom(traitsOf(key.keyKind), publicKeyBytes(key));
    unsigned char* der = nullptr;
    const int size = i2d_PUBKEY(publicKey.get(), &der);
    const OpenSslBytes owner(der);
    return Data(der, der + size);
}

Data certificateNamed(const std::string& commonName, EVP_PKEY* key)
{
    const EvpKey own(key == nullptr ? EVP_EC_gen("P-256") : nullptr);
    key = key == nullptr ? own.get() : key;
    const Certificate certificate(X509_new());
    X509_set_version(certificate.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(commonName.c_str()),
                               -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 86400);
    X509_set_pubkey(certificate.get(), key);
    EXPECT_GT(X509_sign(certificate.get(), key, EVP_sha256()), 0);
    unsigned char* der = nullptr;
    const int size = i2d_X509(certificate.get(), &der);
    const OpenSslBytes owner(der);
    return Data(der, der + size);
}

const char* const LAYOUT_1 = R"sql(
PRAGMA application_id = 1447773529;
PRAGMA user_version = 1;
CREATE TABLE device (only_row INTEGER PRIMARY KEY CHECK (only_row = 1), serial_number TEXT NOT NULL,
    label TEXT NOT NULL, model TEXT NOT NULL, firmware_version TEXT NOT NULL,
    plugged INTEGER NOT NULL CHECK (plugged IN (0, 1))) STRICT;
CREATE TABLE pin (role INTEGER PRIMARY KEY CHECK (role IN (1, 2)), changed INTEGER NOT NULL CHECK (changed IN (0, 1)),
    tries_max INTEGER NOT NULL CHECK (tries_max BETWEEN 1 AND 255),
    tries_left INTEGER NOT NULL CHECK (tries_left BETWEEN 0 AND tries_max), scrypt_log_n INTEGER NOT NULL,
    scrypt_block_size INTEGER NOT NULL, scrypt_lanes INTEGER NOT NULL, salt BLOB NOT NULL,
    wrapped_master_key BLOB NOT NULL) STRICT;
CREATE TABLE key_pair (id INTEGER PRIMARY KEY CHECK (id BETWEEN 1 AND 4095),
    identifier BLOB NOT NULL UNIQUE CHECK (length(identifier) = 16), kind INTEGER NOT NULL CHECK (kind BETWEEN 1 AND 7),
    object_id BLOB NOT NULL CHECK (length(object_id) <= 128), label BLOB NOT NULL CHECK (length(label) <= 128),
    public_key BLOB NOT NULL CHECK (length(public_key) BETWEEN 1 AND 1024), sealed_private_key BLOB NOT NULL) STRICT;
CREATE TABLE certificate (id INTEGER PRIMARY KEY CHECK (id BETWEEN 1 AND 4095),
    identifier BLOB NOT NULL UNIQUE CHECK (length(identifier) = 16),
    object_id BLOB NOT NULL CHECK (length(object_id) <= 128), label BLOB NOT NULL CHECK (length(label) <= 128),
    der BLOB NOT NULL) STRICT;
INSERT INTO device VALUES(1,'OLD1','Old key','VK1 Soft','2.1.0',1);
INSERT INTO pin VALUES(1,0,5,5,4,8,1,X'976eb89533e45fa4fc7d044e9565e591',
    X'09fdecbff3b4c1ee71bfee39daf308344455a1ea40be0f0f316e0fc17fee8f3a9dd5c47ae3297b4f97ce69a6d8049c24523609debfd2faaef6156bdc');
INSERT INTO pin VALUES(2,0,5,5,4,8,1,X'4b1768837d8eb565099219d70bab9d80',
    X'ca46ed64868e5f424ee43756803a3bb617fe4ac58d9d691409dae5c68df68eb268946527cc889e1ce84ecedcca505faf490427595abebf405a0d4a62');
INSERT INTO key_pair VALUES(1,X'1382089c8cd807a8febfb3c6ca36fefb',5,X'0102',X'6f6c642070616972',
    X'043bb070a1b610f594bab899dee88a18503e1d43f269bbf3e373274e0f0dc6efc8055547bcd199f25184e2e02bbd88a0e1d85b43f5442f3259de52fdfac1427568',
    X'ff689c3bea058d9cc4d8359fe609cd1e69c40b1ae6cc57a5f7fd68eea4ccf6f62cbfb3f60180a0457b3d5b9b28c0f27d7743093dc3789232dd4ca42e61a7d305d8ae34200263cad3d8aa7d4741a36b7ecea5f771824ef948701a11cb90eab877bef5346dbeaa731cfd4424ac5184b6fe9fa325703c966ea2652459256af7b63ed3b6b6a554d5004161d469607e7d90a3c24cfd0f75a1176e06ca926a1855873c452f24950ed9');
)sql";

} // namespace softkey::test
