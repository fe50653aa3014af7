// What the strict front costs over the module: the same calls through whichever library the first argument names, over
// a device library whose own work is next to nothing. The first token has ten key pairs, the second two thousand.
// `InThreads` has a device that computes for 300 µs. strict_figures.py runs it for both, and compares.
#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <dlfcn.h>

#include "cryptoki.h"
#include "default_device.h"
#include "device_double.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t FEW = 10;
constexpr std::uint32_t MANY = 2000;

std::atomic<bool> computes = false;
std::atomic<int> looks = 0; ///< At a list of key pairs.

/// Key pairs of alternating kinds, told apart by their values; signatures of the length of P-256. They stay as they
/// are, so that nobody needs a copy of them.
class BenchDevice : public DefaultDevice
{
public:
    BenchDevice()
    {
        fill(devices[FIRST_DEVICE], FEW);
        fill(devices[SECOND_DEVICE], MANY);
    }

    std::vector<VelkorKeyPair>& velkor_getKeyPairList(const char* deviceId, void* /*libraryInstance*/) override
    {
        ++looks;
        return devices.at(deviceId).keyPairs;
    }

    int velkor_signHash(const char* /*deviceId*/, const unsigned char* /*keyIdentifier*/, const char* /*pin*/,
                        const unsigned char* /*hash*/, int /*hashLength*/, unsigned char* signature,
                        int* signatureLength, bool /*flag*/, void* /*libraryInstance*/, bool /*isPss*/) override
    {
        const auto end = Clock::now() + std::chrono::microseconds(computes ? 300 : 0);
        while (Clock::now() < end) {
        }
        std::memset(signature, 1, 64);
        *signatureLength = 64;
        return 0;
    }

private:
    static void fill(DeviceRecords& device, std::uint32_t count)
    {
        device.keyPairs.clear();
        for (std::uint32_t id = 1; id <= count; ++id) {
            VelkorKeyPair pair = makeKeyPair(id, id % 2 == 0 ? KEY_KIND_RSA_2048 : KEY_KIND_EC_P256, "pair");
            std::memcpy(pair.publicKey + 8, &id, sizeof id);
            std::memcpy(pair.objectId, &id, sizeof id);
            pair.objectIdLength = sizeof id;
            device.keyPairs.push_back(pair);
        }
    }
};

CK_FUNCTION_LIST_PTR p11 = nullptr;
std::array<CK_SLOT_ID, 2> slots{};

void require(CK_RV result, const char* what)
{
    if (result == CKR_OK)
        return;
    std::fprintf(stderr, "%s: %lu\n", what, result);
    std::exit(1);
}

void start(const char* file)
{
    setDeviceOperations(std::make_shared<BenchDevice>());
    void* library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::exit(1);
    }
    reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"))(&p11);
    require(p11->C_Initialize(nullptr), "C_Initialize");
    CK_ULONG count = slots.size();
    require(p11->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
}

CK_SESSION_HANDLE openSession(std::size_t slot)
{
    CK_SESSION_HANDLE session = 0;
    require(p11->C_OpenSession(slots[slot], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session), "open");
    CK_UTF8CHAR pin[] = "1234";
    p11->C_Login(session, CKU_USER, pin, 4);
    return session;
}

std::size_t search(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE> criteria, std::vector<CK_OBJECT_HANDLE>& found)
{
    found.resize(2 * MANY);
    CK_ULONG count = 0;
    require(p11->C_FindObjectsInit(session, criteria.data(), criteria.size()), "C_FindObjectsInit");
    require(p11->C_FindObjects(session, found.data(), found.size(), &count), "C_FindObjects");
    require(p11->C_FindObjectsFinal(session), "C_FindObjectsFinal");
    return count;
}

CK_OBJECT_HANDLE privateKey(CK_SESSION_HANDLE session, std::uint32_t id)
{
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    std::vector<CK_OBJECT_HANDLE> found;
    search(session, {{CKA_CLASS, &objectClass, sizeof objectClass}, {CKA_ID, &id, sizeof id}}, found);
    return found.front();
}

void sign(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key)
{
    CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
    CK_BYTE hash[32] = {};
    CK_BYTE signature[1024];
    CK_ULONG length = sizeof signature;
    require(p11->C_SignInit(session, &mechanism, key), "C_SignInit");
    require(p11->C_Sign(session, hash, sizeof hash, signature, &length), "C_Sign");
}

void SignWithTheKeyUsedLast(benchmark::State& state)
{
    const CK_SESSION_HANDLE session = openSession(0);
    const CK_OBJECT_HANDLE key = privateKey(session, 1);
    for (auto _ : state)
        sign(session, key);
}
BENCHMARK(SignWithTheKeyUsedLast);

void SignWithTwoKeysInTurn(benchmark::State& state)
{
    const CK_SESSION_HANDLE session = openSession(0);
    const CK_OBJECT_HANDLE keys[] = {privateKey(session, 1), privateKey(session, 3)};
    std::size_t turn = 0;
    for (auto _ : state)
        sign(session, keys[turn++ % 2]);
}
BENCHMARK(SignWithTwoKeysInTurn);

void LookAtOneKey(benchmark::State& state)
{
    const CK_SESSION_HANDLE session = openSession(0);
    const CK_OBJECT_HANDLE key = privateKey(session, 1);
    CK_BYTE id[128];
    for (auto _ : state) {
        CK_ATTRIBUTE attribute = {CKA_ID, id, sizeof id};
        require(p11->C_GetAttributeValue(session, key, &attribute, 1), "C_GetAttributeValue");
    }
}
BENCHMARK(LookAtOneKey);

void SignInThreads(benchmark::State& state)
{
    computes = true;
    const CK_SESSION_HANDLE session = openSession(0);
    const CK_OBJECT_HANDLE key = privateKey(session, 1);
    for (auto _ : state)
        sign(session, key);
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0)
        computes = false;
}
BENCHMARK(SignInThreads)->Threads(1)->Threads(2)->UseRealTime();

void SearchByIdAmongMany(benchmark::State& state)
{
    const CK_SESSION_HANDLE session = openSession(1);
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    std::vector<CK_OBJECT_HANDLE> found;
    std::uint32_t id = 1234;
    for (auto _ : state) {
        if (search(session, {{CKA_CLASS, &objectClass, sizeof objectClass}, {CKA_ID, &id, sizeof id}}, found) != 1)
            state.SkipWithError("not found");
    }
}
BENCHMARK(SearchByIdAmongMany)->Unit(benchmark::kMillisecond);

void SearchByClassAndKeyTypeAmongMany(benchmark::State& state)
{
    const CK_SESSION_HANDLE session = openSession(1);
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    CK_KEY_TYPE keyType = CKK_EC;
    std::vector<CK_OBJECT_HANDLE> found;
    const std::vector<CK_ATTRIBUTE> criteria = {{CKA_CLASS, &objectClass, sizeof objectClass},
                                                {CKA_KEY_TYPE, &keyType, sizeof keyType}};
    // Of the process, in which this function runs more than once.
    struct First {
        double milliseconds;
        double processorMilliseconds;
        int looks;
    };
    static const First first = [&] {
        const int looksBefore = looks;
        const auto begin = Clock::now();
        const std::clock_t processorBegin = std::clock();
        search(session, criteria, found);
        return First{std::chrono::duration<double, std::milli>(Clock::now() - begin).count(),
                     1e3 * static_cast<double>(std::clock() - processorBegin) / CLOCKS_PER_SEC, looks - looksBefore};
    }();
    state.counters["first_ms"] = first.milliseconds;
    state.counters["first_cpu_ms"] = first.processorMilliseconds;
    state.counters["first_looks"] = first.looks;
    for (auto _ : state)
        search(session, criteria, found);
}
BENCHMARK(SearchByClassAndKeyTypeAmongMany)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argumentCount, char** arguments)
{
    benchmark::Initialize(&argumentCount, arguments);
    if (argumentCount != 2) {
        std::fprintf(stderr, "usage: strict_bench [--benchmark_...] LIBRARY\n");
        return 2;
    }
    start(arguments[1]);
    benchmark::RunSpecifiedBenchmarks();
    p11->C_Finalize(nullptr);
    return 0;
}
