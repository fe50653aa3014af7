// Byte strings of the tests, and the templates of attributes that a caller gives the module.
#pragma once

#include <algorithm>
#include <deque>
#include <initializer_list>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "cryptoki.h"

using ByteVector = std::vector<unsigned char>;

inline ByteVector bytesOf(std::string_view text)
{
    return {text.begin(), text.end()};
}

inline ByteVector bytesOf(CK_ULONG number)
{
    const auto* first = reinterpret_cast<const unsigned char*>(&number);
    return {first, first + sizeof number};
}

inline ByteVector joined(std::initializer_list<ByteVector> parts)
{
    ByteVector all;
    for (const ByteVector& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

inline ByteVector joined(const ByteVector& left, const ByteVector& right)
{
    return joined({left, right});
}

/// Matches a pointer to these bytes; what is behind them is not looked at.
MATCHER_P(PointsTo, bytes, "points to bytes " + testing::PrintToString(bytes))
{
    return bytes.empty() || (arg != nullptr && std::equal(bytes.begin(), bytes.end(), arg));
}

/// A template that owns its values. Each has an allocation of its own size, so that sanitizers guard its end.
class Template
{
public:
    struct Entry {
        CK_ATTRIBUTE_TYPE type;
        ByteVector value;
    };

    Template() = default;
    Template(std::initializer_list<Entry> entries)
    {
        for (const Entry& entry : entries)
            add(entry.type, entry.value);
    }

    Template(const Template&) = delete;
    Template& operator=(const Template&) = delete;
    Template(Template&&) = default;
    Template& operator=(Template&&) = default;

    Template& add(CK_ATTRIBUTE_TYPE type, ByteVector value)
    {
        ByteVector& kept = values_.emplace_back(std::move(value));
        return addRaw(type, kept.data(), static_cast<CK_ULONG>(kept.size()));
    }

    Template& add(CK_ATTRIBUTE_TYPE type, CK_ULONG number) { return add(type, bytesOf(number)); }
    Template& add(CK_ATTRIBUTE_TYPE type, std::string_view text) { return add(type, bytesOf(text)); }

    /// A text with a zero byte behind it that is not counted: a search reads a label up to there.
    Template& addTerminated(CK_ATTRIBUTE_TYPE type, std::string_view text)
    {
        ByteVector& kept = values_.emplace_back(text.begin(), text.end());
        kept.push_back(0);
        return addRaw(type, kept.data(), static_cast<CK_ULONG>(text.size()));
    }

    /// Room for an answer, every byte of it 0xEE.
    Template& addRoom(CK_ATTRIBUTE_TYPE type, CK_ULONG size) { return add(type, ByteVector(size, 0xEE)); }

    /// An entry for memory of the caller's, or for none.
    Template& addRaw(CK_ATTRIBUTE_TYPE type, void* value, CK_ULONG length)
    {
        entries_.push_back({type, value, length});
        return *this;
    }

    CK_ATTRIBUTE& operator[](std::size_t index) { return entries_[index]; }

    /// The module asks for a pointer to what may change, whether it changes it or not.
    CK_ATTRIBUTE* data() const { return const_cast<CK_ATTRIBUTE*>(entries_.data()); }
    CK_ULONG size() const { return static_cast<CK_ULONG>(entries_.size()); }
    CK_ULONG length(std::size_t index) const { return entries_.at(index).ulValueLen; }

    /// The bytes behind the owned value of this number.
    const ByteVector& value(std::size_t index) const { return values_.at(index); }

private:
    std::deque<ByteVector> values_; ///< Each stays where it is when others are added.
    std::vector<CK_ATTRIBUTE> entries_;
};
