// Prints the master key of a software key in hexadecimal, for searches of other processes' memory.
// Usage: master_key FILE PIN.
#include "store/pin_policy.h"

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 3)
        return 6;
    softkey::KeyFile file(argv[1]);
    const softkey::CheckedPin checked = softkey::checkPin(file, softkey::PinRole::User, argv[2]);
    for (const unsigned char byte : softkey::Bytes(checked.masterKey))
        std::printf("%02x", byte);
    std::printf("\n");
    return 0;
}
