// What another thread does while a call is at the device: it destroys and makes objects, logs out, closes the session;
// and tokens go and come.
#include <future>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>

#include "device_double.h"
#include "eventually.h"
#include "gate.h"
#include "strict_fixture.h"
#include "template_values.h"

namespace
{

enum class Moment { Before, After };

/// Holds one call of an operation, before or after its work, until the test lets it go.
class HoldingDevice : public StrictDevice
{
public:
    /// The next call of that operation is the one.
    std::shared_ptr<Gate> hold(const std::string& operation, Moment moment)
    {
        const std::scoped_lock lock(lock_);
        held_ = {operation, moment};
        return gate_ = std::make_shared<Gate>();
    }

    int velkor_validatePassword(const char* deviceId, const char* pin, int userType, int* triesLeft,
                                void* libraryInstance) override
    {
        pass("validatePassword", Moment::Before);
        return StrictDevice::velkor_validatePassword(deviceId, pin, userType, triesLeft, libraryInstance);
    }

    std::vector<VelkorKeyPair>& velkor_getKeyPairList(const char* deviceId, void* libraryInstance) override
    {
        std::vector<VelkorKeyPair>& list = StrictDevice::velkor_getKeyPairList(deviceId, libraryInstance);
        pass("getKeyPairList", Moment::After);
        return list;
    }

    std::vector<VelkorCertificate>& velkor_getCertificateList(const char* deviceId, void* libraryInstance) override
    {
        pass("getCertificateList", Moment::Before);
        std::vector<VelkorCertificate>& list = StrictDevice::velkor_getCertificateList(deviceId, libraryInstance);
        pass("getCertificateList", Moment::After);
        return list;
    }

    int velkor_generateKeyPair(const char* deviceId, const char* pin, VelkorKeyPair* keyPair,
                               void* libraryInstance) override
    {
        const int status = StrictDevice::velkor_generateKeyPair(deviceId, pin, keyPair, libraryInstance);
        pass("generateKeyPair", Moment::After);
        return status;
    }

    int velkor_deleteKeyPair(const char* deviceId, const unsigned char* keyIdentifier, const char* pin, bool deviceFlag,
                             void* libraryInstance) override
    {
        pass("deleteKeyPair", Moment::Before);
        return StrictDevice::velkor_deleteKeyPair(deviceId, keyIdentifier, pin, deviceFlag, libraryInstance);
    }

    int velkor_finalHash(void* hashContext, unsigned char* hash, int* hashLength, void* libraryInstance) override
    {
        pass("finalHash", Moment::Before);
        return StrictDevice::velkor_finalHash(hashContext, hash, hashLength, libraryInstance);
    }

    int velkor_decrypt(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                       const unsigned char* data, int dataLength, unsigned char** out, int* outLength, bool deviceFlag,
                       void* libraryInstance) override
    {
        pass("decrypt", Moment::Before);
        return StrictDevice::velkor_decrypt(deviceId, keyIdentifier, pin, data, dataLength, out, outLength, deviceFlag,
                                            libraryInstance);
    }

    int velkor_ecdhDerive(const char* deviceId, const unsigned char* keyIdentifier, const char* pin,
                          const unsigned char* peerPublicKey, int peerPublicKeyLength, unsigned char** out,
                          int* outLength, void* libraryInstance) override
    {
        pass("ecdhDerive", Moment::Before);
        return StrictDevice::velkor_ecdhDerive(deviceId, keyIdentifier, pin, peerPublicKey, peerPublicKeyLength, out,
                                               outLength, libraryInstance);
    }

private:
    void pass(const std::string& operation, Moment moment)
    {
        std::shared_ptr<Gate> gate;
        {
            const std::scoped_lock lock(lock_);
            if (held_ == std::pair{operation, moment})
                gate = std::exchange(gate_, nullptr);
        }
        if (gate)
            gate->hold();
    }

    std::mutex lock_;
    std::pair<std::string, Moment> held_;
    std::shared_ptr<Gate> gate_; ///< Of the call that is still to come.
};

class StrictMeanwhileTest : public StrictTest, protected TemplateValues
{
protected:
    void SetUp() override
    {
        setDeviceOperations(holding);
        device = holding;
        for (std::uint32_t id = 4; id <= 6; ++id) // More than are read when they are found.
            device->devices[FIRST_DEVICE].certificates.push_back(
                makeCertificate(id, "certificate " + std::to_string(id)));
        for (const int content : {98, 99})
            device->detailsOf(derOf(static_cast<unsigned char>(content))).subjectCommonName = "Subject";
        start();
        session = userSession();
        other = open(slots().front());
        watching = open(slots().front());
    }

    /// Calls that are at work at once do not wait for each other's session of the module.
    void openTwoModuleSessions() const
    {
        beginDigest(other);
        find(session, {});
        ByteVector hash(32);
        CK_ULONG length = 32;
        EXPECT_EQ(p11.C_DigestFinal(other, hash.data(), &length), CKR_OK);
    }

    /// The session of the host keeps one of the module until the digest ends.
    void beginDigest(CK_SESSION_HANDLE inSession) const
    {
        CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
        unsigned char part[] = {1, 2, 3};
        EXPECT_EQ(p11.C_DigestInit(inSession, &mechanism), CKR_OK);
        EXPECT_EQ(p11.C_DigestUpdate(inSession, part, sizeof part), CKR_OK);
    }

    /// Runs `call` until the device holds it, then `others` beside it, and gives what the call answers.
    template <typename Call, typename Others>
    CK_RV meanwhile(const char* operation, Moment moment, const Call& call, const Others& others)
    {
        const auto gate = holding->hold(operation, moment);
        std::future<CK_RV> result = std::async(std::launch::async, call);
        gate->waitUntilHeld();
        others();
        gate->letGo();
        return result.get();
    }

    /// The call itself waits until nobody uses the PIN; all others see it at once.
    void beginLogout()
    {
        logout = std::async(std::launch::async, [this] { return p11.C_Logout(other); });
        EXPECT_TRUE(test_system::eventually([this] { return stateOf(watching) == CKS_RW_PUBLIC_SESSION; }));
    }

    void replug() const
    {
        device->setConnected({SECOND_DEVICE});
        EXPECT_EQ(slots().size(), 1U);
        device->setConnected({FIRST_DEVICE, SECOND_DEVICE});
        EXPECT_EQ(slots().size(), 2U);
    }

    CK_RV generateEc(CK_SESSION_HANDLE inSession, CK_BBOOL onToken, ByteVector curve, KeyPair& pair) const
    {
        return generate(inSession, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, curve)},
                        {attribute(CKA_TOKEN, onToken)}, pair);
    }

    /// Puts another key pair of the device into the place of its last one, with the same number.
    KeyPair replaceLastPair(CK_OBJECT_HANDLE oldPrivateKey) const
    {
        const std::uint32_t number = device->devices.at(FIRST_DEVICE).keyPairs.back().id;
        EXPECT_EQ(p11.C_DestroyObject(other, oldPrivateKey), CKR_OK);
        KeyPair pair;
        EXPECT_EQ(generateEc(other, CK_TRUE, p384, pair), CKR_OK);
        EXPECT_EQ(device->devices.at(FIRST_DEVICE).keyPairs.back().id, number);
        return pair;
    }

    static ByteVector derOf(unsigned char content) { return {0x30, 0x03, 0x02, 0x01, content}; }

    CK_RV createCertificate(CK_SESSION_HANDLE inSession, unsigned char content, CK_OBJECT_HANDLE& certificate)
    {
        ByteVector der = derOf(content);
        CK_ATTRIBUTE entries[] = {attribute(CKA_CLASS, certificateClass), attribute(CKA_TOKEN, yes),
                                  attribute(CKA_VALUE, der)};
        return p11.C_CreateObject(inSession, entries, 3, &certificate);
    }

    /// As above, for the last certificate.
    CK_OBJECT_HANDLE replaceLastCertificate(CK_OBJECT_HANDLE old)
    {
        EXPECT_EQ(p11.C_DestroyObject(other, old), CKR_OK);
        CK_OBJECT_HANDLE fresh = 0;
        EXPECT_EQ(createCertificate(other, 99, fresh), CKR_OK);
        EXPECT_EQ(device->devices.at(FIRST_DEVICE).certificates.back().id, 7U);
        return fresh;
    }

    CK_RV derive(CK_SESSION_HANDLE inSession, CK_OBJECT_HANDLE base) const
    {
        ByteVector point(65, 0x31);
        point[0] = 0x04;
        CK_ECDH1_DERIVE_PARAMS parameter{CKD_NULL, 0, nullptr, 65, point.data()};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
        CK_OBJECT_HANDLE secret = 0;
        return p11.C_DeriveKey(inSession, &mechanism, base, nullptr, 0, &secret);
    }

    CK_RV decryptInit(CK_OBJECT_HANDLE key) const
    {
        CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
        return p11.C_DecryptInit(session, &mechanism, key);
    }

    CK_RV decrypt(unsigned char firstByte) const
    {
        ByteVector cipher(256, 5);
        cipher[0] = firstByte;
        ByteVector plain(256);
        CK_ULONG length = 256;
        return p11.C_Decrypt(session, cipher.data(), 256, plain.data(), &length);
    }

    std::size_t pairsOnDevice() const { return device->devices.at(FIRST_DEVICE).keyPairs.size(); }

    void expectNoTryLost() const { EXPECT_EQ(device->triesLeft(FIRST_DEVICE), 10); }

    std::shared_ptr<HoldingDevice> holding = std::make_shared<HoldingDevice>();
    CK_SESSION_HANDLE session = 0;  ///< Of the call that is held.
    CK_SESSION_HANDLE other = 0;    ///< Of those beside it.
    CK_SESSION_HANDLE watching = 0; ///< Of nobody else.
    std::future<CK_RV> logout;
};

// ---- Numbers that are used again ----

TEST_F(StrictMeanwhileTest, ASearchDoesNotTakeAPairForTheOneWhoseNumberItHas)
{
    const CK_OBJECT_HANDLE old = privateKey(other, 7);
    ByteVector id{7};
    Handles found;
    KeyPair fresh;
    meanwhile(
        "getKeyPairList", Moment::After,
        [&] {
            found = find(session, {attribute(CKA_CLASS, privateClass), attribute(CKA_ID, id)});
            return CKR_OK;
        },
        [&] { fresh = replaceLastPair(old); });
    EXPECT_EQ(found, Handles{});
    EXPECT_EQ(value(session, fresh.privateKey, CKA_EC_PARAMS), p384);
}

TEST_F(StrictMeanwhileTest, APublicKeyOfTheHostIsNotUsedThroughAnotherPair)
{
    const CK_OBJECT_HANDLE old = privateKey(other, 7);
    const CK_OBJECT_HANDLE oldPublic = publicKey(other, 7);
    ByteVector point = value(session, oldPublic, CKA_EC_POINT);
    CK_ATTRIBUTE entries[] = {attribute(CKA_CLASS, publicClass), attribute(CKA_KEY_TYPE, ec),
                              attribute(CKA_EC_POINT, point), attribute(CKA_EC_PARAMS, p521)};
    CK_OBJECT_HANDLE key = 0;
    ASSERT_EQ(p11.C_CreateObject(session, entries, 4, &key), CKR_OK);
    CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
    EXPECT_EQ(meanwhile(
                  "getKeyPairList", Moment::After, [&] { return p11.C_VerifyInit(session, &mechanism, key); },
                  [&] { replaceLastPair(old); }),
              CKR_KEY_FUNCTION_NOT_PERMITTED);
    EXPECT_TRUE(isLogged("C_VerifyInit: the pair of this public key is not on the token"));
}

TEST_F(StrictMeanwhileTest, ASignatureIsNotMadeWithThePairThatHasTakenTheNumber)
{
    KeyPair old;
    ASSERT_EQ(generateEc(session, CK_TRUE, p256, old), CKR_OK);
    CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
    ASSERT_EQ(p11.C_SignInit(session, &mechanism, old.privateKey), CKR_OK);
    const KeyPair fresh = replaceLastPair(old.privateKey);
    ByteVector signature;
    EXPECT_EQ(sign(other, mechanism, fresh.privateKey, ByteVector(32), signature), CKR_OK);
    ByteVector data(32);
    signature.resize(200);
    CK_ULONG length = 200;
    EXPECT_EQ(p11.C_Sign(session, data.data(), 32, signature.data(), &length), CKR_FUNCTION_FAILED);
    EXPECT_TRUE(isLogged("Another key has taken the place of key pair 8"));
    EXPECT_EQ(device->signatures().size(), 1U);
}

TEST_F(StrictMeanwhileTest, ACertificateIsNotReadByTheHandleOfTheOneBeforeIt)
{
    const CK_OBJECT_HANDLE old = find(other, {attribute(CKA_CLASS, certificateClass)}).back();
    CK_OBJECT_HANDLE fresh = 0;
    EXPECT_EQ(meanwhile(
                  "getCertificateList", Moment::Before, [&] { return ask(session, old, CKA_VALUE); },
                  [&] {
                      EXPECT_EQ(p11.C_DestroyObject(other, old), CKR_OK);
                      EXPECT_EQ(createCertificate(other, 99, fresh), CKR_OK);
                  }),
              CKR_OBJECT_HANDLE_INVALID);
    EXPECT_TRUE(isLogged("C_GetAttributeValue: the object is no longer there, handle=" + std::to_string(old)));
    EXPECT_NE(fresh, old);
    EXPECT_EQ(value(session, fresh, CKA_VALUE), derOf(99));
}

TEST_F(StrictMeanwhileTest, ACertificateIsNotDestroyedInThePlaceOfTheOneBeforeIt)
{
    CK_OBJECT_HANDLE old = 0;
    ASSERT_EQ(createCertificate(session, 98, old), CKR_OK);
    CK_OBJECT_HANDLE fresh = 0;
    EXPECT_EQ(meanwhile(
                  "getCertificateList", Moment::After, [&] { return p11.C_DestroyObject(session, old); },
                  [&] { fresh = replaceLastCertificate(old); }),
              CKR_OBJECT_HANDLE_INVALID);
    EXPECT_TRUE(isLogged("C_DestroyObject: the object is no longer there, handle=" + std::to_string(old)));
    EXPECT_EQ(value(session, fresh, CKA_VALUE), derOf(99));
    EXPECT_EQ(device->devices.at(FIRST_DEVICE).certificates.size(), 7U);
}

TEST_F(StrictMeanwhileTest, APairThatIsFoundBeforeItsCallIsOverKeepsItsHandle)
{
    openTwoModuleSessions();
    const Handles before = find(other, {attribute(CKA_CLASS, publicClass)});
    Handles during;
    KeyPair pair;
    EXPECT_EQ(meanwhile(
                  "generateKeyPair", Moment::After, [&] { return generateEc(session, CK_TRUE, p256, pair); },
                  [&] { during = find(other, {attribute(CKA_CLASS, publicClass)}); }),
              CKR_OK);
    ASSERT_EQ(during.size(), before.size() + 1);
    EXPECT_EQ(during.back(), pair.publicKey);
    EXPECT_EQ(ask(other, during.back(), CKA_LABEL), CKR_OK);
}

TEST_F(StrictMeanwhileTest, APairThatIsFoundWhileItIsDeletedIsNotTheNextOne)
{
    openTwoModuleSessions();
    KeyPair old;
    ASSERT_EQ(generateEc(session, CK_FALSE, p256, old), CKR_OK);
    Handles during;
    EXPECT_EQ(meanwhile(
                  "deleteKeyPair", Moment::Before, [&] { return p11.C_CloseSession(session); },
                  [&] { during = find(other, {attribute(CKA_CLASS, publicClass)}); }),
              CKR_OK);
    ASSERT_EQ(during.size(), 8U);
    KeyPair fresh;
    ASSERT_EQ(generateEc(other, CK_TRUE, p384, fresh), CKR_OK);
    EXPECT_EQ(ask(other, during.back(), CKA_EC_PARAMS), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(value(other, fresh.publicKey, CKA_EC_PARAMS), p384);
}

// ---- PINs and sessions of their time ----

TEST_F(StrictMeanwhileTest, APairOfAClosedSessionIsDeletedWithThePinOfTheMoment)
{
    KeyPair pair;
    ASSERT_EQ(generateEc(session, CK_FALSE, p256, pair), CKR_OK);
    beginDigest(session);
    EXPECT_EQ(meanwhile(
                  "finalHash", Moment::Before, [&] { return p11.C_CloseSession(session); },
                  [&] { EXPECT_EQ(setPin(other, "1234", "4321"), CKR_OK); }),
              CKR_OK);
    EXPECT_EQ(pairsOnDevice(), 7U);
    expectNoTryLost();
}

TEST_F(StrictMeanwhileTest, NoTryIsLostForAPairThatIsDeletedAfterItsLogin)
{
    KeyPair pair;
    ASSERT_EQ(generateEc(session, CK_FALSE, p256, pair), CKR_OK);
    beginDigest(session);
    const CK_SLOT_ID slot = slots().front();
    EXPECT_EQ(meanwhile(
                  "finalHash", Moment::Before, [&] { return p11.C_CloseAllSessions(slot); },
                  [&] { EXPECT_EQ(setPin(open(slot), "1234", "4321"), CKR_OK); }),
              CKR_OK);
    EXPECT_TRUE(isLogged("A key pair of a closed session was not deleted : 160"));
    EXPECT_EQ(pairsOnDevice(), 8U);
    expectNoTryLost();
}

TEST_F(StrictMeanwhileTest, APairThatItsUserDoesNotWaitForIsNotLeft)
{
    for (const CK_BBOOL onToken : {no, yes}) {
        KeyPair pair;
        EXPECT_EQ(meanwhile(
                      "generateKeyPair", Moment::After, [&] { return generateEc(session, onToken, p256, pair); },
                      [&] { beginLogout(); }),
                  CKR_USER_NOT_LOGGED_IN);
        EXPECT_EQ(logout.get(), CKR_OK);
        EXPECT_EQ(pair.privateKey, 0U);
        EXPECT_EQ(pairsOnDevice(), 7U);
        ASSERT_EQ(login(session), CKR_OK);
    }
    EXPECT_TRUE(isLogged("The user has logged out meanwhile, slotID=1"));
    EXPECT_EQ(find(session, {attribute(CKA_CLASS, privateClass)}).size(), 7U);
    EXPECT_EQ(device->pinsSeen(FIRST_DEVICE), std::vector<std::string>{"1234"});
    expectNoTryLost();
}

TEST_F(StrictMeanwhileTest, APairOfASessionThatIsClosedIsNotLeft)
{
    KeyPair pair;
    EXPECT_EQ(meanwhile(
                  "generateKeyPair", Moment::After, [&] { return generateEc(session, CK_FALSE, p256, pair); },
                  [&] { EXPECT_EQ(p11.C_CloseSession(session), CKR_OK); }),
              CKR_SESSION_CLOSED);
    EXPECT_TRUE(isLogged("C_GenerateKeyPair: the session has been closed meanwhile"));
    EXPECT_EQ(pairsOnDevice(), 7U);
    EXPECT_EQ(find(other, {attribute(CKA_CLASS, privateClass)}).size(), 7U);
}

TEST_F(StrictMeanwhileTest, ASessionThatIsClosedGetsNoObject)
{
    const CK_OBJECT_HANDLE base = privateKey(session, 5);
    EXPECT_EQ(meanwhile(
                  "ecdhDerive", Moment::Before, [&] { return derive(session, base); },
                  [&] { EXPECT_EQ(p11.C_CloseSession(session), CKR_OK); }),
              CKR_SESSION_CLOSED);
    EXPECT_TRUE(isLogged("C_DeriveKey: the session has been closed meanwhile"));
    CK_OBJECT_CLASS secretClass = CKO_SECRET_KEY;
    EXPECT_EQ(find(other, {attribute(CKA_CLASS, secretClass)}), Handles{});
}

TEST_F(StrictMeanwhileTest, ASessionThatIsClosedLeavesNoLogin)
{
    ASSERT_EQ(p11.C_Logout(session), CKR_OK);
    EXPECT_EQ(meanwhile(
                  "validatePassword", Moment::Before, [&] { return login(session); },
                  [&] { EXPECT_EQ(p11.C_CloseSession(session), CKR_OK); }),
              CKR_SESSION_CLOSED);
    EXPECT_TRUE(isLogged("C_Login: the session has been closed meanwhile"));
    EXPECT_EQ(stateOf(other), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(login(other), CKR_OK);
    expectNoTryLost();
}

// ---- What a lost login is told as ----

TEST_F(StrictMeanwhileTest, AFailedDecryptionIsNotBlamedOnTheDataWithoutALogin)
{
    ASSERT_EQ(decryptInit(privateKey(session, 2)), CKR_OK);
    EXPECT_EQ(meanwhile(
                  "decrypt", Moment::Before, [&] { return decrypt(0); }, [&] { beginLogout(); }),
              CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(logout.get(), CKR_OK);
    EXPECT_TRUE(isLogged("The user has logged out meanwhile, slotID=1"));
}

TEST_F(StrictMeanwhileTest, AFailedDecryptionIsNotBlamedOnTheDataWithoutTheToken)
{
    ASSERT_EQ(decryptInit(privateKey(session, 2)), CKR_OK);
    EXPECT_EQ(meanwhile(
                  "decrypt", Moment::Before, [&] { return decrypt(0); }, [&] { replug(); }),
              CKR_DEVICE_REMOVED);
    EXPECT_TRUE(isLogged("The token was removed meanwhile, slotID=1"));
}

TEST_F(StrictMeanwhileTest, ADecryptionThatIsAtWorkOutlivesTheLogin)
{
    ASSERT_EQ(decryptInit(privateKey(session, 2)), CKR_OK);
    EXPECT_EQ(meanwhile(
                  "decrypt", Moment::Before, [&] { return decrypt(1); }, [&] { beginLogout(); }),
              CKR_OK);
    EXPECT_EQ(logout.get(), CKR_OK);
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
}

/// Calls that need the login, each with what has to be done before it.
enum class Needing { Sign, Decrypt, Derive, Generate, Create, Change, DestroyPair, DestroyCertificate };

void PrintTo(Needing call, std::ostream* stream)
{
    constexpr const char* NAMES[] = {"Sign",   "Decrypt", "Derive",      "Generate",
                                     "Create", "Change",  "DestroyPair", "DestroyCertificate"};
    *stream << NAMES[static_cast<std::size_t>(call)];
}

class StrictMeanwhileCallTest : public StrictMeanwhileTest, public testing::WithParamInterface<Needing>
{
protected:
    /// The call has to open a session of the module, and to put the user's PIN into the place of another token's: there
    /// it is held.
    void prepare()
    {
        key = privateKey(session, GetParam() == Needing::Derive ? 5 : 2);
        certificate = findOne(session, CKO_CERTIFICATE, "certificate 1");
        CK_MECHANISM signing = {CKM_SHA256_RSA_PKCS, nullptr, 0};
        if (GetParam() == Needing::Sign) {
            ASSERT_EQ(p11.C_SignInit(session, &signing, key), CKR_OK);
        }
        if (GetParam() == Needing::Decrypt) {
            ASSERT_EQ(decryptInit(key), CKR_OK);
        }
        EXPECT_EQ(ask(session, key, CKA_LABEL), CKR_OK);
        beginDigest(watching);
        ASSERT_EQ(login(open(slots().back())), CKR_OK);
    }

    CK_RV call()
    {
        ByteVector data(20);
        ByteVector out(256);
        CK_ULONG length = 256;
        KeyPair pair;
        CK_OBJECT_HANDLE fresh = 0;
        std::string label = "changed";
        CK_ATTRIBUTE change = attribute(CKA_LABEL, label);
        switch (GetParam()) {
        case Needing::Sign:
            return p11.C_Sign(session, data.data(), 20, out.data(), &length);
        case Needing::Decrypt:
            return decrypt(1);
        case Needing::Derive:
            return derive(session, key);
        case Needing::Generate:
            return generateEc(session, CK_TRUE, p256, pair);
        case Needing::Create:
            return createCertificate(session, 99, fresh);
        case Needing::Change:
            return p11.C_SetAttributeValue(session, key, &change, 1);
        case Needing::DestroyPair:
            return p11.C_DestroyObject(session, key);
        default:
            return p11.C_DestroyObject(session, certificate);
        }
    }

    void expectNothingDone() const
    {
        EXPECT_EQ(device->pinsSeen(FIRST_DEVICE), std::vector<std::string>{"1234"});
        expectNoTryLost();
        EXPECT_EQ(pairsOnDevice(), 7U);
        EXPECT_EQ(device->devices.at(FIRST_DEVICE).certificates.size(), 6U);
        EXPECT_STREQ(device->devices.at(FIRST_DEVICE).keyPairs[1].label, "pair 2");
        EXPECT_TRUE(device->signatures().empty());
    }

    CK_OBJECT_HANDLE key = 0;
    CK_OBJECT_HANDLE certificate = 0;
};

TEST_P(StrictMeanwhileCallTest, SaysThatItsUserHasLoggedOut)
{
    prepare();
    EXPECT_EQ(meanwhile(
                  "validatePassword", Moment::Before, [&] { return call(); }, [&] { beginLogout(); }),
              CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(logout.get(), CKR_OK);
    EXPECT_TRUE(isLogged("The user has logged out meanwhile, slotID=1"));
    expectNothingDone();
}

TEST_P(StrictMeanwhileCallTest, SaysThatItsTokenWasRemoved)
{
    prepare();
    EXPECT_EQ(meanwhile(
                  "validatePassword", Moment::Before, [&] { return call(); }, [&] { replug(); }),
              CKR_DEVICE_REMOVED);
    EXPECT_TRUE(isLogged("The token was removed meanwhile, slotID=1"));
    expectNothingDone();
}

INSTANTIATE_TEST_SUITE_P(All, StrictMeanwhileCallTest,
                         testing::Values(Needing::Sign, Needing::Decrypt, Needing::Derive, Needing::Generate,
                                         Needing::Create, Needing::Change, Needing::DestroyPair,
                                         Needing::DestroyCertificate));

} // namespace
