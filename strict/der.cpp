#include "strict/der.h"

#include <algorithm>
#include <iterator>

namespace velkor::strict
{
namespace
{

constexpr unsigned char INTEGER = 0x02;
constexpr unsigned char BIT_STRING = 0x03;
constexpr unsigned char OCTET_STRING = 0x04;
constexpr unsigned char SEQUENCE = 0x30;

/// Takes one element off the front of `der` and gives its content. False when there is none with that tag.
bool take(Bytes& der, unsigned char tag, Bytes& content)
{
    if (der.size() < 2 || der[0] != tag)
        return false;
    std::size_t length = der[1];
    std::size_t header = 2;
    if (length >= 0x80) {
        const std::size_t count = length & 0x7FU;
        if (count == 0 || count > 4 || der.size() < 2 + count)
            return false;
        length = 0;
        for (std::size_t index = 0; index < count; ++index)
            length = length << 8U | der[2 + index];
        header += count;
    }
    if (der.size() - header < length)
        return false;
    content = der.subspan(header, length);
    der = der.subspan(header + length);
    return true;
}

/// Empty when the bytes are no octet string, or more than one.
Bytes contentOfOctetString(Bytes der)
{
    Bytes content;
    return take(der, OCTET_STRING, content) && der.empty() ? content : Bytes();
}

} // namespace

SecretBytes derOctetString(Bytes content)
{
    SecretBytes der{OCTET_STRING};
    SecretBytes length;
    for (std::size_t rest = content.size(); rest != 0; rest >>= 8U)
        length.insert(length.begin(), static_cast<unsigned char>(rest & 0xFFU));
    if (content.size() >= 0x80)
        der.push_back(static_cast<unsigned char>(0x80U | length.size()));
    else if (length.empty())
        length.push_back(0);
    der.insert(der.end(), length.begin(), length.end());
    der.insert(der.end(), content.begin(), content.end());
    return der;
}

Bytes barePoint(Bytes point)
{
    // Of P-256, P-384 and P-521. Now and then the bytes of such a point happen to be DER of a shorter one.
    constexpr std::size_t SIZES[] = {65, 97, 133};
    if (std::find(std::begin(SIZES), std::end(SIZES), point.size()) != std::end(SIZES))
        return point;
    const Bytes content = contentOfOctetString(point);
    return content.empty() ? point : content;
}

Bytes withoutLeadingZeros(Bytes number)
{
    const auto first = std::find_if(number.begin(), number.end(), [](unsigned char byte) { return byte != 0; });
    return number.subspan(static_cast<std::size_t>(first - number.begin()));
}

bool readRsaPublicKey(Bytes der, SecretBytes& modulus, SecretBytes& exponent)
{
    Bytes key;
    if (!take(der, SEQUENCE, key) || !der.empty())
        return false;
    Bytes algorithm;
    Bytes bits;
    if (take(key, SEQUENCE, algorithm)) {
        if (!take(key, BIT_STRING, bits) || bits.empty())
            return false;
        bits = bits.subspan(1); // The count of unused bits.
        if (!take(bits, SEQUENCE, key))
            return false;
    }
    Bytes first;
    Bytes second;
    if (!take(key, INTEGER, first) || !take(key, INTEGER, second) || !key.empty())
        return false;
    modulus = secretCopyOf(withoutLeadingZeros(first));
    exponent = secretCopyOf(withoutLeadingZeros(second));
    return true;
}

} // namespace velkor::strict
