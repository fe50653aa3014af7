// One long run over every export, written down call by call: codes, outputs byte for byte, and the log. The module
// behaves alike wherever it is built with the packed layout, so there is one recording for all systems.
// A change of behaviour that is meant: the test leaves what it saw beside its log, to be looked at and copied.
#include <cstdio>

#include "key_operation_fixture.h"

namespace
{

constexpr unsigned char UNTOUCHED = 0xEE;
constexpr CK_ULONG KEY_COUNT = 7;

const ByteVector P256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
const ByteVector P384 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
const ByteVector P521 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};

/// Attributes that applications ask for, and some that nothing has.
constexpr CK_ATTRIBUTE_TYPE ATTRIBUTES[] = {
    CKA_CLASS,    CKA_TOKEN,   CKA_PRIVATE,      CKA_LABEL,           CKA_VALUE,     CKA_CERTIFICATE_TYPE, CKA_ISSUER,
    CKA_TRUSTED,  CKA_SUBJECT, CKA_ID,           CKA_SERIAL_NUMBER,   CKA_KEY_TYPE,  CKA_SENSITIVE,        CKA_ENCRYPT,
    CKA_DECRYPT,  CKA_SIGN,    CKA_VERIFY,       CKA_EXTRACTABLE,     CKA_DERIVE,    CKA_MODULUS,          CKA_LOCAL,
    CKA_EC_POINT, CKA_PRIME_1, CKA_MODULUS_BITS, CKA_PUBLIC_EXPONENT, CKA_EC_PARAMS, CKA_VENDOR_DEFINED};

/// Two digits a byte; many of the same are one with a count behind it.
std::string hexadecimal(const ByteVector& bytes)
{
    std::string text;
    for (auto byte = bytes.begin(); byte != bytes.end();) {
        const auto end = std::find_if(byte, bytes.end(), [&](unsigned char other) { return other != *byte; });
        std::array<char, 8> digits{};
        std::snprintf(digits.data(), digits.size(), "%02X", *byte);
        if (end - byte > 4) {
            text.append(" ").append(digits.data()).append("*").append(std::to_string(end - byte)).append(" ");
            byte = end;
        } else {
            text += digits.data();
            ++byte;
        }
    }
    return text;
}

ByteVector bytesIn(const ByteVector& bytes)
{
    return bytes;
}

template <typename Structure>
ByteVector bytesIn(const Structure& structure)
{
    static_assert(std::is_trivially_copyable_v<Structure>);
    const auto* first = reinterpret_cast<const unsigned char*>(&structure);
    return {first, first + sizeof structure};
}

/// An output in which every byte that a call does not write can be told.
template <typename Structure>
Structure untouched()
{
    Structure structure;
    std::memset(&structure, UNTOUCHED, sizeof structure);
    return structure;
}

/// A label as the module reads it in some places, up to its zero byte.
ByteVector terminated(std::string_view text)
{
    return joined({bytesOf(text), {0}});
}

/// Calls a function with null and zero for everything.
template <typename... Parameters>
CK_RV callWithNothing(CK_RV (*function)(Parameters...))
{
    return function(Parameters{}...);
}

std::vector<std::string> linesOf(const std::filesystem::path& file)
{
    std::ifstream stream(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

class RecordedRunTest : public ModuleTest
{
protected:
    void SetUp() override
    {
        test_system::setEnvironment("VELKOR_HOME", "/some where");
        ModuleTest::SetUp();
        // Derivation has hash codes of its own.
        ON_CALL(*device_, velkor_initHash).WillByDefault([this](auto* id, int code, auto** context, auto* library) {
            return device_->defaults.velkor_initHash(id, code == 1 ? HASH_SHA256 : code, context, library);
        });
        addCertificateAuthorities();
    }

    /// The files of a folder: the issuer of a leaf, and the issuer of that.
    void addCertificateAuthorities()
    {
        const std::array<std::array<const char*, 2>, 3> names = {
            {{"Leaf", "Middle"}, {"Middle", "Root"}, {"Root", "Root"}}};
        for (const auto& [subject, issuer] : names) {
            CertificateDetails& details = device_->defaults.detailsOf(bytesOf(subject));
            details.subjectCommonName = subject;
            details.issuerCommonName = issuer;
            details.subject = "CN=" + details.subjectCommonName;
            details.issuer = "CN=" + details.issuerCommonName;
            details.publicKey = bytesOf(subject);
            if (details.subjectCommonName != "Leaf")
                device_->defaults.files.emplace_back(details.subjectCommonName + ".cer", bytesOf(subject));
        }
    }

    /// Writes down a call that was made, and its outputs.
    template <typename... Outputs>
    void record(const std::string& call, CK_RV code, const Outputs&... outputs)
    {
        std::array<char, 16> digits{};
        std::snprintf(digits.data(), digits.size(), " %08lX", static_cast<unsigned long>(code));
        recorded_.push_back(call + digits.data());
        (recorded_.push_back("    " + hexadecimal(bytesIn(outputs))), ...);
    }

    void recordEveryFunctionWithoutArguments()
    {
        // Not those that would start or end the module.
#define EXPORT(name)                                                                                                   \
    if (std::string_view(#name) != "C_Initialize" && std::string_view(#name) != "C_Finalize")                          \
        record(#name "()", callWithNothing(&name));
#define EXTENSION(name) EXPORT(name)
#include "frame/exports.inc"
    }

    void recordSlots()
    {
        auto count = untouched<CK_ULONG>();
        record("C_GetSlotList", C_GetSlotList(CK_TRUE, nullptr, &count), count);
        for (const CK_ULONG room : {0U, 1U, 2U, 5U}) {
            auto slots = untouched<std::array<CK_SLOT_ID, 5>>();
            count = room;
            record("C_GetSlotList", C_GetSlotList(CK_FALSE, slots.data(), &count), count, slots);
        }
        for (const CK_SLOT_ID slot : {FIRST_SLOT - 1, FIRST_SLOT, SECOND_SLOT, SECOND_SLOT + 1}) {
            auto info = untouched<CK_SLOT_INFO>();
            record("C_GetSlotInfo", C_GetSlotInfo(slot, &info), info);
            auto token = untouched<CK_TOKEN_INFO>();
            record("C_GetTokenInfo", C_GetTokenInfo(slot, &token), token);
        }
    }

    void recordMechanisms()
    {
        CK_ULONG count = 0;
        record("C_GetMechanismList", C_GetMechanismList(FIRST_SLOT, nullptr, &count), count);
        mechanisms_.resize(count);
        record("C_GetMechanismList", C_GetMechanismList(FIRST_SLOT, mechanisms_.data(), &count), count);
        for (const CK_MECHANISM_TYPE mechanism : mechanisms_) {
            auto info = untouched<CK_MECHANISM_INFO>();
            record("C_GetMechanismInfo", C_GetMechanismInfo(FIRST_SLOT, mechanism, &info), mechanism, info);
        }
    }

    void recordSessions()
    {
        for (const CK_FLAGS flags : {CK_FLAGS{0}, CK_FLAGS{CKF_RW_SESSION}, READ_ONLY, READ_WRITE}) {
            auto handle = untouched<CK_SESSION_HANDLE>();
            record("C_OpenSession", C_OpenSession(SECOND_SLOT, flags, nullptr, nullptr, &handle), handle);
            recordSessionInfo(handle);
        }
        record("C_CloseAllSessions", C_CloseAllSessions(SECOND_SLOT));
        record("C_OpenSession", C_OpenSession(FIRST_SLOT, READ_WRITE, nullptr, nullptr, &session_), session_);
        for (const std::string pin : {"123", "4321", "1234", "1234"}) {
            record("C_Login", C_Login(session_, CKU_USER, characters(pin), lengthOf(pin)));
            recordSessionInfo(session_);
        }
        const std::string oldPin = "1234";
        const std::string newPin = "123456";
        record("C_SetPIN", C_SetPIN(session_, characters(oldPin), 4, characters(newPin), 6));
        record("C_Logout", C_Logout(session_));
        record("C_Login", C_Login(session_, CKU_USER, characters(newPin), 6));
    }

    void recordSessionInfo(CK_SESSION_HANDLE session)
    {
        auto info = untouched<CK_SESSION_INFO>();
        record("C_GetSessionInfo", C_GetSessionInfo(session, &info), info);
    }

    std::vector<CK_OBJECT_HANDLE> recordSearch(const Template::Entry& criterion)
    {
        Template criteria = {criterion};
        auto handles = untouched<std::array<CK_OBJECT_HANDLE, 32>>();
        CK_ULONG count = 0;
        record("C_FindObjectsInit", C_FindObjectsInit(session_, criteria.data(), criteria.size()));
        record("C_FindObjects", C_FindObjects(session_, handles.data(), 2, &count), handles, count);
        std::vector<CK_OBJECT_HANDLE> found(handles.data(), handles.data() + std::min<CK_ULONG>(count, 2));
        record("C_FindObjects", C_FindObjects(session_, handles.data(), 32, &count), handles, count);
        record("C_FindObjectsFinal", C_FindObjectsFinal(session_));
        found.insert(found.end(), handles.data(), handles.data() + std::min<CK_ULONG>(count, 32));
        return found;
    }

    void recordAttributes(CK_OBJECT_HANDLE object)
    {
        auto size = untouched<CK_ULONG>();
        record("C_GetObjectSize", C_GetObjectSize(session_, object, &size), object, size);
        std::vector<CK_ATTRIBUTE> attributes;
        for (const CK_ATTRIBUTE_TYPE type : ATTRIBUTES)
            attributes.push_back({type, nullptr, 0});
        const auto count = static_cast<CK_ULONG>(attributes.size());
        record("C_GetAttributeValue", C_GetAttributeValue(session_, object, attributes.data(), count));
        std::vector<ByteVector> rooms;
        for (CK_ATTRIBUTE& attribute : attributes) {
            ByteVector& room = rooms.emplace_back(attribute.ulValueLen <= 4096 ? attribute.ulValueLen : 0, UNTOUCHED);
            attribute.pValue = room.data();
        }
        record("C_GetAttributeValue", C_GetAttributeValue(session_, object, attributes.data(), count));
        for (std::size_t i = 0; i < attributes.size(); ++i)
            recorded_.push_back("    " + hexadecimal(bytesIn(attributes[i].ulValueLen)) + ": " + hexadecimal(rooms[i]));
    }

    /// Every object, and everything about it.
    void recordObjects()
    {
        for (const CK_OBJECT_CLASS wanted : {CKO_DATA, CKO_CERTIFICATE, CKO_PUBLIC_KEY, CKO_PRIVATE_KEY}) {
            for (const CK_OBJECT_HANDLE object : recordSearch({CKA_CLASS, bytesOf(CK_ULONG{wanted})}))
                recordAttributes(object);
        }
        recordSearch({CKA_ID, {2}});
        recordSearch({CKA_LABEL, terminated("pair 3")});
        recordSearch({CKA_TOKEN, {1}});
    }

    void recordSignatures()
    {
        for (const CK_MECHANISM_TYPE type : mechanisms_) {
            for (const CK_ULONG key : {KEY_KIND_RSA_1024, KEY_KIND_RSA_2048, KEY_KIND_EC_P384})
                recordSignature(type, key);
        }
    }

    void recordSignature(CK_MECHANISM_TYPE type, CK_ULONG key)
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        CK_RV code = C_SignInit(session_, &mechanism, privateKey(key));
        record("C_SignInit", code, type, key);
        if (code != CKR_OK)
            return;
        CK_ULONG length = 0;
        record("C_Sign", C_Sign(session_, data_.data(), 20, nullptr, &length), length);
        ByteVector signature(length, UNTOUCHED);
        record("C_Sign", C_Sign(session_, data_.data(), 20, signature.data(), &length), length, signature);
        for (const CK_ULONG dataLength : {20U, 19U}) {
            record("C_VerifyInit", C_VerifyInit(session_, &mechanism, publicKey(key)));
            record("C_Verify", C_Verify(session_, data_.data(), dataLength, signature.data(), length));
        }
        record("C_SignInit", C_SignInit(session_, &mechanism, privateKey(key)));
        record("C_SignUpdate", C_SignUpdate(session_, data_.data(), 10));
        record("C_SignUpdate", C_SignUpdate(session_, data_.data() + 10, 10));
        length = 1024;
        signature.assign(length, UNTOUCHED);
        record("C_SignFinal", C_SignFinal(session_, signature.data(), &length), length, signature);
        record("C_VerifyInit", C_VerifyInit(session_, &mechanism, publicKey(key)));
        record("C_VerifyUpdate", C_VerifyUpdate(session_, data_.data(), 20));
        record("C_VerifyFinal", C_VerifyFinal(session_, signature.data(), length));
    }

    void recordDigests()
    {
        for (const CK_MECHANISM_TYPE type : {CKM_MD5, CKM_SHA_1, CKM_SHA256, CKM_SHA384, CKM_SHA512}) {
            CK_MECHANISM mechanism = {type, nullptr, 0};
            record("C_DigestInit", C_DigestInit(session_, &mechanism), type);
            auto digest = untouched<std::array<CK_BYTE, 80>>();
            CK_ULONG length = digest.size();
            record("C_Digest", C_Digest(session_, data_.data(), 20, digest.data(), &length), length, digest);
            record("C_DigestInit", C_DigestInit(session_, &mechanism), type);
            record("C_DigestUpdate", C_DigestUpdate(session_, data_.data(), 20));
            length = 19;
            record("C_DigestFinal", C_DigestFinal(session_, digest.data(), &length), length, digest);
            length = digest.size();
            record("C_DigestFinal", C_DigestFinal(session_, digest.data(), &length), length, digest);
        }
    }

    void recordEncryptions()
    {
        for (const CK_MECHANISM_TYPE type : {CKM_RSA_PKCS, CKM_RSA_PKCS_OAEP, CKM_RSA_X_509}) {
            for (CK_ULONG key = 1; key <= KEY_COUNT; ++key) {
                CK_RSA_PKCS_OAEP_PARAMS parameters = {CKM_SHA256, CKG_MGF1_SHA256, CKZ_DATA_SPECIFIED, nullptr, 0};
                CK_MECHANISM mechanism = {type, nullptr, 0};
                if (type == CKM_RSA_PKCS_OAEP)
                    mechanism = {type, &parameters, sizeof parameters};
                auto out = untouched<std::array<CK_BYTE, 1024>>();
                CK_ULONG length = out.size();
                record("C_EncryptInit", C_EncryptInit(session_, &mechanism, publicKey(key)), type, key);
                record("C_Encrypt", C_Encrypt(session_, data_.data(), 20, out.data(), &length), length, out);
                length = out.size();
                record("C_DecryptInit", C_DecryptInit(session_, &mechanism, privateKey(key)), type, key);
                record("C_Decrypt", C_Decrypt(session_, data_.data(), 20, out.data(), &length), length, out);
            }
        }
    }

    void recordNewKeys()
    {
        CK_MECHANISM rsa = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
        for (const CK_ULONG bits : {512U, 1024U, 2048U, 3072U, 4096U, 8192U}) {
            Template publicHalf = {{CKA_MODULUS_BITS, bytesOf(CK_ULONG{bits})}, {CKA_ID, {7, 7}}};
            Template privateHalf = {{CKA_LABEL, bytesOf("generated")}, {CKA_SIGN, {1}}};
            auto keys = untouched<std::array<CK_OBJECT_HANDLE, 2>>();
            record("C_GenerateKeyPair",
                   C_GenerateKeyPair(session_, &rsa, publicHalf.data(), publicHalf.size(), privateHalf.data(),
                                     privateHalf.size(), &keys[0], &keys[1]),
                   keys);
            recordAttributes(keys[1]);
        }
        CK_MECHANISM ec = {CKM_EC_KEY_PAIR_GEN, nullptr, 0};
        for (const ByteVector& parameters : {P256, P384, P521, bytesOf("no curve")}) {
            Template publicHalf = {{CKA_EC_PARAMS, parameters}};
            Template privateHalf = {{CKA_KEY_TYPE, bytesOf(CK_ULONG{CKK_EC})}, {CKA_ID, {8}}, {CKA_DECRYPT, {1}}};
            auto keys = untouched<std::array<CK_OBJECT_HANDLE, 2>>();
            record("C_GenerateKeyPair",
                   C_GenerateKeyPair(session_, &ec, publicHalf.data(), publicHalf.size(), privateHalf.data(),
                                     privateHalf.size(), &keys[0], &keys[1]),
                   keys);
            recordAttributes(keys[0]);
        }
        for (CK_ULONG key = 1; key <= KEY_COUNT; ++key) {
            CK_ECDH1_DERIVE_PARAMS parameters = {CKD_NULL, 0, nullptr, 65, data_.data()};
            CK_MECHANISM ecdh = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
            auto derived = untouched<CK_OBJECT_HANDLE>();
            record("C_DeriveKey", C_DeriveKey(session_, &ecdh, privateKey(key), nullptr, 0, &derived), key, derived);
            recordAttributes(derived);
        }
        auto random = untouched<std::array<CK_BYTE, 24>>();
        record("C_GenerateRandom", C_GenerateRandom(session_, random.data(), 20), random);
    }

    void recordChanges()
    {
        for (const CK_OBJECT_HANDLE object : {privateKey(2), publicKey(2), certificate(1), privateKey(99)}) {
            ByteVector label = terminated("renamed");
            CK_ATTRIBUTE attribute = {CKA_LABEL, label.data(), 7};
            record("C_SetAttributeValue", C_SetAttributeValue(session_, object, &attribute, 1), object);
            recordAttributes(object);
        }
        Template leaf = {
            {CKA_CLASS, bytesOf(CK_ULONG{CKO_CERTIFICATE})}, {CKA_VALUE, bytesOf("Leaf")}, {CKA_ID, {1, 2}}};
        Template rsaKey = {{CKA_CLASS, bytesOf(CK_ULONG{CKO_PRIVATE_KEY})},
                           {CKA_KEY_TYPE, bytesOf(CK_ULONG{CKK_RSA})},
                           {CKA_LABEL, bytesOf("imported")},
                           {CKA_ID, {3, 4}},
                           {CKA_MODULUS, ByteVector(256, 0xC1)},
                           {CKA_PRIVATE_EXPONENT, ByteVector(256, 0xC2)},
                           {CKA_PRIME_1, ByteVector(128, 0xC3)}};
        for (Template* object : {&leaf, &rsaKey}) {
            auto handle = untouched<CK_OBJECT_HANDLE>();
            record("C_CreateObject", C_CreateObject(session_, object->data(), object->size(), &handle), handle);
            recordAttributes(handle);
        }
        for (const CK_OBJECT_HANDLE object : {privateKey(3), publicKey(4), certificate(2), privateKey(99)})
            record("C_DestroyObject", C_DestroyObject(session_, object), object);
        recordSearch({CKA_TOKEN, {1}});
    }

    void recordTheSecurityOfficer()
    {
        const std::string pin = "12345678";
        record("C_Logout", C_Logout(session_));
        record("C_Login", C_Login(session_, CKU_SO, characters(pin), lengthOf(pin)));
        recordSessionInfo(session_);
        recordSearch({CKA_TOKEN, {1}});
        record("C_Logout", C_Logout(session_));
        recordSessionInfo(session_);
    }

    void recordTheEndOfADevice()
    {
        device_->defaults.setConnected({SECOND_DEVICE});
        auto slot = untouched<CK_SLOT_ID>();
        record("C_WaitForSlotEvent", C_WaitForSlotEvent(0, &slot, nullptr), slot);
        recordSlots();
        recordSessionInfo(session_);
        recordAttributes(privateKey(1));
        record("C_Logout", C_Logout(session_));
        record("C_CloseSession", C_CloseSession(session_));
        record("C_CloseSession", C_CloseSession(session_));
    }

    std::vector<std::string> recorded_;
    std::vector<CK_MECHANISM_TYPE> mechanisms_;
    ByteVector data_ = [] {
        ByteVector bytes(200);
        std::generate(bytes.begin(), bytes.end(), [next = 3]() mutable { return static_cast<unsigned char>(++next); });
        return bytes;
    }();
    CK_SESSION_HANDLE session_ = 0;
};

TEST_F(RecordedRunTest, IsTheSameOnEverySystem)
{
    recordEveryFunctionWithoutArguments();
    record("C_Initialize", C_Initialize(nullptr));
    auto info = untouched<CK_INFO>();
    record("C_GetInfo", C_GetInfo(&info), info);
    recordEveryFunctionWithoutArguments();
    recordSlots();
    recordMechanisms();
    recordSessions();
    recordObjects();
    recordSignatures();
    recordDigests();
    recordEncryptions();
    recordNewKeys();
    recordChanges();
    recordTheSecurityOfficer();
    recordTheEndOfADevice();
    record("C_Finalize", C_Finalize(nullptr));
    record("C_Finalize", C_Finalize(nullptr));
    for (const std::string& line : callLog())
        recorded_.push_back(line);

    const std::filesystem::path seen = folder_ / "recorded_run.txt";
    std::ofstream out(seen, std::ios::binary);
    for (const std::string& line : recorded_)
        out << line << '\n';
    out.close();
    const std::vector<std::string> expected = linesOf(test_system::program().parent_path() / "recorded_run.txt");
    EXPECT_EQ(recorded_.size(), expected.size()) << seen;
    for (std::size_t i = 0; i < std::min(recorded_.size(), expected.size()); ++i)
        ASSERT_EQ(recorded_[i], expected[i]) << "line " << i + 1 << " of " << seen;
}

/// A call of the recording: "C_Login 000000A0", and what it wrote behind its entry line.
struct RecordedCall {
    std::string name;
    std::string code;
    std::vector<std::string> lines;
};

/// Calls and log lines come in the same order.
std::vector<RecordedCall> readRecording()
{
    std::vector<RecordedCall> calls;
    std::size_t logged = 0;
    for (const std::string& line : linesOf(test_system::program().parent_path() / "recorded_run.txt")) {
        if (line.starts_with("C_")) {
            calls.push_back({line.substr(0, line.find_first_of("( ")), line.substr(line.rfind(' ') + 1), {}});
        } else if (line.starts_with("DEBUG ") || line.starts_with("ERROR ")) {
            if (logged < calls.size() && line == "DEBUG " + calls[logged].name)
                ++logged;
            else
                calls[logged - 1].lines.push_back(line);
        }
    }
    return calls;
}

/// Error lines that a call is due, as docs/logging.md has it.
std::ptrdiff_t dueErrorLines(const RecordedCall& call)
{
    if (call.code == "00000000" || call.code == "00000054")
        return 0;
    if (call.name == "C_DeriveKey" && (call.code == "00000190" || call.code == "000000B3"))
        return 0;
    if (call.name == "C_Login" && call.code == "000000A0")
        return 2;
    const std::string_view last = call.lines.empty() ? std::string_view() : call.lines.back();
    const bool debugInstead = last == "DEBUG C_Login: User already logged in" ||
                              last.starts_with("DEBUG Input keypair not found in destroy : ");
    return debugInstead ? 0 : 1;
}

TEST(RecordedLogTest, RefusalsHaveOneErrorLineButForThoseThatAreNamed)
{
    const std::vector<RecordedCall> calls = readRecording();
    ASSERT_GT(calls.size(), 1000u);
    for (const RecordedCall& call : calls) {
        const auto errors = std::count_if(call.lines.begin(), call.lines.end(),
                                          [](const std::string& line) { return line.starts_with("ERROR "); });
        EXPECT_EQ(errors, dueErrorLines(call)) << call.name << " " << call.code << testing::PrintToString(call.lines);
    }
}

} // namespace
