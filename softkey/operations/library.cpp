#include "operations/library.h"

#include "crypto/public_keys.h"
#include "platform/default_folder.h"
#include "platform/fork_guard.h"

#include <array>
#include <atomic>
#include <set>

namespace softkey
{
namespace
{

constexpr std::size_t INSTANCES_MAX = 64;

// Static and without destructors: a host may call in until the very end of the process.
std::array<std::atomic<bool>, INSTANCES_MAX> alive{};
std::atomic<const std::filesystem::path*> openFolder{nullptr};

std::mutex& instancesMutex()
{
    static auto* const mutex = new std::mutex;
    return *mutex;
}

bool anyInstanceAlive()
{
    return std::any_of(alive.begin(), alive.end(), [](const auto& slot) { return slot.load(); });
}

/// An instance is the address of its slot.
std::atomic<bool>* slotOf(const void* instance)
{
    const auto found = std::find_if(alive.begin(), alive.end(), [&](const auto& slot) { return &slot == instance; });
    return found == alive.end() ? nullptr : found;
}

/// The keys of this process. A forked child starts over with the folder of its parent.
struct ProcessKeys {
    KeysFolder folder;

    ProcessKeys()
    {
        if (const std::filesystem::path* path = openFolder.load())
            folder.open(*path);
    }
};

void openKeysFolder()
{
    const std::filesystem::path path = defaultKeysFolder();
    ensureFolder(path); // A folder that cannot be made holds no keys.
    // Paths are kept: a forking thread may be reading the old one.
    static auto* const opened = new std::set<std::filesystem::path>;
    openFolder = &*opened->insert(path).first;
    keysFolder().open(path);
}

} // namespace

void* createInstance()
{
    const ForkSafeSection section;
    const std::lock_guard lock(instancesMutex());
    CryptoContext::get();
    const auto slot = std::find_if(alive.begin(), alive.end(), [](const auto& used) { return !used.load(); });
    if (slot == alive.end())
        return nullptr;
    if (!anyInstanceAlive())
        openKeysFolder();
    slot->store(true);
    return slot;
}

void releaseInstance(void* instance)
{
    const ForkSafeSection section;
    const std::lock_guard lock(instancesMutex());
    std::atomic<bool>* slot = slotOf(instance);
    if (slot == nullptr || !slot->exchange(false) || anyInstanceAlive())
        return;
    dropHashContexts();
    PublicKeys::ofProcess().clear();
    keysFolder().close();
}

void requireInstance(const void* instance)
{
    const std::atomic<bool>* slot = slotOf(instance);
    require(slot != nullptr && slot->load(), SoftkeyStatus::BadInstance);
}

KeysFolder& keysFolder()
{
    static auto* const keys = new PerProcess<ProcessKeys>;
    return keys->get().folder;
}

} // namespace softkey
