// Prints what a PIN opens of a software key, in hexadecimal, for searches of other processes' memory and of files: the
// master key, the key that the PIN makes, and each private key as PKCS #8. Usage: key_secrets FILE PIN.
#include "store/object_store.h"
#include "store/pin_policy.h"

#include <cstdio>

namespace
{

void print(const char* name, softkey::Bytes bytes)
{
    std::printf("%s: ", name);
    for (const unsigned char byte : bytes)
        std::printf("%02x", byte);
    std::printf("\n");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 6;
    softkey::KeyFile file(argv[1]);
    const softkey::CheckedPin checked = softkey::checkPin(file, softkey::PinRole::User, argv[2]);
    print("master key", checked.masterKey);
    print("key of the PIN", softkey::keyFromPin(argv[2], checked.record.salt, checked.record.cost));
    file.read([&](softkey::Database& database) {
        const softkey::Contents contents = softkey::readContents(database);
        for (const VelkorKeyPair& keyPair : contents.keyPairs)
            print("private key",
                  softkey::openPrivateKey(database, keyPair, checked.masterKey, contents.device.serialNumber));
    });
    return 0;
}
