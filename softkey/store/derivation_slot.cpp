#include "store/derivation_slot.h"

#include <algorithm>
#include <random>
#include <thread>

namespace softkey
{
namespace
{

/// 2^14 rounds over 1 KiB each are 16 MiB.
constexpr std::uint32_t CHEAP_LOG_N = 14;
constexpr unsigned SLOTS_MAX = 8;
/// How often there may be that many slots more, since those who are in the others do not get on.
constexpr unsigned EXTENSIONS_MAX = 4;
/// Hundreds who look for a slot all the time would leave no processor to those who have one.
constexpr std::chrono::milliseconds PAUSE{100};

/// A derivation keeps one processor busy.
unsigned countSlots()
{
    return std::clamp(std::thread::hardware_concurrency(), 1U, SLOTS_MAX);
}

/// A number that changes whenever one of the first slots is taken.
std::uint64_t progressOf(const std::filesystem::path& keyFile, unsigned slots)
{
    std::uint64_t sum = 0;
    std::error_code failure;
    for (unsigned number = 0; number < slots; ++number) {
        const auto taken = std::filesystem::last_write_time(derivationSlotOfKey(keyFile, number), failure);
        sum += failure ? 0 : static_cast<std::uint64_t>(taken.time_since_epoch().count());
    }
    return sum;
}

std::optional<FileLock> takeSlot(const std::filesystem::path& keyFile, unsigned slots)
{
    static thread_local std::minstd_rand random(std::random_device{}());
    const auto first = static_cast<unsigned>(random() % slots);
    for (unsigned i = 0; i < slots; ++i) {
        const std::filesystem::path file = derivationSlotOfKey(keyFile, (first + i) % slots);
        if (std::optional<FileLock> slot = FileLock::tryTake(file)) {
            std::error_code failure;
            std::filesystem::last_write_time(file, std::filesystem::file_time_type::clock::now(), failure);
            return slot;
        }
    }
    return std::nullopt;
}

/// One of the first slots; throws StorageBusy when nobody got one of them for too long.
FileLock awaitSlot(const std::filesystem::path& keyFile, unsigned slots)
{
    Patience patience([&] { return progressOf(keyFile, slots); }, PAUSE);
    for (;;) {
        if (std::optional<FileLock> slot = takeSlot(keyFile, slots))
            return std::move(*slot);
        patience.pause();
    }
}

/// Those in the slots may have been stopped. Then there are some more, and not as many as there are who wait.
std::optional<FileLock> awaitAnySlot(const std::filesystem::path& keyFile)
{
    for (unsigned extension = 0; extension <= EXTENSIONS_MAX; ++extension) {
        try {
            return awaitSlot(keyFile, countSlots() * (extension + 1));
        } catch (const Refusal& refusal) {
            if (refusal.status() != SoftkeyStatus::StorageBusy)
                return std::nullopt; // There can be no slots: no reason to refuse a PIN.
        }
    }
    return std::nullopt;
}

} // namespace

DerivationSlot::DerivationSlot(const std::filesystem::path& keyFile, const ScryptCost& cost)
    : slot_(cost.logN > CHEAP_LOG_N ? awaitAnySlot(keyFile) : std::nullopt)
{
}

void removeDerivationSlots(const std::filesystem::path& keyFile)
{
    std::error_code failure;
    for (unsigned number = 0; number < SLOTS_MAX * (EXTENSIONS_MAX + 1); ++number)
        std::filesystem::remove(derivationSlotOfKey(keyFile, number), failure);
}

} // namespace softkey
