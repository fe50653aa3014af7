#include "stress_thread.h"

#include <algorithm>
#include <iterator>
#include <thread>

#include "default_device.h"

// A call by its name, which is counted.
#define DID(function, ...) did(#function, p11_.function(__VA_ARGS__))
#define REFUSED(code, function, ...) answers(#function, p11_.function(__VA_ARGS__), code)

namespace
{

constexpr CK_FLAGS READ_WRITE = CKF_SERIAL_SESSION | CKF_RW_SESSION;
constexpr unsigned char RSA_PAIR = 2; ///< Numbers of the device's own pairs, which also are their IDs.
constexpr unsigned char EC_PAIR = 5;
constexpr std::size_t ROOM = 1024;
constexpr std::size_t IDENTIFIER_SIZE = 16;

template <typename Value>
CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, Value& value)
{
    return {type, &value, sizeof value};
}

CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, StressThread::ByteVector& value)
{
    return {type, value.data(), static_cast<CK_ULONG>(value.size())};
}

CK_ULONG sizeOf(const StressThread::ByteVector& bytes)
{
    return static_cast<CK_ULONG>(bytes.size());
}

} // namespace

StressThread::StressThread(StressWorld& world, int number, unsigned long seed, CK_SLOT_ID slot)
    : world_(world),
      p11_(world.p11),
      number_(number),
      token_(static_cast<std::size_t>(number) % TOKENS),
      slot_(slot),
      chance_(static_cast<std::mt19937::result_type>(seed * 1000 + static_cast<unsigned long>(number)))
{
    if (!StressWorld::IS_STRICT) // Its sessions outlive what happens to the device.
        DID(C_OpenSession, slot_, READ_WRITE, nullptr, nullptr, &session_);
}

StressThread::~StressThread()
{
    world_.count("C_CloseSession", p11_.C_CloseSession(session_));
}

void StressThread::run()
{
    constexpr Work ALL[] = {&StressThread::describe,
                            &StressThread::openAndClose,
                            &StressThread::logOutAndIn,
                            &StressThread::changePin,
                            &StressThread::closeAll,
                            &StressThread::findAndRead,
                            &StressThread::useCertificate,
                            &StressThread::generateAndUse,
                            &StressThread::signAndVerify,
                            &StressThread::encryptAndDecrypt,
                            &StressThread::digest,
                            &StressThread::digestInParts,
                            &StressThread::derive,
                            &StressThread::random,
                            &StressThread::callTheUnsupported,
                            &StressThread::encryptAndDecryptInParts};
    std::vector<Work> works(std::begin(ALL), std::end(ALL));
    do {
        std::shuffle(works.begin(), works.end(), chance_);
        for (const Work work : works) {
            if (beginSession())
                (this->*work)();
            ++world_.works;
        }
        ++round_;
    } while (!world_.isOver);
}

/// The strict front's sessions end when their token goes.
bool StressThread::beginSession()
{
    if (StressWorld::IS_STRICT && (session_ == 0 || !isCalm())) {
        if (session_ != 0)
            world_.count("C_CloseSession", p11_.C_CloseSession(session_));
        session_ = 0;
        mark_ = world_.disturbances[token_].mark();
        if (!DID(C_OpenSession, slot_, READ_WRITE, nullptr, nullptr, &session_)) {
            session_ = 0;
            std::this_thread::yield();
            return false;
        }
    }
    login();
    return true;
}

bool StressThread::isCalm() const
{
    return StressWorld::IS_STRICT && world_.disturbances[token_].isCalmSince(mark_);
}

bool StressThread::did(const char* function, CK_RV code)
{
    world_.count(function, code);
    if (code != CKR_OK && isCalm())
        world_.wrong(std::string(function) + " fails for no reason, " + std::to_string(code));
    return code == CKR_OK;
}

void StressThread::answers(const char* function, CK_RV code, CK_RV expected)
{
    world_.count(function, code);
    if (code != expected && isCalm())
        world_.wrong(std::string(function) + " answers another code, " + std::to_string(code));
}

/// Of the module's results, those that others may have a hand in are not looked at.
void StressThread::expect(bool holds, const char* what)
{
    if (!holds)
        world_.wrong(what);
}

void StressThread::login()
{
    std::string pin = StressWorld::PINS[token_];
    const CK_RV code = p11_.C_Login(session_, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                                    static_cast<CK_ULONG>(pin.size()));
    did("C_Login", code == CKR_USER_ALREADY_LOGGED_IN ? CKR_OK : code);
}

std::optional<std::vector<CK_OBJECT_HANDLE>> StressThread::find(CK_OBJECT_CLASS objectClass, CK_ATTRIBUTE criterion)
{
    CK_ATTRIBUTE criteria[] = {attribute(CKA_CLASS, objectClass), criterion};
    std::vector<CK_OBJECT_HANDLE> found(ROOM);
    CK_ULONG count = 0;
    if (!DID(C_FindObjectsInit, session_, criteria, 2))
        return {};
    const bool isDone = DID(C_FindObjects, session_, found.data(), ROOM, &count);
    DID(C_FindObjectsFinal, session_);
    found.resize(count);
    return isDone ? std::optional(found) : std::nullopt;
}

CK_OBJECT_HANDLE StressThread::findById(CK_OBJECT_CLASS objectClass, unsigned char id)
{
    const auto found = find(objectClass, attribute(CKA_ID, id));
    if (!found)
        return 0;
    expect(!found->empty() || !isCalm(), "a search finds nothing"); // Copies for other sessions come behind.
    return found->empty() ? 0 : found->front();
}

std::optional<StressThread::ByteVector> StressThread::value(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
{
    ByteVector bytes(ROOM);
    CK_ATTRIBUTE entry = attribute(type, bytes);
    if (!DID(C_GetAttributeValue, session_, object, &entry, 1))
        return {};
    bytes.resize(std::min<std::size_t>(entry.ulValueLen, ROOM));
    return bytes;
}

std::optional<StressThread::ByteVector> StressThread::sign(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key,
                                                           ByteVector data, bool inParts)
{
    CK_MECHANISM mechanism = {type, nullptr, 0};
    ByteVector signature(ROOM);
    CK_ULONG length = ROOM;
    if (!DID(C_SignInit, session_, &mechanism, key))
        return {};
    bool isDone = false;
    if (inParts)
        isDone = DID(C_SignUpdate, session_, data.data(), sizeOf(data)) &&
                 DID(C_SignFinal, session_, signature.data(), &length);
    else
        isDone = DID(C_Sign, session_, data.data(), sizeOf(data), signature.data(), &length);
    signature.resize(length);
    return isDone ? std::optional(signature) : std::nullopt;
}

void StressThread::verify(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, ByteVector data, ByteVector signature,
                          bool inParts)
{
    CK_MECHANISM mechanism = {type, nullptr, 0};
    if (!DID(C_VerifyInit, session_, &mechanism, key))
        return;
    CK_RV code = CKR_OK;
    if (!inParts) {
        code = p11_.C_Verify(session_, data.data(), sizeOf(data), signature.data(), sizeOf(signature));
        did("C_Verify", code);
    } else if (DID(C_VerifyUpdate, session_, data.data(), sizeOf(data))) {
        code = p11_.C_VerifyFinal(session_, signature.data(), sizeOf(signature));
        did("C_VerifyFinal", code);
    }
    expect(code != CKR_SIGNATURE_INVALID || !StressWorld::IS_STRICT, "a good signature is refused");
}

/// The double's signature says which key of which device made it. The module signs with the key that was looked up
/// last, by whatever session.
void StressThread::checkSignature(const ByteVector& signature, const ByteVector& identifier)
{
    const std::string name = StressWorld::NAMES[token_];
    expect(signature.size() >= 32 && std::equal(name.begin(), name.end(), signature.begin() + 24),
           "a signature is another token's");
    expect(!StressWorld::IS_STRICT || std::equal(identifier.begin(), identifier.end(), signature.begin()),
           "a signature is another key's");
}

void StressThread::destroyed(CK_OBJECT_HANDLE object)
{
    CK_ATTRIBUTE label = {CKA_LABEL, nullptr, 0};
    const CK_RV code = p11_.C_GetAttributeValue(session_, object, &label, 1);
    answers("C_GetAttributeValue", code, CKR_OBJECT_HANDLE_INVALID);
    expect(code != CKR_OK || !StressWorld::IS_STRICT, "a destroyed object is there");
}

void StressThread::describe()
{
    CK_INFO info{};
    CK_FUNCTION_LIST_PTR list = nullptr;
    DID(C_GetInfo, &info);
    DID(C_GetFunctionList, &list);
    expect(list == &p11_, "another function table");
    CK_SLOT_ID slots[8] = {};
    CK_ULONG length = 8;
    DID(C_GetSlotList, CK_FALSE, slots, &length);
    CK_SLOT_INFO slot{};
    CK_TOKEN_INFO token{};
    CK_MECHANISM_TYPE mechanisms[64] = {};
    CK_MECHANISM_INFO mechanism{};
    length = 64;
    DID(C_GetSlotInfo, slot_, &slot);
    DID(C_GetTokenInfo, slot_, &token);
    if (DID(C_GetMechanismList, slot_, mechanisms, &length))
        DID(C_GetMechanismInfo, slot_, mechanisms[0], &mechanism);
    CK_SLOT_ID changed = 0;
    world_.count("C_WaitForSlotEvent", p11_.C_WaitForSlotEvent(CKF_DONT_BLOCK, &changed, nullptr));
}

void StressThread::openAndClose()
{
    CK_SESSION_HANDLE session = 0;
    if (!DID(C_OpenSession, slot_, CKF_SERIAL_SESSION, nullptr, nullptr, &session))
        return;
    CK_SESSION_INFO info{};
    if (DID(C_GetSessionInfo, session, &info)) {
        expect(info.slotID == slot_ && info.flags == CKF_SERIAL_SESSION, "a session tells of another one");
        expect(info.state == CKS_RO_USER_FUNCTIONS || !isCalm(), "a session has another state");
    }
    DID(C_CloseSession, session);
}

void StressThread::logOutAndIn()
{
    constexpr int SELDOM = 8;
    if (round_ % SELDOM != number_ % SELDOM)
        return;
    world_.disturbances[token_].begin();
    DID(C_Logout, session_);
    login();
    world_.disturbances[token_].end();
}

void StressThread::changePin()
{
    std::string pin = StressWorld::PINS[token_];
    auto* bytes = reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data());
    const auto length = static_cast<CK_ULONG>(pin.size());
    DID(C_SetPIN, session_, bytes, length, bytes, length);
}

/// The module closes those of all threads, whose handles are then others'; it is asked for a slot that is not there.
void StressThread::closeAll()
{
    constexpr int SELDOM = 16;
    if (!StressWorld::IS_STRICT) {
        DID(C_CloseAllSessions, 99);
    } else if (round_ % SELDOM == number_ % SELDOM) {
        world_.disturbances[token_].begin();
        DID(C_CloseAllSessions, slot_);
        world_.disturbances[token_].end();
    }
}

void StressThread::findAndRead()
{
    const CK_OBJECT_HANDLE certificate = findById(CKO_CERTIFICATE, 1);
    if (certificate == 0)
        return;
    CK_ULONG size = 0;
    if (DID(C_GetObjectSize, session_, certificate, &size))
        expect(size != 0, "an object has no size");
    if (const auto der = value(certificate, CKA_VALUE))
        expect(*der == ByteVector{0x30, 0x03, 0x02, 0x01, 0x01}, "a certificate is another one");
    if (!StressWorld::IS_STRICT)
        return;
    CK_BBOOL no = CK_FALSE;
    CK_ATTRIBUTE place = attribute(CKA_TOKEN, no);
    CK_OBJECT_HANDLE copy = 0;
    if (!DID(C_CopyObject, session_, certificate, &place, 1, &copy))
        return;
    if (const auto der = value(copy, CKA_VALUE))
        expect(*der == ByteVector{0x30, 0x03, 0x02, 0x01, 0x01}, "a copy is of another certificate");
    DID(C_DestroyObject, session_, copy);
    destroyed(copy);
}

void StressThread::useCertificate()
{
    ByteVector der = StressWorld::derOf(number_, round_ % StressWorld::DERS);
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    CK_BBOOL yes = CK_TRUE;
    CK_ATTRIBUTE entries[] = {attribute(CKA_CLASS, objectClass), attribute(CKA_VALUE, der), attribute(CKA_TOKEN, yes)};
    CK_OBJECT_HANDLE certificate = 0;
    if (!DID(C_CreateObject, session_, entries, 3, &certificate))
        return;
    const auto stored = value(certificate, CKA_VALUE);
    expect(!stored || *stored == der || !StressWorld::IS_STRICT, "a created certificate is another one");
    const auto found = find(CKO_CERTIFICATE, attribute(CKA_VALUE, der));
    // An earlier one with these bytes may have been left by a call that failed.
    const bool isFound = found && std::find(found->begin(), found->end(), certificate) != found->end();
    expect(isFound || !isCalm(), "a search does not find a certificate");
    if (DID(C_DestroyObject, session_, certificate))
        destroyed(certificate);
}

void StressThread::generateAndUse()
{
    ByteVector curve = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    ByteVector label = {'k', static_cast<unsigned char>('0' + number_)};
    CK_BBOOL onToken = !StressWorld::IS_STRICT || round_ % 2 == 0 ? CK_TRUE : CK_FALSE;
    CK_KEY_TYPE keyType = CKK_EC;
    CK_MECHANISM mechanism = {CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    CK_ATTRIBUTE ofPublic[] = {attribute(CKA_EC_PARAMS, curve), attribute(CKA_TOKEN, onToken)};
    CK_ATTRIBUTE ofPrivate[] = {attribute(CKA_LABEL, label), attribute(CKA_TOKEN, onToken),
                                attribute(CKA_KEY_TYPE, keyType)};
    CK_OBJECT_HANDLE publicKey = 0;
    CK_OBJECT_HANDLE privateKey = 0;
    if (!DID(C_GenerateKeyPair, session_, &mechanism, ofPublic, 2, ofPrivate, 3, &publicKey, &privateKey))
        return;
    ByteVector renamed = {'r', static_cast<unsigned char>('0' + number_)};
    CK_ATTRIBUTE change = attribute(CKA_LABEL, renamed);
    if (DID(C_SetAttributeValue, session_, privateKey, &change, 1)) {
        const auto read = value(publicKey, CKA_LABEL);
        expect(!read || *read == renamed || !StressWorld::IS_STRICT, "a pair has another label");
    }
    const auto point = value(publicKey, CKA_EC_POINT);
    const auto signature = sign(CKM_ECDSA_SHA256, privateKey, ByteVector(20, 1), false);
    if (point && signature && StressWorld::IS_STRICT && point->size() == 67 && signature->size() == 64) {
        // What makes this pair different from all others stands in its point and in its identifier.
        expect(std::equal(point->begin() + 3, point->begin() + 11, signature->begin() + 8),
               "a signature is another pair's");
        verify(CKM_ECDSA_SHA256, publicKey, ByteVector(20, 1), *signature, false);
    }
    if (!DID(C_DestroyObject, session_, privateKey))
        return;
    destroyed(privateKey);
    if (StressWorld::IS_STRICT)
        DID(C_DestroyObject, session_, publicKey);
}

void StressThread::signAndVerify()
{
    const bool isRsa = round_ % 2 == 0;
    const bool inParts = round_ % 4 >= 2;
    const unsigned char id = isRsa ? RSA_PAIR : EC_PAIR;
    const CK_MECHANISM_TYPE type = isRsa ? CKM_SHA256_RSA_PKCS : CKM_ECDSA_SHA256;
    const CK_OBJECT_HANDLE privateKey = findById(CKO_PRIVATE_KEY, id);
    const CK_OBJECT_HANDLE publicKey = findById(CKO_PUBLIC_KEY, id);
    if (privateKey == 0 || publicKey == 0)
        return;
    const ByteVector data(30, static_cast<unsigned char>(number_));
    const auto signature = sign(type, privateKey, data, inParts);
    if (!signature)
        return;
    checkSignature(*signature, ByteVector(IDENTIFIER_SIZE, static_cast<unsigned char>(0xA0 + id)));
    verify(type, publicKey, data, *signature, inParts);
}

void StressThread::encryptAndDecrypt()
{
    const CK_OBJECT_HANDLE privateKey = findById(CKO_PRIVATE_KEY, RSA_PAIR);
    const CK_OBJECT_HANDLE publicKey = findById(CKO_PUBLIC_KEY, RSA_PAIR);
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ByteVector data(20, static_cast<unsigned char>(number_));
    ByteVector cipher(ROOM);
    ByteVector plain(ROOM);
    CK_ULONG length = ROOM;
    if (publicKey == 0 || privateKey == 0 || !DID(C_EncryptInit, session_, &mechanism, publicKey) ||
        !DID(C_Encrypt, session_, data.data(), sizeOf(data), cipher.data(), &length))
        return;
    cipher.resize(length);
    length = ROOM;
    if (!DID(C_DecryptInit, session_, &mechanism, privateKey))
        return;
    bool isDone = DID(C_Decrypt, session_, cipher.data(), sizeOf(cipher), plain.data(), &length);
    while (!isDone && !StressWorld::IS_STRICT) { // The module's operation goes on, without the PIN that others took.
        login();
        length = ROOM;
        isDone = DID(C_Decrypt, session_, cipher.data(), sizeOf(cipher), plain.data(), &length);
    }
    plain.resize(length);
    expect(!isDone || plain == data, "a plaintext is another one");
}

void StressThread::encryptAndDecryptInParts()
{
    ByteVector data(20, static_cast<unsigned char>(number_));
    ByteVector cipher(ROOM);
    ByteVector plain(ROOM);
    CK_ULONG length = ROOM;
    if (!StressWorld::IS_STRICT) {
        REFUSED(CKR_FUNCTION_NOT_SUPPORTED, C_EncryptUpdate, session_, data.data(), 20, cipher.data(), &length);
        REFUSED(CKR_FUNCTION_NOT_SUPPORTED, C_EncryptFinal, session_, cipher.data(), &length);
        REFUSED(CKR_FUNCTION_NOT_SUPPORTED, C_DecryptUpdate, session_, data.data(), 20, plain.data(), &length);
        REFUSED(CKR_FUNCTION_NOT_SUPPORTED, C_DecryptFinal, session_, plain.data(), &length);
        REFUSED(CKR_FUNCTION_NOT_SUPPORTED, C_CopyObject, session_, 1, nullptr, 0, nullptr);
        return;
    }
    const CK_OBJECT_HANDLE privateKey = findById(CKO_PRIVATE_KEY, RSA_PAIR);
    const CK_OBJECT_HANDLE publicKey = findById(CKO_PUBLIC_KEY, RSA_PAIR);
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    if (publicKey == 0 || privateKey == 0 || !DID(C_EncryptInit, session_, &mechanism, publicKey) ||
        !DID(C_EncryptUpdate, session_, data.data(), 20, cipher.data(), &length))
        return;
    length = ROOM;
    if (!DID(C_EncryptFinal, session_, cipher.data(), &length))
        return;
    cipher.resize(length);
    length = ROOM;
    if (!DID(C_DecryptInit, session_, &mechanism, privateKey) ||
        !DID(C_DecryptUpdate, session_, cipher.data(), sizeOf(cipher), plain.data(), &length))
        return;
    length = ROOM;
    if (!DID(C_DecryptFinal, session_, plain.data(), &length))
        return;
    plain.resize(length);
    expect(plain == data, "a plaintext in parts is another one");
}

/// The double's hash is the data, filled up with its length.
void StressThread::digest()
{
    CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
    ByteVector data(1 + static_cast<std::size_t>(round_ % 30), static_cast<unsigned char>(number_));
    ByteVector hash(64);
    CK_ULONG length = 64;
    if (!DID(C_DigestInit, session_, &mechanism) ||
        !DID(C_Digest, session_, data.data(), sizeOf(data), hash.data(), &length))
        return;
    hash.resize(length);
    const auto filling = static_cast<unsigned char>(data.size());
    data.resize(32, filling);
    expect(hash == data, "a digest is another one");
}

void StressThread::digestInParts()
{
    CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
    ByteVector data(10, static_cast<unsigned char>(number_));
    ByteVector hash(64);
    CK_ULONG length = 64;
    if (!DID(C_DigestInit, session_, &mechanism) || !DID(C_DigestUpdate, session_, data.data(), 10) ||
        !DID(C_DigestUpdate, session_, data.data(), 10) || !DID(C_DigestFinal, session_, hash.data(), &length))
        return;
    hash.resize(length);
    data.resize(20, static_cast<unsigned char>(number_));
    data.resize(32, 20);
    expect(hash == data, "a digest in parts is another one");
}

void StressThread::derive()
{
    const CK_OBJECT_HANDLE base = findById(CKO_PRIVATE_KEY, EC_PAIR);
    ByteVector point(65, static_cast<unsigned char>(round_));
    point[0] = 0x04;
    CK_ECDH1_DERIVE_PARAMS parameter = {CKD_NULL, 0, nullptr, 65, point.data()};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
    CK_OBJECT_HANDLE secret = 0;
    if (base == 0 || !DID(C_DeriveKey, session_, &mechanism, base, nullptr, 0, &secret))
        return;
    if (const auto derived = value(secret, CKA_VALUE))
        expect(*derived == ByteVector(point.begin() + 1, point.end()), "a secret is another one");
    if (StressWorld::IS_STRICT && DID(C_DestroyObject, session_, secret))
        destroyed(secret);
}

void StressThread::random()
{
    ByteVector bytes(16);
    if (DID(C_GenerateRandom, session_, bytes.data(), 16))
        expect(bytes == ByteVector(16, 0x5A), "the random bytes are others");
}

void StressThread::callTheUnsupported()
{
    constexpr CK_RV CODE = CKR_FUNCTION_NOT_SUPPORTED;
    constexpr CK_RV PARALLEL = StressWorld::IS_STRICT ? CKR_FUNCTION_NOT_PARALLEL : CODE;
    REFUSED(CODE, C_InitToken, slot_, nullptr, 0, nullptr);
    REFUSED(CODE, C_InitPIN, session_, nullptr, 0);
    REFUSED(CODE, C_GetOperationState, session_, nullptr, nullptr);
    REFUSED(CODE, C_SetOperationState, session_, nullptr, 0, 0, 0);
    REFUSED(CODE, C_DigestKey, session_, 1);
    REFUSED(CODE, C_SignRecoverInit, session_, nullptr, 1);
    REFUSED(CODE, C_SignRecover, session_, nullptr, 0, nullptr, nullptr);
    REFUSED(CODE, C_VerifyRecoverInit, session_, nullptr, 1);
    REFUSED(CODE, C_VerifyRecover, session_, nullptr, 0, nullptr, nullptr);
    REFUSED(CODE, C_DigestEncryptUpdate, session_, nullptr, 0, nullptr, nullptr);
    REFUSED(CODE, C_DecryptDigestUpdate, session_, nullptr, 0, nullptr, nullptr);
    REFUSED(CODE, C_SignEncryptUpdate, session_, nullptr, 0, nullptr, nullptr);
    REFUSED(CODE, C_DecryptVerifyUpdate, session_, nullptr, 0, nullptr, nullptr);
    REFUSED(CODE, C_GenerateKey, session_, nullptr, nullptr, 0, nullptr);
    REFUSED(CODE, C_WrapKey, session_, nullptr, 1, 1, nullptr, nullptr);
    REFUSED(CODE, C_UnwrapKey, session_, nullptr, 1, nullptr, 0, nullptr, 0, nullptr);
    REFUSED(StressWorld::IS_STRICT ? CKR_RANDOM_SEED_NOT_SUPPORTED : CODE, C_SeedRandom, session_, nullptr, 0);
    REFUSED(PARALLEL, C_GetFunctionStatus, session_);
    REFUSED(PARALLEL, C_CancelFunction, session_);
}
