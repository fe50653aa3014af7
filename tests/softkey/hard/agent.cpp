// A process that uses a software key, for the hard tests: it says what it does before it does it, and the status
// after it. Usage: agent MODE SERIAL PIN [ARGUMENT...]. It knows nothing but the interface of the library.
#include "key_process.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <span>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;

using namespace softkey::test;

void waitForLine()
{
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) == 1 && byte != '\n') {
    }
}

/// Whether this process is to say of a step that it was done, and not to do it: checks that never fail tell nothing.
bool isLie(const std::string& what)
{
    const char* chosen = std::getenv("HARD_LIE");
    return chosen != nullptr && (what + " ").starts_with(std::string(chosen) + " ");
}

int pretend(const std::string& what, std::string& result)
{
    const bool isRefusal = what == "wrong";
    result = isRefusal ? "7" : std::string(32, '7'); // Tries that are not left; the identifier of nothing.
    return isRefusal ? 312 : 0;
}

/// A step with its name and what it is about; `work` gives the status and may add what came of it.
int step(const std::string& what, const std::function<int(std::string&)>& work)
{
    tell("do " + what);
    std::string result;
    const int status = isLie(what) ? pretend(what, result) : work(result);
    tell("did " + std::to_string(status) + " " + result);
    return status;
}

int checkPin(const std::string& text, std::string& result)
{
    int tries = 0;
    const int status = velkor_validatePassword(serialNumber, text.c_str(), USER_TYPE_USER, &tries, instance);
    result = std::to_string(tries);
    return status;
}

/// Signs a hash with a key pair and verifies the signature.
int sign(const VelkorKeyPair& keyPair)
{
    const unsigned char hash[32] = {1, 2, 3};
    unsigned char signature[SIGNATURE_CAPACITY];
    int size = sizeof signature;
    const int status = velkor_signHash(serialNumber, keyPair.keyIdentifier, pin, hash, sizeof hash, signature, &size,
                                       false, instance, false);
    if (status != 0)
        return status;
    return velkor_verifySignatureHash(keyPair.keyKind, serialNumber, hash, sizeof hash, keyPair.publicKey,
                                      keyPair.publicKeyLength, signature, size, instance, false);
}

/// A certificate that was never there: another signature makes it another one.
VelkorCertificate freshCertificate(const char* file)
{
    std::ifstream in(file, std::ios::binary);
    VelkorCertificate certificate;
    certificate.der = {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    static unsigned round = 0;
    const unsigned fresh = static_cast<unsigned>(getpid()) * 1'000 + ++round;
    for (std::size_t i = 0; i < 4; ++i)
        certificate.der[certificate.der.size() - 1 - i] = static_cast<unsigned char>(fresh >> (8 * i));
    return certificate;
}

void handleKeyPair()
{
    VelkorKeyPair keyPair;
    keyPair.keyKind = KEY_KIND_EC_P256;
    const auto generate = [&](std::string& result) {
        const int status = velkor_generateKeyPair(serialNumber, pin, &keyPair, instance);
        result = hexOf(keyPair.keyIdentifier);
        return status;
    };
    if (step("generate", generate) != 0)
        return;
    const std::string name = hexOf(keyPair.keyIdentifier);
    step("relabel " + name + " marked", [&](std::string&) {
        return velkor_updateKeyPairDetails(serialNumber, keyPair.keyIdentifier, pin, "marked", nullptr, 0, instance);
    });
    step("delete " + name,
         [&](std::string&) { return velkor_deleteKeyPair(serialNumber, keyPair.keyIdentifier, pin, false, instance); });
}

void handleCertificate(const char* file)
{
    VelkorCertificate certificate = freshCertificate(file);
    const auto store = [&](std::string& result) {
        const int status = velkor_importCertificate(serialNumber, pin, &certificate, instance);
        result = hexOf(certificate.certificateIdentifier);
        return status;
    };
    if (step("certificate", store) != 0)
        return;
    step("uncertificate " + hexOf(certificate.certificateIdentifier), [&](std::string&) {
        return velkor_deleteCertificate(serialNumber, certificate.certificateIdentifier, pin, instance);
    });
}

/// Changes the PIN to another one and back.
void changePins(const char* otherPin)
{
    const auto change = [](const char* from, const char* to) {
        return step("pin " + std::string(to), [&](std::string&) {
            int tries = 0;
            return velkor_changeUserPassword(serialNumber, from, to, &tries, false, false, instance) ? 0 : 1;
        });
    };
    if (change(pin, otherPin) != 0)
        return;
    if (change(otherPin, pin) != 0)
        pin = otherPin;
}

/// Everything that changes a key, once round after round.
int work(const char* otherPin, const char* certificateFile, int rounds)
{
    tell("ready");
    for (int round = 0; rounds == 0 || round < rounds; ++round) {
        // A PIN that was refused once is refused again without cost.
        const std::string wrong = "wrong-" + std::to_string(round);
        step("wrong", [&](std::string& result) { return checkPin(wrong, result); });
        step("right", [&](std::string& result) { return checkPin(pin, result); });
        handleKeyPair();
        handleCertificate(certificateFile);
        changePins(otherPin);
    }
    return 0;
}

/// What the key says, and one signature with every key pair.
int readBack()
{
    tell("status " + std::to_string(velkor_initDevice(serialNumber, true, instance)));
    const TokenInfo info = velkor_getTokenInfo(serialNumber, instance);
    tell("device " + info.label + "/" + info.model + "/" + info.firmwareVersion);
    tell("tries " + std::to_string(info.pinTriesLeft) + " " + std::to_string(info.pinTriesMax));
    for (const VelkorCertificate& certificate : velkor_getCertificateList(serialNumber, instance))
        tell("certificate " + hexOf(certificate.certificateIdentifier) + " " + hexOf(certificate.der).substr(0, 32) +
             " " + certificate.label);
    for (const VelkorKeyPair& keyPair : std::vector(velkor_getKeyPairList(serialNumber, instance)))
        tell("key " + hexOf(keyPair.keyIdentifier) + " " + std::to_string(sign(keyPair)) + " " +
             std::to_string(keyPair.keyKind) + " " + std::to_string(keyPair.usageFlags) + " " + keyPair.label);
    tell("end");
    return 0;
}

long microsecondsSince(Clock::time_point begin)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin).count());
}

/// The first signature of this process, at a sign from the parent.
int signFirst()
{
    const std::vector<VelkorKeyPair> keyPairs = velkor_getKeyPairList(serialNumber, instance);
    tell("ready");
    waitForLine();
    const Clock::time_point begin = Clock::now();
    const int status = keyPairs.empty() ? -1 : sign(keyPairs.front());
    tell("did " + std::to_string(status) + " " + std::to_string(microsecondsSince(begin)));
    return 0;
}

int guess()
{
    tell("ready");
    waitForLine();
    std::string tries;
    const int status = checkPin(pin, tries);
    tell("did " + std::to_string(status) + " " + tries);
    return 0;
}

/// Of the longest, one in a thousand is not shorter than this.
std::uint32_t highOf(std::vector<std::uint32_t> durations)
{
    std::ranges::sort(durations);
    return durations.empty() ? 0 : durations[durations.size() * 999 / 1000];
}

/// Repeats until the time is over, with a rest after each time, unless it is zero. Tells how many were refused, by how
/// many microseconds the machine made rests longer than they were to be, and how many microseconds each time took.
int measure(int seconds, std::chrono::microseconds rest, const std::function<bool()>& work)
{
    if (!work())
        return 3;
    std::vector<std::uint32_t> durations;
    std::vector<std::uint32_t> rests;
    int refused = 0;
    tell("ready");
    waitForLine();
    const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < end) {
        const Clock::time_point begin = Clock::now();
        refused += work() ? 0 : 1;
        durations.push_back(static_cast<std::uint32_t>(microsecondsSince(begin)));
        const Clock::time_point restBegin = Clock::now();
        if (rest.count() > 0)
            std::this_thread::sleep_for(rest);
        rests.push_back(static_cast<std::uint32_t>(microsecondsSince(restBegin) - rest.count()));
    }
    tell("refused " + std::to_string(refused) + " late " + std::to_string(highOf(rests)));
    for (const std::uint32_t duration : durations)
        tell(std::to_string(duration));
    return 0;
}

bool relabel()
{
    static int round = 0;
    const std::string label = "label " + std::to_string(++round);
    const std::vector<VelkorKeyPair> keyPairs = velkor_getKeyPairList(serialNumber, instance);
    return !keyPairs.empty() && velkor_updateKeyPairDetails(serialNumber, keyPairs.front().keyIdentifier, pin,
                                                            label.c_str(), nullptr, 0, instance) == 0;
}

int runMode(const std::string& mode, std::span<char*> arguments)
{
    const auto seconds = [&] { return std::atoi(arguments[0]); };
    // Eight readers that never rest wait for two processors, not for writers.
    constexpr std::chrono::milliseconds READER_REST(2);
    constexpr std::chrono::milliseconds NONE(0);
    if (mode == "work" && arguments.size() == 3)
        return work(arguments[0], arguments[1], std::atoi(arguments[2]));
    if (mode == "read-back")
        return readBack();
    if (mode == "first")
        return signFirst();
    if (mode == "guess")
        return guess();
    if (mode == "list" && arguments.size() == 1)
        return measure(seconds(), READER_REST, [] { return !velkor_getKeyPairList(serialNumber, instance).empty(); });
    if (mode == "relabel" && arguments.size() == 1)
        return measure(seconds(), NONE, relabel);
    if (mode == "sign" && arguments.size() == 1)
        return measure(seconds(), READER_REST, [] {
            const std::vector<VelkorKeyPair> keyPairs = velkor_getKeyPairList(serialNumber, instance);
            return !keyPairs.empty() && sign(keyPairs.back()) == 0;
        });
    return 5;
}

} // namespace

int main(int argc, char** argv)
{
    if (const int failure = begin(argc, argv))
        return failure;
    const int result = runMode(argv[1], {argv + 4, static_cast<std::size_t>(argc - 4)});
    velkor_releaseInstance(instance);
    return result;
}
