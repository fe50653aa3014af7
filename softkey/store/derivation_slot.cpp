#include "store/derivation_slot.h"

#include <algorithm>
#include <random>
#include <string>
#include <thread>

namespace softkey
{
namespace
{

/// 2^14 rounds over 1 KiB each are 16 MiB.
constexpr std::uint32_t CHEAP_LOG_N = 14;
constexpr unsigned SLOTS_MAX = 8;

/// A derivation keeps one processor busy.
unsigned countSlots()
{
    return std::clamp(std::thread::hardware_concurrency(), 1U, SLOTS_MAX);
}

std::filesystem::path slotAt(const std::filesystem::path& folder, unsigned number)
{
    return folder / (".derive" + std::to_string(number));
}

/// A number that changes whenever a slot is taken.
std::uint64_t progressOf(const std::filesystem::path& folder)
{
    std::uint64_t sum = 0;
    std::error_code failure;
    for (unsigned number = 0; number < countSlots(); ++number) {
        const auto taken = std::filesystem::last_write_time(slotAt(folder, number), failure);
        sum += failure ? 0 : static_cast<std::uint64_t>(taken.time_since_epoch().count());
    }
    return sum;
}

std::optional<FileLock> takeSlot(const std::filesystem::path& folder)
{
    static thread_local std::minstd_rand random(std::random_device{}());
    const unsigned slots = countSlots();
    const auto first = static_cast<unsigned>(random() % slots);
    for (unsigned i = 0; i < slots; ++i) {
        const std::filesystem::path file = slotAt(folder, (first + i) % slots);
        if (std::optional<FileLock> slot = FileLock::tryTake(file)) {
            std::error_code failure;
            std::filesystem::last_write_time(file, std::filesystem::file_time_type::clock::now(), failure);
            return slot;
        }
    }
    return std::nullopt;
}

std::optional<FileLock> awaitSlot(const std::filesystem::path& folder)
{
    Patience patience([&] { return progressOf(folder); });
    try {
        for (;;) {
            if (std::optional<FileLock> slot = takeSlot(folder))
                return slot;
            patience.pause();
        }
    } catch (const Refusal&) {
        return std::nullopt; // Those in the slots were stopped, or there can be no slots: no reason to refuse a PIN.
    }
}

} // namespace

DerivationSlot::DerivationSlot(const std::filesystem::path& folder, const ScryptCost& cost)
    : slot_(cost.logN > CHEAP_LOG_N ? awaitSlot(folder) : std::nullopt)
{
}

} // namespace softkey
