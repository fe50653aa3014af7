// What each entry point of a Cryptoki library costs, with the calls that have to go before it. Linked with
// instant_device.cpp it is the module alone that is measured; without, the module and the software key whose keys
// bench/compare.sh makes.
#include "cryptoki_host.h"

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cstdio>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

namespace
{

using bench::ByteString;
using bench::Host;
using bench::require;

constexpr std::uint32_t RSA_PAIR = 1;
constexpr std::uint32_t EC_PAIR = 2;

/// What the calls need, made ready before they are measured.
struct Desk {
    explicit Desk(const Host& hostOfAll) : host(hostOfAll) {}

    CK_OBJECT_HANDLE privateKey(std::uint32_t pair) const { return host.key(session, CKO_PRIVATE_KEY, pair); }
    CK_OBJECT_HANDLE publicKey(std::uint32_t pair) const { return host.key(session, CKO_PUBLIC_KEY, pair); }

    const Host& host;
    CK_SLOT_ID slot = host.slot();
    CK_SESSION_HANDLE session = host.openSession();
    /// For digests: one that has ended leaves its context behind, and a signature in parts would go on with it.
    CK_SESSION_HANDLE digestSession = host.openSession();
    CK_OBJECT_HANDLE signer = privateKey(EC_PAIR);
    CK_OBJECT_HANDLE verifier = publicKey(EC_PAIR);
    CK_OBJECT_HANDLE decrypter = privateKey(RSA_PAIR);
    CK_OBJECT_HANDLE encrypter = publicKey(RSA_PAIR);
    ByteString hash = ByteString(32, 0x5A);
    ByteString signature = host.sign(session, CKM_ECDSA, signer, hash);
    ByteString ciphertext = host.encrypt(session, encrypter, hash);
    ByteString room = ByteString(4096);
    CK_ULONG length = 0;

    CK_ULONG* whole()
    {
        length = static_cast<CK_ULONG>(room.size());
        return &length;
    }
};

CK_MECHANISM of(CK_MECHANISM_TYPE type)
{
    return {type, nullptr, 0};
}

// ---- Calls that take more than a line ----

void signInParts(Desk& desk)
{
    CK_MECHANISM mechanism = of(CKM_ECDSA_SHA256);
    require(desk.host->C_SignInit(desk.session, &mechanism, desk.signer), "C_SignInit");
    require(desk.host->C_SignUpdate(desk.session, desk.hash.data(), 32), "C_SignUpdate");
    require(desk.host->C_SignFinal(desk.session, desk.room.data(), desk.whole()), "C_SignFinal");
}

void verifyInParts(Desk& desk)
{
    CK_MECHANISM mechanism = of(CKM_ECDSA);
    require(desk.host->C_VerifyInit(desk.session, &mechanism, desk.verifier), "C_VerifyInit");
    require(desk.host->C_VerifyUpdate(desk.session, desk.hash.data(), 32), "C_VerifyUpdate");
    require(desk.host->C_VerifyFinal(desk.session, desk.signature.data(), static_cast<CK_ULONG>(desk.signature.size())),
            "C_VerifyFinal");
}

void digestInParts(Desk& desk)
{
    CK_MECHANISM mechanism = of(CKM_SHA256);
    require(desk.host->C_DigestInit(desk.digestSession, &mechanism), "C_DigestInit");
    require(desk.host->C_DigestUpdate(desk.digestSession, desk.hash.data(), 32), "C_DigestUpdate");
    require(desk.host->C_DigestFinal(desk.digestSession, desk.room.data(), desk.whole()), "C_DigestFinal");
}

void openAndCloseSession(Desk& desk)
{
    require(desk.host->C_CloseSession(desk.host.openSession()), "C_CloseSession");
}

void findPrivateKey(Desk& desk)
{
    benchmark::DoNotOptimize(desk.privateKey(EC_PAIR));
}

void readId(Desk& desk)
{
    CK_ATTRIBUTE attribute = {CKA_ID, desk.room.data(), 128};
    require(desk.host->C_GetAttributeValue(desk.session, desk.signer, &attribute, 1), "C_GetAttributeValue");
}

void writeLabel(Desk& desk)
{
    unsigned char label[] = "key pair of the benchmarks";
    CK_ATTRIBUTE attribute = {CKA_LABEL, label, sizeof label - 1};
    require(desk.host->C_SetAttributeValue(desk.session, desk.signer, &attribute, 1), "C_SetAttributeValue");
}

void changePin(Desk& desk)
{
    std::string old = desk.host.pin();
    std::string fresh = old + "5";
    for (int turn = 0; turn < 2; ++turn, old.swap(fresh)) // There and back.
        require(desk.host->C_SetPIN(desk.session, reinterpret_cast<CK_UTF8CHAR_PTR>(old.data()),
                                    static_cast<CK_ULONG>(old.size()), reinterpret_cast<CK_UTF8CHAR_PTR>(fresh.data()),
                                    static_cast<CK_ULONG>(fresh.size())),
                "C_SetPIN");
}

void logoutAndLogin(Desk& desk)
{
    std::string pin = desk.host.pin();
    require(desk.host->C_Logout(desk.session), "C_Logout");
    require(desk.host->C_Login(desk.session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                               static_cast<CK_ULONG>(pin.size())),
            "C_Login");
}

void deriveKey(Desk& desk)
{
    static const ByteString point = [&] {
        CK_ATTRIBUTE attribute = {CKA_VALUE, desk.room.data(), static_cast<CK_ULONG>(desk.room.size())};
        require(desk.host->C_GetAttributeValue(desk.session, desk.verifier, &attribute, 1), "C_GetAttributeValue");
        return ByteString(desk.room.begin(), desk.room.begin() + static_cast<std::ptrdiff_t>(attribute.ulValueLen));
    }();
    CK_ECDH1_DERIVE_PARAMS parameter = {CKD_NULL, 0, nullptr, static_cast<CK_ULONG>(point.size()),
                                        const_cast<CK_BYTE_PTR>(point.data())};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
    CK_OBJECT_HANDLE derived = 0;
    require(desk.host->C_DeriveKey(desk.session, &mechanism, desk.signer, nullptr, 0, &derived), "C_DeriveKey");
}

void generateAndDestroyKeyPair(Desk& desk)
{
    require(desk.host->C_DestroyObject(desk.session, desk.host.makeKeyPair(desk.session, 5000)), "C_DestroyObject");
}

ByteString numberOf(const EVP_PKEY* key, const char* name)
{
    BIGNUM* number = nullptr;
    require(EVP_PKEY_get_bn_param(key, name, &number) == 1 ? CKR_OK : CKR_GENERAL_ERROR, "EVP_PKEY_get_bn_param");
    ByteString bytes(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    BN_free(number);
    return bytes;
}

CK_ATTRIBUTE attributeOf(CK_ATTRIBUTE_TYPE type, ByteString& value)
{
    return {type, value.data(), static_cast<CK_ULONG>(value.size())};
}

void createAndDestroyPrivateKey(Desk& desk)
{
    static EVP_PKEY* const key = EVP_RSA_gen(2048);
    static ByteString modulus = numberOf(key, OSSL_PKEY_PARAM_RSA_N);
    static ByteString exponent = numberOf(key, OSSL_PKEY_PARAM_RSA_D);
    static ByteString prime = numberOf(key, OSSL_PKEY_PARAM_RSA_FACTOR1);
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    CK_KEY_TYPE keyType = CKK_RSA;
    CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &objectClass, sizeof objectClass},
                                 {CKA_KEY_TYPE, &keyType, sizeof keyType},
                                 attributeOf(CKA_MODULUS, modulus),
                                 attributeOf(CKA_PRIVATE_EXPONENT, exponent),
                                 attributeOf(CKA_PRIME_1, prime)};
    CK_OBJECT_HANDLE created = 0;
    require(desk.host->C_CreateObject(desk.session, attributes, 5, &created), "C_CreateObject");
    require(desk.host->C_DestroyObject(desk.session, created), "C_DestroyObject");
}

void waitForNoEvent(Desk& desk)
{
    CK_SLOT_ID slot = 0;
    const CK_RV result = desk.host->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
    require(result == CKR_NO_EVENT ? CKR_OK : result, "C_WaitForSlotEvent");
}

void answerUnsupported(Desk& desk)
{
    const CK_RV result = desk.host->C_InitPIN(desk.session, nullptr, 0);
    require(result == CKR_FUNCTION_NOT_SUPPORTED ? CKR_OK : result, "C_InitPIN");
}

// ---- The table ----

struct Row {
    const char* name;
    void (*call)(Desk& desk);
    benchmark::IterationCount iterations =
        0; ///< 0: as many as it takes. Else the call leaves something behind, or is slow.
};

// clang-format off
const Row ROWS[] = {
    {"C_GetFunctionList", [](Desk& desk) { CK_FUNCTION_LIST_PTR list; require(desk.host->C_GetFunctionList(&list), "C_GetFunctionList"); }},
    {"C_GetInfo", [](Desk& desk) { CK_INFO info; require(desk.host->C_GetInfo(&info), "C_GetInfo"); }},
    {"C_GetSlotList", [](Desk& desk) { require(desk.host->C_GetSlotList(CK_TRUE, reinterpret_cast<CK_SLOT_ID_PTR>(desk.room.data()), &(desk.length = 64)), "C_GetSlotList"); }},
    {"C_GetSlotInfo", [](Desk& desk) { CK_SLOT_INFO info; require(desk.host->C_GetSlotInfo(desk.slot, &info), "C_GetSlotInfo"); }},
    {"C_GetTokenInfo", [](Desk& desk) { CK_TOKEN_INFO info; require(desk.host->C_GetTokenInfo(desk.slot, &info), "C_GetTokenInfo"); }},
    {"C_GetMechanismList", [](Desk& desk) { require(desk.host->C_GetMechanismList(desk.slot, reinterpret_cast<CK_MECHANISM_TYPE_PTR>(desk.room.data()), &(desk.length = 128)), "C_GetMechanismList"); }},
    {"C_GetMechanismInfo", [](Desk& desk) { CK_MECHANISM_INFO info; require(desk.host->C_GetMechanismInfo(desk.slot, CKM_ECDSA, &info), "C_GetMechanismInfo"); }},
    {"C_OpenSession, C_CloseSession", openAndCloseSession},
    {"C_GetSessionInfo", [](Desk& desk) { CK_SESSION_INFO info; require(desk.host->C_GetSessionInfo(desk.session, &info), "C_GetSessionInfo"); }},
    {"C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal", findPrivateKey},
    {"C_GetAttributeValue", readId},
    {"C_SetAttributeValue", writeLabel, 20},
    {"C_GetObjectSize", [](Desk& desk) { require(desk.host->C_GetObjectSize(desk.session, desk.signer, &desk.length), "C_GetObjectSize"); }},
    {"C_EncryptInit, C_Encrypt", [](Desk& desk) { desk.host.encrypt(desk.session, desk.encrypter, desk.hash); }},
    {"C_DecryptInit, C_Decrypt", [](Desk& desk) { desk.host.decrypt(desk.session, desk.decrypter, desk.ciphertext); }},
    {"C_DigestInit, C_Digest", [](Desk& desk) { desk.host.digest(desk.digestSession, desk.hash); }},
    {"C_DigestInit, C_DigestUpdate, C_DigestFinal", digestInParts},
    {"C_SignInit, C_Sign", [](Desk& desk) { desk.host.sign(desk.session, CKM_ECDSA, desk.signer, desk.hash); }},
    {"C_SignInit, C_SignUpdate, C_SignFinal", signInParts},
    {"C_VerifyInit, C_Verify", [](Desk& desk) { desk.host.verify(desk.session, CKM_ECDSA, desk.verifier, desk.hash, desk.signature); }},
    {"C_VerifyInit, C_VerifyUpdate, C_VerifyFinal", verifyInParts},
    {"C_GenerateRandom", [](Desk& desk) { require(desk.host->C_GenerateRandom(desk.session, desk.room.data(), 32), "C_GenerateRandom"); }},
    {"C_DeriveKey", deriveKey, 1000},
    {"C_WaitForSlotEvent", waitForNoEvent},
    {"C_InitPIN, as all that is not supported", answerUnsupported},
    {"C_GenerateKeyPair, C_DestroyObject", generateAndDestroyKeyPair, 20},
    {"C_CreateObject, C_DestroyObject", createAndDestroyPrivateKey, 20},
    {"C_Logout, C_Login", logoutAndLogin, 5},
    {"C_SetPIN, twice", changePin, 2},
};
// clang-format on

/// Last, since they end all sessions.
void addEnds(Host& host)
{
    benchmark::RegisterBenchmark(
        "C_CloseAllSessions, of four",
        [&](benchmark::State& state) {
            require(host->C_CloseAllSessions(host.slot()), "C_CloseAllSessions"); // Those of the other rows.
            for (auto _ : state) {
                for (int session = 0; session < 4; ++session)
                    host.openSession();
                const auto start = std::chrono::steady_clock::now();
                require(host->C_CloseAllSessions(host.slot()), "C_CloseAllSessions");
                state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
            }
        })
        ->UseManualTime()
        ->Iterations(10000);
    benchmark::RegisterBenchmark("C_CloseAllSessions, of none", [&](benchmark::State& state) {
        for (auto _ : state)
            require(host->C_CloseAllSessions(host.slot()), "C_CloseAllSessions");
    });
    benchmark::RegisterBenchmark("C_Finalize, C_Initialize", [&](benchmark::State& state) {
        for (auto _ : state) {
            require(host->C_Finalize(nullptr), "C_Finalize");
            require(host->C_Initialize(nullptr), "C_Initialize");
        }
    })->Iterations(5);
}

} // namespace

int main(int argumentCount, char** arguments)
{
    benchmark::Initialize(&argumentCount, arguments);
    if (argumentCount != 3) {
        std::fprintf(stderr, "usage: entry_points_bench [--benchmark_...] LIBRARY PIN\n");
        return 2;
    }
    Host host(arguments[1], arguments[2]);
    Desk desk(host);
    for (const Row& row : ROWS) {
        auto* added = benchmark::RegisterBenchmark(row.name, [&desk, call = row.call](benchmark::State& state) {
            call(desk); // Some make something of their own, once.
            for (auto _ : state)
                call(desk);
        });
        if (row.iterations != 0)
            added->Iterations(row.iterations);
    }
    addEnds(host);
    benchmark::RunSpecifiedBenchmarks();
    host.end();
    return 0;
}
