// Many threads, several keys, two tokens that come and go.
#include <atomic>
#include <thread>

#include "eventually.h"
#include "monitor_sleep.h"
#include "strict_fixture.h"

namespace
{

class StrictThreadsTest : public StrictTest
{
protected:
    void SetUp() override
    {
        device->setUserPin(SECOND_DEVICE, "secret-2");
        start();
    }

    /// Waits for so many signatures more.
    static bool goesOn(const std::atomic<int>& signatures, int more)
    {
        return test_system::eventually([&, before = signatures.load()] { return signatures >= before + more; });
    }

    /// Signs with one key of a slot in a session of its own, and counts signatures of other keys.
    void signMany(CK_SLOT_ID slot, const std::string& label, unsigned char identifier, const std::string& serial,
                  int rounds)
    {
        const CK_SESSION_HANDLE session = open(slot);
        const CK_OBJECT_HANDLE key = findOne(session, CKO_PRIVATE_KEY, label);
        for (int round = 0; round < rounds; ++round) {
            ByteVector signature;
            const bool isEc = label != "pair 2" && label != "other pair";
            const CK_RV result = sign(session, {isEc ? CKM_ECDSA_SHA256 : CKM_SHA256_RSA_PKCS, nullptr, 0}, key,
                                      ByteVector(20), signature);
            if (result != CKR_OK ||
                ByteVector(signature.begin(), signature.begin() + 16) != ByteVector(16, identifier) ||
                std::string(signature.begin() + 24, signature.begin() + 32) != serial)
                ++failures;
        }
        p11.C_CloseSession(session);
    }

    /// A right PIN gives lost tries back, and hides them: what counts is that no wrong one ever came.
    void expectNoOtherPin(const std::string& serial, const std::string& right)
    {
        EXPECT_EQ(device->triesLeft(serial), 10);
        for (const std::string& pin : device->pinsSeen(serial))
            EXPECT_TRUE(pin.empty() || pin == right) << serial << " was given " << pin;
    }

    std::atomic<int> failures = 0;
};

TEST_F(StrictThreadsTest, EachSessionSignsWithItsOwnKeyOfItsOwnToken)
{
    const auto list = slots();
    const CK_SESSION_HANDLE one = open(list[0]);
    const CK_SESSION_HANDLE other = open(list[1]);
    ASSERT_EQ(login(one), CKR_OK);
    ASSERT_EQ(login(other, "secret-2"), CKR_OK);
    std::vector<std::thread> threads;
    for (int copy = 0; copy < 2; ++copy) {
        threads.emplace_back([&] { signMany(list[0], "pair 2", 0xA2, FIRST_DEVICE, 40); });
        threads.emplace_back([&] { signMany(list[0], "pair 5", 0xA5, FIRST_DEVICE, 40); });
        threads.emplace_back([&] { signMany(list[1], "other pair", 0xA1, SECOND_DEVICE, 40); });
        threads.emplace_back([&] {
            for (int round = 0; round < 20; ++round) {
                find(one, {});
                tokenInfo(list[1]);
            }
        });
        threads.back().join();
        threads.pop_back();
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(device->triesLeft(FIRST_DEVICE), 10);
    EXPECT_EQ(device->triesLeft(SECOND_DEVICE), 10);
    EXPECT_EQ(device->pinsSeen(FIRST_DEVICE), std::vector<std::string>{"1234"});
    EXPECT_EQ(device->pinsSeen(SECOND_DEVICE), std::vector<std::string>{"secret-2"});
}

TEST_F(StrictThreadsTest, NoTryIsLostWhileDevicesComeAndGo)
{
    std::atomic<bool> isOver = false;
    std::atomic<int> wrongKeys = 0;
    std::atomic<int> signatures = 0;
    const auto work = [&](CK_SLOT_ID slot, const std::string& pin, const std::string& label, unsigned char identifier) {
        while (!isOver) {
            CK_SESSION_HANDLE session = 0;
            if (p11.C_OpenSession(slot, READ_WRITE, nullptr, nullptr, &session) != CKR_OK)
                continue;
            login(session, pin);
            CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
            std::string text = label;
            CK_ATTRIBUTE criteria[] = {attribute(CKA_CLASS, objectClass), attribute(CKA_LABEL, text)};
            CK_OBJECT_HANDLE key = 0;
            CK_ULONG count = 0;
            if (p11.C_FindObjectsInit(session, criteria, 2) == CKR_OK &&
                p11.C_FindObjects(session, &key, 1, &count) == CKR_OK && count == 1) {
                ByteVector signature;
                if (sign(session, {CKM_SHA256_RSA_PKCS, nullptr, 0}, key, ByteVector(20), signature) == CKR_OK) {
                    ++signatures;
                    if (ByteVector(signature.begin(), signature.begin() + 16) != ByteVector(16, identifier))
                        ++wrongKeys;
                }
            }
            p11.C_CloseSession(session);
        }
    };
    const auto list = slots();
    std::vector<std::thread> threads;
    for (int copy = 0; copy < 4; ++copy) {
        threads.emplace_back(work, list[0], "1234", copy % 2 == 0 ? "pair 2" : "pair 3", copy % 2 == 0 ? 0xA2 : 0xA3);
        threads.emplace_back(work, list[1], "secret-2", "other pair", 0xA1);
    }
    MonitorSleep monitorSleep; // Of the module, which is loaded by now.
    monitorSleep.hold();
    for (int round = 0; round < 10; ++round) {
        EXPECT_TRUE(goesOn(signatures, 8));
        device->setConnected(round % 3 == 0   ? std::vector<std::string>{SECOND_DEVICE}
                             : round % 3 == 1 ? std::vector<std::string>{FIRST_DEVICE}
                                              : std::vector<std::string>{FIRST_DEVICE, SECOND_DEVICE});
        EXPECT_TRUE(monitorSleep.runCycle());
    }
    device->setConnected({FIRST_DEVICE, SECOND_DEVICE});
    EXPECT_TRUE(goesOn(signatures, 16));
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrongKeys, 0);
    EXPECT_GT(signatures, 0);
    expectNoOtherPin(FIRST_DEVICE, "1234");
    expectNoOtherPin(SECOND_DEVICE, "secret-2");
}

TEST_F(StrictThreadsTest, OperationsWithOneKeyRunSideBySide)
{
    const CK_SESSION_HANDLE session = userSession();
    privateKey(session, 5);
    device->signingDelayMilliseconds = 100;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&] { signMany(slots()[0], "pair 5", 0xA5, FIRST_DEVICE, 3); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GT(device->mostSigning, 1);
    EXPECT_EQ(failures, 0);
}

TEST_F(StrictThreadsTest, NobodyStarves)
{
    const CK_SESSION_HANDLE session = userSession();
    const CK_OBJECT_HANDLE other = privateKey(session, 6);
    const CK_SLOT_ID slot = slots()[0];
    std::atomic<bool> isOver = false;
    device->signingDelayMilliseconds = 5; // Else they make many while this thread waits for a processor.
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&] {
            while (!isOver)
                signMany(slot, "pair 5", 0xA5, FIRST_DEVICE, 5);
        });
    for (int round = 0; round < 10; ++round) {
        const std::size_t signaturesBefore = device->signatures().size();
        value(session, other, CKA_ID);
        EXPECT_LT(device->signatures().size() - signaturesBefore, 100U);
    }
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace
