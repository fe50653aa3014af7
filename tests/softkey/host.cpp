// A host that uses OpenSSL itself, treats it in every rough way a host can, and ends in every order.
// Usage: host MODE SERIAL PIN; exits with 0 when the key did as it should.
#include "key_process.h"

#include <openssl/engine.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using namespace softkey::test;

int signStatus(const VelkorKeyPair& keyPair)
{
    const unsigned char hash[32] = {1};
    unsigned char signature[512];
    int size = sizeof signature;
    return velkor_signHash(serialNumber, keyPair.keyIdentifier, pin, hash, sizeof hash, signature, &size, false,
                           instance, false);
}

/// Every key pair of the device signs.
bool allSign()
{
    const std::vector<VelkorKeyPair> keyPairs = velkor_getKeyPairList(serialNumber, instance);
    for (const VelkorKeyPair& keyPair : keyPairs) {
        if (signStatus(keyPair) != 0)
            return false;
    }
    return !keyPairs.empty();
}

bool storesAndDeletes()
{
    VelkorKeyPair keyPair;
    keyPair.keyKind = KEY_KIND_EC_P256;
    return velkor_generateKeyPair(serialNumber, pin, &keyPair, instance) == 0 && signStatus(keyPair) == 0 &&
           velkor_deleteKeyPair(serialNumber, keyPair.keyIdentifier, pin, false, instance) == 0;
}

// ---- Engines and configuration ----

int refuse(EVP_PKEY_CTX*)
{
    std::_Exit(20); // The key's work must never arrive here.
}

int engineMethods(ENGINE*, EVP_PKEY_METHOD** method, const int** types, int type)
{
    static const int all[] = {EVP_PKEY_RSA, EVP_PKEY_EC};
    if (method == nullptr) {
        *types = all;
        return 2;
    }
    *method = EVP_PKEY_meth_new(type, 0);
    EVP_PKEY_meth_set_init(*method, refuse);
    return 1;
}

int engineMode()
{
    ENGINE* engine = ENGINE_new();
    ENGINE_set_id(engine, "refusing");
    ENGINE_set_pkey_meths(engine, engineMethods);
    if (ENGINE_set_default_pkey_meths(engine) != 1)
        return 2;
    return allSign() && storesAndDeletes() ? 0 : 1;
}

/// Run with a configuration that leaves the host's OpenSSL without algorithms.
int configurationMode()
{
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr);
    EVP_MD* digest = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    if (digest != nullptr)
        return 2; // The configuration had no effect: nothing was tested.
    return allSign() && storesAndDeletes() ? 0 : 1;
}

int errorQueueMode()
{
    ERR_raise(ERR_LIB_USER, 77);
    const unsigned long mine = ERR_peek_last_error();
    CertificateDetails details;
    const unsigned char junk[40] = {0x30, 0x26};
    if (velkor_getCertificateDetails(junk, sizeof junk, details, nullptr) == 0)
        return 2;
    unsigned char* out = nullptr;
    int size = 0;
    velkor_decrypt(serialNumber, velkor_getKeyPairList(serialNumber, instance).at(0).keyIdentifier, pin, junk, 40, &out,
                   &size, false, instance);
    return ERR_peek_last_error() == mine && ERR_get_error() == mine && ERR_get_error() == 0 ? 0 : 1;
}

// ---- Ends ----

/// Calls in while static objects are destroyed, when OpenSSL may be gone already.
struct LateCaller {
    bool armed = false;
    ~LateCaller()
    {
        if (!armed)
            return;
        velkor_getConnectedDeviceList(false, instance);
        velkor_getKeyPairList(serialNumber, instance);
        allSign();
        velkor_releaseInstance(instance);
    }
};
LateCaller lateCaller;

int lateMode()
{
    lateCaller.armed = true;
    EVP_PKEY_free(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    return allSign() ? 0 : 1;
}

int cleanedUpMode()
{
    if (!allSign())
        return 1;
    OPENSSL_cleanup();
    const bool stillThere = velkor_getConnectedDeviceList(false, instance).size() == 1;
    const int status = signStatus(velkor_getKeyPairList(serialNumber, instance).at(0));
    const int shuttingDown = 353;
    return stillThere && (status == 0 || status == shuttingDown) ? 0 : 3;
}

/// The process ends while other threads are inside.
int busyMode()
{
    std::atomic<int> calls{0};
    // Without a destructor: the threads outlive static objects.
    static const VelkorKeyPair keyPair = velkor_getKeyPairList(serialNumber, instance).at(0);
    std::thread([&calls] {
        for (;;) {
            velkor_getConnectedDeviceList(false, instance);
            ++calls;
        }
    }).detach();
    for (int i = 0; i < 2; ++i)
        std::thread([] {
            for (;;)
                signStatus(keyPair);
        }).detach();
    while (calls < 200)
        std::this_thread::yield();
    std::exit(0);
}

// ---- Forks ----

int forkMode()
{
    if (!allSign())
        return 1;
    static std::atomic<bool> stop{false};
    std::thread writer([] {
        while (!stop)
            storesAndDeletes();
    });
    std::thread lister([] {
        while (!stop)
            velkor_getConnectedDeviceList(true, instance);
    });
    // The others on the list come and go.
    const VelkorKeyPair lasting = velkor_getKeyPairList(serialNumber, instance).front();
    // A fork waits for signatures that are under way, and not for those that come after it.
    std::vector<std::thread> signers;
    for (int i = 0; i < 4; ++i)
        signers.emplace_back([&] {
            while (!stop)
                signStatus(lasting);
        });
    int failures = 0;
    for (int i = 0; i < 10; ++i) {
        const pid_t child = fork();
        if (child == 0)
            _exit(signStatus(lasting) == 0 && storesAndDeletes() &&
                          velkor_getConnectedDeviceList(false, instance).size() == 1
                      ? 0
                      : 1);
        int status = 0;
        waitpid(child, &status, 0);
        failures += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
    }
    stop = true;
    writer.join();
    lister.join();
    for (std::thread& signer : signers)
        signer.join();
    return failures == 0 && allSign() ? 0 : 4;
}

int runMode(const std::string& mode)
{
    if (mode == "engine")
        return engineMode();
    if (mode == "configuration")
        return configurationMode();
    if (mode == "errors")
        return errorQueueMode();
    if (mode == "late")
        return lateMode();
    if (mode == "cleaned-up")
        return cleanedUpMode();
    if (mode == "busy")
        return busyMode();
    if (mode == "fork")
        return forkMode();
    return 9;
}

} // namespace

int main(int argc, char** argv)
{
    if (const int failure = begin(argc, argv))
        return failure;
    return runMode(argv[1]);
}
