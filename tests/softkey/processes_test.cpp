// Several processes at one key, and processes that are killed at random moments.
#include "world.h"

#include "store/schema.h"

#include <array>
#include <csignal>
#include <cstring>
#include <deque>
#include <random>
#include <set>
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
    Child(const std::string& mode, const std::string& serialNumber, const char* pin, const std::string& file = {})
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe(ends.data()), 0);
        output_ = ends[0];
        process_ = fork();
        if (process_ == 0) {
            dup2(ends[1], STDOUT_FILENO);
            close(ends[0]);
            close(ends[1]);
            execl(SOFTKEY_CHILD, SOFTKEY_CHILD, mode.c_str(), serialNumber.c_str(), pin, file.c_str(), nullptr);
            _exit(99);
        }
        close(ends[1]);
    }
    ~Child() { close(output_); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    int wait() const
    {
        int status = 0;
        waitpid(process_, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    void kill() const { ::kill(process_, SIGKILL); }
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
};

class ProcessesTest : public SoftkeyTest
{
protected:
    ProcessesTest() { velkor_releaseInstance(instance); } // Children are forked from a process without the key.
    ~ProcessesTest() override { velkor_createInstance(&instance); }

    static int runAll(std::initializer_list<const char*> modes, const std::string& serialNumber)
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
    EXPECT_EQ(runAll({"use", "use", "generate"}, SERIAL), 0);
    EXPECT_EQ(otherProcess()->contents()->keyPairs.size(), 30U);
}

/// What a file must hold, given what a process reported before it was killed.
class Expectation
{
public:
    explicit Expectation(const Contents& before) : triesMax_(before.userPin.triesMax), tries_(before.userPin.triesLeft)
    {
        for (const VelkorKeyPair& key : before.keyPairs)
            stored_.insert(toHex(key.keyIdentifier));
        certificates_ = before.certificates.size();
    }

    void follow(const std::vector<std::string>& lines)
    {
        for (const std::string& line : lines) {
            pending_ = line;
            if (line.starts_with("tries "))
                tries_ = std::stoi(line.substr(6));
            else if (line.starts_with("stored "))
                stored_.insert(line.substr(7));
            else if (line.starts_with("try delete "))
                inDoubt_ = line.substr(11);
            else if (line.starts_with("deleted ")) {
                stored_.erase(line.substr(8));
                gone_.insert(line.substr(8));
                inDoubt_.clear();
            } else if (line == "certificate")
                certificates_ = 1;
        }
    }

    void hold(const Contents& after) const
    {
        const bool rightPinPending = pending_ == "try right";
        const bool wrongPinPending = pending_ == "try wrong";
        EXPECT_TRUE(after.userPin.triesLeft <= tries_ || (rightPinPending && after.userPin.triesLeft == triesMax_))
            << "a try was gained: " << tries_ << " became " << after.userPin.triesLeft << " after " << pending_;
        EXPECT_GE(after.userPin.triesLeft, tries_ - (rightPinPending || wrongPinPending ? 1 : 0)) << pending_;
        std::set<std::string> found;
        for (const VelkorKeyPair& key : after.keyPairs)
            found.insert(toHex(key.keyIdentifier));
        for (const std::string& key : stored_)
            EXPECT_TRUE(found.count(key) == 1 || key == inDoubt_) << "a stored key pair was lost";
        for (const std::string& key : gone_)
            EXPECT_EQ(found.count(key), 0U) << "a deleted key pair came back";
        EXPECT_GE(after.certificates.size(), certificates_);
    }

private:
    int triesMax_;
    int tries_;
    std::set<std::string> stored_;
    std::set<std::string> gone_;
    std::size_t certificates_ = 0;
    std::string pending_;
    std::string inDoubt_;
};

TEST_F(ProcessesTest, KilledAtAnyMomentNothingReportedIsLostAndNoTryIsGained)
{
    KeySettings settings = cheapSettings("CRASH");
    settings.userPin = {false, 255, 255};
    createKey(settings);
    const std::string certificate =
        scratch.file("c.der", certificateFor(scratch, "/CN=Crash", "ec -pkeyopt ec_paramgen_curve:P-256"));
    std::mt19937 random(20240229);
    // A round of the process has eight lines; the moment of the kill is in any of its steps.
    std::uniform_int_distribution<std::size_t> linesBefore(1, 9);
    std::uniform_int_distribution<int> microseconds(0, 3'000);
    for (int kill = 0; kill < KILLS && !HasFailure(); ++kill) {
        Expectation expectation(*otherProcess("CRASH")->contents());
        const Child child("crash", "CRASH", PIN, certificate);
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
    }
    const std::unique_ptr<SoftKey> key = otherProcess("CRASH");
    const std::shared_ptr<const Contents> contents = key->contents();
    for (const VelkorKeyPair& record : contents->keyPairs)
        EXPECT_NE(key->privateKey(std::to_array(record.keyIdentifier), PIN, USAGE_SIGN_VERIFY), nullptr);
}

} // namespace
} // namespace softkey::test
