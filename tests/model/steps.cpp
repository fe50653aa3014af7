#include "steps.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "hexadecimal.h"

namespace
{

// clang-format off
constexpr const char* CALL_NAMES[] = {
    "C_Initialize", "C_Finalize", "C_GetInfo", "C_GetFunctionList", "C_GetSlotList", "C_GetSlotInfo", "C_GetTokenInfo",
    "C_GetMechanismList", "C_GetMechanismInfo", "C_SetPIN", "C_OpenSession", "C_CloseSession", "C_CloseAllSessions",
    "C_GetSessionInfo", "C_Login", "C_Logout", "C_CreateObject", "C_DestroyObject", "C_GetObjectSize",
    "C_GetAttributeValue", "C_SetAttributeValue", "C_FindObjectsInit", "C_FindObjects", "C_FindObjectsFinal",
    "C_EncryptInit", "C_Encrypt", "C_DecryptInit", "C_Decrypt", "C_DigestInit", "C_Digest", "C_DigestUpdate",
    "C_DigestFinal", "C_SignInit", "C_Sign", "C_SignUpdate", "C_SignFinal", "C_VerifyInit", "C_Verify",
    "C_VerifyUpdate", "C_VerifyFinal", "C_GenerateKeyPair", "C_DeriveKey", "C_GenerateRandom", "C_WaitForSlotEvent",
    "unsupported export", "look of the monitor", "connected devices", "token information", "labels cleared",
    "log level"};

constexpr CK_ATTRIBUTE_TYPE ANSWERED[] = {
    CKA_CLASS, CKA_TOKEN, CKA_PRIVATE, CKA_LABEL, CKA_VALUE, CKA_CERTIFICATE_TYPE, CKA_OBJECT_ID, CKA_ISSUER,
    CKA_SERIAL_NUMBER, CKA_SUBJECT, CKA_TRUSTED, CKA_KEY_TYPE, CKA_ID, CKA_SENSITIVE, CKA_ENCRYPT, CKA_DECRYPT,
    CKA_WRAP, CKA_SIGN, CKA_VERIFY, CKA_VERIFY_RECOVER, CKA_DERIVE, CKA_MODULUS, CKA_MODULUS_BITS,
    CKA_PUBLIC_EXPONENT, CKA_EXTRACTABLE, CKA_LOCAL, CKA_KEY_GEN_MECHANISM, CKA_MODIFIABLE, CKA_EC_PARAMS,
    CKA_EC_POINT, CKA_UNWRAP, CKA_PRIME_1, CKA_ALWAYS_SENSITIVE, CKA_VENDOR_DEFINED};

constexpr CK_MECHANISM_TYPE SIGNING[] = {
    CKM_RSA_PKCS, CKM_SHA1_RSA_PKCS, CKM_RSA_PKCS_PSS, CKM_SHA1_RSA_PKCS_PSS, CKM_SHA256_RSA_PKCS, CKM_SHA384_RSA_PKCS,
    CKM_SHA512_RSA_PKCS, CKM_SHA256_RSA_PKCS_PSS, CKM_SHA384_RSA_PKCS_PSS, CKM_SHA512_RSA_PKCS_PSS,
    CKM_SHA224_RSA_PKCS, CKM_SHA224_RSA_PKCS_PSS, CKM_ECDSA, CKM_ECDSA_SHA1, CKM_ECDSA_SHA224, CKM_ECDSA_SHA256,
    CKM_ECDSA_SHA384};

constexpr CK_MECHANISM_TYPE OTHER_MECHANISMS[] = {
    CKM_RSA_PKCS_KEY_PAIR_GEN, CKM_RSA_PKCS_OAEP, CKM_MD5, CKM_EC_KEY_PAIR_GEN, CKM_ECDH1_DERIVE, 0x1046, 0xFFFFFFFF};

constexpr CK_MECHANISM_TYPE DIGESTS[] = {CKM_SHA_1, CKM_SHA224, CKM_SHA256, CKM_SHA384, CKM_SHA512};
// clang-format on

DeviceBytes bytesOfText(std::string_view text)
{
    return {text.begin(), text.end()};
}

/// What the device makes of data when it "hashes" it.
DeviceBytes deviceHash(DeviceBytes data, std::size_t length)
{
    data.resize(length, static_cast<unsigned char>(data.size()));
    return data;
}

std::string described(const std::vector<StepEntry>& entries)
{
    std::string text;
    for (const StepEntry& entry : entries) {
        text += " {" + std::to_string(entry.type) + (entry.isNull ? " null " : " ") +
                std::to_string(entry.value.size()) + ":" + hexadecimal(entry.value) + "}";
    }
    return text;
}

} // namespace

std::string described(const ModelStep& step)
{
    std::string text = CALL_NAMES[static_cast<std::size_t>(step.call)];
    const auto tell = [&](const char* name, CK_ULONG number) {
        if (number != 0)
            text += std::string(" ") + name + "=" + std::to_string(number);
    };
    tell("session", step.session);
    tell("object", step.object);
    tell("number", step.number);
    tell("count", step.count);
    tell("nulls", step.nulls);
    tell("parameter", static_cast<CK_ULONG>(step.parameter));
    if (!step.data.empty())
        text += " data=" + hexadecimal(step.data);
    if (!step.more.empty())
        text += " more=" + hexadecimal(step.more);
    text += described(step.entries);
    if (!step.moreEntries.empty())
        text += " and" + described(step.moreEntries);
    if (step.fault.call != 0)
        text += " [device call " + std::to_string(step.fault.call) + " fails with " +
                std::to_string(step.fault.status) + "]";
    return text;
}

// ---- What steps are made of ----

CK_SLOT_ID StepMaker::slot()
{
    static constexpr CK_SLOT_ID ODD[] = {0, 0x50000000, 0x50000003, 0xFFFFFFFF};
    if (inPercent(6))
        return oneOf(ODD);
    return inPercent(80) ? 0x50000001 : 0x50000002;
}

CK_SESSION_HANDLE StepMaker::session()
{
    static constexpr CK_SESSION_HANDLE ODD[] = {0, 0x60000000, 0x60000009, 0xFFFFFFFF};
    return inPercent(4) ? oneOf(ODD) : 0x60000001 + below(3);
}

/// A handle of some kind; those with more than 32 bits only where a handle has them.
CK_OBJECT_HANDLE StepMaker::object()
{
    static constexpr CK_OBJECT_HANDLE ODD[] = {0, 0x6FFFFFFF, 0x70000FFF, 0x70002000, 0x70004000, 0xFFFFFFFF};
    if (inPercent(8))
        return oneOf(ODD);
    if (sizeof(CK_OBJECT_HANDLE) > 4 && inPercent(2))
        return static_cast<CK_OBJECT_HANDLE>(0x170000002ULL);
    static constexpr CK_OBJECT_HANDLE BASES[] = {0x70000000, 0x70001000, 0x70002000, 0x70003000};
    return oneOf(BASES) + below(9);
}

CK_OBJECT_HANDLE StepMaker::privateKey()
{
    return inPercent(12) ? object() : 0x70000001 + below(8);
}

CK_OBJECT_HANDLE StepMaker::keyOfPair()
{
    return inPercent(50) ? privateKey() : 0x70001001 + below(8);
}

CK_MECHANISM_TYPE StepMaker::signatureMechanism()
{
    return inPercent(6) ? oneOf(OTHER_MECHANISMS) : oneOf(SIGNING);
}

DeviceBytes StepMaker::bytes(CK_ULONG longest)
{
    DeviceBytes made(below(longest + 1));
    for (unsigned char& byte : made)
        byte = static_cast<unsigned char>(random_());
    return made;
}

/// Data of the lengths and forms that tokens look at.
DeviceBytes StepMaker::signedData()
{
    static constexpr std::size_t LENGTHS[] = {16, 20, 32, 48};
    if (inPercent(40))
        return DeviceBytes(oneOf(LENGTHS), 0x77);
    if (inPercent(30)) {
        DeviceBytes info = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2B, 0x0E, 0x03, 0x02, 0x1A};
        if (inPercent(50))
            info = {0x30, 0x20, 0x06, 0x08, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x05};
        info.insert(info.end(), below(20), 0x11);
        return info;
    }
    return bytes(80);
}

DeviceBytes StepMaker::pin()
{
    static constexpr std::string_view PINS[] = {"1234", "1234", "1234", "12345678", "4321", "123"};
    if (inPercent(4))
        return DeviceBytes(64, '1');
    if (inPercent(4))
        return {'1', '2', '3', '4', 0, 'x'};
    return bytesOfText(oneOf(PINS));
}

StepEntry StepMaker::numbered(CK_ATTRIBUTE_TYPE type, CK_ULONG number)
{
    const auto* first = reinterpret_cast<const unsigned char*>(&number);
    return {type, {first, first + sizeof number}, false};
}

StepEntry StepMaker::text(CK_ATTRIBUTE_TYPE type)
{
    static constexpr std::string_view TEXTS[] = {"pair 2", "certificate 1",    " leaf ",          "x",
                                                 " \t",    "Subject 1_Issuer", "Subject 2_Issuer"};
    return {type, inPercent(5) ? DeviceBytes(130, 'L') : bytesOfText(oneOf(TEXTS)), false};
}

StepEntry StepMaker::criterion()
{
    static constexpr CK_OBJECT_CLASS CLASSES[] = {CKO_PUBLIC_KEY,  CKO_PRIVATE_KEY, CKO_CERTIFICATE,
                                                  CKO_PRIVATE_KEY, CKO_SECRET_KEY,  CKO_VENDOR_DEFINED};
    static constexpr CK_ATTRIBUTE_TYPE TYPES[] = {CKA_VALUE, CKA_SUBJECT, CKA_ID, CKA_ID, CKA_MODULUS, CKA_TOKEN};
    StepEntry entry;
    if (inPercent(50)) {
        entry = numbered(CKA_CLASS, oneOf(CLASSES));
    } else if (inPercent(30)) {
        entry = text(CKA_LABEL);
    } else {
        entry.type = oneOf(TYPES);
        const auto id = static_cast<unsigned char>(1 + below(4));
        if (entry.type == CKA_ID)
            entry.value = {id};
        else if (inPercent(50))
            entry.value = {0x30, 0x03, 0x02, 0x01, id};
        else
            entry.value = DeviceBytes(256, id);
        if (entry.value.size() == 256)
            entry.value[0] = 0xC5; // The modulus of a key pair.
    }
    if (inPercent(3))
        entry.value.pop_back();
    entry.isNull = inPercent(3);
    return entry;
}

StepEntry StepMaker::room()
{
    StepEntry entry;
    entry.type = oneOf(ANSWERED);
    static constexpr std::size_t ROOMS[] = {1, 4, 8, 600, 600, 600};
    entry.value.assign(inPercent(3) ? 0 : oneOf(ROOMS), 0xEE);
    entry.isNull = inPercent(30);
    return entry;
}

// ---- Runs ----

ModelStep StepMaker::step(ModelCall call)
{
    ModelStep made;
    made.call = call;
    made.session = inPercent(96) ? current_ : session();
    if (inPercent(4))
        made.nulls = 1U << below(3);
    if (inPercent(7))
        made.fault = {static_cast<int>(1 + below(3)), oneOf(FAULT_STATUSES)};
    made.count = inPercent(80) ? 600 : below(4);
    return made;
}

void StepMaker::add(ModelStep step)
{
    steps_.push_back(std::move(step));
}

std::vector<ModelStep> StepMaker::run(std::size_t length)
{
    steps_.clear();
    current_ = 0x60000001;
    start();
    while (steps_.size() < length)
        scene();
    return std::exchange(steps_, {});
}

/// What makes most of the calls that follow good ones.
void StepMaker::start()
{
    if (inPercent(95))
        add(step(ModelCall::Initialize));
    ModelStep list = step(ModelCall::GetSlotList);
    list.count = 8;
    add(list);
    for (int session = 0; session < 3; ++session) {
        ModelStep open = step(ModelCall::OpenSession);
        open.object = inPercent(75) ? 0x50000001 : 0x50000002;
        open.number = inPercent(75) ? CKF_SERIAL_SESSION | CKF_RW_SESSION : CKF_SERIAL_SESSION;
        add(open);
    }
    if (inPercent(70))
        loginScene();
}

void StepMaker::scene()
{
    using Scene = void (StepMaker::*)();
    static constexpr Scene SCENES[] = {
        &StepMaker::lifecycleScene, &StepMaker::slotScene,   &StepMaker::sessionScene,   &StepMaker::sessionScene,
        &StepMaker::loginScene,     &StepMaker::searchScene, &StepMaker::attributeScene, &StepMaker::attributeScene,
        &StepMaker::importScene,    &StepMaker::keyScene,    &StepMaker::digestScene,    &StepMaker::signScene,
        &StepMaker::signScene,      &StepMaker::signScene,   &StepMaker::verifyScene,    &StepMaker::verifyScene,
        &StepMaker::cipherScene,    &StepMaker::cipherScene, &StepMaker::worldScene};
    current_ = session();
    (this->*oneOf(SCENES))();
}

void StepMaker::lifecycleScene()
{
    static constexpr ModelCall CALLS[] = {ModelCall::GetInfo,     ModelCall::GetFunctionList, ModelCall::Unsupported,
                                          ModelCall::Unsupported, ModelCall::Initialize,      ModelCall::GetInfo};
    if (inPercent(90)) {
        ModelStep call = step(oneOf(CALLS));
        call.number = below(27);
        return add(call);
    }
    add(step(ModelCall::Finalize));
    if (inPercent(80))
        start();
}

void StepMaker::slotScene()
{
    static constexpr ModelCall CALLS[] = {ModelCall::GetSlotList,      ModelCall::GetSlotInfo,
                                          ModelCall::GetTokenInfo,     ModelCall::GetMechanismList,
                                          ModelCall::GetMechanismInfo, ModelCall::WaitForSlotEvent};
    ModelStep call = step(oneOf(CALLS));
    call.object = slot();
    call.number = inPercent(80) ? oneOf(SIGNING) : oneOf(OTHER_MECHANISMS);
    if (call.call == ModelCall::WaitForSlotEvent)
        call.number = below(2);
    static constexpr CK_ULONG COUNTS[] = {0, 1, 2, 8, 22, 23, 25, 26, 40};
    call.count = oneOf(COUNTS);
    if (inPercent(30))
        call.nulls |= 1; // A query for the length.
    add(call);
}

void StepMaker::sessionScene()
{
    static constexpr ModelCall CALLS[] = {
        ModelCall::OpenSession,  ModelCall::OpenSession,    ModelCall::OpenSession,    ModelCall::GetSessionInfo,
        ModelCall::CloseSession, ModelCall::GetSessionInfo, ModelCall::GetSessionInfo, ModelCall::CloseAllSessions};
    static constexpr CK_FLAGS FLAGS[] = {0x4, 0x6, 0x6, 0x6, 0x2, 0x0, 0xFF};
    ModelStep call = step(oneOf(CALLS));
    call.object = slot();
    call.number = oneOf(FLAGS);
    add(call);
}

void StepMaker::loginScene()
{
    static constexpr ModelCall CALLS[] = {ModelCall::Login, ModelCall::Login, ModelCall::Login, ModelCall::Logout,
                                          ModelCall::SetPin};
    static constexpr CK_USER_TYPE USERS[] = {CKU_USER, CKU_USER, CKU_USER, CKU_SO, CKU_CONTEXT_SPECIFIC};
    ModelStep call = step(oneOf(CALLS));
    call.number = oneOf(USERS);
    call.data = call.number == CKU_SO && inPercent(80) ? bytesOfText("12345678") : pin();
    call.more = inPercent(60) ? bytesOfText("1234") : pin();
    add(call);
}

void StepMaker::searchScene()
{
    ModelStep init = step(ModelCall::FindObjectsInit);
    for (CK_ULONG entries = below(4); entries > 0; --entries)
        init.entries.push_back(criterion());
    add(init);
    static constexpr CK_ULONG PAGES[] = {0, 1, 2, 3, 20, 60};
    for (CK_ULONG pages = below(4); pages > 0; --pages) {
        ModelStep page = step(ModelCall::FindObjects);
        page.count = oneOf(PAGES);
        add(page);
    }
    if (inPercent(80))
        add(step(ModelCall::FindObjectsFinal));
}

void StepMaker::attributeScene()
{
    static constexpr ModelCall CALLS[] = {ModelCall::GetAttributeValue, ModelCall::GetAttributeValue,
                                          ModelCall::SetAttributeValue, ModelCall::GetObjectSize};
    ModelStep call = step(oneOf(CALLS));
    call.object = object();
    for (CK_ULONG entries = below(5); entries > 0; --entries) {
        if (call.call == ModelCall::GetAttributeValue)
            call.entries.push_back(room());
        else if (inPercent(40))
            call.entries.push_back(text(CKA_LABEL));
        else
            call.entries.push_back({inPercent(80) ? CKA_ID : CKA_MODULUS, bytes(8), inPercent(5)});
    }
    if (call.call == ModelCall::GetObjectSize)
        call.nulls = 0;
    add(call);
}

void StepMaker::importScene()
{
    static constexpr std::string_view CERTIFICATES[] = {"Leaf", "Leaf", "Lonely", "Root", "None", "Broken"};
    static constexpr CK_OBJECT_CLASS CLASSES[] = {CKO_CERTIFICATE, CKO_CERTIFICATE, CKO_PRIVATE_KEY, CKO_DATA};
    static constexpr CK_KEY_TYPE TYPES[] = {CKK_RSA, CKK_RSA, CKK_RSA, CKK_EC};
    static constexpr std::size_t MODULI[] = {128, 129, 256, 256};
    if (inPercent(35)) {
        ModelStep removal = step(ModelCall::DestroyObject);
        removal.object = inPercent(70) ? object() : privateKey();
        return add(removal);
    }
    ModelStep call = step(ModelCall::CreateObject);
    const CK_OBJECT_CLASS objectClass = oneOf(CLASSES);
    if (objectClass != CKO_CERTIFICATE || inPercent(50))
        call.entries.push_back(numbered(CKA_CLASS, objectClass));
    if (inPercent(60))
        call.entries.push_back(text(CKA_LABEL));
    if (inPercent(60))
        call.entries.push_back({CKA_ID, inPercent(10) ? DeviceBytes(140, 0x1D) : bytes(8), false});
    if (inPercent(95))
        call.entries.push_back({CKA_VALUE, bytesOfText(oneOf(CERTIFICATES)), inPercent(3)});
    if (objectClass == CKO_PRIVATE_KEY) {
        if (inPercent(70))
            call.entries.push_back(numbered(CKA_KEY_TYPE, oneOf(TYPES)));
        for (const CK_ATTRIBUTE_TYPE part : {CKA_MODULUS, CKA_PRIVATE_EXPONENT, CKA_PRIME_1}) {
            if (inPercent(93))
                call.entries.push_back({part, DeviceBytes(oneOf(MODULI), 0xAB), inPercent(2)});
        }
    }
    add(call);
}

void StepMaker::keyScene()
{
    if (inPercent(30)) {
        ModelStep random = step(ModelCall::GenerateRandom);
        random.count = below(40);
        return add(random);
    }
    if (inPercent(60)) {
        static constexpr CK_ULONG FUNCTIONS[] = {1, 2, 6, 3};
        ModelStep derive = step(ModelCall::DeriveKey);
        derive.object = inPercent(50) ? 0x70000005 + below(3) : privateKey();
        derive.number = inPercent(95) ? CKM_ECDH1_DERIVE : oneOf(OTHER_MECHANISMS);
        derive.parameter = inPercent(90) ? StepParameter::Derive : static_cast<StepParameter>(below(5));
        derive.count = oneOf(FUNCTIONS);
        derive.more = bytes(70);
        if (inPercent(50))
            derive.entries.push_back(numbered(CKA_VALUE_LEN, below(40)));
        return add(derive);
    }
    static constexpr CK_ULONG BITS[] = {1024, 1536, 2048, 3072, 4096};
    ModelStep generate = step(ModelCall::GenerateKeyPair);
    generate.number = inPercent(50) ? CKM_RSA_PKCS_KEY_PAIR_GEN : CKM_EC_KEY_PAIR_GEN;
    generate.parameter = inPercent(5) ? StepParameter::Bytes : StepParameter::None;
    generate.entries.push_back(numbered(CKA_MODULUS_BITS, oneOf(BITS)));
    if (inPercent(70)) {
        DeviceBytes curve = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, static_cast<unsigned char>(0x22 + below(3))};
        if (inPercent(30))
            curve = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
        generate.entries.push_back({CKA_EC_PARAMS, curve, false});
    }
    generate.moreEntries.push_back(numbered(CKA_KEY_TYPE, inPercent(40) ? CKK_RSA : CKK_EC));
    for (const CK_ATTRIBUTE_TYPE use : {CKA_SIGN, CKA_DECRYPT}) {
        if (inPercent(60))
            generate.moreEntries.push_back({use, {static_cast<unsigned char>(below(2))}, false});
    }
    if (inPercent(60))
        generate.moreEntries.push_back(text(CKA_LABEL));
    if (inPercent(60))
        generate.moreEntries.push_back({CKA_ID, bytes(10), false});
    add(generate);
}

void StepMaker::digestScene()
{
    ModelStep init = step(ModelCall::DigestInit);
    init.number = inPercent(92) ? oneOf(DIGESTS) : oneOf(OTHER_MECHANISMS);
    add(init);
    for (CK_ULONG calls = 1 + below(4); calls > 0; --calls) {
        static constexpr ModelCall CALLS[] = {ModelCall::Digest, ModelCall::DigestUpdate, ModelCall::DigestFinal};
        ModelStep call = step(oneOf(CALLS));
        call.data = bytes(90);
        if (inPercent(25))
            call.nulls |= call.call == ModelCall::Digest ? 2U : 1U; // A query for the length.
        add(call);
    }
}

void StepMaker::signScene()
{
    ModelStep init = step(ModelCall::SignInit);
    init.number = signatureMechanism();
    init.object = privateKey();
    init.parameter = inPercent(6) ? StepParameter::Bytes : StepParameter::None;
    add(init);
    for (CK_ULONG calls = 1 + below(4); calls > 0; --calls) {
        static constexpr ModelCall CALLS[] = {ModelCall::Sign, ModelCall::SignUpdate, ModelCall::SignFinal};
        ModelStep call = step(oneOf(CALLS));
        call.data = signedData();
        if (inPercent(25))
            call.nulls |= call.call == ModelCall::Sign ? 2U : 1U;
        add(call);
    }
}

void StepMaker::verifyScene()
{
    static constexpr std::size_t HASHES[] = {20, 28, 32, 48, 64};
    ModelStep init = step(ModelCall::VerifyInit);
    init.number = signatureMechanism();
    init.object = keyOfPair();
    init.parameter = inPercent(6) ? StepParameter::Bytes : StepParameter::None;
    add(init);
    for (CK_ULONG calls = 1 + below(3); calls > 0; --calls) {
        static constexpr ModelCall CALLS[] = {ModelCall::Verify, ModelCall::VerifyUpdate, ModelCall::VerifyFinal};
        ModelStep call = step(oneOf(CALLS));
        call.data = inPercent(90) ? DeviceBytes(1 + below(60), 0x42) : DeviceBytes();
        const DeviceBytes hash = inPercent(40) ? call.data : deviceHash(call.data, oneOf(HASHES));
        call.more = {'s', 0};
        call.more.insert(call.more.end(), hash.begin(), hash.end());
        if (inPercent(10))
            call.more = bytes(40);
        add(call);
    }
}

void StepMaker::cipherScene()
{
    const bool encrypts = inPercent(50);
    ModelStep init = step(encrypts ? ModelCall::EncryptInit : ModelCall::DecryptInit);
    init.number = inPercent(50) ? CKM_RSA_PKCS : CKM_RSA_PKCS_OAEP;
    if (inPercent(5))
        init.number = oneOf(OTHER_MECHANISMS);
    init.object = encrypts ? keyOfPair() : privateKey();
    init.parameter = inPercent(10) ? StepParameter::Bytes : StepParameter::None;
    add(init);
    for (CK_ULONG calls = 1 + below(3); calls > 0; --calls) {
        ModelStep call = step(encrypts ? ModelCall::Encrypt : ModelCall::Decrypt);
        call.data = bytes(200);
        if (inPercent(30))
            call.nulls |= 2U;
        add(call);
    }
}

void StepMaker::worldScene()
{
    static constexpr ModelCall CALLS[] = {ModelCall::MonitorCycle, ModelCall::MonitorCycle, ModelCall::SetDevices,
                                          ModelCall::SetDevices,   ModelCall::ChangeToken,  ModelCall::ClearLabels,
                                          ModelCall::SetLogLevel};
    ModelStep change = step(oneOf(CALLS));
    change.number = inPercent(40) ? 0 : below(8);
    add(change);
    if (change.call == ModelCall::SetLogLevel && inPercent(70)) {
        change.number = 3;
        scene();
        add(change);
    }
    if (change.call == ModelCall::ChangeToken && inPercent(60)) {
        ModelStep list = step(ModelCall::GetSlotList);
        list.count = 8;
        add(list);
        sessionScene();
    }
}
