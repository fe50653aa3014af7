// A process of its own that uses a software key, for tests with several processes and with processes that are killed.
// Usage: child MODE SERIAL PIN [FILE...]. It knows nothing but the interface of the library.
#include "key_process.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace
{

using namespace softkey::test;

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

using ByteVector = std::vector<unsigned char>;

ByteVector contentOf(const char* file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void checkPins(int userType, const std::string& role)
{
    const char* right = userType == USER_TYPE_USER ? pin : "87654321";
    int tries = 0;
    tell("try wrong " + role);
    static int round = 0; // A PIN that was refused once is refused again without cost.
    const std::string wrong = "wrong-" + std::to_string(++round);
    velkor_validatePassword(serialNumber, wrong.c_str(), userType, &tries, instance);
    tell("tries " + role + " " + std::to_string(tries));
    tell("try right " + role); // Checked on disk, since a try is missing.
    velkor_validatePassword(serialNumber, right, userType, &tries, instance);
    tell("tries " + role + " " + std::to_string(tries));
}

/// Deletes what it stored before.
void deleteKeyPair(const unsigned char (&identifier)[KEY_IDENTIFIER_SIZE])
{
    tell("try delete " + hexOf(identifier));
    if (velkor_deleteKeyPair(serialNumber, identifier, pin, false, instance) != 0)
        std::exit(4);
    tell("deleted " + hexOf(identifier));
}

/// A certificate that was never there: another signature makes it another one.
void storeFreshCertificate(VelkorCertificate& certificate)
{
    static unsigned round = 0;
    const unsigned fresh = static_cast<unsigned>(getpid()) * 1'000 + ++round;
    for (std::size_t i = 0; i < 4; ++i)
        certificate.der[certificate.der.size() - 1 - i] = static_cast<unsigned char>(fresh >> (8 * i));
    if (velkor_importCertificate(serialNumber, pin, &certificate, instance) != 0)
        std::exit(3);
    tell("certificate " + hexOf(certificate.certificateIdentifier));
}

/// The file has the modulus, the private exponent and the first prime of an RSA-1024 key, one after the other.
void importRsaKey(const ByteVector& components)
{
    ImportPFXDetails details;
    details.kind = IMPORT_KIND_RSA_COMPONENTS;
    details.modulus.assign(components.begin(), components.begin() + 128);
    details.privateExponent.assign(components.begin() + 128, components.begin() + 256);
    details.prime1.assign(components.begin() + 256, components.end());
    if (velkor_importPfx(serialNumber, pin, &details, instance) != 0)
        std::exit(8);
    tell("stored " + hexOf(details.keyIdentifier));
    deleteKeyPair(details.keyIdentifier);
}

/// Announces each step before it and reports it after it, until killed.
[[noreturn]] void workUntilKilled(const char* certificateFile, const char* componentsFile)
{
    VelkorCertificate certificate;
    certificate.der = contentOf(certificateFile);
    const ByteVector components = contentOf(componentsFile);
    tell("ready");
    for (;;) {
        checkPins(USER_TYPE_USER, "user");
        checkPins(USER_TYPE_SECURITY_OFFICER, "so");
        VelkorKeyPair keyPair;
        if (!generate(keyPair))
            std::exit(2);
        tell("stored " + hexOf(keyPair.keyIdentifier));
        storeFreshCertificate(certificate);
        importRsaKey(components);
        deleteKeyPair(keyPair.keyIdentifier);
    }
}

/// Changes the PIN to another one and back, until killed.
[[noreturn]] void changePinUntilKilled(const char* otherPin)
{
    int tries = 0;
    const bool isFirst = velkor_validatePassword(serialNumber, pin, USER_TYPE_USER, &tries, instance) == 0;
    const char* now = isFirst ? pin : otherPin;
    const char* next = isFirst ? otherPin : pin;
    tell("ready");
    for (;; std::swap(now, next)) {
        if (!velkor_changeUserPassword(serialNumber, now, next, &tries, false, false, instance))
            std::exit(2);
        tell(std::string("now ") + next);
    }
}

/// Waits for the parent.
void waitForLine()
{
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) == 1 && byte != '\n') {
    }
}

/// Uses every key pair, then drops the PIN as a logout does, then the instance; the parent looks at its memory between.
int keepSecrets()
{
    const auto signWithAll = [] {
        unsigned char hash[32] = {1};
        unsigned char signature[1024];
        for (const VelkorKeyPair& keyPair : std::vector(velkor_getKeyPairList(serialNumber, instance))) {
            int size = sizeof signature;
            if (velkor_signHash(serialNumber, keyPair.keyIdentifier, pin, hash, sizeof hash, signature, &size, false,
                                instance, false) != 0)
                std::exit(2);
        }
    };
    signWithAll();
    tell("used");
    waitForLine();
    if (const pid_t forked = fork(); forked == 0) {
        pause();
    } else {
        tell(std::to_string(forked));
        waitForLine();
        kill(forked, SIGKILL);
    }
    int tries = 0;
    velkor_validatePassword(serialNumber, "", USER_TYPE_USER, &tries, instance);
    tell("logged out");
    waitForLine();
    signWithAll();
    velkor_releaseInstance(instance);
    tell("released");
    waitForLine();
    return 0;
}

int runMode(const std::string& mode, const char* file, const char* secondFile)
{
    int tries = 0;
    if (mode == "crash")
        workUntilKilled(file, secondFile);
    if (mode == "change-pin")
        changePinUntilKilled(file);
    if (mode == "keep-secrets")
        return keepSecrets();
    if (mode == "list")
        return velkor_getKeyPairList(serialNumber, instance).size() == 1 ? 0 : 1;
    if (mode == "rename")
        return repeat(60, [] {
            static int round = 0;
            const std::string label = "label " + std::to_string(++round);
            const std::vector<VelkorKeyPair> keyPairs = velkor_getKeyPairList(serialNumber, instance);
            const unsigned char id = static_cast<unsigned char>(round);
            return !keyPairs.empty() && velkor_updateKeyPairDetails(serialNumber, keyPairs.front().keyIdentifier, pin,
                                                                    label.c_str(), &id, 1, instance) == 0;
        });
    if (mode == "check")
        return repeat(5, [&] {
            // A new instance has seen no PIN.
            velkor_releaseInstance(instance);
            velkor_createInstance(&instance);
            return velkor_validatePassword(serialNumber, pin, USER_TYPE_USER, &tries, instance) == 0;
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
    if (const int failure = begin(argc, argv))
        return failure;
    const int result = runMode(argv[1], argc > 4 ? argv[4] : "", argc > 5 ? argv[5] : "");
    velkor_releaseInstance(instance);
    return result;
}
