// What the templates of the tests say again and again, in variables that attributes can point to.
#pragma once

#include <vector>

#include "cryptoki.h"

/// Newer than the header of version 2.20.
constexpr CK_ATTRIBUTE_TYPE COPYABLE = 0x171;

/// Fixtures take them in as a base.
struct TemplateValues {
    CK_BBOOL yes = CK_TRUE;
    CK_BBOOL no = CK_FALSE;
    CK_OBJECT_CLASS publicClass = CKO_PUBLIC_KEY;
    CK_OBJECT_CLASS privateClass = CKO_PRIVATE_KEY;
    CK_OBJECT_CLASS certificateClass = CKO_CERTIFICATE;
    CK_OBJECT_CLASS dataClass = CKO_DATA;
    CK_KEY_TYPE rsa = CKK_RSA;
    CK_KEY_TYPE ec = CKK_EC;
    CK_ULONG bits = 2048;
    std::vector<unsigned char> p256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    std::vector<unsigned char> p384 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
    std::vector<unsigned char> p521 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};
};
