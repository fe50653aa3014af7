// What the tests of the software key stand on: a keys folder of their own with one key in it, and an instance of the
// library. Nothing outside the folder is touched.
#pragma once

#include "base/status.h"
#include "crypto/openssl.h"
#include "programs.h"
#include "store/key_creation.h"
#include "store/keys_folder.h"
#include "velkor/device_service.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace softkey::test
{

inline constexpr const char* PIN = "123456";
inline constexpr const char* SO_PIN = "87654321";
inline constexpr const char* WRONG_PIN = "654321";

using Data = std::vector<unsigned char>;

Data fromHex(std::string_view hex);
std::string toHex(Bytes bytes);
Data bytesOf(std::string_view text);
int length(const Data& data);

Data readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, Bytes content);

/// A program's exit code and what it printed.
struct Outcome {
    int exitCode = -1;
    std::string out;
    std::string error;
};
/// Runs a command line of the shell with `input` as its standard input.
Outcome run(const std::string& command, const std::string& input = {});

int code(SoftkeyStatus status);

/// A folder that goes with its owner.
class TemporaryFolder
{
public:
    TemporaryFolder();
    ~TemporaryFolder();
    const std::filesystem::path& path() const { return path_; }
    /// Writes a file into it; returns its path.
    std::string file(const std::string& name, Bytes content) const;

private:
    std::filesystem::path path_;
};

/// Settings with a cheap PIN check, and PINs that their owner is to change.
KeySettings cheapSettings(const std::string& serialNumber);

class SoftkeyTest : public ::testing::Test
{
protected:
    SoftkeyTest();
    ~SoftkeyTest() override;

    static constexpr const char* SERIAL = "KEY1";

    void createKey(const KeySettings& settings) const;
    std::filesystem::path keyPath(const std::string& serialNumber = SERIAL) const;
    /// The key seen past the library, as another process would see it.
    std::unique_ptr<SoftKey> otherProcess(const std::string& serialNumber = SERIAL) const;

    VelkorKeyPair generate(KeyKind kind, const std::string& label = "", const Data& objectId = {},
                           std::uint32_t usage = 0) const;
    /// Puts a private key on the device past the library.
    VelkorKeyPair store(const EVP_PKEY* key) const;
    VelkorKeyPair storeEcKey(KeyKind kind, std::string_view privateHex) const;
    std::vector<VelkorKeyPair> keyPairs(const char* serialNumber = SERIAL) const;
    std::vector<VelkorCertificate> certificates() const;
    std::vector<std::string> devices(bool refresh = false) const;

    int trySign(const VelkorKeyPair& key, const Data& input, bool isPss = false, const char* pin = PIN) const;
    Data sign(const VelkorKeyPair& key, const Data& input, bool isPss = false) const;
    int verify(const VelkorKeyPair& key, const Data& input, const Data& signature, bool isPss = false) const;
    int triesLeft() const;

    TemporaryFolder home;
    TemporaryFolder scratch;
    void* instance = nullptr;
};

/// SQL that makes a file of layout 1, which knew no usage flags: OLD1 with one P-256 key pair under the usual PINs.
extern const char* const LAYOUT_1;

/// 1024-bit RSA keys of published test vectors, with the public exponent 65537.
struct RsaVectorKey {
    Data modulus, privateExponent, prime1;
};
RsaVectorKey signatureVectorKey();
RsaVectorKey oaepVectorKey();
EvpKey keyOf(const RsaVectorKey& components);

std::string publicKeyPem(const VelkorKeyPair& key);
Data publicKeyInfo(const VelkorKeyPair& key);
Data publicKeyBytes(const VelkorKeyPair& key);

/// A self-signed certificate, as DER, for a key; by default a new P-256 key.
Data certificateNamed(const std::string& commonName, EVP_PKEY* key = nullptr);
/// PEM of a private key, and of a certificate that is given as DER.
Data privateKeyPem(const EVP_PKEY* key);
Data certificatePem(const Data& der);

} // namespace softkey::test
