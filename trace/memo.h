// What has been found out about texts, kept for the next time: a log has few of them, again and again.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace velkor::trace
{

/// A place for each of some thousand texts; one that comes to a place that is taken replaces what is there. Memory
/// stays within some megabytes, since long texts are not kept.
template <typename Value>
class Memo
{
public:
    /// What `make` gives for the text, or gave before. Valid until the next call.
    template <typename Make>
    const Value& of(std::string_view text, const Make& make)
    {
        const bool isKept = text.size() <= LONGEST;
        Place& place = places_[isKept ? std::hash<std::string_view>()(text) % PLACES : PLACES];
        if (!isKept || !place.isTaken || place.text != text) {
            place.isTaken = false;
            place.value = make(text);
            place.text = isKept ? text : std::string_view();
            place.isTaken = true;
        }
        return place.value;
    }

private:
    static constexpr std::size_t PLACES = 4096;
    static constexpr std::size_t LONGEST = 256;

    struct Place {
        std::string text;
        Value value{};
        bool isTaken = false;
    };

    std::vector<Place> places_{PLACES + 1}; ///< The last one for what is not kept.
};

} // namespace velkor::trace
