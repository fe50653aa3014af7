// What one operation costs with whatever carries it out: any Cryptoki library with a token of the benchmarks' keys, or
// libcrypto by itself. bench/compare.sh runs it for each and prints the figures side by side.
#include "cryptoki_host.h"
#include "direct_crypto.h"
#include "looks.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using bench::ByteString;
using bench::Host;
using State = benchmark::State;

const ByteString HASH(32, 0x5A);
constexpr std::uint32_t RSA_PAIR = 1;

/// The host's, whose name says how many key pairs the token has.
void add(const std::string& name, const Host& host, const std::function<void(State&)>& body)
{
    benchmark::RegisterBenchmark((name + "/" + std::to_string(host.keyPairs())).c_str(), body);
}

/// A pair on P-256 in the midst of the token.
std::uint32_t middlePair(const Host& host)
{
    return static_cast<std::uint32_t>(host.keyPairs() / 2 + 1);
}

ByteString inputOf(CK_MECHANISM_TYPE mechanism)
{
    return mechanism == CKM_RSA_PKCS ? bench::digestInfoOf(HASH) : HASH;
}

/// Times an operation, once whatever happens the first time is over: a token may ask its PIN's cost then. Last it
/// counts the operation's looks at files, which is not part of the time either.
template <class Operation>
void measure(State& state, const Operation& operation)
{
    operation();
    for (auto _ : state)
        operation();
    state.SetItemsProcessed(state.iterations());
    constexpr int TURNS = 4;
    const bench::CountedLooks counted;
    for (int turn = 0; turn < TURNS; ++turn)
        operation();
    const auto each = [](unsigned looks) {
        return benchmark::Counter(static_cast<double>(looks) / TURNS, benchmark::Counter::kAvgThreads);
    };
    state.counters["level_looks"] = each(counted.looks().atLevel);
    state.counters["counter_looks"] = each(counted.looks().atCounter);
}

void signOn(State& state, const Host& host, CK_SLOT_ID slot, CK_MECHANISM_TYPE mechanism, std::uint32_t pair)
{
    const CK_SESSION_HANDLE session = host.openSession(slot);
    const CK_OBJECT_HANDLE key = host.key(session, CKO_PRIVATE_KEY, pair);
    ByteString data = inputOf(mechanism);
    measure(state, [&] { host.sign(session, mechanism, key, data); });
}

void sign(State& state, const Host& host, CK_MECHANISM_TYPE mechanism, std::uint32_t pair)
{
    signOn(state, host, host.slot(), mechanism, pair);
}

void verify(State& state, const Host& host, CK_MECHANISM_TYPE mechanism, std::uint32_t pair)
{
    const CK_SESSION_HANDLE session = host.openSession();
    const CK_OBJECT_HANDLE key = host.key(session, CKO_PUBLIC_KEY, pair);
    ByteString data = inputOf(mechanism);
    ByteString signature = host.sign(session, mechanism, host.key(session, CKO_PRIVATE_KEY, pair), data);
    measure(state, [&] { host.verify(session, mechanism, key, data, signature); });
}

void addSignatures(const Host& host)
{
    add("SignP256", host, [&](State& state) { sign(state, host, CKM_ECDSA, middlePair(host)); });
    const std::string inThreads = "SignP256InThreads/" + std::to_string(host.keyPairs());
    for (const int threads : {1, 2})
        benchmark::RegisterBenchmark(inThreads.c_str(),
                                     [&](State& state) { sign(state, host, CKM_ECDSA, middlePair(host)); })
            ->Threads(threads)
            ->UseRealTime();
    add("SignRsa2048", host, [&](State& state) { sign(state, host, CKM_RSA_PKCS, RSA_PAIR); });
    add("VerifyP256", host, [&](State& state) { verify(state, host, CKM_ECDSA, middlePair(host)); });
    add("VerifyRsa2048", host, [&](State& state) { verify(state, host, CKM_RSA_PKCS, RSA_PAIR); });
}

/// Each thread signs on a token of its own, when there are two.
void addTwoTokens(const Host& host)
{
    if (host.slots().size() < 2)
        return;
    constexpr std::uint32_t P256_PAIR = 2;
    for (const int threads : {1, 2})
        benchmark::RegisterBenchmark("SignP256OnTwoTokens",
                                     [&](State& state) {
                                         const auto token = static_cast<std::size_t>(state.thread_index());
                                         signOn(state, host, host.slots()[token], CKM_ECDSA, P256_PAIR);
                                     })
            ->Threads(threads)
            ->UseRealTime();
}

void addEncryption(const Host& host)
{
    add("EncryptRsa2048", host, [&](State& state) {
        const CK_SESSION_HANDLE session = host.openSession();
        const CK_OBJECT_HANDLE key = host.key(session, CKO_PUBLIC_KEY, RSA_PAIR);
        ByteString plaintext = HASH;
        measure(state, [&] { host.encrypt(session, key, plaintext); });
    });
    add("DecryptRsa2048", host, [&](State& state) {
        const CK_SESSION_HANDLE session = host.openSession();
        const CK_OBJECT_HANDLE key = host.key(session, CKO_PRIVATE_KEY, RSA_PAIR);
        ByteString plaintext = HASH;
        ByteString ciphertext = host.encrypt(session, host.key(session, CKO_PUBLIC_KEY, RSA_PAIR), plaintext);
        measure(state, [&] {
            if (host.decrypt(session, key, ciphertext) != plaintext)
                state.SkipWithError("the plaintext is another");
        });
    });
}

void readFiveAttributes(State& state, const Host& host)
{
    const CK_SESSION_HANDLE session = host.openSession();
    const CK_OBJECT_HANDLE key = host.key(session, CKO_PRIVATE_KEY, middlePair(host));
    CK_OBJECT_CLASS objectClass = 0;
    CK_KEY_TYPE keyType = 0;
    CK_BBOOL canSign = CK_FALSE;
    unsigned char id[128];
    unsigned char label[128];
    measure(state, [&] {
        CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &objectClass, sizeof objectClass},
                                     {CKA_KEY_TYPE, &keyType, sizeof keyType},
                                     {CKA_ID, id, sizeof id},
                                     {CKA_LABEL, label, sizeof label},
                                     {CKA_SIGN, &canSign, sizeof canSign}};
        bench::require(host->C_GetAttributeValue(session, key, attributes, 5), "C_GetAttributeValue");
    });
}

void addObjects(const Host& host)
{
    add("FiveAttributes", host, [&](State& state) { readFiveAttributes(state, host); });
    add("FindPrivateKeyById", host, [&](State& state) {
        const CK_SESSION_HANDLE session = host.openSession();
        measure(state, [&] { benchmark::DoNotOptimize(host.key(session, CKO_PRIVATE_KEY, middlePair(host))); });
    });
    add("ListPublicKeys", host, [&](State& state) {
        const CK_SESSION_HANDLE session = host.openSession();
        CK_OBJECT_CLASS publicKey = CKO_PUBLIC_KEY;
        measure(state, [&] {
            if (host.find(session, {{CKA_CLASS, &publicKey, sizeof publicKey}}).size() != host.keyPairs())
                state.SkipWithError("the list is not complete");
        });
    });
}

void addSmallCalls(const Host& host)
{
    add("Sha256Of64Bytes", host, [&](State& state) {
        const CK_SESSION_HANDLE session = host.openSession();
        ByteString data(64, 1);
        measure(state, [&] { host.digest(session, data); });
    });
    add("GetSessionInfo", host, [&](State& state) {
        const CK_SESSION_HANDLE session = host.openSession();
        CK_SESSION_INFO info;
        measure(state, [&] { bench::require(host->C_GetSessionInfo(session, &info), "C_GetSessionInfo"); });
    });
    add("Random32Bytes", host, [&](State& state) {
        const CK_SESSION_HANDLE session = host.openSession();
        unsigned char bytes[32];
        measure(state,
                [&] { bench::require(host->C_GenerateRandom(session, bytes, sizeof bytes), "C_GenerateRandom"); });
    });
}

/// What can be measured but once in a process, as counters.
void addOnce(const Host& host)
{
    benchmark::RegisterBenchmark(("Once/" + std::to_string(host.keyPairs())).c_str(), [&](State& state) {
        for (auto _ : state) {
        }
        state.counters["first_slot_list_ms"] = host.firstCalls().slotListMilliseconds;
        state.counters["first_search_ms"] = host.firstCalls().searchMilliseconds;
        state.counters["memory_mib"] = host.memory();
        for (const auto& [kind, mebibytes] : host.memoryParts())
            state.counters["memory: " + kind] = mebibytes;
    })->Iterations(1);
}

void addDirect(const char* name, void (*work)(bench::DirectCrypto&))
{
    const auto crypto = std::make_shared<bench::DirectCrypto>();
    benchmark::RegisterBenchmark(name, [=](State& state) {
        for (auto _ : state)
            work(*crypto);
        state.SetItemsProcessed(state.iterations());
    });
}

void addDirectWork()
{
    using bench::DirectCrypto;
    addDirect("SignP256", [](DirectCrypto& crypto) { crypto.signP256(); });
    addDirect("SignRsa2048", [](DirectCrypto& crypto) { crypto.signRsa(); });
    addDirect("VerifyP256", [](DirectCrypto& crypto) { crypto.verifyP256(); });
    addDirect("VerifyRsa2048", [](DirectCrypto& crypto) { crypto.verifyRsa(); });
    addDirect("EncryptRsa2048", [](DirectCrypto& crypto) { crypto.encryptRsa(); });
    addDirect("DecryptRsa2048", [](DirectCrypto& crypto) { crypto.decryptRsa(); });
    addDirect("Sha256Of64Bytes", [](DirectCrypto& crypto) { crypto.digest(); });
    addDirect("Random32Bytes", [](DirectCrypto& crypto) { crypto.random(); });
    for (const int threads : {1, 2})
        benchmark::RegisterBenchmark("SignP256InThreads",
                                     [](State& state) {
                                         DirectCrypto crypto;
                                         for (auto _ : state)
                                             crypto.signP256();
                                         state.SetItemsProcessed(state.iterations());
                                     })
            ->Threads(threads)
            ->UseRealTime();
}

/// What the system takes for a look at the log level's file, and for one at a key's change counter.
void addLooks()
{
    benchmark::RegisterBenchmark("LookAtFile", [](State& state) {
        struct stat status {
        };
        for (auto _ : state)
            benchmark::DoNotOptimize(stat(bench::levelFile(), &status));
    });
    benchmark::RegisterBenchmark("ReadFourBytes", [](State& state) {
        const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
        unsigned char bytes[4];
        for (auto _ : state)
            bench::require(pread(file, bytes, sizeof bytes, 24) == 4 ? CKR_OK : CKR_DEVICE_ERROR, "pread");
        close(file);
    });
}

int usage()
{
    std::fprintf(stderr, "usage: compare_bench [--benchmark_...] libcrypto\n"
                         "       compare_bench [--benchmark_...] LIBRARY PIN\n"
                         "       compare_bench LIBRARY             starts it, for a profile of the first calls\n"
                         "       compare_bench LIBRARY PIN PAIRS   makes key pairs until there are so many\n");
    return 2;
}

} // namespace

int main(int argumentCount, char** arguments)
{
    benchmark::Initialize(&argumentCount, arguments);
    if (argumentCount == 2 && std::strcmp(arguments[1], "libcrypto") == 0) {
        addDirectWork();
        addLooks();
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    }
    if (argumentCount == 2) {
        Host(arguments[1], "").end();
        return 0;
    }
    if (argumentCount != 3 && argumentCount != 4)
        return usage();
    Host host(arguments[1], arguments[2]);
    if (argumentCount == 4) {
        host.makeKeyPairs(std::stoul(arguments[3]));
        host.end();
        return 0;
    }
    addSignatures(host);
    addTwoTokens(host);
    addEncryption(host);
    addObjects(host);
    addSmallCalls(host);
    addOnce(host);
    benchmark::RunSpecifiedBenchmarks();
    host.end();
    return 0;
}
