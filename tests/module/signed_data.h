// What the tests of signatures sign and verify.
#pragma once

#include "scripted_device_fixture.h"

const ByteVector DATA = numbered(40, 0x60);
const ByteVector OTHER_DATA = numbered(7, 0x20);
const ByteVector SIGNATURE = numbered(70, 0x11);
constexpr int HASH_ROOM = 64; ///< What the module says to the device of its room for a hash.
