#include "crypto/ecdsa_form.h"

#include "crypto/der_tags.h"

#include <algorithm>

namespace softkey
{
namespace
{

/// Takes a DER element of that tag off the front of `input`. Lengths up to 255 bytes do for every curve here.
Bytes takeElement(Bytes& input, unsigned char tag)
{
    require(input.size() >= 3 && input[0] == tag);
    const bool longForm = input[1] == 0x81;
    const std::size_t header = longForm ? 3 : 2;
    const std::size_t length = longForm ? input[2] : input[1];
    require((longForm || length < 0x80) && header + length <= input.size());
    const Bytes content = input.subspan(header, length);
    input = input.subspan(header + length);
    return content;
}

void writeFixed(Bytes integer, std::span<unsigned char> fixed)
{
    while (integer.size() > fixed.size() && integer.front() == 0)
        integer = integer.subspan(1);
    require(integer.size() <= fixed.size());
    const std::size_t padding = fixed.size() - integer.size();
    std::fill_n(fixed.begin(), padding, static_cast<unsigned char>(0));
    std::copy(integer.begin(), integer.end(), fixed.begin() + static_cast<std::ptrdiff_t>(padding));
}

/// A number below the 128 bytes at which its length would take another form.
void appendInteger(ByteVector& der, Bytes number)
{
    while (number.size() > 1 && number.front() == 0)
        number = number.subspan(1);
    const bool needsZero = number.front() >= 0x80; // Else it would be negative.
    der.push_back(INTEGER);
    der.push_back(static_cast<unsigned char>(number.size() + (needsZero ? 1 : 0)));
    if (needsZero)
        der.push_back(0);
    der.insert(der.end(), number.begin(), number.end());
}

} // namespace

void fixedFromDer(Bytes der, std::span<unsigned char> fixed)
{
    Bytes content = takeElement(der, SEQUENCE);
    writeFixed(takeElement(content, INTEGER), fixed.first(fixed.size() / 2));
    writeFixed(takeElement(content, INTEGER), fixed.last(fixed.size() / 2));
}

ByteVector derFromFixed(Bytes fixed)
{
    ByteVector integers;
    integers.reserve(fixed.size() + std::size_t{2} * (2 + 1));
    appendInteger(integers, fixed.first(fixed.size() / 2));
    appendInteger(integers, fixed.last(fixed.size() / 2));
    ByteVector der{SEQUENCE};
    der.reserve(3 + integers.size());
    if (integers.size() >= 0x80)
        der.push_back(0x81);
    der.push_back(static_cast<unsigned char>(integers.size()));
    der.insert(der.end(), integers.begin(), integers.end());
    return der;
}

} // namespace softkey
