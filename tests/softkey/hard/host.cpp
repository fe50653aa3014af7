// An application that uses a software key through the module, and stops where its memory is to be looked at: it says
// where it is and goes on at a line from its parent. The PIN comes as a line, so that it stands nowhere else.
#include "cryptoki.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

CK_SESSION_HANDLE session = 0;

/// Says where the process is, and waits.
void stopAt(const std::string& place)
{
    const std::string line = place + "\n";
    if (write(STDOUT_FILENO, line.data(), line.size()) < 0)
        std::_Exit(9);
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) == 1 && byte != '\n') {
    }
}

void require(CK_RV result, int exitCode)
{
    if (result != CKR_OK)
        std::_Exit(exitCode);
}

void openSession()
{
    require(C_Initialize(nullptr), 10);
    std::array<CK_SLOT_ID, 4> slots{};
    CK_ULONG count = slots.size();
    require(C_GetSlotList(CK_TRUE, slots.data(), &count), 11);
    require(C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session), 12);
}

void login()
{
    std::array<char, 64> pin{};
    std::size_t size = 0;
    while (size < pin.size() && read(STDIN_FILENO, &pin[size], 1) == 1 && pin[size] != '\n')
        ++size;
    const CK_RV result =
        C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), static_cast<CK_ULONG>(size));
    explicit_bzero(pin.data(), pin.size());
    require(result, 13);
}

std::vector<CK_OBJECT_HANDLE> privateKeys()
{
    CK_OBJECT_CLASS kind = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE wanted{CKA_CLASS, &kind, sizeof kind};
    std::vector<CK_OBJECT_HANDLE> found(16);
    CK_ULONG count = 0;
    require(C_FindObjectsInit(session, &wanted, 1), 14);
    require(C_FindObjects(session, found.data(), 16, &count), 15);
    require(C_FindObjectsFinal(session), 16);
    found.resize(count);
    return found;
}

bool signs(CK_OBJECT_HANDLE key)
{
    CK_KEY_TYPE type = 0;
    CK_ATTRIBUTE asked{CKA_KEY_TYPE, &type, sizeof type};
    if (C_GetAttributeValue(session, key, &asked, 1) != CKR_OK)
        return false;
    CK_MECHANISM mechanism{static_cast<CK_MECHANISM_TYPE>(type == CKK_EC ? CKM_ECDSA : CKM_RSA_PKCS), nullptr, 0};
    std::array<unsigned char, 32> hash{1, 2, 3};
    std::array<unsigned char, 1024> signature{};
    CK_ULONG size = signature.size();
    return C_SignInit(session, &mechanism, key) == CKR_OK &&
           C_Sign(session, hash.data(), hash.size(), signature.data(), &size) == CKR_OK;
}

void signWithAll(const std::vector<CK_OBJECT_HANDLE>& keys)
{
    if (keys.size() != 2)
        std::_Exit(17);
    for (const CK_OBJECT_HANDLE key : keys)
        require(signs(key) ? CKR_OK : CKR_FUNCTION_FAILED, 18);
}

/// The parent looks at a child that has done nothing since the fork.
void stopInChild()
{
    const pid_t forked = fork();
    if (forked == 0) {
        pause();
        std::_Exit(0);
    }
    stopAt("forked " + std::to_string(forked));
    kill(forked, SIGKILL);
}

} // namespace

int main()
{
    openSession();
    login();
    std::vector<CK_OBJECT_HANDLE> keys = privateKeys();
    signWithAll(keys);
    stopAt("used");
    stopInChild();
    require(C_Logout(session), 19);
    stopAt("left");
    if (signs(keys.front())) // The library learns of the logout by the next call for the key.
        return 20;
    stopAt("refused");
    login();
    signWithAll(privateKeys());
    stopAt("used");
    require(C_Finalize(nullptr), 21);
    stopAt("finalised");
    return 0;
}
