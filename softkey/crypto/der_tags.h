// The first bytes of the DER elements that this library writes or reads itself.
#pragma once

namespace softkey
{

constexpr unsigned char INTEGER = 0x02;
constexpr unsigned char OCTET_STRING = 0x04;
constexpr unsigned char NULL_VALUE = 0x05;
constexpr unsigned char OBJECT_IDENTIFIER = 0x06;
constexpr unsigned char SEQUENCE = 0x30;

} // namespace softkey
