// PINs that this process has seen refused. Salt and wrapped master key belong to one PIN of one key and change with it,
// so that a PIN which was wrong for them stays wrong: asked again, it is refused without another try being spent.
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
    ByteVector digestOf(const PinRecord& record, std::string_view pin) const;

    KeyedDigest digest_;
    mutable std::mutex mutex_;
    std::vector<ByteVector> refused_; ///< Each has cost a try, so that they never become very many.
};

} // namespace softkey
