// OpenSSL contexts that are set up for one key and one use. Setting one up takes a good part of the time of an EC
// signature, so that it is kept for the next one.
#pragma once

#include "crypto/openssl.h"

#include <mutex>
#include <vector>

namespace softkey
{

class ReadyContexts
{
public:
    /// Null when none is ready.
    EvpKeyContext take()
    {
        const std::lock_guard lock(mutex_);
        if (contexts_.empty())
            return nullptr;
        EvpKeyContext context = std::move(contexts_.back());
        contexts_.pop_back();
        return context;
    }

    /// After use, unless that failed.
    void keep(EvpKeyContext context)
    {
        const std::lock_guard lock(mutex_);
        if (contexts_.size() < KEPT)
            contexts_.push_back(std::move(context));
    }

private:
    static constexpr std::size_t KEPT = 4;

    std::mutex mutex_;
    std::vector<EvpKeyContext> contexts_;
};

} // namespace softkey
