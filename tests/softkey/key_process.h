// What programs of the tests begin with that use a key as applications do: PROGRAM MODE SERIAL PIN [ARGUMENT...].
#pragma once

#include "velkor/device_service.h"

#include <cstdlib>
#include <span>
#include <string>
#include <unistd.h>

namespace softkey::test
{

inline const char* serialNumber = nullptr;
inline const char* pin = nullptr;
inline void* instance = nullptr;

/// Takes the arguments and makes an instance. Gives the exit code of a program that cannot begin, else 0.
inline int begin(int argc, char** argv)
{
    if (argc < 4)
        return 6;
    serialNumber = argv[2];
    pin = argv[3];
    velkor_createInstance(&instance);
    return instance == nullptr ? 7 : 0;
}

/// One line to the parent, at once and whole.
inline void tell(const std::string& line)
{
    if (write(STDOUT_FILENO, (line + "\n").c_str(), line.size() + 1) < 0)
        std::_Exit(9);
}

inline std::string hexOf(std::span<const unsigned char> bytes)
{
    std::string text;
    for (const unsigned char byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

} // namespace softkey::test
