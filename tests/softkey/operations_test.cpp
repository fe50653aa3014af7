// Every operation of the interface with one argument of a valid call spoilt at a time, without the right PIN, and on a
// key that was unplugged: the documented status, no crash, nothing changed.
#include "world.h"

#include "crypto/keys.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace softkey::test
{
namespace
{

/// What of a call can be spoilt.
enum Part : unsigned {
    DEVICE = 1 << 0,
    INSTANCE = 1 << 1,      ///< May not be null.
    INSTANCE_KIND = 1 << 2, ///< May be null, but not foreign.
    IDENTIFIER = 1 << 3,
    PIN_TEXT = 1 << 4,
    INPUT = 1 << 5,
    INPUT_LENGTH = 1 << 6,
    INPUT_NOT_EMPTY = 1 << 7,
    PUBLIC_KEY = 1 << 8,
    SIGNATURE = 1 << 9,
    OUTPUT = 1 << 10,
    OUTPUT_LENGTH = 1 << 11,
    ROOM = 1 << 12,
};
constexpr unsigned WHOLE_INSTANCE = INSTANCE | INSTANCE_KIND;
constexpr unsigned WHOLE_INPUT = INPUT | INPUT_LENGTH | INPUT_NOT_EMPTY;
constexpr unsigned PRIVATE_KEY_USE = DEVICE | WHOLE_INSTANCE | IDENTIFIER | PIN_TEXT;

struct Arguments {
    const char* device = nullptr;
    void* instance = nullptr;
    const unsigned char* identifier = nullptr;
    const char* pin = nullptr;
    const unsigned char* input = nullptr;
    int inputLength = 0;
    const unsigned char* publicKey = nullptr;
    int publicKeyLength = 0;
    const unsigned char* signature = nullptr;
    int signatureLength = 0;
    bool withOutput = true;
    bool withOutputLength = true;
    int room = 1024;
};

constexpr int NOT_TRIED = -1; ///< The call would really use that much memory.

struct Operation {
    const char* name;
    unsigned parts;
    Arguments valid;
    std::function<int(const Arguments&)> run;
    /// What a length of INT_MAX is answered with.
    int longInput = NOT_TRIED;
    int longPublicKey = NOT_TRIED;
    int longSignature = NOT_TRIED;
    /// What is answered for a status.
    std::function<int(int)> answered = [](int status) { return status; };
};

struct Spoiling {
    const char* name;
    unsigned part;
    SoftkeyStatus status;
    std::function<void(Arguments&)> spoil;
};

using enum SoftkeyStatus;

/// Statuses of an operation that says only that a PIN was not checked.
int asCheckOfPin(int status)
{
    for (const SoftkeyStatus told : {Ok, DeviceRemoved, DeviceUnreachable, PinRequired, PinIncorrect, PinLocked}) {
        if (status == code(told))
            return status;
    }
    return STATUS_CHECK_NOT_POSSIBLE;
}

int asYesOrNo(int status)
{
    return status == 0 ? 0 : 1;
}

class OperationsTest : public SoftkeyTest
{
protected:
    OperationsTest()
        : rsa(store(keyOf(oaepVectorKey()).get())),
          ec(generate(KEY_KIND_EC_P256, "label")),
          rsaInfo(publicKeyInfo(rsa)),
          hash(32, 1),
          rsaSignature(sign(rsa, hash)),
          ecSignature(sign(ec, hash))
    {
        certificate.der = certificateNamed("Operations");
        EXPECT_EQ(velkor_importCertificate(SERIAL, PIN, &certificate, instance), 0);
        int size = 0;
        EXPECT_EQ(velkor_encrypt(EncryptionType::Rsa1024, PaddingMode::Oaep, hash.data(), 32, out.data(), &size,
                                 rsaInfo.data(), length(rsaInfo), instance),
                  0);
        ciphertext.assign(out.begin(), out.begin() + size);
        createKey(cheapSettings("OUT"));
        otherProcess("OUT")->file().setPlugged(false);
        clear();
    }

    void clear()
    {
        out.assign(1024, 0xee);
        outLength = 1024;
        std::free(allocated);
        allocated = nullptr;
        context = nullptr;
    }
    ~OperationsTest() override { clear(); }

    bool nothingWasAnswered() const { return out == Data(1024, 0xee) && allocated == nullptr && context == nullptr; }

    /// All that a key holds, as a text.
    std::string contents() const
    {
        std::string text;
        for (const VelkorKeyPair& key : keyPairs())
            text += toHex(key.keyIdentifier) + key.label + toHex(key.objectId) + " ";
        for (const VelkorCertificate& each : certificates())
            text += toHex(each.certificateIdentifier) + each.label + toHex(each.objectId) + " ";
        return text;
    }

    unsigned char* output(const Arguments& a) { return a.withOutput ? out.data() : nullptr; }
    unsigned char** allocatedOutput(const Arguments& a) { return a.withOutput ? &allocated : nullptr; }
    int* lengthOf(const Arguments& a)
    {
        outLength = a.room;
        return a.withOutputLength ? &outLength : nullptr;
    }
    void* begun() const
    {
        void* started = nullptr;
        EXPECT_EQ(velkor_initHash(SERIAL, HASH_SHA256, &started, instance), 0);
        return started;
    }
    int end(void* started)
    {
        Data ignored(64);
        int size = 0;
        return velkor_finalHash(started, ignored.data(), &size, instance);
    }

    Arguments onDevice() const
    {
        Arguments a;
        a.device = SERIAL;
        a.instance = instance;
        a.pin = PIN;
        return a;
    }
    Arguments onKey(const VelkorKeyPair& key, const Data& input) const
    {
        Arguments a = onDevice();
        a.identifier = key.keyIdentifier;
        a.input = input.data();
        a.inputLength = length(input);
        return a;
    }
    Arguments withPublicKey(const VelkorKeyPair& key, const Data& signature) const
    {
        Arguments a = onKey(key, hash);
        a.publicKey = key.publicKey;
        a.publicKeyLength = key.publicKeyLength;
        a.signature = signature.data();
        a.signatureLength = length(signature);
        return a;
    }

    std::vector<Operation> deviceOperations();
    std::vector<Operation> hashOperations();
    std::vector<Operation> keyOperations();
    std::vector<Operation> publicKeyOperations();
    std::vector<Operation> changes();
    std::vector<Operation> allOperations();

    void expectEachArgumentChecked(const Operation& operation);
    void expectRefused(const Operation& operation, const Arguments& arguments, int status);

    const VelkorKeyPair rsa;
    const VelkorKeyPair ec;
    const Data rsaInfo;
    const Data hash;
    const Data rsaSignature;
    const Data ecSignature;
    Data ciphertext;
    VelkorCertificate certificate;
    Data out = Data(1024);
    int outLength = 1024;
    unsigned char* allocated = nullptr;
    void* context = nullptr;
};

std::vector<Operation> OperationsTest::deviceOperations()
{
    return {
        {.name = "initDevice",
         .parts = DEVICE | WHOLE_INSTANCE,
         .valid = onDevice(),
         .run = [](const Arguments& a) { return velkor_initDevice(a.device, true, a.instance); }},
        {.name = "validatePassword",
         .parts = DEVICE | WHOLE_INSTANCE | PIN_TEXT,
         .valid = onDevice(),
         .run =
             [](const Arguments& a) {
                 return velkor_validatePassword(a.device, a.pin, USER_TYPE_USER, nullptr, a.instance);
             },
         .answered = asCheckOfPin},
        {.name = "changeUserPassword",
         .parts = DEVICE | WHOLE_INSTANCE | PIN_TEXT,
         .valid = onDevice(),
         .run =
             [](const Arguments& a) {
                 return velkor_changeUserPassword(a.device, a.pin, PIN, nullptr, false, false, a.instance) ? 0 : 1;
             },
         .answered = asYesOrNo},
        {.name = "generateRamdomNumber", // The instance may be null.
         .parts = DEVICE | INSTANCE_KIND | INPUT_LENGTH | INPUT_NOT_EMPTY | OUTPUT,
         .valid = onKey(ec, hash),
         .run =
             [this](const Arguments& a) {
                 return velkor_generateRamdomNumber(a.device, a.inputLength, output(a), true, a.instance);
             }},
    };
}

std::vector<Operation> OperationsTest::hashOperations()
{
    return {
        {.name = "initHash",
         .parts = DEVICE | WHOLE_INSTANCE | OUTPUT,
         .valid = onDevice(),
         .run =
             [this](const Arguments& a) {
                 return velkor_initHash(a.device, HASH_SHA256, a.withOutput ? &context : nullptr, a.instance);
             }},
        {.name = "updateHash",
         .parts = WHOLE_INSTANCE | WHOLE_INPUT,
         .valid = onKey(ec, hash),
         .run =
             [this](const Arguments& a) {
                 void* started = begun();
                 const int status = velkor_updateHash(started, a.input, a.inputLength, a.instance);
                 EXPECT_EQ(end(started), 0);
                 return status;
             }},
        {.name = "finalHash",
         .parts = WHOLE_INSTANCE | OUTPUT | OUTPUT_LENGTH,
         .valid = onDevice(),
         .run = [this](const Arguments& a) { return velkor_finalHash(begun(), output(a), lengthOf(a), a.instance); }},
    };
}

std::vector<Operation> OperationsTest::keyOperations()
{
    const auto signing = [this](const Arguments& a) {
        return velkor_signHash(a.device, a.identifier, a.pin, a.input, a.inputLength, output(a), lengthOf(a), false,
                               a.instance, false);
    };
    constexpr unsigned PARTS = PRIVATE_KEY_USE | WHOLE_INPUT | OUTPUT | OUTPUT_LENGTH;
    return {
        {.name = "signHash with RSA",
         .parts = PARTS | ROOM,
         .valid = onKey(rsa, hash),
         .run = signing,
         .longInput = code(DataLength)},
        {.name = "signHash with EC", // Of a long input the leftmost bits count.
         .parts = PARTS | ROOM,
         .valid = onKey(ec, hash),
         .run = signing,
         .longInput = 0},
        {.name = "decrypt",
         .parts = PARTS,
         .valid = onKey(rsa, ciphertext),
         .run =
             [this](const Arguments& a) {
                 return velkor_decrypt(a.device, a.identifier, a.pin, a.input, a.inputLength, allocatedOutput(a),
                                       lengthOf(a), false, a.instance);
             },
         .longInput = code(DataLength)},
        {.name = "ecdhDerive",
         .parts = PARTS,
         .valid =
             [this] {
                 Arguments a = onKey(ec, hash);
                 a.input = ec.publicKey;
                 a.inputLength = ec.publicKeyLength;
                 return a;
             }(),
         .run =
             [this](const Arguments& a) {
                 return velkor_ecdhDerive(a.device, a.identifier, a.pin, a.input, a.inputLength, allocatedOutput(a),
                                          lengthOf(a), a.instance);
             },
         .longInput = code(BadPublicKey)},
    };
}

std::vector<Operation> OperationsTest::publicKeyOperations()
{
    const auto verifying = [](KeyKind kind) {
        return [kind](const Arguments& a) {
            return velkor_verifySignatureHash(kind, a.device, a.input, a.inputLength, a.publicKey, a.publicKeyLength,
                                              a.signature, a.signatureLength, a.instance, false);
        };
    };
    constexpr unsigned VERIFYING = DEVICE | WHOLE_INSTANCE | WHOLE_INPUT | PUBLIC_KEY | SIGNATURE;
    Arguments encryption = onKey(rsa, hash);
    encryption.publicKey = rsaInfo.data();
    encryption.publicKeyLength = length(rsaInfo);
    Arguments parsing = onDevice();
    parsing.input = certificate.der.data();
    parsing.inputLength = length(certificate.der);
    return {
        {.name = "verifySignatureHash with RSA",
         .parts = VERIFYING,
         .valid = withPublicKey(rsa, rsaSignature),
         .run = verifying(KEY_KIND_RSA_1024),
         .longInput = code(SignatureInvalid),
         .longPublicKey = code(BadPublicKey),
         .longSignature = code(SignatureInvalid)},
        {.name = "verifySignatureHash with EC",
         .parts = VERIFYING,
         .valid = withPublicKey(ec, ecSignature),
         .run = verifying(KEY_KIND_EC_P256),
         .longInput = 0,
         .longPublicKey = code(BadPublicKey),
         .longSignature = code(SignatureInvalid)},
        {.name = "encrypt",
         .parts = WHOLE_INSTANCE | WHOLE_INPUT | PUBLIC_KEY | OUTPUT | OUTPUT_LENGTH,
         .valid = encryption,
         .run =
             [this](const Arguments& a) {
                 return velkor_encrypt(EncryptionType::Rsa1024, PaddingMode::Oaep, a.input, a.inputLength, output(a),
                                       lengthOf(a), a.publicKey, a.publicKeyLength, a.instance);
             },
         .longInput = code(DataLength),
         .longPublicKey = code(BadPublicKey)},
        {.name = "getCertificateDetails",
         .parts = WHOLE_INPUT,
         .valid = parsing,
         .run =
             [](const Arguments& a) {
                 CertificateDetails details;
                 return velkor_getCertificateDetails(a.input, a.inputLength, details, a.instance);
             },
         .longInput = code(BadCertificate)},
    };
}

std::vector<Operation> OperationsTest::changes()
{
    constexpr unsigned STORING = DEVICE | WHOLE_INSTANCE | PIN_TEXT | OUTPUT;
    Arguments ofCertificate = onDevice();
    ofCertificate.identifier = certificate.certificateIdentifier;
    return {
        {.name = "importCertificate",
         .parts = STORING,
         .valid = onDevice(),
         .run =
             [this](const Arguments& a) {
                 VelkorCertificate request = certificate;
                 return velkor_importCertificate(a.device, a.pin, a.withOutput ? &request : nullptr, a.instance);
             }},
        {.name = "importPfx",
         .parts = STORING,
         .valid = onDevice(),
         .run =
             [](const Arguments& a) {
                 const RsaVectorKey key = signatureVectorKey();
                 ImportPFXDetails request;
                 request.kind = IMPORT_KIND_RSA_COMPONENTS;
                 request.modulus = key.modulus;
                 request.privateExponent = key.privateExponent;
                 request.prime1 = key.prime1;
                 return velkor_importPfx(a.device, a.pin, a.withOutput ? &request : nullptr, a.instance);
             }},
        {.name = "generateKeyPair",
         .parts = STORING,
         .valid = onDevice(),
         .run =
             [](const Arguments& a) {
                 VelkorKeyPair request;
                 request.keyKind = KEY_KIND_EC_P256;
                 return velkor_generateKeyPair(a.device, a.pin, a.withOutput ? &request : nullptr, a.instance);
             }},
        {.name = "updateKeyPairDetails", // Without an object ID it stays as it is.
         .parts = PRIVATE_KEY_USE | INPUT | INPUT_LENGTH,
         .valid = onKey(ec, hash),
         .run =
             [](const Arguments& a) {
                 return velkor_updateKeyPairDetails(a.device, a.identifier, a.pin, "new", a.input, a.inputLength,
                                                    a.instance);
             },
         .longInput = code(BadArgument)},
        {.name = "deleteKeyPair",
         .parts = PRIVATE_KEY_USE,
         .valid = onKey(ec, hash),
         .run =
             [](const Arguments& a) { return velkor_deleteKeyPair(a.device, a.identifier, a.pin, false, a.instance); }},
        {.name = "deleteCertificate",
         .parts = PRIVATE_KEY_USE,
         .valid = ofCertificate,
         .run = [](const Arguments& a) { return velkor_deleteCertificate(a.device, a.identifier, a.pin, a.instance); }},
    };
}

std::vector<Operation> OperationsTest::allOperations()
{
    std::vector<Operation> all;
    for (const auto& group : {deviceOperations(), hashOperations(), keyOperations(), publicKeyOperations(), changes()})
        all.insert(all.end(), group.begin(), group.end());
    return all;
}

int notAnInstance = 0;

const std::vector<Spoiling>& spoilings()
{
    static const Data unknown(KEY_IDENTIFIER_SIZE, 1);
    static const std::vector<Spoiling> all = {
        {"no device", DEVICE, BadArgument, [](Arguments& a) { a.device = nullptr; }},
        {"empty device", DEVICE, DeviceRemoved, [](Arguments& a) { a.device = ""; }},
        {"unknown device", DEVICE, DeviceRemoved, [](Arguments& a) { a.device = "NONE"; }},
        {"device elsewhere", DEVICE, DeviceRemoved, [](Arguments& a) { a.device = "../KEY1"; }},
        {"device with a line end", DEVICE, DeviceRemoved, [](Arguments& a) { a.device = "KEY1\n"; }},
        {"unplugged device", DEVICE, DeviceRemoved, [](Arguments& a) { a.device = "OUT"; }},
        {"no instance", INSTANCE, BadInstance, [](Arguments& a) { a.instance = nullptr; }},
        {"foreign instance", INSTANCE_KIND, BadInstance, [](Arguments& a) { a.instance = &notAnInstance; }},
        {"no identifier", IDENTIFIER, BadArgument, [](Arguments& a) { a.identifier = nullptr; }},
        {"unknown identifier", IDENTIFIER, NoSuchObject, [](Arguments& a) { a.identifier = unknown.data(); }},
        {"no PIN", PIN_TEXT, BadArgument, [](Arguments& a) { a.pin = nullptr; }},
        {"no input", INPUT, BadArgument, [](Arguments& a) { a.input = nullptr; }},
        {"input of 0", INPUT_NOT_EMPTY, BadArgument, [](Arguments& a) { a.inputLength = 0; }},
        {"input of -1", INPUT_LENGTH, BadArgument, [](Arguments& a) { a.inputLength = -1; }},
        {"input of INT_MIN", INPUT_LENGTH, BadArgument, [](Arguments& a) { a.inputLength = INT_MIN; }},
        {"no public key", PUBLIC_KEY, BadArgument, [](Arguments& a) { a.publicKey = nullptr; }},
        {"public key of 0", PUBLIC_KEY, BadArgument, [](Arguments& a) { a.publicKeyLength = 0; }},
        {"public key of -1", PUBLIC_KEY, BadArgument, [](Arguments& a) { a.publicKeyLength = -1; }},
        {"public key of INT_MIN", PUBLIC_KEY, BadArgument, [](Arguments& a) { a.publicKeyLength = INT_MIN; }},
        {"public key cut", PUBLIC_KEY, BadPublicKey, [](Arguments& a) { a.publicKeyLength -= 1; }},
        {"no signature", SIGNATURE, BadArgument, [](Arguments& a) { a.signature = nullptr; }},
        {"signature of 0", SIGNATURE, BadArgument, [](Arguments& a) { a.signatureLength = 0; }},
        {"signature of -1", SIGNATURE, BadArgument, [](Arguments& a) { a.signatureLength = -1; }},
        {"signature of INT_MIN", SIGNATURE, BadArgument, [](Arguments& a) { a.signatureLength = INT_MIN; }},
        {"signature cut", SIGNATURE, SignatureInvalid, [](Arguments& a) { a.signatureLength -= 1; }},
        {"no output", OUTPUT, BadArgument, [](Arguments& a) { a.withOutput = false; }},
        {"no output length", OUTPUT_LENGTH, BadArgument, [](Arguments& a) { a.withOutputLength = false; }},
        {"room of 0", ROOM, BadArgument, [](Arguments& a) { a.room = 0; }},
        {"room of -1", ROOM, BadArgument, [](Arguments& a) { a.room = -1; }},
        {"room of INT_MIN", ROOM, BadArgument, [](Arguments& a) { a.room = INT_MIN; }},
        {"room of 63", ROOM, BufferTooSmall, [](Arguments& a) { a.room = 63; }},
    };
    return all;
}

void OperationsTest::expectRefused(const Operation& operation, const Arguments& arguments, int status)
{
    EXPECT_EQ(operation.run(arguments), operation.answered(status));
    EXPECT_TRUE(nothingWasAnswered());
    EXPECT_EQ(outLength, arguments.room);
    clear();
    outLength = arguments.room;
}

void OperationsTest::expectEachArgumentChecked(const Operation& operation)
{
    outLength = operation.valid.room;
    for (const Spoiling& spoiling : spoilings()) {
        if ((operation.parts & spoiling.part) == 0)
            continue;
        SCOPED_TRACE(spoiling.name);
        Arguments arguments = operation.valid;
        spoiling.spoil(arguments);
        outLength = arguments.room;
        expectRefused(operation, arguments, code(spoiling.status));
    }
    const auto tryLength = [&](int Arguments::*field, int status) {
        if (status == NOT_TRIED)
            return;
        Arguments arguments = operation.valid;
        arguments.*field = INT_MAX;
        EXPECT_EQ(operation.run(arguments), status) << "a length of INT_MAX";
        clear();
    };
    tryLength(&Arguments::inputLength, operation.longInput);
    tryLength(&Arguments::publicKeyLength, operation.longPublicKey);
    tryLength(&Arguments::signatureLength, operation.longSignature);
}

TEST_F(OperationsTest, EveryArgumentIsChecked)
{
    const std::vector<Operation> operations = allOperations();
    const Data before = readFile(keyPath());
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        expectEachArgumentChecked(operation);
    }
    EXPECT_EQ(readFile(keyPath()), before);
    for (const Operation& operation : operations) {
        EXPECT_EQ(operation.run(operation.valid), 0) << operation.name << ": the call was not valid to begin with";
        clear();
    }
}

TEST_F(OperationsTest, KeyUseAndChangesNeedTheRightPin)
{
    const std::string before = contents();
    const auto expectRefusals = [&](const auto& pinFor, SoftkeyStatus status, int triesAfter) {
        for (const Operation& operation : allOperations()) {
            if ((operation.parts & PIN_TEXT) == 0)
                continue;
            SCOPED_TRACE(operation.name);
            const std::string pin = pinFor(operation);
            Arguments arguments = operation.valid;
            arguments.pin = pin.c_str();
            expectRefused(operation, arguments, code(status));
            EXPECT_EQ(triesLeft(), triesAfter);
            if (status == PinIncorrect) {
                EXPECT_EQ(velkor_validatePassword(SERIAL, PIN, USER_TYPE_USER, nullptr, instance), 0);
            }
        }
    };
    const auto always = [](const char* pin) { return [pin](const Operation&) { return std::string(pin); }; };
    // A PIN that was refused once is refused again without cost.
    const auto anotherWrongPin = [](const Operation& operation) { return std::string(WRONG_PIN) + operation.name; };
    expectRefusals(always(""), PinRequired, 5);
    expectRefusals(anotherWrongPin, PinIncorrect, 4);
    EXPECT_EQ(velkor_validatePassword(SERIAL, SO_PIN, USER_TYPE_USER, nullptr, instance), code(PinIncorrect));
    EXPECT_EQ(velkor_validatePassword(SERIAL, PIN, USER_TYPE_USER, nullptr, instance), 0);
    expectRefusals(always(SO_PIN), PinIncorrect, 5);
    for (int i = 0; i < 5; ++i)
        velkor_validatePassword(SERIAL, ("wrong" + std::to_string(i)).c_str(), USER_TYPE_USER, nullptr, instance);
    expectRefusals(always(PIN), PinLocked, 0);
    expectRefusals(always(WRONG_PIN), PinLocked, 0);
    EXPECT_EQ(contents(), before);
}

TEST_F(OperationsTest, EveryOperationOnAnUnpluggedKeySaysThatItHasGone)
{
    const std::vector<Operation> operations = allOperations();
    EXPECT_EQ(trySign(ec, hash), 0);
    otherProcess()->file().setPlugged(false);
    const Data before = readFile(keyPath());
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        if ((operation.parts & DEVICE) != 0)
            expectRefused(operation, operation.valid, STATUS_DEVICE_REMOVED);
    }
    EXPECT_TRUE(keyPairs().empty());
    EXPECT_TRUE(certificates().empty());
    EXPECT_EQ(velkor_getTokenInfo(SERIAL, instance).serialNumber, "");
    EXPECT_TRUE(devices().empty());
    EXPECT_EQ(readFile(keyPath()), before);
}

TEST_F(OperationsTest, KeysOfTheOtherKindAreRefused)
{
    unsigned char* plaintext = nullptr;
    int size = 0;
    EXPECT_EQ(velkor_decrypt(SERIAL, ec.keyIdentifier, PIN, ciphertext.data(), length(ciphertext), &plaintext, &size,
                             false, instance),
              code(WrongKeyKind));
    EXPECT_EQ(velkor_ecdhDerive(SERIAL, rsa.keyIdentifier, PIN, ec.publicKey, ec.publicKeyLength, &plaintext, &size,
                                instance),
              code(WrongKeyKind));
    EXPECT_EQ(trySign(ec, hash, true), code(WrongKeyKind));
    EXPECT_EQ(plaintext, nullptr);
    EXPECT_EQ(velkor_deleteCertificate(SERIAL, ec.keyIdentifier, PIN, instance), code(NoSuchObject));
    EXPECT_EQ(velkor_deleteKeyPair(SERIAL, certificate.certificateIdentifier, PIN, false, instance),
              code(NoSuchObject));
}

TEST_F(OperationsTest, PublicKeysCutAnywhereAreRefused)
{
    for (int cut = 1; cut < length(rsaInfo); ++cut)
        EXPECT_EQ(velkor_encrypt(EncryptionType::Rsa1024, PaddingMode::Oaep, hash.data(), 32, out.data(), &outLength,
                                 rsaInfo.data(), cut, instance),
                  code(BadPublicKey))
            << cut;
    EXPECT_TRUE(nothingWasAnswered());
}

TEST_F(OperationsTest, RecordsOutOfRangeAreRefused)
{
    const Data before = readFile(keyPath());
    const auto generating = [&](auto spoil) {
        VelkorKeyPair request;
        request.keyKind = KEY_KIND_EC_P256;
        spoil(request);
        return velkor_generateKeyPair(SERIAL, PIN, &request, instance);
    };
    const int refused = code(BadArgument);
    EXPECT_EQ(generating([](VelkorKeyPair& request) { request.usageFlags = 4; }), refused);
    EXPECT_EQ(generating([](VelkorKeyPair& request) { request.objectIdLength = INT_MAX; }), refused);
    EXPECT_EQ(generating([](VelkorKeyPair& request) { request.objectIdLength = -1; }), refused);
    EXPECT_EQ(generating([](VelkorKeyPair& request) { std::memset(request.label, 'x', sizeof request.label); }),
              refused);
    VelkorCertificate empty;
    EXPECT_EQ(velkor_importCertificate(SERIAL, PIN, &empty, instance), code(BadCertificate));
    ImportPFXDetails unknownKind;
    EXPECT_EQ(velkor_importPfx(SERIAL, PIN, &unknownKind, instance), code(NotSupported));
    EXPECT_EQ(velkor_validatePassword(SERIAL, PIN, 0, nullptr, instance), STATUS_CHECK_NOT_POSSIBLE);
    EXPECT_EQ(readFile(keyPath()), before);
}

TEST_F(OperationsTest, ListsAndTokenInformationOfWhatIsNotThereAreEmpty)
{
    for (const char* device : {static_cast<const char*>(nullptr), "", "NONE", "..", "/etc/passwd", "KEY1\n", "OUT"}) {
        EXPECT_TRUE(velkor_getKeyPairList(device, instance).empty());
        EXPECT_TRUE(velkor_getCertificateList(device, instance).empty());
        EXPECT_TRUE(velkor_getTokenInfo(device, instance).serialNumber.empty());
    }
    for (void* library : {static_cast<void*>(nullptr), static_cast<void*>(&notAnInstance)}) {
        EXPECT_TRUE(velkor_getKeyPairList(SERIAL, library).empty());
        EXPECT_TRUE(velkor_getCertificateList(SERIAL, library).empty());
        EXPECT_TRUE(velkor_getTokenInfo(SERIAL, library).serialNumber.empty());
        EXPECT_TRUE(velkor_getConnectedDeviceList(true, library).empty());
    }
    EXPECT_EQ(velkor_getKeyPairList(SERIAL, instance).size(), 2U);
    EXPECT_EQ(velkor_getCertificateList(SERIAL, instance).size(), 1U);
}

} // namespace
} // namespace softkey::test
