#include "store/refused_pins.h"

#include "platform/fork_guard.h"

#include <algorithm>

namespace softkey
{
RefusedPins& RefusedPins::ofProcess()
{
    static auto* const refused = new PerProcess<RefusedPins>;
    return refused->get();
}

PinDigest RefusedPins::digestOf(const PinRecord& record, std::string_view pin) const
{
    return digest_.of(record.salt, bytesOf(pin));
}

void RefusedPins::add(const PinRecord& record, std::string_view pin)
{
    const PinDigest digest = digestOf(record, pin);
    const std::lock_guard lock(mutex_);
    refused_.push_back(digest);
}

bool RefusedPins::contain(const PinRecord& record, std::string_view pin) const
{
    const PinDigest wanted = digestOf(record, pin);
    const std::lock_guard lock(mutex_);
    return std::ranges::any_of(refused_, [&](const PinDigest& refused) { return sameDigest(refused, wanted); });
}

} // namespace softkey
