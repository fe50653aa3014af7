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

ByteVector RefusedPins::digestOf(const PinRecord& record, std::string_view pin) const
{
    return digest_.of({record.salt, bytesOf(pin)});
}

void RefusedPins::add(const PinRecord& record, std::string_view pin)
{
    ByteVector digest = digestOf(record, pin);
    const std::lock_guard lock(mutex_);
    refused_.push_back(std::move(digest));
}

bool RefusedPins::contain(const PinRecord& record, std::string_view pin) const
{
    const ByteVector wanted = digestOf(record, pin);
    const std::lock_guard lock(mutex_);
    return std::ranges::any_of(refused_, [&](const ByteVector& refused) { return sameDigest(refused, wanted); });
}

} // namespace softkey
