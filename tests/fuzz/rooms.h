// Memory that a host lends to one call. Each piece ends at a page that nobody may touch, so that one byte too many,
// written or read, ends the run.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <deque>
#include <span>

#include "guarded_buffer.h"

namespace fuzz
{

class Rooms
{
public:
    static constexpr std::size_t LARGEST = 4096;

    /// At most `LARGEST` bytes, all zero.
    unsigned char* take(std::size_t size)
    {
        if (taken_ == pages_.size())
            pages_.emplace_back(LARGEST);
        unsigned char* page = pages_[taken_++].data();
        std::memset(page, 0, LARGEST);
        return page + LARGEST - size;
    }

    unsigned char* takeCopy(std::span<const unsigned char> bytes)
    {
        unsigned char* room = take(bytes.size());
        std::copy(bytes.begin(), bytes.end(), room);
        return room;
    }

    template <typename Value>
    Value* takeFor(const Value& value)
    {
        return reinterpret_cast<Value*>(takeCopy({reinterpret_cast<const unsigned char*>(&value), sizeof value}));
    }

    /// What was taken is taken anew by the next call.
    void giveBackAll() { taken_ = 0; }

private:
    std::deque<test_system::GuardedBuffer> pages_; ///< Each stays where it is when others are added.
    std::size_t taken_ = 0;
};

} // namespace fuzz
