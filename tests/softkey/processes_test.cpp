// Several processes at one key, and processes that are killed at random moments.
#include "world.h"

#include "crypto/keys.h"
#include "crypto/protection.h"
#include "memory_lock.h"
#include "store/schema.h"
#include "system_calls.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace softkey::test
{
namespace
{

constexpr int KILLS = SANITIZED ? 60 : 200; // A sanitized process takes several times as long to start.

/// A child process with its standard output at hand.
class Child
{
public:
    Child(const std::string& mode, const std::string& serialNumber, const char* pin, const std::string& file = {},
          const std::string& secondFile = {})
    {
        std::array<int, 2> ends{};
        std::array<int, 2> inputs{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(inputs.data(), O_CLOEXEC), 0);
        output_ = ends[0];
        input_ = inputs[1];
        process_ = fork();
        if (process_ == 0) {
            dup2(inputs[0], STDIN_FILENO);
            dup2(ends[1], STDOUT_FILENO);
            execl(SOFTKEY_CHILD, SOFTKEY_CHILD, mode.c_str(), serialNumber.c_str(), pin, file.c_str(),
                  secondFile.c_str(), nullptr);
            _exit(99);
        }
        close(ends[1]);
        close(inputs[0]);
    }
    ~Child()
    {
        close(output_);
        close(input_);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    int wait() const
    {
        int status = 0;
        waitpid(process_, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    void kill() const { ::kill(process_, SIGKILL); }
    pid_t process() const { return process_; }
    void goOn() const { EXPECT_EQ(write(input_, "\n", 1), 1); }
    /// The next lines, fewer when the child ends.
    std::vector<std::string> lines(std::size_t count) const
    {
        std::vector<std::string> read;
        for (std::string line; read.size() < count && readLine(line);)
            read.push_back(line);
        return read;
    }

private:
    bool readLine(std::string& line) const
    {
        line.clear();
        char byte = 0;
        while (read(output_, &byte, 1) == 1) {
            if (byte == '\n')
                return true;
            line += byte;
        }
        return false;
    }

    pid_t process_ = -1;
    int output_ = -1;
    int input_ = -1;
};

class ProcessesTest : public SoftkeyTest
{
protected:
    ProcessesTest() { velkor_releaseInstance(instance); } // Children are forked from a process without the key.
    ~ProcessesTest() override { velkor_createInstance(&instance); }

    static int runAll(const std::vector<const char*>& modes, const std::string& serialNumber)
    {
        std::deque<Child> children;
        for (const char* mode : modes)
            children.emplace_back(mode, serialNumber, PIN);
        int worst = 0;
        for (const Child& child : children)
            worst = std::max(worst, std::abs(child.wait()));
        return worst;
    }
};

TEST_F(ProcessesTest, ChecksOfTheRightPinByManyProcessesSpendNoTry)
{
    KeySettings settings = cheapSettings("FEW");
    settings.userPin = {false, 2, 2};
    createKey(settings);
    EXPECT_EQ(runAll({"check", "check", "check", "check", "check", "check"}, "FEW"), 0);
    EXPECT_EQ(otherProcess("FEW")->contents()->userPin.triesLeft, 2);
}

TEST_F(ProcessesTest, FirstChecksByManyProcessesAtOnceAreAllAnswered)
{
    KeySettings settings = cheapSettings("FEW");
    settings.userPin = {false, 1, 1};
    createKey(settings);
    const std::vector<const char*> modes(SANITIZED ? 10 : 40, "check");
    EXPECT_EQ(runAll(modes, "FEW"), 0);
    EXPECT_EQ(otherProcess("FEW")->contents()->userPin.triesLeft, 1);
}

TEST_F(ProcessesTest, TwoProcessesStoreWithoutLosingAnything)
{
    EXPECT_EQ(runAll({"generate", "generate"}, SERIAL), 0);
    const auto contents = otherProcess()->contents();
    ASSERT_EQ(contents->keyPairs.size(), 30U);
    for (std::uint32_t i = 0; i < 30; ++i)
        EXPECT_EQ(contents->keyPairs[i].id, i + 1);
}

TEST_F(ProcessesTest, OneProcessUsesWhatOthersChange)
{
    EXPECT_EQ(runAll({"generate"}, SERIAL), 0);
    EXPECT_EQ(runAll({"use", "use", "rename", "rename", "generate"}, SERIAL), 0);
    const auto contents = otherProcess()->contents();
    ASSERT_EQ(contents->keyPairs.size(), 30U);
    EXPECT_STREQ(contents->keyPairs[0].label, "label 60") << "the key that all of them signed with";
    EXPECT_EQ(contents->keyPairs[0].objectId[0], 60);
}

// ---- What has been reported is seen by everybody ----

/// What processes tell each other of: the last label that each of two writers was told to be on the key.
struct Reported {
    std::array<std::atomic<int>, 2> rounds;
    std::atomic<int> writing;

    static Reported* shared()
    {
        void* memory = mmap(nullptr, sizeof(Reported), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        return new (memory) Reported{{0, 0}, 2};
    }
};

pid_t inProcessOfItsOwn(void*& instance, const std::function<bool()>& work)
{
    const pid_t process = fork();
    if (process != 0)
        return process;
    velkor_createInstance(&instance);
    _exit(instance != nullptr && work() ? 0 : 1);
}

TEST_F(ProcessesTest, WhileTwoProcessesChangeAKeyAThirdReadsNothingThatIsOlderThanWhatTheyReported)
{
    velkor_createInstance(&instance);
    for (int writer = 0; writer < 2; ++writer)
        generate(KEY_KIND_EC_P256, "0");
    velkor_releaseInstance(instance);
    Reported& reported = *Reported::shared();
    const auto write = [&](std::size_t writer) {
        const VelkorKeyPair mine = keyPairs().at(writer);
        bool done = true;
        for (int round = 1; done && round <= (SANITIZED ? 40 : 150); ++round) {
            done = velkor_updateKeyPairDetails(SERIAL, mine.keyIdentifier, PIN, std::to_string(round).c_str(), nullptr,
                                               0, instance) == 0;
            reported.rounds[writer] = round;
        }
        --reported.writing;
        return done;
    };
    const auto read = [&] {
        int changes = 0;
        std::array<int, 2> last{};
        while (reported.writing > 0) {
            const std::array<int, 2> before{reported.rounds[0], reported.rounds[1]};
            const std::vector<VelkorKeyPair>& list = velkor_getKeyPairList(SERIAL, instance);
            if (list.size() != 2)
                return false;
            const std::array<int, 2> seen{std::atoi(list[0].label), std::atoi(list[1].label)};
            if (seen[0] < before[0] || seen[1] < before[1])
                return false;
            changes += seen != last ? 1 : 0;
            last = seen;
        }
        return changes > 10;
    };
    std::array processes{inProcessOfItsOwn(instance, read), inProcessOfItsOwn(instance, [&] { return write(0); }),
                         inProcessOfItsOwn(instance, [&] { return write(1); })};
    for (const pid_t process : processes) {
        int status = -1;
        waitpid(process, &status, 0);
        EXPECT_EQ(status, 0) << (process == processes[0] ? "the reader" : "a writer");
    }
}

// ---- What is asked of the system ----

TEST_F(ProcessesTest, AnUnchangedKeyIsReadAnewWithOneLookAtItsChangeCounter)
{
    const auto prepare = [&] {
        velkor_createInstance(&instance);
        keyPairs();
        velkor_initDevice(SERIAL, true, instance);
    };
    const Reads none;
    const Reads oneLook{{CHANGE_COUNTER_AT, 4}};
    EXPECT_EQ(readsOf(prepare, [] {}), none);
    EXPECT_EQ(readsOf(prepare, [&] { velkor_initDevice(SERIAL, true, instance); }), oneLook);
    EXPECT_EQ(readsOf(prepare, [&] { velkor_getKeyPairList(SERIAL, instance); }), oneLook);
    EXPECT_EQ(readsOf(prepare, [&] { velkor_getCertificateList(SERIAL, instance); }), oneLook);
}

TEST_F(ProcessesTest, ASignatureCostsOneLookAtTheChangeCounterAndReadsNothingElse)
{
    const VelkorKeyPair key = store(generateKey(traitsOf(KEY_KIND_EC_P256)).get());
    const auto prepare = [&] {
        velkor_createInstance(&instance);
        keyPairs();
        trySign(key, Data(32, 1));
    };
    EXPECT_EQ(readsOf(prepare, [&] { trySign(key, Data(32, 1)); }), (Reads{{CHANGE_COUNTER_AT, 4}}));
}

TEST_F(ProcessesTest, AChangedKeyIsReadOnceForAllThatAsk)
{
    store(generateKey(traitsOf(KEY_KIND_EC_P256)).get());
    const auto prepare = [&] {
        velkor_createInstance(&instance);
        keyPairs();
        otherProcess()->file().change(
            [](Database& database) { database.execute("UPDATE key_pair SET label = randomblob(4)"); });
    };
    const Reads first = readsOf(prepare, [&] { keyPairs(); });
    Reads both = first;
    both.push_back({CHANGE_COUNTER_AT, 4});
    EXPECT_GT(first.size(), 2U);
    EXPECT_EQ(readsOf(prepare,
                      [&] {
                          keyPairs();
                          keyPairs();
                      }),
              both);
}

#if !SANITIZED // Their allocators keep what was given back.
/// Memory that a process may write to, with the flags of /proc/PID/smaps: "lo" locked, "dd" left out of dumps, "wf"
/// empty in a forked child.
struct Region {
    std::uintptr_t begin;
    std::uintptr_t end;
    std::string flags;

    bool has(const char* flag) const { return flags.find(flag) != std::string::npos; }
};

std::vector<Region> writableRegionsOf(pid_t process)
{
    std::ifstream smaps("/proc/" + std::to_string(process) + "/smaps");
    std::vector<Region> regions;
    bool isWritable = false;
    for (std::string line; std::getline(smaps, line);) {
        std::uintptr_t begin = 0;
        std::uintptr_t end = 0;
        std::array<char, 5> rights{};
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &begin, &end, rights.data()) == 3) {
            isWritable = rights[1] == 'w';
            if (isWritable)
                regions.push_back({begin, end, ""});
        } else if (isWritable && line.starts_with("VmFlags:")) {
            regions.back().flags = line.substr(8) + " ";
        }
    }
    return regions;
}

int countIn(const Data& content, Bytes needle)
{
    int found = 0;
    const unsigned char* at = content.data();
    const unsigned char* const behind = at + content.size();
    const auto next = [&] { return memmem(at, static_cast<std::size_t>(behind - at), needle.data(), needle.size()); };
    while (const void* hit = next()) {
        ++found;
        at = static_cast<const unsigned char*>(hit) + 1;
    }
    return found;
}

/// How often some bytes stand in what a process may write to, by the regions in which they do.
template <class Needles>
std::vector<std::pair<Region, int>> findIn(pid_t process, const Needles& needles)
{
    std::ifstream memory("/proc/" + std::to_string(process) + "/mem", std::ios::binary);
    std::vector<std::pair<Region, int>> found;
    for (const Region& region : writableRegionsOf(process)) {
        Data content(region.end - region.begin);
        memory.clear();
        memory.seekg(static_cast<std::streamoff>(region.begin));
        memory.read(reinterpret_cast<char*>(content.data()), static_cast<std::streamsize>(content.size()));
        int count = 0;
        for (const Bytes needle : needles)
            count += countIn(content, needle);
        if (count > 0)
            found.emplace_back(region, count);
    }
    return found;
}

template <class Needles>
int occurrencesIn(pid_t process, const Needles& needles)
{
    int sum = 0;
    for (const auto& [region, count] : findIn(process, needles))
        sum += count;
    return sum;
}

void expectProtected(const std::vector<std::pair<Region, int>>& found)
{
    for (const auto& [region, count] : found) {
        EXPECT_TRUE(region.has(" dd ")) << count << " secrets would be in a dump:" << region.flags;
        EXPECT_TRUE(region.has(" wf ")) << count << " secrets would be in a forked child:" << region.flags;
        EXPECT_TRUE(region.has(" lo ") || !mayLock(1 << 20)) << count << " secrets may be swapped out:" << region.flags;
    }
}

/// A number as it stands in an encoding, and as it stands in OpenSSL's memory. A part of it does.
void addNumber(std::vector<Data>& needles, const EVP_PKEY* key, const char* name)
{
    BIGNUM* number = nullptr;
    ASSERT_EQ(EVP_PKEY_get_bn_param(key, name, &number), 1);
    Data bytes(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    BN_clear_free(number);
    needles.emplace_back(bytes.end() - 24, bytes.end());
    std::ranges::reverse(bytes);
    needles.emplace_back(bytes.begin(), bytes.begin() + 24);
}

TEST_F(ProcessesTest, SecretsAreGoneFromMemoryAfterALogoutAReleaseAndInAForkedChild)
{
    std::vector<Data> needles;
    for (const KeyKind kind : {KEY_KIND_RSA_2048, KEY_KIND_EC_P256}) {
        const EvpKey key = generateKey(traitsOf(kind));
        store(key.get());
        if (kind == KEY_KIND_EC_P256) {
            addNumber(needles, key.get(), "priv");
            continue;
        }
        for (const char* name : {"d", "rsa-factor1", "rsa-factor2", "rsa-exponent1", "rsa-exponent2"})
            addNumber(needles, key.get(), name);
    }
    const std::unique_ptr<SoftKey> key = otherProcess();
    const CheckedPin checked = checkPin(key->file(), PinRole::User, PIN);
    const Bytes masterKey = checked.masterKey;
    needles.emplace_back(masterKey.begin(), masterKey.end());

    const Child child("keep-secrets", SERIAL, PIN);
    ASSERT_EQ(child.lines(1), std::vector<std::string>{"used"});
    EXPECT_GE(occurrencesIn(child.process(), needles), 7) << "the search does not find what is there";
    expectProtected(findIn(child.process(), needles));
    child.goOn();
    const std::vector<std::string> forked = child.lines(1);
    ASSERT_EQ(forked.size(), 1U);
    EXPECT_EQ(occurrencesIn(std::stoi(forked[0]), needles), 0) << "in a forked child";
    child.goOn();
    ASSERT_EQ(child.lines(1), std::vector<std::string>{"logged out"});
    EXPECT_EQ(occurrencesIn(child.process(), needles), 0) << "after a logout";
    child.goOn();
    ASSERT_EQ(child.lines(1), std::vector<std::string>{"released"});
    EXPECT_EQ(occurrencesIn(child.process(), needles), 0) << "after the end of the instance";
    child.goOn();
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(ProcessesTest, AForkDoesNotCatchTheKeyOfASealOrACode)
{
    SecretBuffer key(SEALING_KEY_SIZE);
    randomBytes({key.data(), key.size()}); // In pages that are empty in a child, so that its copy is not found.
    const Data text(1 << 20);
    const ByteVector sealed = seal(key, text, {});
    const std::vector<std::function<void()>> works{[&] { seal(key, text, {}); }, [&] { unseal(key, sealed, {}); },
                                                   [&] { keyedCode(key, Bytes(text)); }};
    for (std::size_t work = 0; work < works.size(); ++work) {
        std::atomic<bool> done{false};
        std::thread working([&] {
            while (!done)
                works[work]();
        });
        for (int i = 0; i < 3; ++i) {
            const pid_t child = fork();
            if (child == 0) {
                for (;;)
                    pause();
            }
            EXPECT_EQ(occurrencesIn(child, std::array{Bytes(key)}), 0) << "work " << work;
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        done = true;
        working.join();
    }
}
#endif

/// What a file must hold, given what a process reported before it was killed.
class Expectation
{
public:
    explicit Expectation(const Contents& before)
        : user_{"user", before.userPin.triesLeft}, securityOfficer_{"so", before.soPin.triesLeft}
    {
        for (const VelkorKeyPair& key : before.keyPairs)
            stored_.insert(toHex(key.keyIdentifier));
        for (const VelkorCertificate& certificate : before.certificates)
            certificates_.insert(toHex(certificate.certificateIdentifier));
    }

    void follow(const std::vector<std::string>& lines)
    {
        for (const std::string& line : lines) {
            pending_ = line;
            if (line.starts_with("tries user "))
                user_.tries = std::stoi(line.substr(11));
            else if (line.starts_with("tries so "))
                securityOfficer_.tries = std::stoi(line.substr(9));
            else if (line.starts_with("stored "))
                stored_.insert(line.substr(7));
            else if (line.starts_with("try delete "))
                inDoubt_ = line.substr(11);
            else if (line.starts_with("deleted ")) {
                stored_.erase(line.substr(8));
                gone_.insert(line.substr(8));
                inDoubt_.clear();
            } else if (line.starts_with("certificate "))
                certificates_.insert(line.substr(12));
        }
    }

    void hold(const Contents& after) const
    {
        holdTries(user_, after.userPin);
        holdTries(securityOfficer_, after.soPin);
        std::set<std::string> found;
        for (const VelkorKeyPair& key : after.keyPairs)
            found.insert(toHex(key.keyIdentifier));
        for (const std::string& key : stored_)
            EXPECT_TRUE(found.count(key) == 1 || key == inDoubt_) << "a stored key pair was lost";
        for (const std::string& key : gone_)
            EXPECT_EQ(found.count(key), 0U) << "a deleted key pair came back";
        for (const std::string& certificate : certificates_)
            EXPECT_EQ(std::ranges::count(after.certificates, certificate,
                                         [](const auto& each) { return toHex(each.certificateIdentifier); }),
                      1)
                << "a certificate was lost";
    }

private:
    /// Tries of a PIN that were reported last.
    struct Tries {
        std::string role;
        int tries;
    };

    void holdTries(const Tries& reported, const PinRecord& after) const
    {
        const bool rightPinPending = pending_ == "try right " + reported.role;
        const bool wrongPinPending = pending_ == "try wrong " + reported.role;
        EXPECT_TRUE(after.triesLeft <= reported.tries || (rightPinPending && after.triesLeft == after.triesMax))
            << "a try was gained: " << reported.tries << " became " << after.triesLeft << " after " << pending_;
        EXPECT_GE(after.triesLeft, reported.tries - (rightPinPending || wrongPinPending ? 1 : 0)) << pending_;
    }

    Tries user_;
    Tries securityOfficer_;
    std::set<std::string> stored_;
    std::set<std::string> gone_;
    std::set<std::string> certificates_;
    std::string pending_;
    std::string inDoubt_;
};

TEST_F(ProcessesTest, KilledAtAnyMomentNothingReportedIsLostAndNoTryIsGained)
{
    KeySettings settings = cheapSettings("CRASH");
    settings.userPin = {false, 255, 255};
    settings.soPin = {false, 255, 255};
    createKey(settings);
    const RsaVectorKey rsa = signatureVectorKey();
    Data components = rsa.modulus;
    components.insert(components.end(), rsa.privateExponent.begin(), rsa.privateExponent.end());
    components.insert(components.end(), rsa.prime1.begin(), rsa.prime1.end());
    const std::string componentsFile = scratch.file("rsa", components);
    const std::string certificate = scratch.file("c.der", certificateNamed("Crash"));
    std::mt19937 random(20240229);
    // A round of the process has fifteen lines; the moment of the kill is in any of its steps.
    std::uniform_int_distribution<std::size_t> linesBefore(1, 16);
    std::uniform_int_distribution<int> microseconds(0, 3'000);
    for (int kill = 0; kill < KILLS && !HasFailure(); ++kill) {
        Expectation expectation(*otherProcess("CRASH")->contents());
        const Child child("crash", "CRASH", PIN, certificate, componentsFile);
        expectation.follow(child.lines(linesBefore(random)));
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds(random)));
        child.kill();
        ASSERT_EQ(child.wait(), -SIGKILL);
        expectation.follow(child.lines(std::string::npos));
        // Opening checks the whole file.
        const auto after = otherProcess("CRASH")->contents();
        expectation.hold(*after);
        if (after->userPin.triesLeft < 100)
            otherProcess("CRASH")->login(PinRole::User, PIN);
        if (after->soPin.triesLeft < 100)
            otherProcess("CRASH")->login(PinRole::SecurityOfficer, SO_PIN);
    }
    const std::unique_ptr<SoftKey> key = otherProcess("CRASH");
    const std::shared_ptr<const Contents> contents = key->contents();
    for (const VelkorKeyPair& record : contents->keyPairs)
        EXPECT_NE(key->privateKey(key->pluggedLook(), std::to_array(record.keyIdentifier), PIN, USAGE_SIGN_VERIFY),
                  nullptr);
}

TEST_F(ProcessesTest, KilledWhileThePinChangesExactlyOneOfTheTwoOpensTheKey)
{
    KeySettings settings = cheapSettings("CHANGE");
    settings.userPin = {false, 255, 255};
    createKey(settings);
    const char* const otherPin = "other-pin";
    otherProcess("CHANGE")->addKeyPair(PIN, keyOf(signatureVectorKey()).get(), {}, {USAGE_SIGN_VERIFY});
    const VelkorKeyPair key = otherProcess("CHANGE")->contents()->keyPairs.at(0);
    const auto opens = [&](const std::string& pin) {
        try {
            const std::unique_ptr<SoftKey> other = otherProcess("CHANGE");
            other->privateKey(other->pluggedLook(), std::to_array(key.keyIdentifier), pin, USAGE_SIGN_VERIFY);
            return true;
        } catch (const Refusal& refusal) {
            EXPECT_EQ(refusal.status(), SoftkeyStatus::PinIncorrect);
            return false;
        }
    };
    std::mt19937 random(20240301);
    std::uniform_int_distribution<std::size_t> linesBefore(1, 4);
    std::uniform_int_distribution<int> microseconds(0, 2'000);
    for (int kill = 0; kill < KILLS / 2 && !HasFailure(); ++kill) {
        const Child child("change-pin", "CHANGE", PIN, otherPin);
        child.lines(linesBefore(random));
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds(random)));
        child.kill();
        ASSERT_EQ(child.wait(), -SIGKILL);
        const bool first = opens(PIN);
        EXPECT_NE(first, opens(otherPin));
        EXPECT_TRUE(opens(first ? PIN : otherPin)); // Gives back the tries that these questions cost.
        otherProcess("CHANGE")->login(PinRole::User, first ? PIN : otherPin);
    }
}

TEST_F(ProcessesTest, KilledWhileItIsBroughtUpToDateAFileOfLayout1StaysWhole)
{
    std::mt19937 random(20240302);
    std::uniform_int_distribution<int> microseconds(0, 12'000);
    int untouched = 0;
    for (int kill = 0; kill < KILLS / 2 && !HasFailure(); ++kill) {
        ASSERT_EQ(run("sqlite3 " + keyPath("OLD1").string(), LAYOUT_1).exitCode, 0);
        const Child child("list", "OLD1", PIN);
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds(random)));
        child.kill();
        child.wait();
        const Outcome layout = run("sqlite3 " + keyPath("OLD1").string(), "PRAGMA user_version");
        untouched += layout.out == "1\n" ? 1 : 0;
        const std::unique_ptr<SoftKey> key = otherProcess("OLD1");
        ASSERT_EQ(key->contents()->keyPairs.size(), 1U);
        const Identifier identifier = std::to_array(key->contents()->keyPairs[0].keyIdentifier);
        EXPECT_NE(key->privateKey(key->pluggedLook(), identifier, PIN, USAGE_SIGN_VERIFY | USAGE_DECRYPT_ENCRYPT),
                  nullptr);
        std::filesystem::remove(keyPath("OLD1"));
        std::filesystem::remove(keyPath("OLD1").string() + "-journal");
    }
    EXPECT_GT(untouched, 0) << "no process was killed early enough";
}

} // namespace
} // namespace softkey::test
