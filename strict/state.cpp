#include "strict/state.h"

#include "log/log.h"
#include "platform/platform.h"
#include "strict/system.h"

namespace velkor::strict
{
namespace
{

std::atomic<State*> current = nullptr;

constexpr std::chrono::milliseconds PATIENCE_BEFORE_FORK{500};

/// What is held while the process forks, so that the child finds nothing half done.
struct ForkGuard {
    std::unique_lock<std::mutex> life;
    std::optional<KeyGate::Stay> stay;
    std::unique_lock<std::mutex> slots;
    std::unique_lock<std::mutex> lock;
};
ForkGuard* forkGuard = nullptr;

/// Waits until no call is in the module, at its start, behind the gate or at its slots, within reason: the call that
/// forks may itself be one. A lock of the module that is held then stays held in the child for ever.
void beforeFork()
{
    State& before = state();
    auto life = lockInTime(before.lifeLock, PATIENCE_BEFORE_FORK);
    auto stay = before.gate.enterAlone(PATIENCE_BEFORE_FORK);
    auto slots = lockInTime(before.slotLock, PATIENCE_BEFORE_FORK);
    forkGuard = new ForkGuard{std::move(life), std::move(stay), std::move(slots), std::unique_lock(before.lock)};
}

void inParent()
{
    delete forkGuard;
    forkGuard = nullptr;
}

/// The child keeps the slots with their IDs, and gives no handle that its parent has given. The old state stays where
/// it is: other threads were in its midst.
void inChild()
{
    State& old = state();
    State& fresh = *new State;
    for (const auto& token : old.tokens) {
        auto copy = std::make_unique<Token>();
        copy->slotID = token->slotID;
        copy->serialNumber = token->serialNumber;
        copy->slotInfo = token->slotInfo;
        copy->tokenInfo = token->tokenInfo;
        copy->answerToUser = token->answerToUser;
        copy->answerToSecurityOfficer = token->answerToSecurityOfficer;
        fresh.tokens.push_back(std::move(copy));
        token->pin = {};
    }
    fresh.module = old.module;
    fresh.isModuleLoaded = old.isModuleLoaded;
    fresh.isModuleForked = old.isModuleForked || old.isModuleUsed;
    fresh.lastSession = old.lastSession;
    fresh.lastObject = old.lastObject;
    current = &fresh;
    forkGuard = nullptr;
}

/// What is done once, when the library is loaded.
struct Loading {
    Loading()
    {
        current = new State;
        system::stayMapped();
        system::watchForks(beforeFork, inParent, inChild);
        tellsOfLostLines = false; // Standard output is the host's.
        createLogFolders();
    }
};
const Loading loading;

} // namespace

State& state()
{
    return *current.load(std::memory_order_acquire);
}

/// The log makes one level with each line, and loses the lines before the last level is there.
void createLogFolders()
{
    constexpr int LEVELS = 4;
    char base[1024];
    if (getLogBaseFolderPath(base, sizeof base) != 0)
        return;
    const std::string path = std::string(base) + "/Brenmoor/" + getProcessBaseName() + "/";
    for (int level = 0; level < LEVELS && createFolderPath(path) == -1; ++level) {
    }
}

std::unique_lock<std::mutex> lockInTime(std::mutex& mutex, std::chrono::milliseconds patience)
{
    std::unique_lock lock(mutex, std::try_to_lock);
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!lock.owns_lock() && std::chrono::steady_clock::now() < end) {
        platform::sleep(std::chrono::milliseconds(1));
        lock.try_lock();
    }
    return lock;
}

} // namespace velkor::strict
