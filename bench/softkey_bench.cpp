// What the software key costs over OpenSSL itself, with ten key pairs on the device. Each `...Overhead` run does the
// same directly and through the library in turn, so that both see the same machine, and reports the difference.
// SOFTKEY_BENCH_HOME names a folder with a key BENCH1, for a library that this program's own key would be too new for.
#include "crypto/keys.h"
#include "crypto/public_key.h"
#include "store/key_creation.h"
#include "store/keys_folder.h"
#include "velkor/device_service.h"

#include <benchmark/benchmark.h>
#include <openssl/rsa.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>

namespace
{

using namespace softkey;
using Clock = std::chrono::steady_clock;

constexpr const char* SERIAL = "BENCH1";
constexpr const char* PIN = "123456";

/// A key in a folder of its own, with five RSA-2048 and five P-256 key pairs.
struct Device {
    std::filesystem::path folder; ///< Empty when it is not ours.
    void* instance = nullptr;
    VelkorKeyPair rsa;
    VelkorKeyPair ec;

    Device()
    {
        if (const char* home = std::getenv("SOFTKEY_BENCH_HOME"))
            setenv("VELKOR_SOFTKEY_HOME", home, 1);
        else
            makeKey();
        velkor_createInstance(&instance);
        for (int pair = 0; pair < 5; ++pair) {
            rsa = generated(KEY_KIND_RSA_2048);
            ec = generated(KEY_KIND_EC_P256);
        }
    }
    ~Device()
    {
        velkor_releaseInstance(instance);
        if (!folder.empty())
            std::filesystem::remove_all(folder);
    }

    void makeKey()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "softkey-bench-XXXXXX").string();
        folder = mkdtemp(pattern.data());
        setenv("VELKOR_SOFTKEY_HOME", folder.c_str(), 1);
        KeySettings settings;
        settings.serialNumber = SERIAL;
        createKeyFile(folder, settings, PIN, "87654321");
    }

    VelkorKeyPair generated(KeyKind kind) const
    {
        VelkorKeyPair keyPair;
        keyPair.keyKind = kind;
        if (velkor_generateKeyPair(SERIAL, PIN, &keyPair, instance) != 0)
            std::abort();
        return keyPair;
    }
};

Device& device()
{
    static Device instance;
    return instance;
}

using Hash = std::array<unsigned char, 32>;
using Signature = std::array<unsigned char, 1024>;

/// The same signature by OpenSSL alone, set up for every call as an application would.
bool signDirectly(EVP_PKEY* key, bool isRsa, const Hash& hash, Signature& signature)
{
    const EvpKeyContext context(EVP_PKEY_CTX_new_from_pkey(CryptoContext::get().library(), key, nullptr));
    std::size_t size = signature.size();
    const EVP_MD* sha256 = CryptoContext::get().digestOfSize(32)->algorithm;
    return EVP_PKEY_sign_init(context.get()) == 1 &&
           (!isRsa || (EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
                       EVP_PKEY_CTX_set_signature_md(context.get(), sha256) == 1)) &&
           EVP_PKEY_sign(context.get(), signature.data(), &size, hash.data(), hash.size()) == 1;
}

bool signWithLibrary(const VelkorKeyPair& keyPair, const Hash& hash, Signature& signature)
{
    int size = static_cast<int>(signature.size());
    return velkor_signHash(SERIAL, keyPair.keyIdentifier, PIN, hash.data(), static_cast<int>(hash.size()),
                           signature.data(), &size, false, device().instance, false) == 0;
}

/// Does both in turn.
template <class Direct, class Library>
void compare(benchmark::State& state, Direct direct, Library library)
{
    Clock::duration directTime{}, libraryTime{};
    for (auto _ : state) {
        const auto start = Clock::now();
        const bool directDone = direct();
        const auto middle = Clock::now();
        const bool libraryDone = library();
        const auto end = Clock::now();
        if (!directDone || !libraryDone)
            state.SkipWithError("a call failed");
        directTime += middle - start;
        libraryTime += end - middle;
    }
    const auto perCall = [&](Clock::duration total) {
        return std::chrono::duration<double, std::micro>(total).count() / static_cast<double>(state.iterations());
    };
    state.counters["direct_us"] = perCall(directTime);
    state.counters["library_us"] = perCall(libraryTime);
    state.counters["overhead_percent"] = 100 * (perCall(libraryTime) / perCall(directTime) - 1);
}

void compareSignatures(benchmark::State& state, KeyKind kind)
{
    const bool isRsa = kind == KEY_KIND_RSA_2048;
    const VelkorKeyPair& keyPair = isRsa ? device().rsa : device().ec;
    const EvpKey key = generateKey(traitsOf(kind));
    const Hash hash{1, 2, 3};
    Signature signature{};
    compare(
        state, [&] { return signDirectly(key.get(), isRsa, hash, signature); },
        [&] { return signWithLibrary(keyPair, hash, signature); });
}

void Rsa2048SignatureOverhead(benchmark::State& state)
{
    compareSignatures(state, KEY_KIND_RSA_2048);
}
BENCHMARK(Rsa2048SignatureOverhead);

void P256SignatureOverhead(benchmark::State& state)
{
    compareSignatures(state, KEY_KIND_EC_P256);
}
BENCHMARK(P256SignatureOverhead);

using Ciphertext = std::array<unsigned char, 256>;

EvpKeyContext contextWith(EVP_PKEY* key, int padding, int (*begin)(EVP_PKEY_CTX*))
{
    EvpKeyContext context(EVP_PKEY_CTX_new_from_pkey(CryptoContext::get().library(), key, nullptr));
    if (begin(context.get()) != 1 || EVP_PKEY_CTX_set_rsa_padding(context.get(), padding) != 1)
        std::abort();
    return context;
}

Ciphertext encryptTo(EVP_PKEY* key, int padding)
{
    const EvpKeyContext context = contextWith(key, padding, EVP_PKEY_encrypt_init);
    const Hash plaintext{1, 2, 3};
    Ciphertext ciphertext{};
    std::size_t size = ciphertext.size();
    if (EVP_PKEY_encrypt(context.get(), ciphertext.data(), &size, plaintext.data(), plaintext.size()) != 1)
        std::abort();
    return ciphertext;
}

bool decryptDirectly(EVP_PKEY* key, int padding, const Ciphertext& ciphertext)
{
    const EvpKeyContext context = contextWith(key, padding, EVP_PKEY_decrypt_init);
    Ciphertext plaintext{};
    std::size_t size = plaintext.size();
    return EVP_PKEY_decrypt(context.get(), plaintext.data(), &size, ciphertext.data(), ciphertext.size()) == 1 &&
           size == sizeof(Hash);
}

bool decryptWithLibrary(const VelkorKeyPair& keyPair, const Ciphertext& ciphertext)
{
    unsigned char* plaintext = nullptr;
    int size = 0;
    const int status = velkor_decrypt(SERIAL, keyPair.keyIdentifier, PIN, ciphertext.data(),
                                      static_cast<int>(ciphertext.size()), &plaintext, &size, false, device().instance);
    std::free(plaintext);
    return status == 0 && size == sizeof(Hash);
}

void compareDecryptions(benchmark::State& state, int padding)
{
    const VelkorKeyPair& keyPair = device().rsa;
    const EvpKey key = generateKey(traitsOf(KEY_KIND_RSA_2048));
    const EvpKey publicKey = publicKeyFrom(traitsOf(KEY_KIND_RSA_2048),
                                           {keyPair.publicKey, static_cast<std::size_t>(keyPair.publicKeyLength)});
    const Ciphertext forDirect = encryptTo(key.get(), padding);
    const Ciphertext forLibrary = encryptTo(publicKey.get(), padding);
    compare(
        state, [&] { return decryptDirectly(key.get(), padding, forDirect); },
        [&] { return decryptWithLibrary(keyPair, forLibrary); });
}

void Rsa2048OaepDecryptionOverhead(benchmark::State& state)
{
    compareDecryptions(state, RSA_PKCS1_OAEP_PADDING);
}
BENCHMARK(Rsa2048OaepDecryptionOverhead);

void Rsa2048Pkcs1DecryptionOverhead(benchmark::State& state)
{
    compareDecryptions(state, RSA_PKCS1_PADDING);
}
BENCHMARK(Rsa2048Pkcs1DecryptionOverhead);

void KeyPairListOfTen(benchmark::State& state)
{
    for (auto _ : state) {
        if (velkor_getKeyPairList(SERIAL, device().instance).size() != 10)
            state.SkipWithError("the list is not complete");
    }
}
BENCHMARK(KeyPairListOfTen);

void ConnectedDeviceList(benchmark::State& state)
{
    device();
    // Past the time in which a fresh folder's time stamp is not trusted yet.
    static const bool settled = [] {
        struct timespec pause = {3, 0};
        return nanosleep(&pause, nullptr) == 0;
    }();
    benchmark::DoNotOptimize(settled);
    for (auto _ : state) {
        if (velkor_getConnectedDeviceList(false, device().instance).size() != 1)
            state.SkipWithError("the device is missing");
    }
}
BENCHMARK(ConnectedDeviceList);

void PinCheckFirstTime(benchmark::State& state)
{
    for (auto _ : state) {
        // A wrong PIN that was never tried; the right one gives the try back.
        static int round = 0;
        const std::string wrong = "wrong" + std::to_string(++round);
        int triesLeft = 0;
        velkor_validatePassword(SERIAL, wrong.c_str(), USER_TYPE_USER, &triesLeft, device().instance);
        state.PauseTiming();
        velkor_validatePassword(SERIAL, PIN, USER_TYPE_USER, &triesLeft, device().instance);
        state.ResumeTiming();
    }
}
BENCHMARK(PinCheckFirstTime)->Unit(benchmark::kMillisecond);

void VerifyRsa2048(benchmark::State& state)
{
    const VelkorKeyPair& keyPair = device().rsa;
    const Hash hash{1, 2, 3};
    Signature signature{};
    signWithLibrary(keyPair, hash, signature);
    for (auto _ : state) {
        if (velkor_verifySignatureHash(keyPair.keyKind, SERIAL, hash.data(), 32, keyPair.publicKey,
                                       keyPair.publicKeyLength, signature.data(), 256, device().instance, false) != 0)
            state.SkipWithError("the signature does not verify");
    }
}
BENCHMARK(VerifyRsa2048);

} // namespace

BENCHMARK_MAIN();
