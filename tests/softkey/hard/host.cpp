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

std::vector<CK_OBJECT_HANDLE> find(CK_OBJECT_CLASS kind)
{
    CK_ATTRIBUTE wanted{CKA_CLASS, &kind, sizeof kind};
    std::vector<CK_OBJECT_HANDLE> found(16);
    CK_ULONG count = 0;
    require(C_FindObjectsInit(session, &wanted, 1), 14);
    require(C_FindObjects(session, found.data(), 16, &count), 15);
    require(C_FindObjectsFinal(session), 16);
    found.resize(count);
    return found;
}

struct KeyPair {
    CK_OBJECT_HANDLE privateKey;
    CK_OBJECT_HANDLE publicKey;
    bool isEc;
};

/// One of each kind.
std::vector<KeyPair> keyPairs()
{
    const std::vector<CK_OBJECT_HANDLE> privateKeys = find(CKO_PRIVATE_KEY);
    const std::vector<CK_OBJECT_HANDLE> publicKeys = find(CKO_PUBLIC_KEY); // In the same order.
    if (privateKeys.size() != 2 || publicKeys.size() != 2)
        std::_Exit(17);
    std::vector<KeyPair> found;
    for (std::size_t i = 0; i < 2; ++i) {
        CK_KEY_TYPE type = 0;
        CK_ATTRIBUTE asked{CKA_KEY_TYPE, &type, sizeof type};
        require(C_GetAttributeValue(session, privateKeys[i], &asked, 1), 18);
        found.push_back({privateKeys[i], publicKeys[i], type == CKK_EC});
    }
    return found;
}

bool signs(const KeyPair& keys)
{
    CK_MECHANISM mechanism{static_cast<CK_MECHANISM_TYPE>(keys.isEc ? CKM_ECDSA : CKM_RSA_PKCS), nullptr, 0};
    std::array<unsigned char, 32> hash{1, 2, 3};
    std::array<unsigned char, 1024> signature{};
    CK_ULONG size = signature.size();
    return C_SignInit(session, &mechanism, keys.privateKey) == CKR_OK &&
           C_Sign(session, hash.data(), hash.size(), signature.data(), &size) == CKR_OK;
}

/// With both paddings.
bool decrypts(const KeyPair& keys)
{
    for (const CK_MECHANISM_TYPE type : {CKM_RSA_PKCS, CKM_RSA_PKCS_OAEP}) {
        CK_MECHANISM mechanism{type, nullptr, 0};
        std::array<unsigned char, 16> text{1, 2, 3};
        std::array<unsigned char, 512> ciphertext{};
        std::array<unsigned char, 512> plaintext{};
        CK_ULONG size = ciphertext.size();
        CK_ULONG plainSize = plaintext.size();
        const bool done = C_EncryptInit(session, &mechanism, keys.publicKey) == CKR_OK &&
                          C_Encrypt(session, text.data(), text.size(), ciphertext.data(), &size) == CKR_OK &&
                          C_DecryptInit(session, &mechanism, keys.privateKey) == CKR_OK &&
                          C_Decrypt(session, ciphertext.data(), size, plaintext.data(), &plainSize) == CKR_OK;
        if (!done || plainSize != text.size())
            return false;
    }
    return true;
}

/// Agrees on a secret with itself.
bool derives(const KeyPair& keys)
{
    std::array<unsigned char, 256> point{};
    CK_ATTRIBUTE asked{CKA_EC_POINT, point.data(), point.size()};
    if (C_GetAttributeValue(session, keys.publicKey, &asked, 1) != CKR_OK)
        return false;
    CK_ECDH1_DERIVE_PARAMS parameters{CKD_NULL, 0, nullptr, asked.ulValueLen, point.data()};
    CK_MECHANISM mechanism{CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    CK_OBJECT_HANDLE secret = 0;
    return C_DeriveKey(session, &mechanism, keys.privateKey, nullptr, 0, &secret) == CKR_OK;
}

void useAll(const std::vector<KeyPair>& keyPairs)
{
    for (const KeyPair& keys : keyPairs) {
        if (!signs(keys))
            std::_Exit(22);
        if (!(keys.isEc ? derives(keys) : decrypts(keys)))
            std::_Exit(23);
    }
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
    const std::vector<KeyPair> keys = keyPairs();
    useAll(keys);
    stopAt("used");
    stopInChild();
    require(C_Logout(session), 19);
    stopAt("left");
    stopInChild();
    if (signs(keys.front())) // The library learns of the logout by the next call for the key.
        return 20;
    stopAt("refused");
    login();
    useAll(keyPairs());
    stopAt("used");
    require(C_Finalize(nullptr), 21);
    stopAt("finalised");
    return 0;
}
