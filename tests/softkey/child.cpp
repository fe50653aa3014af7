// A process of its own that uses a software key, for tests with several processes and with processes that are killed.
// Usage: child MODE SERIAL PIN [FILE]. It knows nothing but the interface of the library.
#include "device/device_service.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <unistd.h>

namespace
{

const char* serialNumber = nullptr;
const char* pin = nullptr;
void* instance = nullptr;

/// One line to the parent, at once and whole.
void tell(const std::string& line)
{
    if (write(STDOUT_FILENO, (line + "\n").c_str(), line.size() + 1) < 0)
        std::_Exit(9);
}

std::string hexOf(const unsigned char (&identifier)[KEY_IDENTIFIER_SIZE])
{
    std::string text;
    for (const unsigned char byte : identifier) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

bool generate(VelkorKeyPair& keyPair)
{
    keyPair.keyKind = KEY_KIND_EC_P256;
    return velkor_generateKeyPair(serialNumber, pin, &keyPair, instance) == 0;
}

bool signs(const VelkorKeyPair& keyPair)
{
    const unsigned char hash[32] = {1, 2, 3};
    unsigned char signature[64];
    int size = sizeof signature;
    return velkor_signHash(serialNumber, keyPair.keyIdentifier, pin, hash, sizeof hash, signature, &size, false,
                           instance, false) == 0 &&
           velkor_verifySignatureHash(keyPair.keyKind, serialNumber, hash, sizeof hash, keyPair.publicKey,
                                      keyPair.publicKeyLength, signature, size, instance, false) == 0;
}

int repeat(int times, const std::function<bool()>& work)
{
    for (int i = 0; i < times; ++i) {
        if (!work())
            return 1;
    }
    return 0;
}

/// Announces each step before it and reports it after it, until killed.
[[noreturn]] void workUntilKilled(const char* certificateFile)
{
    std::ifstream in(certificateFile, std::ios::binary);
    VelkorCertificate certificate;
    certificate.der.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    tell("ready");
    for (;;) {
        int tries = 0;
        tell("try wrong");
        velkor_validatePassword(serialNumber, "wrong-pin", 1, &tries, instance);
        tell("tries " + std::to_string(tries));
        tell("try right"); // Checked on disk, since a try is missing.
        velkor_validatePassword(serialNumber, pin, 1, &tries, instance);
        tell("tries " + std::to_string(tries));
        VelkorKeyPair keyPair;
        if (!generate(keyPair))
            std::exit(2);
        tell("stored " + hexOf(keyPair.keyIdentifier));
        if (velkor_importCertificate(serialNumber, pin, &certificate, instance) != 0)
            std::exit(3);
        tell("certificate");
        tell("try delete " + hexOf(keyPair.keyIdentifier));
        if (velkor_deleteKeyPair(serialNumber, keyPair.keyIdentifier, pin, false, instance) != 0)
            std::exit(4);
        tell("deleted " + hexOf(keyPair.keyIdentifier));
    }
}

int runMode(const std::string& mode, const char* file)
{
    int tries = 0;
    if (mode == "crash")
        workUntilKilled(file);
    if (mode == "check")
        return repeat(5, [&] {
            // A new instance has seen no PIN.
            velkor_releaseInstance(instance);
            velkor_createInstance(&instance);
            return velkor_validatePassword(serialNumber, pin, 1, &tries, instance) == 0;
        });
    if (mode == "generate")
        return repeat(15, [] {
            VelkorKeyPair keyPair;
            return generate(keyPair) && signs(keyPair);
        });
    if (mode == "use")
        return repeat(300, [] {
            const std::vector<VelkorKeyPair> keyPairs = velkor_getKeyPairList(serialNumber, instance);
            return !keyPairs.empty() && signs(keyPairs.front());
        });
    return 5;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4)
        return 6;
    serialNumber = argv[2];
    pin = argv[3];
    velkor_createInstance(&instance);
    const int result = instance == nullptr ? 7 : runMode(argv[1], argc > 4 ? argv[4] : "");
    velkor_releaseInstance(instance);
    return result;
}
