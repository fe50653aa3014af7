// What both sides of the device contract compute from its records: the used part of their fixed-size fields, where a
// wrong length never leads outside, and counts of bytes as the library takes them.
#pragma once

#include <algorithm>
#include <iterator>
#include <limits>
#include <span>
#include <string_view>

#include "velkor/device_service.h"

namespace velkor
{

/// A length as the device library counts, in a signed 32-bit number. One that has no 32-bit form at all becomes
/// negative, which the library refuses; it must not shrink to some small number.
inline int deviceLength(std::size_t length)
{
    if (length > std::numeric_limits<std::uint32_t>::max())
        return -1;
    return static_cast<int>(static_cast<std::uint32_t>(length));
}

template <std::size_t Capacity>
std::span<const unsigned char> usedBytes(const unsigned char (&field)[Capacity], std::int32_t length)
{
    return {field, static_cast<std::size_t>(std::clamp<std::int32_t>(length, 0, Capacity))};
}

inline std::span<const unsigned char> publicKeyOf(const VelkorKeyPair& keyPair)
{
    return usedBytes(keyPair.publicKey, keyPair.publicKeyLength);
}

template <typename Record>
std::span<const unsigned char> objectIdOf(const Record& record)
{
    return usedBytes(record.objectId, record.objectIdLength);
}

/// The label as the device holds it, which may be empty.
template <typename Record>
std::string_view storedLabelOf(const Record& record)
{
    const std::string_view field(record.label, sizeof record.label);
    return field.substr(0, field.find('\0'));
}

/// Copies as many bytes as the field holds; gives their number.
template <std::size_t Capacity>
std::int32_t copyInto(unsigned char (&field)[Capacity], std::span<const unsigned char> bytes)
{
    bytes = bytes.first(std::min(bytes.size(), Capacity));
    std::copy(bytes.begin(), bytes.end(), field);
    return static_cast<std::int32_t>(bytes.size());
}

/// Sets a record's label, cut to its capacity.
template <typename Record, typename Text>
void setLabel(Record& record, const Text& text)
{
    const auto label = std::span(text).first(std::min(std::size(text), LABEL_CAPACITY));
    std::fill(std::copy(label.begin(), label.end(), record.label), std::end(record.label), '\0');
}

inline bool sameBytes(std::span<const unsigned char> left, std::span<const unsigned char> right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

} // namespace velkor
