#include "util/der.h"

#include <cstddef>
#include <iterator>

namespace velkor
{
namespace
{

constexpr unsigned char TAG_INTEGER = 0x02;
constexpr unsigned char TAG_BIT_STRING = 0x03;

/// rsaEncryption with a NULL parameter.
constexpr unsigned char ALGORITHM_IDENTIFIER[] = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                                  0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};

void append(OwnedBytes& bytes, Bytes more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

void appendLength(OwnedBytes& bytes, std::size_t length)
{
    if (length < 0x80) {
        bytes.push_back(static_cast<unsigned char>(length));
        return;
    }
    unsigned char count = 0;
    for (std::size_t rest = length; rest != 0; rest >>= 8)
        ++count;
    bytes.push_back(static_cast<unsigned char>(0x80 + count));
    for (unsigned shift = 8U * count; shift != 0; shift -= 8)
        bytes.push_back(static_cast<unsigned char>(length >> (shift - 8)));
}

OwnedBytes element(unsigned char tag, Bytes content)
{
    OwnedBytes bytes = {tag};
    appendLength(bytes, content.size());
    append(bytes, content);
    return bytes;
}

OwnedBytes integerElement(Bytes number)
{
    OwnedBytes content;
    if (!number.empty() && number.front() >= 0x80)
        content.push_back(0);
    append(content, number);
    return element(TAG_INTEGER, content);
}

} // namespace

OwnedBytes rsaSubjectPublicKeyInfo(Bytes modulus)
{
    OwnedBytes numbers = integerElement(modulus);
    append(numbers, integerElement(RSA_PUBLIC_EXPONENT));
    OwnedBytes bitString = {0}; // No unused bits.
    append(bitString, element(DER_TAG_SEQUENCE, numbers));
    OwnedBytes content(std::begin(ALGORITHM_IDENTIFIER), std::end(ALGORITHM_IDENTIFIER));
    append(content, element(TAG_BIT_STRING, bitString));
    return element(DER_TAG_SEQUENCE, content);
}

} // namespace velkor
