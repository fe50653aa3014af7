// PINs that this process has seen refused. A salt belongs to one PIN of one key and changes with it, while the wrapping
// of the master key may be renewed under the same PIN: so a PIN which was wrong for a salt stays wrong, and asked
// again, it is refused without another try being spent.
#pragma once

#include "crypto/keyed_digest.h"
#include "store/contents.h"

#include <mutex>
#include <string_view>
#include <vector>

namespace softkey
{

class RefusedPins
{
public:
    static RefusedPins& ofProcess();

    void add(const PinRecord& record, std::string_view pin);
    bool contain(const PinRecord& record, std::string_view pin) const;

private:
    PinDigest digestOf(const PinRecord& record, std::string_view pin) const;

    KeyedDigest digest_;
    mutable std::mutex mutex_;
    std::vector<PinDigest> refused_; ///< Each has cost a try, so that they never become very many.
};

} // namespace softkey
