// PINs that this process has seen refused. A salt belongs to one PIN of one key and changes with it, so that a PIN
// which was wrong under a salt stays wrong: asked again, it is refused without another try being spent.
#pragma once

#include "crypto/keyed_digest.h"

#include <deque>
#include <mutex>
#include <string_view>

namespace softkey
{

class RefusedPins
{
public:
    static RefusedPins& ofProcess();

    void add(Bytes salt, std::string_view pin);
    bool contain(Bytes salt, std::string_view pin) const;

private:
    ByteVector digestOf(Bytes salt, std::string_view pin) const;

    KeyedDigest digest_;
    mutable std::mutex mutex_;
    std::deque<ByteVector> refused_; ///< The latest of them.
};

} // namespace softkey
