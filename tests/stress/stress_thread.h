// One of the threads of a stress run: it does all that a host can do, in sessions of its own, and looks at the results.
#pragma once

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "stress_world.h"

class StressThread
{
public:
    using ByteVector = std::vector<unsigned char>;

    StressThread(StressWorld& world, int number, unsigned long seed, CK_SLOT_ID slot);
    ~StressThread();
    StressThread(StressThread&& other) = delete;

    /// Every work in an order of chance, again and again, until the world is over.
    void run();

private:
    using Work = void (StressThread::*)();

    bool beginSession();
    bool isCalm() const;
    /// True when the call succeeded. Without a reason to fail it has to.
    bool did(const char* function, CK_RV code);
    /// A call that has this code, unless something disturbs it.
    void answers(const char* function, CK_RV code, CK_RV expected);
    void expect(bool holds, const char* what);
    void login();

    std::optional<std::vector<CK_OBJECT_HANDLE>> find(CK_OBJECT_CLASS objectClass, CK_ATTRIBUTE criterion);
    CK_OBJECT_HANDLE findById(CK_OBJECT_CLASS objectClass, unsigned char id);
    std::optional<ByteVector> value(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type);
    std::optional<ByteVector> sign(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, ByteVector data, bool inParts);
    void verify(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, ByteVector data, ByteVector signature, bool inParts);
    void checkSignature(const ByteVector& signature, const ByteVector& identifier);
    void destroyed(CK_OBJECT_HANDLE object);

    void describe();
    void openAndClose();
    void logOutAndIn();
    void changePin();
    void closeAll();
    void findAndRead();
    void useCertificate();
    void generateAndUse();
    void signAndVerify();
    void encryptAndDecrypt();
    void encryptAndDecryptInParts();
    void digest();
    void digestInParts();
    void derive();
    void random();
    void callTheUnsupported();

    StressWorld& world_;
    const CK_FUNCTION_LIST& p11_;
    const int number_;
    const std::size_t token_;
    const CK_SLOT_ID slot_;
    std::mt19937 chance_;
    CK_SESSION_HANDLE session_ = 0;
    unsigned long mark_ = 0; ///< Of the token's disturbances, when the session was opened.
    int round_ = 0;
};
