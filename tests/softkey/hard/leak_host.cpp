// An application that does everything that takes or makes a secret with a library, the module or the strict front, and
// stops where its memory is to be searched. Secrets come from its parent and go there, and are wiped here at once.
// Usage: leak_host LIBRARY. Descriptor 3 is read and 4 written: the standard streams are the libraries'.
#include "cryptoki.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace
{

constexpr int FROM_PARENT = 3;
constexpr int TO_PARENT = 4;

CK_FUNCTION_LIST_PTR cryptoki = nullptr;
CK_SLOT_ID slot = 0;
CK_SESSION_HANDLE session = 0;

void send(const void* bytes, std::size_t size)
{
    if (write(TO_PARENT, bytes, size) != static_cast<ssize_t>(size))
        std::_Exit(9);
}

void receive(unsigned char* bytes, std::size_t size)
{
    for (std::size_t done = 0; done < size;) {
        const ssize_t count = read(FROM_PARENT, bytes + done, size - done);
        if (count <= 0)
            std::_Exit(8);
        done += static_cast<std::size_t>(count);
    }
}

void tell(const std::string& line)
{
    send((line + "\n").data(), line.size() + 1);
}

/// Asks for something by its name; gives its length.
std::uint32_t ask(const std::string& name)
{
    tell("ask " + name);
    std::uint32_t size = 0;
    receive(reinterpret_cast<unsigned char*>(&size), sizeof size);
    return size;
}

/// Room for what is secret, or for what may be.
class Secret
{
public:
    static constexpr CK_ULONG ROOM = 2048;

    Secret() = default;
    /// What the parent has under that name.
    explicit Secret(const std::string& name) : size(ask(name))
    {
        if (size > bytes_.size())
            std::_Exit(7);
        receive(data(), size);
    }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret() { explicit_bzero(bytes_.data(), bytes_.size()); }

    unsigned char* data() { return bytes_.data(); }
    CK_ATTRIBUTE as(CK_ATTRIBUTE_TYPE type) { return {type, data(), size}; }

    CK_ULONG size = 0;

private:
    std::array<unsigned char, ROOM> bytes_{};
};

/// Hands something over to the parent, who holds it against what it knows, or learns it.
void hand(const std::string& name, Secret& secret)
{
    tell("hand " + name);
    const auto size = static_cast<std::uint32_t>(secret.size);
    send(&size, sizeof size);
    send(secret.data(), secret.size);
}

/// The parent knows what each call has to answer.
CK_RV did(const std::string& what, CK_RV result)
{
    tell("did " + std::to_string(result) + " " + what);
    return result;
}

void stopAt(const std::string& place)
{
    tell("stop " + place);
    unsigned char byte = 0;
    receive(&byte, 1);
}

template <typename Value>
CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, Value& value)
{
    return {type, &value, sizeof value};
}

CK_ULONG count(const std::vector<CK_ATTRIBUTE>& attributes)
{
    return static_cast<CK_ULONG>(attributes.size());
}

void login(CK_USER_TYPE user, const std::string& name)
{
    Secret pin(name);
    did("C_Login " + name, cryptoki->C_Login(session, user, pin.data(), pin.size));
}

void setPin(const std::string& oldName, const std::string& newName)
{
    Secret oldPin(oldName);
    Secret newPin(newName);
    did("C_SetPIN " + newName, cryptoki->C_SetPIN(session, oldPin.data(), oldPin.size, newPin.data(), newPin.size));
}

void useWrongPins()
{
    login(CKU_USER, "wrong PIN");
    login(CKU_USER, "wrong PIN"); // Which the device knows by now.
    login(CKU_USER, "overlong PIN");
    login(CKU_SO, "wrong SO PIN");
    login(CKU_SO, "SO PIN");
    {
        Secret pin("PIN for C_InitPIN");
        did("C_InitPIN", cryptoki->C_InitPIN(session, pin.data(), pin.size));
    }
    did("C_Logout of the SO", cryptoki->C_Logout(session));
    Secret pin("PIN for C_InitToken");
    std::array<CK_UTF8CHAR, 32> label{};
    label.fill(' ');
    did("C_InitToken", cryptoki->C_InitToken(slot, pin.data(), pin.size, label.data()));
}

void useRightPins()
{
    login(CKU_USER, "first PIN");
    login(CKU_USER, "PIN for another login");
    setPin("wrong old PIN", "PIN behind a wrong one");
    setPin("first PIN", "overlong new PIN");
    setPin("first PIN", "PIN");
}

void create(const std::string& name, std::vector<CK_ATTRIBUTE> attributes)
{
    CK_OBJECT_HANDLE object = 0;
    did("C_CreateObject " + name, cryptoki->C_CreateObject(session, attributes.data(), count(attributes), &object));
}

/// With all numbers, or with those that nobody can compute from each other.
void createRsaKey(const std::string& name, bool isWhole)
{
    CK_OBJECT_CLASS kind = CKO_PRIVATE_KEY;
    CK_KEY_TYPE type = CKK_RSA;
    CK_BBOOL isOnToken = CK_TRUE;
    std::array<unsigned char, 3> exponent{1, 0, 1};
    Secret modulus(name + " modulus");
    Secret privateExponent(name + " privateExponent");
    Secret prime1(name + " prime1");
    Secret prime2(name + " prime2");
    Secret exponent1(name + " exponent1");
    Secret exponent2(name + " exponent2");
    Secret coefficient(name + " coefficient");
    std::vector<CK_ATTRIBUTE> attributes{attribute(CKA_CLASS, kind),
                                         attribute(CKA_KEY_TYPE, type),
                                         attribute(CKA_TOKEN, isOnToken),
                                         modulus.as(CKA_MODULUS),
                                         attribute(CKA_PUBLIC_EXPONENT, exponent),
                                         privateExponent.as(CKA_PRIVATE_EXPONENT),
                                         prime1.as(CKA_PRIME_1)};
    if (isWhole)
        attributes.insert(attributes.end(), {prime2.as(CKA_PRIME_2), exponent1.as(CKA_EXPONENT_1),
                                             exponent2.as(CKA_EXPONENT_2), coefficient.as(CKA_COEFFICIENT)});
    create(name, attributes);
}

void createOtherObjects()
{
    CK_OBJECT_CLASS kind = CKO_PRIVATE_KEY;
    CK_KEY_TYPE type = CKK_EC;
    std::array<unsigned char, 10> curve{0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    {
        Secret number("number of a refused EC key");
        create("EC", {attribute(CKA_CLASS, kind), attribute(CKA_KEY_TYPE, type), attribute(CKA_EC_PARAMS, curve),
                      number.as(CKA_VALUE)});
    }
    kind = CKO_SECRET_KEY;
    type = CKK_GENERIC_SECRET;
    {
        Secret value("refused secret key");
        create("secret key", {attribute(CKA_CLASS, kind), attribute(CKA_KEY_TYPE, type), value.as(CKA_VALUE)});
    }
    kind = CKO_DATA;
    Secret value("data object");
    std::vector<CK_ATTRIBUTE> attributes{attribute(CKA_CLASS, kind), value.as(CKA_VALUE)};
    CK_OBJECT_HANDLE object = 0;
    did("C_CreateObject data", cryptoki->C_CreateObject(session, attributes.data(), count(attributes), &object));
    CK_OBJECT_HANDLE copy = 0;
    did("C_CopyObject", cryptoki->C_CopyObject(session, object, nullptr, 0, &copy));
    did("C_DestroyObject of the copy", cryptoki->C_DestroyObject(session, copy));
}

std::vector<CK_OBJECT_HANDLE> find(CK_OBJECT_CLASS kind)
{
    CK_ATTRIBUTE wanted = attribute(CKA_CLASS, kind);
    std::vector<CK_OBJECT_HANDLE> found(64);
    CK_ULONG number = 0;
    did("C_FindObjectsInit", cryptoki->C_FindObjectsInit(session, &wanted, 1));
    did("C_FindObjects", cryptoki->C_FindObjects(session, found.data(), static_cast<CK_ULONG>(found.size()), &number));
    did("C_FindObjectsFinal", cryptoki->C_FindObjectsFinal(session));
    found.resize(number);
    return found;
}

/// One that the tool has put on the device, by its ID.
CK_OBJECT_HANDLE keyNamed(CK_OBJECT_CLASS kind, const std::string& id)
{
    for (const CK_OBJECT_HANDLE object : find(kind)) {
        std::array<char, 128> answer{};
        CK_ATTRIBUTE asked = attribute(CKA_ID, answer);
        if (cryptoki->C_GetAttributeValue(session, object, &asked, 1) == CKR_OK &&
            std::string(answer.data(), asked.ulValueLen) == id)
            return object;
    }
    std::_Exit(6);
}

void generateKeyPairs()
{
    CK_BBOOL isOnToken = CK_TRUE;
    CK_ULONG bits = 2048;
    std::array<unsigned char, 3> exponent{1, 0, 1};
    std::array<unsigned char, 10> curve{0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    const auto generate = [&](const std::string& name, CK_MECHANISM_TYPE type, std::vector<CK_ATTRIBUTE> publicHalf) {
        CK_KEY_TYPE keyType = type == CKM_EC_KEY_PAIR_GEN ? CKK_EC : CKK_RSA;
        std::vector<CK_ATTRIBUTE> privateHalf{attribute(CKA_TOKEN, isOnToken), attribute(CKA_KEY_TYPE, keyType)};
        publicHalf.push_back(attribute(CKA_TOKEN, isOnToken));
        CK_MECHANISM mechanism{type, nullptr, 0};
        CK_OBJECT_HANDLE publicKey = 0;
        CK_OBJECT_HANDLE privateKey = 0;
        did("C_GenerateKeyPair " + name,
            cryptoki->C_GenerateKeyPair(session, &mechanism, publicHalf.data(), count(publicHalf), privateHalf.data(),
                                        count(privateHalf), &publicKey, &privateKey));
    };
    generate("RSA", CKM_RSA_PKCS_KEY_PAIR_GEN,
             {attribute(CKA_MODULUS_BITS, bits), attribute(CKA_PUBLIC_EXPONENT, exponent)});
    generate("EC", CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, curve)});
}

CK_SESSION_HANDLE openSession()
{
    CK_SESSION_HANDLE opened = 0;
    did("C_OpenSession", cryptoki->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &opened));
    return opened;
}

/// What leaves something behind in its session: through the module the hash of a digest, and an encryption in parts.
template <typename Work>
void inItsOwnSession(Work work)
{
    const CK_SESSION_HANDLE others = std::exchange(session, openSession());
    work();
    did("C_CloseSession", cryptoki->C_CloseSession(session));
    session = others;
}

void digest()
{
    CK_MECHANISM mechanism{CKM_SHA256, nullptr, 0};
    std::array<unsigned char, 64> hash{};
    CK_ULONG size = hash.size();
    {
        Secret text("digested text");
        did("C_DigestInit", cryptoki->C_DigestInit(session, &mechanism));
        did("C_Digest", cryptoki->C_Digest(session, text.data(), text.size, hash.data(), &size));
    }
    Secret text("text digested in parts");
    did("C_DigestInit", cryptoki->C_DigestInit(session, &mechanism));
    did("C_DigestUpdate", cryptoki->C_DigestUpdate(session, text.data(), 20));
    did("C_DigestUpdate", cryptoki->C_DigestUpdate(session, text.data() + 20, text.size - 20));
    size = hash.size();
    did("C_DigestFinal", cryptoki->C_DigestFinal(session, hash.data(), &size));
}

/// Signs a text and verifies the signature, whole and in parts.
void sign(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE privateKey, CK_OBJECT_HANDLE publicKey, const std::string& name)
{
    CK_MECHANISM mechanism{type, nullptr, 0};
    std::array<unsigned char, 1024> signature{};
    CK_ULONG size = signature.size();
    {
        Secret text(name);
        did("C_SignInit " + name, cryptoki->C_SignInit(session, &mechanism, privateKey));
        did("C_Sign " + name, cryptoki->C_Sign(session, text.data(), text.size, signature.data(), &size));
        did("C_VerifyInit " + name, cryptoki->C_VerifyInit(session, &mechanism, publicKey));
        did("C_Verify " + name, cryptoki->C_Verify(session, text.data(), text.size, signature.data(), size));
    }
    Secret text(name + " in parts");
    did("C_SignInit " + name, cryptoki->C_SignInit(session, &mechanism, privateKey));
    did("C_SignUpdate " + name, cryptoki->C_SignUpdate(session, text.data(), 10));
    did("C_SignUpdate " + name, cryptoki->C_SignUpdate(session, text.data() + 10, text.size - 10));
    size = signature.size();
    did("C_SignFinal " + name, cryptoki->C_SignFinal(session, signature.data(), &size));
    did("C_VerifyInit " + name, cryptoki->C_VerifyInit(session, &mechanism, publicKey));
    did("C_VerifyUpdate " + name, cryptoki->C_VerifyUpdate(session, text.data(), 10));
    did("C_VerifyUpdate " + name, cryptoki->C_VerifyUpdate(session, text.data() + 10, text.size - 10));
    did("C_VerifyFinal " + name, cryptoki->C_VerifyFinal(session, signature.data(), size));
}

CK_RSA_PKCS_OAEP_PARAMS oaepParameters{CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, nullptr, 0};

CK_MECHANISM cipher(CK_MECHANISM_TYPE type)
{
    if (type == CKM_RSA_PKCS_OAEP)
        return {type, &oaepParameters, sizeof oaepParameters};
    return {type, nullptr, 0};
}

void decrypt(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE privateKey, Secret& ciphertext, const std::string& name)
{
    CK_MECHANISM mechanism = cipher(type);
    Secret text;
    text.size = Secret::ROOM;
    did("C_DecryptInit " + name, cryptoki->C_DecryptInit(session, &mechanism, privateKey));
    did("C_Decrypt " + name, cryptoki->C_Decrypt(session, ciphertext.data(), ciphertext.size, text.data(), &text.size));
    hand(name, text);
}

void encrypt(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE privateKey, CK_OBJECT_HANDLE publicKey, const std::string& name)
{
    CK_MECHANISM mechanism = cipher(type);
    Secret ciphertext;
    ciphertext.size = Secret::ROOM;
    {
        Secret text(name);
        did("C_EncryptInit " + name, cryptoki->C_EncryptInit(session, &mechanism, publicKey));
        did("C_Encrypt " + name,
            cryptoki->C_Encrypt(session, text.data(), text.size, ciphertext.data(), &ciphertext.size));
    }
    decrypt(type, privateKey, ciphertext, name);
}

/// Through the module both are refused.
void encryptInParts(CK_OBJECT_HANDLE privateKey, CK_OBJECT_HANDLE publicKey)
{
    CK_MECHANISM mechanism = cipher(CKM_RSA_PKCS);
    Secret ciphertext("ciphertext decrypted in parts");
    Secret result;
    CK_ULONG size = Secret::ROOM;
    {
        Secret text("text encrypted in parts");
        did("C_EncryptInit in parts", cryptoki->C_EncryptInit(session, &mechanism, publicKey));
        did("C_EncryptUpdate", cryptoki->C_EncryptUpdate(session, text.data(), text.size, result.data(), &size));
        result.size = Secret::ROOM;
        did("C_EncryptFinal", cryptoki->C_EncryptFinal(session, result.data(), &result.size));
    }
    size = Secret::ROOM;
    did("C_DecryptInit in parts", cryptoki->C_DecryptInit(session, &mechanism, privateKey));
    did("C_DecryptUpdate",
        cryptoki->C_DecryptUpdate(session, ciphertext.data(), ciphertext.size, result.data(), &size));
    result.size = Secret::ROOM;
    if (did("C_DecryptFinal", cryptoki->C_DecryptFinal(session, result.data(), &result.size)) == CKR_OK)
        hand("text decrypted in parts", result);
}

void refuseTexts(CK_OBJECT_HANDLE publicKey)
{
    CK_MECHANISM mechanism = cipher(CKM_RSA_PKCS);
    Secret result;
    result.size = Secret::ROOM;
    Secret text("overlong text");
    did("C_EncryptInit", cryptoki->C_EncryptInit(session, &mechanism, publicKey));
    did("C_Encrypt overlong text", cryptoki->C_Encrypt(session, text.data(), text.size, result.data(), &result.size));
}

void derive(CK_OBJECT_HANDLE privateKey, const std::string& name, CK_EC_KDF_TYPE function, CK_ULONG length)
{
    Secret peer("peer of the " + name);
    CK_ECDH1_DERIVE_PARAMS parameters{function, 0, nullptr, peer.size, peer.data()};
    CK_MECHANISM mechanism{CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    std::vector<CK_ATTRIBUTE> wanted;
    if (length != 0)
        wanted.push_back(attribute(CKA_VALUE_LEN, length));
    CK_OBJECT_HANDLE key = 0;
    if (did("C_DeriveKey " + name,
            cryptoki->C_DeriveKey(session, &mechanism, privateKey, wanted.data(), count(wanted), &key)) != CKR_OK)
        return;
    Secret value;
    CK_ATTRIBUTE asked = {CKA_VALUE, value.data(), Secret::ROOM};
    did("C_GetAttributeValue " + name, cryptoki->C_GetAttributeValue(session, key, &asked, 1));
    value.size = asked.ulValueLen;
    hand(name, value);
}

void useRandomNumbers()
{
    Secret numbers;
    numbers.size = 48;
    did("C_GenerateRandom", cryptoki->C_GenerateRandom(session, numbers.data(), numbers.size));
    hand("random numbers", numbers);
    Secret seed("seed");
    did("C_SeedRandom", cryptoki->C_SeedRandom(session, seed.data(), seed.size));
}

void useAttributes(CK_OBJECT_HANDLE privateKey)
{
    Secret answer;
    for (const CK_ATTRIBUTE_TYPE type : {CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_VALUE}) {
        CK_ATTRIBUTE asked = {type, answer.data(), Secret::ROOM};
        did("C_GetAttributeValue " + std::to_string(type),
            cryptoki->C_GetAttributeValue(session, privateKey, &asked, 1));
    }
    Secret value("attribute to set");
    CK_ATTRIBUTE given = value.as(CKA_PRIVATE_EXPONENT);
    did("C_SetAttributeValue", cryptoki->C_SetAttributeValue(session, privateKey, &given, 1));
    CK_OBJECT_CLASS kind = CKO_PRIVATE_KEY;
    Secret wanted("attribute to find");
    std::array<CK_ATTRIBUTE, 2> criteria{attribute(CKA_CLASS, kind), wanted.as(CKA_PRIME_1)};
    did("C_FindObjectsInit by a secret", cryptoki->C_FindObjectsInit(session, criteria.data(), 2));
    did("C_FindObjectsFinal", cryptoki->C_FindObjectsFinal(session));
}

void useWhatIsNotSupported(CK_OBJECT_HANDLE privateKey)
{
    CK_MECHANISM mechanism = cipher(CKM_RSA_PKCS);
    CK_OBJECT_HANDLE key = 0;
    Secret text("text for what is not supported");
    Secret result;
    CK_ULONG size = Secret::ROOM;
    did("C_GenerateKey", cryptoki->C_GenerateKey(session, &mechanism, nullptr, 0, &key));
    did("C_WrapKey", cryptoki->C_WrapKey(session, &mechanism, privateKey, privateKey, result.data(), &size));
    did("C_UnwrapKey",
        cryptoki->C_UnwrapKey(session, &mechanism, privateKey, text.data(), text.size, nullptr, 0, &key));
    did("C_SetOperationState", cryptoki->C_SetOperationState(session, text.data(), text.size, 0, 0));
    did("C_DigestKey", cryptoki->C_DigestKey(session, privateKey));
    did("C_SignRecover", cryptoki->C_SignRecover(session, text.data(), text.size, result.data(), &size));
    did("C_DigestEncryptUpdate",
        cryptoki->C_DigestEncryptUpdate(session, text.data(), text.size, result.data(), &size));
}

/// What is in the midst of its work when the application ends: each in a session of its own.
void leaveOperations(CK_OBJECT_HANDLE rsaKey, CK_OBJECT_HANDLE ecKey)
{
    CK_MECHANISM mechanism{CKM_SHA256, nullptr, 0};
    {
        Secret text("text of a digest left");
        const CK_SESSION_HANDLE left = openSession();
        did("C_DigestInit left", cryptoki->C_DigestInit(left, &mechanism));
        did("C_DigestUpdate left", cryptoki->C_DigestUpdate(left, text.data(), text.size));
    }
    mechanism.mechanism = CKM_ECDSA;
    {
        Secret text("text of a signature left");
        const CK_SESSION_HANDLE left = openSession();
        did("C_SignInit left", cryptoki->C_SignInit(left, &mechanism, ecKey));
        did("C_SignUpdate left", cryptoki->C_SignUpdate(left, text.data(), text.size));
    }
    mechanism = cipher(CKM_RSA_PKCS);
    Secret ciphertext("ciphertext of a text not fetched");
    const CK_SESSION_HANDLE left = openSession();
    CK_ULONG size = 0;
    did("C_DecryptInit left", cryptoki->C_DecryptInit(left, &mechanism, rsaKey));
    did("C_Decrypt left", cryptoki->C_Decrypt(left, ciphertext.data(), ciphertext.size, nullptr, &size));
}

void useKeys()
{
    const CK_OBJECT_HANDLE rsaKey = keyNamed(CKO_PRIVATE_KEY, "rsa");
    const CK_OBJECT_HANDLE rsaPublicKey = keyNamed(CKO_PUBLIC_KEY, "rsa");
    const CK_OBJECT_HANDLE ecKey = keyNamed(CKO_PRIVATE_KEY, "ec");
    const CK_OBJECT_HANDLE ecPublicKey = keyNamed(CKO_PUBLIC_KEY, "ec");
    sign(CKM_SHA256_RSA_PKCS, rsaKey, rsaPublicKey, "text signed with SHA256-RSA");
    sign(CKM_ECDSA_SHA256, ecKey, ecPublicKey, "text signed with ECDSA-SHA256");
    sign(CKM_ECDSA, ecKey, ecPublicKey, "text signed as it is");
    encrypt(CKM_RSA_PKCS, rsaKey, rsaPublicKey, "text encrypted with PKCS");
    encrypt(CKM_RSA_PKCS_OAEP, rsaKey, rsaPublicKey, "text encrypted with OAEP");
    {
        Secret ciphertext("ciphertext from elsewhere");
        decrypt(CKM_RSA_PKCS, rsaKey, ciphertext, "text from elsewhere");
    }
    inItsOwnSession([&] { encryptInParts(rsaKey, rsaPublicKey); });
    refuseTexts(rsaPublicKey);
    derive(ecKey, "shared secret", CKD_NULL, 0);
    derive(ecKey, "cut shared secret", CKD_NULL, 16);
    derive(ecKey, "hashed shared secret", CKD_SHA256_KDF, 0);
    useAttributes(rsaKey);
    useWhatIsNotSupported(rsaKey);
    for (const CK_OBJECT_HANDLE each : find(CKO_PRIVATE_KEY)) { // Those that were generated and created, too.
        CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
        if (cryptoki->C_SignInit(session, &mechanism, each) != CKR_OK) {
            mechanism.mechanism = CKM_ECDSA;
            did("C_SignInit with each EC key", cryptoki->C_SignInit(session, &mechanism, each));
        }
        std::array<unsigned char, 40> text{}; // The strict front takes no bare hash with RSA.
        std::array<unsigned char, 1024> signature{};
        CK_ULONG size = signature.size();
        did("C_Sign with each key", cryptoki->C_Sign(session, text.data(), text.size(), signature.data(), &size));
    }
    leaveOperations(rsaKey, ecKey);
}

void begin(const char* file)
{
    void* library = dlopen(file, RTLD_NOW);
    if (library == nullptr)
        std::_Exit(11);
    const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
    getFunctionList(&cryptoki);
    did("C_Initialize", cryptoki->C_Initialize(nullptr));
    CK_ULONG number = 1;
    did("C_GetSlotList", cryptoki->C_GetSlotList(CK_TRUE, &slot, &number));
    session = openSession();
}

/// The search has to find what the parent puts here.
void plant()
{
    std::vector<unsigned char> planted(ask("what is planted"));
    receive(planted.data(), planted.size());
    stopAt("planted");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return 10;
    begin(argv[1]);
    useWrongPins();
    useRightPins();
    createRsaKey("created", true);
    createRsaKey("refused", false);
    createOtherObjects();
    generateKeyPairs();
    inItsOwnSession(digest);
    useRandomNumbers();
    useKeys();
    stopAt("used");
    did("C_Logout", cryptoki->C_Logout(session));
    did("C_Finalize", cryptoki->C_Finalize(nullptr));
    stopAt("finalised");
    plant();
    return 0;
}
