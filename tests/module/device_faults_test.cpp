// Every call of the device, failing in each way that there is, wherever an entry point makes it: the code, the line in
// the log, and what the session is in the middle of afterwards. And what goes on beside a call that does not come back.
#include <chrono>
#include <exception>
#include <iterator>
#include <limits>
#include <new>
#include <stdexcept>
#include <type_traits>

#include "gate.h"
#include "operation_in_progress.h"
#include "template.h"

namespace
{

// ---- What a device does wrong ----

struct Fault {
    int status = 0;
    std::exception_ptr thrown; ///< Instead of the status.
};

template <typename Method>
struct ResultOf;

template <typename Result, typename... Parameters>
struct ResultOf<Result (DeviceOperations::*)(Parameters...)> {
    using Type = Result;
};

/// Operations without a status fail by having nothing.
template <typename Result>
Result answerOf(const Fault& fault)
{
    if (fault.thrown)
        std::rethrow_exception(fault.thrown);
    if constexpr (std::is_same_v<Result, int>) {
        return fault.status;
    } else if constexpr (std::is_reference_v<Result>) {
        static std::remove_reference_t<Result> none;
        return none;
    } else {
        return Result();
    }
}

struct FaultyOperation {
    const char* name;
    void (*fail)(MockDevice& device, const Fault& fault); ///< At its next call.
    void (*hold)(MockDevice& device, Gate& gate);         ///< The same.
};

// clang-format off
#define OPERATION(name)                                                                                                \
    {#name,                                                                                                            \
     [](MockDevice& device, const Fault& fault) {                                                                      \
         using Result = ResultOf<decltype(&DeviceOperations::name)>::Type;                                             \
         EXPECT_CALL(device, name).Times(testing::AnyNumber());                                                        \
         EXPECT_CALL(device, name)                                                                                     \
             .WillOnce([fault](auto&&...) -> Result { return answerOf<Result>(fault); })                               \
             .RetiresOnSaturation();                                                                                   \
     },                                                                                                                \
     [](MockDevice& device, Gate& gate) {                                                                              \
         using Result = ResultOf<decltype(&DeviceOperations::name)>::Type;                                             \
         EXPECT_CALL(device, name).Times(testing::AnyNumber());                                                        \
         EXPECT_CALL(device, name)                                                                                     \
             .WillOnce([&device, &gate](auto&&... arguments) -> Result {                                               \
                 gate.hold();                                                                                          \
                 return device.defaults.name(arguments...);                                                            \
             })                                                                                                        \
             .RetiresOnSaturation();                                                                                   \
     }}
// clang-format on

const FaultyOperation OPERATIONS[] = {
    OPERATION(velkor_getConnectedDeviceList),
    OPERATION(velkor_getTokenInfo),
    OPERATION(velkor_initDevice),
    OPERATION(velkor_validatePassword),
    OPERATION(velkor_changeUserPassword),
    OPERATION(velkor_getKeyPairList),
    OPERATION(velkor_getCertificateList),
    OPERATION(velkor_updateKeyPairDetails),
    OPERATION(velkor_deleteKeyPair),
    OPERATION(velkor_deleteCertificate),
    OPERATION(velkor_importCertificate),
    OPERATION(velkor_importPfx),
    OPERATION(velkor_getFilesWithExtensionsAndConvertDER),
    OPERATION(velkor_getCertificateDetails),
    OPERATION(velkor_getCertificateSubject),
    OPERATION(velkor_getCertificateIssuer),
    OPERATION(velkor_getCertificateSerialDER),
    OPERATION(velkor_generateKeyPair),
    OPERATION(velkor_initHash),
    OPERATION(velkor_updateHash),
    OPERATION(velkor_finalHash),
    OPERATION(velkor_signHash),
    OPERATION(velkor_verifySignatureHash),
    OPERATION(velkor_encrypt),
    OPERATION(velkor_decrypt),
    OPERATION(velkor_ecdhDerive),
    OPERATION(velkor_generateRamdomNumber),
};

const FaultyOperation& operationOf(const std::string& name)
{
    return *std::find_if(std::begin(OPERATIONS), std::end(OPERATIONS),
                         [&](const FaultyOperation& each) { return each.name == name; });
}

// ---- What an application does ----

using SessionCall = CK_RV (*)(CK_SESSION_HANDLE session);
using Preparation = void (*)(CK_SESSION_HANDLE session, DeviceRecords& records);

CK_BYTE data[] = {1, 2, 3};

CK_RV initWith(CK_RV (*init)(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE), CK_SESSION_HANDLE session,
               CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key)
{
    CK_MECHANISM mechanism = {type, nullptr, 0};
    return init(session, &mechanism, key);
}

CK_RV digestInit(CK_SESSION_HANDLE session)
{
    CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
    return C_DigestInit(session, &mechanism);
}

CK_RV signInit(CK_SESSION_HANDLE session)
{
    return initWith(C_SignInit, session, CKM_SHA256_RSA_PKCS, privateKey(2));
}

CK_RV verifyInit(CK_SESSION_HANDLE session)
{
    return initWith(C_VerifyInit, session, CKM_SHA256_RSA_PKCS, publicKey(2));
}

CK_RV encryptInit(CK_SESSION_HANDLE session)
{
    return initWith(C_EncryptInit, session, CKM_RSA_PKCS, publicKey(2));
}

CK_RV decryptInit(CK_SESSION_HANDLE session)
{
    return initWith(C_DecryptInit, session, CKM_RSA_PKCS, privateKey(2));
}

CK_RV whole(CK_RV (*function)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR),
            CK_SESSION_HANDLE session)
{
    CK_BYTE output[1024];
    CK_ULONG length = sizeof output;
    return function(session, data, sizeof data, output, &length);
}

CK_RV finish(CK_RV (*function)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG_PTR), CK_SESSION_HANDLE session)
{
    CK_BYTE output[1024];
    CK_ULONG length = sizeof output;
    return function(session, output, &length);
}

CK_RV listSlotsAgain(CK_SESSION_HANDLE /*session*/)
{
    CK_SLOT_ID list[8];
    CK_ULONG count = 8;
    return C_GetSlotList(CK_TRUE, list, &count);
}

CK_RV login(CK_SESSION_HANDLE session)
{
    return C_Login(session, CKU_USER, characters(USER_PIN), lengthOf(USER_PIN));
}

CK_RV setPin(CK_SESSION_HANDLE session)
{
    return C_SetPIN(session, characters(USER_PIN), 4, characters(USER_PIN), 4);
}

CK_RV find(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass, CK_ATTRIBUTE_TYPE type)
{
    Template criteria;
    criteria.add(CKA_CLASS, objectClass).addTerminated(type, "sought");
    return C_FindObjectsInit(session, criteria.data(), criteria.size());
}

CK_RV findAll(CK_SESSION_HANDLE session)
{
    return C_FindObjectsInit(session, nullptr, 0);
}

CK_RV ask(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
{
    CK_ATTRIBUTE asked = {type, nullptr, 0};
    return C_GetAttributeValue(session, object, &asked, 1);
}

CK_RV giveLabel(CK_SESSION_HANDLE session)
{
    Template wanted;
    wanted.add(CKA_LABEL, "renamed");
    return C_SetAttributeValue(session, privateKey(2), wanted.data(), wanted.size());
}

CK_RV measure(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object)
{
    CK_ULONG size = 0;
    return C_GetObjectSize(session, object, &size);
}

CK_RV importCertificate(CK_SESSION_HANDLE session)
{
    Template wanted;
    wanted.add(CKA_CLASS, CK_ULONG{CKO_CERTIFICATE}).add(CKA_VALUE, ByteVector{0x30, 0x03, 0x02, 0x01, 0x01});
    CK_OBJECT_HANDLE object = 0;
    return C_CreateObject(session, wanted.data(), wanted.size(), &object);
}

CK_RV importKey(CK_SESSION_HANDLE session)
{
    Template wanted;
    wanted.add(CKA_CLASS, CK_ULONG{CKO_PRIVATE_KEY}).add(CKA_MODULUS, ByteVector(256, 0xC5));
    wanted.add(CKA_PRIVATE_EXPONENT, ByteVector(256, 1)).add(CKA_PRIME_1, ByteVector(128, 1));
    CK_OBJECT_HANDLE object = 0;
    return C_CreateObject(session, wanted.data(), wanted.size(), &object);
}

CK_RV generate(CK_SESSION_HANDLE session)
{
    Template wanted;
    wanted.add(CKA_LABEL, "new");
    CK_MECHANISM mechanism = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    CK_OBJECT_HANDLE keys[2] = {};
    return C_GenerateKeyPair(session, &mechanism, wanted.data(), 1, wanted.data(), 1, &keys[0], &keys[1]);
}

CK_RV derive(CK_SESSION_HANDLE session)
{
    CK_ECDH1_DERIVE_PARAMS parameter = {CKD_SHA256_KDF, 0, nullptr, sizeof data, data};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
    CK_OBJECT_HANDLE key = 0;
    return C_DeriveKey(session, &mechanism, privateKey(5), nullptr, 0, &key);
}

CK_RV giveRandom(CK_SESSION_HANDLE session)
{
    CK_BYTE bytes[16];
    return C_GenerateRandom(session, bytes, sizeof bytes);
}

/// One more step of an operation that `init` has begun.
template <SessionCall init>
void begun(CK_SESSION_HANDLE session, DeviceRecords& /*records*/)
{
    ASSERT_EQ(init(session), CKR_OK);
}

/// The operation has its first part.
void signUnderWay(CK_SESSION_HANDLE session, DeviceRecords& /*records*/)
{
    ASSERT_EQ(signInit(session), CKR_OK);
    ASSERT_EQ(C_SignUpdate(session, data, sizeof data), CKR_OK);
}

void verifyUnderWay(CK_SESSION_HANDLE session, DeviceRecords& /*records*/)
{
    ASSERT_EQ(verifyInit(session), CKR_OK);
    ASSERT_EQ(C_VerifyUpdate(session, data, sizeof data), CKR_OK);
}

void withoutKeyPairs(CK_SESSION_HANDLE /*session*/, DeviceRecords& records)
{
    records.keyPairs.clear();
}

void withoutLabels(CK_SESSION_HANDLE session, DeviceRecords& records)
{
    login(session); // Only then is a label stored.
    records.keyPairs.at(1).label[0] = '\0';
    records.certificates.front().label[0] = '\0';
}

// ---- What the module makes of it ----

struct Site {
    const char* name;
    const char* operation; ///< Of the device, its next call in `call`.
    const char* function;
    Preparation prepare;
    SessionCall call;
    CK_RV code;       ///< Of a status, or of nothing.
    const char* line; ///< With a '%' where the status is told; null: none.
    int afterStatus = NO_OPERATION;
    int afterException = NO_OPERATION;
    bool tellsRemoval = false;

    friend std::ostream& operator<<(std::ostream& out, const Site& each) { return out << each.name; }
};

// clang-format off
const Site SITES[] = {
    {"ListingDevices", "velkor_getConnectedDeviceList", "C_GetSlotList", nullptr, listSlotsAgain, CKR_OK, "ERROR No valid token found"},
    {"DescribingDevices", "velkor_getTokenInfo", "C_GetSlotList", nullptr, listSlotsAgain, CKR_OK, nullptr},
    {"Login", "velkor_validatePassword", "C_Login", nullptr, login, CKR_PIN_LOCKED, "ERROR Token password validation failed : %"},
    {"PinChange", "velkor_changeUserPassword", "C_SetPIN", nullptr, setPin, CKR_FUNCTION_FAILED, "ERROR C_SetPIN: velkor_changeUserPassword failed, failureCount=0"},
    {"SearchOfAnEmptyDevice", "velkor_initDevice", "C_FindObjectsInit", withoutKeyPairs, findAll, CKR_OK, "ERROR Init device for certificates in find objects failed : %", FIND},
    {"SearchOfKeyPairs", "velkor_getKeyPairList", "C_FindObjectsInit", nullptr, findAll, CKR_OK, nullptr, FIND},
    {"SearchOfCertificates", "velkor_getCertificateList", "C_FindObjectsInit", nullptr, findAll, CKR_OK, nullptr, FIND},
    {"SearchBySubject", "velkor_getCertificateSubject", "C_FindObjectsInit", nullptr, [](CK_SESSION_HANDLE session) { return find(session, CKO_CERTIFICATE, CKA_SUBJECT); }, CKR_OK, nullptr, FIND},
    {"SearchByAComputedLabel", "velkor_getCertificateDetails", "C_FindObjectsInit", withoutLabels, [](CK_SESSION_HANDLE session) { return find(session, CKO_CERTIFICATE, CKA_LABEL); }, CKR_OK, nullptr, FIND},
    {"SearchThatStoresALabel", "velkor_updateKeyPairDetails", "C_FindObjectsInit", withoutLabels, [](CK_SESSION_HANDLE session) { return find(session, CKO_PUBLIC_KEY, CKA_LABEL); }, CKR_OK, nullptr, FIND},
    {"AttributeOfAKeyPair", "velkor_getKeyPairList", "C_GetAttributeValue", nullptr, [](CK_SESSION_HANDLE session) { return ask(session, privateKey(2), CKA_ID); }, CKR_OBJECT_HANDLE_INVALID, "ERROR Key pair not found in get attribute : 1879048194"},
    {"AttributeOfACertificate", "velkor_getCertificateList", "C_GetAttributeValue", nullptr, [](CK_SESSION_HANDLE session) { return ask(session, certificate(1), CKA_ID); }, CKR_OBJECT_HANDLE_INVALID, "ERROR Certificate not found in get attribute : 1879056385"},
    {"AttributeWithCertificatesOfTheSameKey", "velkor_getCertificateList", "C_GetAttributeValue", withoutLabels, [](CK_SESSION_HANDLE session) { return ask(session, privateKey(2), CKA_LABEL); }, CKR_OK, nullptr},
    {"AttributeWithAComputedLabel", "velkor_getCertificateDetails", "C_GetAttributeValue", withoutLabels, [](CK_SESSION_HANDLE session) { return ask(session, certificate(1), CKA_LABEL); }, CKR_OK, nullptr},
    {"AttributeThatStoresALabel", "velkor_updateKeyPairDetails", "C_GetAttributeValue", withoutLabels, [](CK_SESSION_HANDLE session) { return ask(session, privateKey(2), CKA_LABEL); }, CKR_OK, nullptr},
    {"Subject", "velkor_getCertificateSubject", "C_GetAttributeValue", nullptr, [](CK_SESSION_HANDLE session) { return ask(session, certificate(1), CKA_SUBJECT); }, CKR_OK, nullptr},
    {"Issuer", "velkor_getCertificateIssuer", "C_GetAttributeValue", nullptr, [](CK_SESSION_HANDLE session) { return ask(session, certificate(1), CKA_ISSUER); }, CKR_OK, nullptr},
    {"SerialNumber", "velkor_getCertificateSerialDER", "C_GetAttributeValue", nullptr, [](CK_SESSION_HANDLE session) { return ask(session, certificate(1), CKA_SERIAL_NUMBER); }, CKR_OK, nullptr},
    {"RenamingLooksUp", "velkor_getKeyPairList", "C_SetAttributeValue", nullptr, giveLabel, CKR_OBJECT_HANDLE_INVALID, "ERROR Key pair not found in Set attribute : 1879048194"},
    {"Renaming", "velkor_updateKeyPairDetails", "C_SetAttributeValue", nullptr, giveLabel, CKR_FUNCTION_FAILED, "ERROR Update key pair details failed : %"},
    {"SizeOfAKeyPair", "velkor_getKeyPairList", "C_GetObjectSize", nullptr, [](CK_SESSION_HANDLE session) { return measure(session, privateKey(2)); }, CKR_OBJECT_HANDLE_INVALID, "ERROR Private key not found in get object size : 1879048194"},
    {"SizeOfACertificate", "velkor_getCertificateList", "C_GetObjectSize", nullptr, [](CK_SESSION_HANDLE session) { return measure(session, certificate(1)); }, CKR_OBJECT_HANDLE_INVALID, "ERROR Certificate not found in get object size : 1879056385"},
    {"DeletionLooksUpAKeyPair", "velkor_getKeyPairList", "C_DestroyObject", nullptr, [](CK_SESSION_HANDLE session) { return C_DestroyObject(session, privateKey(2)); }, CKR_OBJECT_HANDLE_INVALID, "DEBUG Input keypair not found in destroy : 1879048194"},
    {"DeletionOfAKeyPair", "velkor_deleteKeyPair", "C_DestroyObject", nullptr, [](CK_SESSION_HANDLE session) { return C_DestroyObject(session, privateKey(7)); }, CKR_FUNCTION_FAILED, "ERROR Delete keypair in destroy object failed : %"},
    {"DeletionLooksUpACertificate", "velkor_getCertificateList", "C_DestroyObject", nullptr, [](CK_SESSION_HANDLE session) { return C_DestroyObject(session, certificate(1)); }, CKR_OBJECT_HANDLE_INVALID, "DEBUG Input certificate not found in destroy : 1879056385"},
    {"DeletionOfACertificate", "velkor_deleteCertificate", "C_DestroyObject", nullptr, [](CK_SESSION_HANDLE session) { return C_DestroyObject(session, certificate(3)); }, CKR_FUNCTION_FAILED, "ERROR Delete certificate in destroy object failed : %"},
    {"ImportParses", "velkor_getCertificateDetails", "C_CreateObject", nullptr, importCertificate, CKR_DATA_INVALID, "DEBUG certificate parsing failed"},
    {"ImportLooksForIssuers", "velkor_getFilesWithExtensionsAndConvertDER", "C_CreateObject", nullptr, importCertificate, CKR_OK, nullptr},
    {"ImportOfACertificate", "velkor_importCertificate", "C_CreateObject", nullptr, importCertificate, CKR_FUNCTION_FAILED, "ERROR Leaf import failed: %", NO_OPERATION, NO_OPERATION, true},
    {"ImportLooksForItsCertificate", "velkor_getCertificateList", "C_CreateObject", nullptr, importCertificate, CKR_OK, nullptr},
    {"ImportLooksForAKeyPair", "velkor_getKeyPairList", "C_CreateObject", nullptr, importCertificate, CKR_OK, nullptr},
    {"ImportStoresALabel", "velkor_updateKeyPairDetails", "C_CreateObject", withoutLabels, importCertificate, CKR_OK, nullptr},
    {"ImportOfAKey", "velkor_importPfx", "C_CreateObject", nullptr, importKey, CKR_FUNCTION_FAILED, "ERROR Import private key into device failed : %", NO_OPERATION, NO_OPERATION, true},
    {"ImportLooksForItsKey", "velkor_getKeyPairList", "C_CreateObject", nullptr, importKey, CKR_OK, nullptr},
    {"Generation", "velkor_generateKeyPair", "C_GenerateKeyPair", nullptr, generate, CKR_FUNCTION_FAILED, "ERROR Generate key pair failed : %", NO_OPERATION, NO_OPERATION, true},
    {"DerivationLooksUp", "velkor_getKeyPairList", "C_DeriveKey", nullptr, derive, CKR_KEY_HANDLE_INVALID, nullptr},
    {"Derivation", "velkor_ecdhDerive", "C_DeriveKey", nullptr, derive, CKR_FUNCTION_FAILED, "ERROR C_DeriveKey: velkor_ecdhDerive failed:% len=0"},
    {"DerivationBeginsAHash", "velkor_initHash", "C_DeriveKey", nullptr, derive, CKR_FUNCTION_FAILED, "ERROR C_DeriveKey: initHash failed %"},
    {"DerivationHashes", "velkor_updateHash", "C_DeriveKey", nullptr, derive, CKR_FUNCTION_FAILED, "ERROR C_DeriveKey: updateHash failed %"},
    {"DerivationEndsAHash", "velkor_finalHash", "C_DeriveKey", nullptr, derive, CKR_FUNCTION_FAILED, "ERROR C_DeriveKey: finalHash failed %"},
    {"RandomNumbers", "velkor_generateRamdomNumber", "C_GenerateRandom", nullptr, giveRandom, CKR_FUNCTION_FAILED, "ERROR C_GenerateRandom: generate random number failed ret=%"},
    {"DigestInit", "velkor_initHash", "C_DigestInit", nullptr, digestInit, CKR_FUNCTION_FAILED, "ERROR Init hash in diges init failed : %"},
    {"DigestHashes", "velkor_updateHash", "C_Digest", begun<digestInit>, [](CK_SESSION_HANDLE session) { return whole(C_Digest, session); }, CKR_FUNCTION_FAILED, "ERROR Update hash data in diget failed : %", DIGEST, DIGEST},
    {"DigestEnds", "velkor_finalHash", "C_Digest", begun<digestInit>, [](CK_SESSION_HANDLE session) { return whole(C_Digest, session); }, CKR_FUNCTION_FAILED, "ERROR Final hash data in diget failed : %", DIGEST, DIGEST},
    {"DigestUpdate", "velkor_updateHash", "C_DigestUpdate", begun<digestInit>, [](CK_SESSION_HANDLE session) { return C_DigestUpdate(session, data, sizeof data); }, CKR_FUNCTION_FAILED, "ERROR Update hash data in digest update failed : %", DIGEST, DIGEST},
    {"DigestFinal", "velkor_finalHash", "C_DigestFinal", begun<digestInit>, [](CK_SESSION_HANDLE session) { return finish(C_DigestFinal, session); }, CKR_FUNCTION_FAILED, "ERROR Final hash data in diget failed : %", DIGEST, DIGEST},
    {"SignInitLooksUp", "velkor_getKeyPairList", "C_SignInit", nullptr, signInit, CKR_OBJECT_HANDLE_INVALID, "ERROR Invalid input handle in sign : 1879048194"},
    {"SignBeginsAHash", "velkor_initHash", "C_Sign", begun<signInit>, [](CK_SESSION_HANDLE session) { return whole(C_Sign, session); }, CKR_FUNCTION_FAILED, "ERROR init hash failed %"},
    {"SignHashes", "velkor_updateHash", "C_Sign", begun<signInit>, [](CK_SESSION_HANDLE session) { return whole(C_Sign, session); }, CKR_FUNCTION_FAILED, "ERROR update hash failed %"},
    {"SignEndsAHash", "velkor_finalHash", "C_Sign", begun<signInit>, [](CK_SESSION_HANDLE session) { return whole(C_Sign, session); }, CKR_FUNCTION_FAILED, "ERROR final hash failed %"},
    {"Sign", "velkor_signHash", "C_Sign", begun<signInit>, [](CK_SESSION_HANDLE session) { return whole(C_Sign, session); }, CKR_FUNCTION_FAILED, "ERROR Sign hash failed : %"},
    {"SignUpdateBeginsAHash", "velkor_initHash", "C_SignUpdate", begun<signInit>, [](CK_SESSION_HANDLE session) { return C_SignUpdate(session, data, sizeof data); }, CKR_FUNCTION_FAILED, "ERROR C_SignUpdate: initHash failed %"},
    {"SignUpdate", "velkor_updateHash", "C_SignUpdate", begun<signInit>, [](CK_SESSION_HANDLE session) { return C_SignUpdate(session, data, sizeof data); }, CKR_FUNCTION_FAILED, "ERROR C_SignUpdate: updateHash failed %"},
    {"SignFinalEndsAHash", "velkor_finalHash", "C_SignFinal", signUnderWay, [](CK_SESSION_HANDLE session) { return finish(C_SignFinal, session); }, CKR_FUNCTION_FAILED, "ERROR C_SignFinal: finalHash failed %"},
    {"SignFinal", "velkor_signHash", "C_SignFinal", signUnderWay, [](CK_SESSION_HANDLE session) { return finish(C_SignFinal, session); }, CKR_FUNCTION_FAILED, "ERROR C_SignFinal: signHash failed %"},
    {"VerifyInitLooksUp", "velkor_getKeyPairList", "C_VerifyInit", nullptr, verifyInit, CKR_OBJECT_HANDLE_INVALID, "ERROR Invalid input handle in verify : 1879052290"},
    {"VerifyBeginsAHash", "velkor_initHash", "C_Verify", begun<verifyInit>, [](CK_SESSION_HANDLE session) { return C_Verify(session, data, sizeof data, data, sizeof data); }, CKR_FUNCTION_FAILED, "ERROR C_Verify: initHash failed ret=%"},
    {"VerifyHashes", "velkor_updateHash", "C_Verify", begun<verifyInit>, [](CK_SESSION_HANDLE session) { return C_Verify(session, data, sizeof data, data, sizeof data); }, CKR_FUNCTION_FAILED, "ERROR C_Verify: updateHash failed ret=%"},
    {"VerifyEndsAHash", "velkor_finalHash", "C_Verify", begun<verifyInit>, [](CK_SESSION_HANDLE session) { return C_Verify(session, data, sizeof data, data, sizeof data); }, CKR_FUNCTION_FAILED, "ERROR C_Verify: finalHash failed ret=%"},
    {"Verify", "velkor_verifySignatureHash", "C_Verify", begun<verifyInit>, [](CK_SESSION_HANDLE session) { return C_Verify(session, data, sizeof data, data, sizeof data); }, CKR_SIGNATURE_INVALID, "ERROR Verify signature failed : %"},
    {"VerifyUpdateBeginsAHash", "velkor_initHash", "C_VerifyUpdate", begun<verifyInit>, [](CK_SESSION_HANDLE session) { return C_VerifyUpdate(session, data, sizeof data); }, CKR_FUNCTION_FAILED, "ERROR C_VerifyUpdate: initHash failed %"},
    {"VerifyUpdate", "velkor_updateHash", "C_VerifyUpdate", begun<verifyInit>, [](CK_SESSION_HANDLE session) { return C_VerifyUpdate(session, data, sizeof data); }, CKR_FUNCTION_FAILED, "ERROR C_VerifyUpdate: updateHash failed %"},
    {"VerifyFinalEndsAHash", "velkor_finalHash", "C_VerifyFinal", verifyUnderWay, [](CK_SESSION_HANDLE session) { return C_VerifyFinal(session, data, sizeof data); }, CKR_FUNCTION_FAILED, "ERROR C_VerifyFinal: finalHash failed %"},
    {"VerifyFinal", "velkor_verifySignatureHash", "C_VerifyFinal", verifyUnderWay, [](CK_SESSION_HANDLE session) { return C_VerifyFinal(session, data, sizeof data); }, CKR_SIGNATURE_INVALID, "ERROR C_VerifyFinal: verify failed %"},
    {"EncryptInitLooksUp", "velkor_getKeyPairList", "C_EncryptInit", nullptr, encryptInit, CKR_OBJECT_HANDLE_INVALID, "ERROR Invalid input handle in encrypt : 1879052290"},
    {"Encrypt", "velkor_encrypt", "C_Encrypt", begun<encryptInit>, [](CK_SESSION_HANDLE session) { return whole(C_Encrypt, session); }, CKR_FUNCTION_FAILED, "ERROR Encrypt data failed : %"},
    {"DecryptInitLooksUp", "velkor_getKeyPairList", "C_DecryptInit", nullptr, decryptInit, CKR_OBJECT_HANDLE_INVALID, "ERROR Invalid input handle in decrypt : 1879048194"},
    {"Decrypt", "velkor_decrypt", "C_Decrypt", begun<decryptInit>, [](CK_SESSION_HANDLE session) { return whole(C_Decrypt, session); }, CKR_FUNCTION_FAILED, "ERROR Dacrypt data failed : %", DECRYPT, DECRYPT},
};
// clang-format on

class DeviceFaultTest : public OperationInProgressTest, public testing::WithParamInterface<Site>
{
protected:
    /// The monitor makes calls of the device too, which are not to be those that fail.
    void SetUp() override
    {
        monitorSleep_.hold();
        OperationInProgressTest::SetUp();
        ASSERT_TRUE(monitorSleep_.waitForIt());
        records_ = first();
    }

    /// A session that is as every other one was before.
    void beginAnew()
    {
        first() = records_;
        C_CloseSession(hSession_);
        listSlots();
        hSession_ = openSession(READ_WRITE);
        C_Logout(hSession_); // In some cases somebody is logged in by now.
        if (GetParam().prepare != nullptr)
            GetParam().prepare(hSession_, first());
    }

    Answer callWith(const Fault& fault)
    {
        beginAnew();
        operationOf(GetParam().operation).fail(*device_, fault);
        Answer given = answer(GetParam().call, hSession_);
        EXPECT_TRUE(testing::Mock::VerifyAndClearExpectations(device_.get())) << "the device was not called";
        return given;
    }

    void expectLeft(int operation)
    {
        EXPECT_EQ(activeOperation(), operation);
        // Whatever it was, a search takes its place, and the session goes on.
        EXPECT_EQ(findAll(hSession_), CKR_OK);
        EXPECT_EQ(C_FindObjectsFinal(hSession_), CKR_OK);
        if (first().keyPairs.empty())
            return;
        EXPECT_EQ(signInit(hSession_), CKR_OK);
        EXPECT_EQ(whole(C_Sign, hSession_), CKR_OK);
    }

    static std::string lineFor(int status)
    {
        std::string line = GetParam().line;
        if (const std::size_t place = line.find('%'); place != std::string::npos)
            line.replace(place, 1, std::to_string(status));
        return line;
    }

    DeviceRecords records_;
};

INSTANTIATE_TEST_SUITE_P(Of, DeviceFaultTest, testing::ValuesIn(SITES),
                         [](const auto& site) { return site.param.name; });

TEST_P(DeviceFaultTest, ThatIsAStatusIsAnsweredAndLogged)
{
    const Site& site = GetParam();
    for (const int status : {1, -1, STATUS_DEVICE_REMOVED, STATUS_DEVICE_UNREACHABLE, std::numeric_limits<int>::max(),
                             std::numeric_limits<int>::min()}) {
        const bool isRemoval = status == STATUS_DEVICE_REMOVED || status == STATUS_DEVICE_UNREACHABLE;
        const Answer given = callWith({status, nullptr});
        EXPECT_EQ(given.code, site.tellsRemoval && isRemoval ? CKR_DEVICE_REMOVED : site.code) << status;
        if (site.line != nullptr) {
            EXPECT_THAT(given.lines, testing::Contains(lineFor(status)));
        }
        expectLeft(site.afterStatus);
    }
}

TEST_P(DeviceFaultTest, ThatIsThrownStaysInTheModule)
{
    struct Thrown {
        std::exception_ptr exception;
        CK_RV code;
        const char* text;
    };
    const Thrown all[] = {
        {std::make_exception_ptr(std::runtime_error("broken")), CKR_GENERAL_ERROR, ": unexpected exception: broken"},
        {std::make_exception_ptr(std::bad_alloc()), CKR_HOST_MEMORY, ": out of memory"},
        {std::make_exception_ptr(8), CKR_GENERAL_ERROR, ": unexpected exception"},
    };
    for (const Thrown& thrown : all) {
        const Answer given = callWith({0, thrown.exception});
        EXPECT_EQ(given.code, thrown.code);
        EXPECT_THAT(given.lines, testing::Contains("ERROR " + std::string(GetParam().function) + thrown.text));
        expectLeft(GetParam().afterException);
    }
}

/// What has nothing to do with the device whose call is stuck.
void useOtherDevice()
{
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(C_OpenSession(SECOND_SLOT, READ_WRITE, nullptr, nullptr, &session), CKR_OK);
    EXPECT_EQ(giveRandom(session), CKR_OK);
    EXPECT_EQ(digestInit(session), CKR_OK);
    EXPECT_EQ(whole(C_Digest, session), CKR_OK);
    CK_SESSION_INFO info;
    EXPECT_EQ(C_GetSessionInfo(session, &info), CKR_OK);
    CK_TOKEN_INFO token;
    EXPECT_EQ(C_GetTokenInfo(FIRST_SLOT, &token), CKR_OK);
    EXPECT_EQ(C_CloseSession(session), CKR_OK);
}

TEST_P(DeviceFaultTest, ThatIsNotComingBackKeepsNobodyElse)
{
    constexpr std::chrono::seconds LONG_ENOUGH{30};
    beginAnew();
    Gate gate;
    operationOf(GetParam().operation).hold(*device_, gate);
    std::future<CK_RV> held = std::async(std::launch::async, GetParam().call, hSession_);
    gate.waitUntilHeld();
    std::future<void> others = std::async(std::launch::async, useOtherDevice);
    EXPECT_EQ(others.wait_for(LONG_ENOUGH), std::future_status::ready);
    EXPECT_EQ(held.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    gate.letGo();
    held.get();
}

} // namespace
