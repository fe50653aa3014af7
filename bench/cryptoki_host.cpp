#include "cryptoki_host.h"

#include "memory_map.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <dlfcn.h>
#include <unistd.h>

namespace bench
{
namespace
{

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/// Mebibytes of memory that the process holds.
double residentMemory()
{
    std::ifstream status("/proc/self/statm");
    double size = 0;
    double resident = 0;
    status >> size >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

CK_FUNCTION_LIST_PTR load(const std::string& file)
{
    void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::exit(1);
    }
    CK_FUNCTION_LIST_PTR p11 = nullptr;
    require(reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"))(&p11), "C_GetFunctionList");
    return p11;
}

std::array<unsigned char, 4> idOf(std::uint32_t number)
{
    return {static_cast<unsigned char>(number >> 24), static_cast<unsigned char>(number >> 16),
            static_cast<unsigned char>(number >> 8), static_cast<unsigned char>(number)};
}

CK_ULONG sizeOf(const ByteString& bytes)
{
    return static_cast<CK_ULONG>(bytes.size());
}

} // namespace

void require(CK_RV result, const char* call)
{
    if (result == CKR_OK)
        return;
    std::fprintf(stderr, "%s answers 0x%lx\n", call, static_cast<unsigned long>(result));
    std::exit(1);
}

Host::Host(const std::string& file, const std::string& pin)
    : pin_(pin), memoryBefore_(residentMemory()), partsBefore_(memoryByMapping()), p11_(load(file))
{
    CK_C_INITIALIZE_ARGS arguments = {};
    arguments.flags = CKF_OS_LOCKING_OK;
    require(p11_->C_Initialize(&arguments), "C_Initialize");
    chooseSlots();
    searchFirst();
    if (pin_.empty())
        return;
    for (const CK_SLOT_ID slot : slots_)
        login(slot);
    CK_OBJECT_CLASS publicKey = CKO_PUBLIC_KEY;
    keyPairs_ = static_cast<CK_ULONG>(find(openSession(), {{CKA_CLASS, &publicKey, sizeof publicKey}}).size());
}

void Host::chooseSlots()
{
    const auto start = Clock::now();
    CK_ULONG count = 0;
    require(p11_->C_GetSlotList(CK_TRUE, nullptr, &count), "C_GetSlotList");
    std::vector<CK_SLOT_ID> slots(count);
    require(p11_->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
    firstCalls_.slotListMilliseconds = millisecondsSince(start);
    for (const CK_SLOT_ID slot : slots) {
        CK_TOKEN_INFO info;
        require(p11_->C_GetTokenInfo(slot, &info), "C_GetTokenInfo");
        if (std::memcmp(info.label, TOKEN_LABEL, std::strlen(TOKEN_LABEL)) == 0)
            slots_.push_back(slot);
    }
    if (!slots_.empty())
        return;
    std::fprintf(stderr, "no token has a label that begins with \"%s\"\n", TOKEN_LABEL);
    std::exit(1);
}

/// Where a login is that of all tokens, the first one is enough.
void Host::login(CK_SLOT_ID slot) const
{
    std::string pin = pin_;
    const CK_RV result = p11_->C_Login(openSession(slot), CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                                       static_cast<CK_ULONG>(pin.size()));
    require(result == CKR_USER_ALREADY_LOGGED_IN ? CKR_OK : result, "C_Login");
}

void Host::searchFirst()
{
    const CK_SESSION_HANDLE session = openSession();
    CK_OBJECT_CLASS publicKey = CKO_PUBLIC_KEY;
    auto id = idOf(1);
    const auto start = Clock::now();
    find(session, {{CKA_CLASS, &publicKey, sizeof publicKey}, {CKA_ID, id.data(), static_cast<CK_ULONG>(id.size())}});
    firstCalls_.searchMilliseconds = millisecondsSince(start);
}

double Host::memory() const
{
    return residentMemory() - memoryBefore_;
}

std::map<std::string, double> Host::memoryParts() const
{
    std::map<std::string, double> parts = memoryByMapping();
    for (const auto& [kind, before] : partsBefore_)
        parts[kind] -= before;
    return parts;
}

void Host::end()
{
    require(p11_->C_Finalize(nullptr), "C_Finalize");
}

CK_SESSION_HANDLE Host::openSession(CK_SLOT_ID slot) const
{
    CK_SESSION_HANDLE session = 0;
    require(p11_->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session),
            "C_OpenSession");
    return session;
}

void Host::makeKeyPairs(CK_ULONG count) const
{
    const CK_SESSION_HANDLE session = openSession();
    for (auto number = static_cast<std::uint32_t>(keyPairs_ + 1); number <= count; ++number)
        makeKeyPair(session, number);
}

CK_OBJECT_HANDLE Host::makeKeyPair(CK_SESSION_HANDLE session, std::uint32_t number) const
{
    CK_BBOOL yes = CK_TRUE;
    CK_KEY_TYPE type = number == 1 ? CKK_RSA : CKK_EC;
    CK_ULONG bits = 2048;
    unsigned char exponent[] = {1, 0, 1};
    unsigned char curve[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    auto id = idOf(number);
    char label[] = "key pair of the benchmarks";
    std::vector<CK_ATTRIBUTE> ofPublic = {{CKA_TOKEN, &yes, sizeof yes},
                                          {CKA_KEY_TYPE, &type, sizeof type},
                                          {CKA_ID, id.data(), static_cast<CK_ULONG>(id.size())},
                                          {CKA_LABEL, label, sizeof label - 1}};
    std::vector<CK_ATTRIBUTE> ofPrivate = ofPublic;
    ofPublic.push_back({CKA_VERIFY, &yes, sizeof yes});
    ofPrivate.push_back({CKA_PRIVATE, &yes, sizeof yes});
    ofPrivate.push_back({CKA_SIGN, &yes, sizeof yes});
    if (type == CKK_RSA) {
        ofPublic.push_back({CKA_MODULUS_BITS, &bits, sizeof bits});
        ofPublic.push_back({CKA_PUBLIC_EXPONENT, exponent, sizeof exponent});
        ofPublic.push_back({CKA_ENCRYPT, &yes, sizeof yes});
        ofPrivate.push_back({CKA_DECRYPT, &yes, sizeof yes});
    } else {
        ofPublic.push_back({CKA_EC_PARAMS, curve, sizeof curve});
    }
    CK_MECHANISM mechanism = {type == CKK_RSA ? CKM_RSA_PKCS_KEY_PAIR_GEN : CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    CK_OBJECT_HANDLE publicKey = 0;
    CK_OBJECT_HANDLE privateKey = 0;
    require(p11_->C_GenerateKeyPair(session, &mechanism, ofPublic.data(), static_cast<CK_ULONG>(ofPublic.size()),
                                    ofPrivate.data(), static_cast<CK_ULONG>(ofPrivate.size()), &publicKey, &privateKey),
            "C_GenerateKeyPair");
    return privateKey;
}

std::vector<CK_OBJECT_HANDLE> Host::find(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE> criteria) const
{
    constexpr std::size_t PAGE = 4096;
    static thread_local std::vector<CK_OBJECT_HANDLE> page(PAGE);
    std::vector<CK_OBJECT_HANDLE> found;
    require(p11_->C_FindObjectsInit(session, criteria.data(), static_cast<CK_ULONG>(criteria.size())),
            "C_FindObjectsInit");
    CK_ULONG count = 0;
    do {
        require(p11_->C_FindObjects(session, page.data(), static_cast<CK_ULONG>(PAGE), &count), "C_FindObjects");
        found.insert(found.end(), page.begin(), page.begin() + static_cast<std::ptrdiff_t>(count));
    } while (count == PAGE);
    require(p11_->C_FindObjectsFinal(session), "C_FindObjectsFinal");
    return found;
}

CK_OBJECT_HANDLE Host::key(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass, std::uint32_t number) const
{
    auto id = idOf(number);
    const auto found = find(session, {{CKA_CLASS, &objectClass, sizeof objectClass},
                                      {CKA_ID, id.data(), static_cast<CK_ULONG>(id.size())}});
    require(found.size() == 1 ? CKR_OK : CKR_KEY_HANDLE_INVALID, "the search for a key");
    return found.front();
}

ByteString Host::sign(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, ByteString& data) const
{
    CK_MECHANISM mechanism = {type, nullptr, 0};
    ByteString signature(256);
    CK_ULONG length = sizeOf(signature);
    require(p11_->C_SignInit(session, &mechanism, key), "C_SignInit");
    require(p11_->C_Sign(session, data.data(), sizeOf(data), signature.data(), &length), "C_Sign");
    signature.resize(length);
    return signature;
}

void Host::verify(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, ByteString& data,
                  ByteString& signature) const
{
    CK_MECHANISM mechanism = {type, nullptr, 0};
    require(p11_->C_VerifyInit(session, &mechanism, key), "C_VerifyInit");
    require(p11_->C_Verify(session, data.data(), sizeOf(data), signature.data(), sizeOf(signature)), "C_Verify");
}

ByteString Host::encrypt(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, ByteString& data) const
{
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ByteString ciphertext(256);
    CK_ULONG length = sizeOf(ciphertext);
    require(p11_->C_EncryptInit(session, &mechanism, key), "C_EncryptInit");
    require(p11_->C_Encrypt(session, data.data(), sizeOf(data), ciphertext.data(), &length), "C_Encrypt");
    ciphertext.resize(length);
    return ciphertext;
}

ByteString Host::decrypt(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, ByteString& data) const
{
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ByteString plaintext(256);
    CK_ULONG length = sizeOf(plaintext);
    require(p11_->C_DecryptInit(session, &mechanism, key), "C_DecryptInit");
    require(p11_->C_Decrypt(session, data.data(), sizeOf(data), plaintext.data(), &length), "C_Decrypt");
    plaintext.resize(length);
    return plaintext;
}

ByteString Host::digest(CK_SESSION_HANDLE session, ByteString& data) const
{
    CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
    ByteString hash(32);
    CK_ULONG length = sizeOf(hash);
    require(p11_->C_DigestInit(session, &mechanism), "C_DigestInit");
    require(p11_->C_Digest(session, data.data(), sizeOf(data), hash.data(), &length), "C_Digest");
    return hash;
}

} // namespace bench
