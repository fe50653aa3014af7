// What a forked child of a host meets.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include "eventually.h"
#include "sleeps.h"
#include "strict_fixture.h"

namespace
{

class StrictForkTest : public StrictTest
{
};

/// Runs `work` in a forked child; gives what it returns.
int inChild(const std::function<int()>& work)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(work());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

TEST_F(StrictForkTest, AForkedChildIsUninitializedAndMayBeginAnew)
{
    start();
    const CK_SESSION_HANDLE session = userSession();
    const CK_SLOT_ID slot = slots().front();
    const int result = inChild([&] {
        CK_INFO info;
        if (p11.C_GetInfo(&info) != CKR_CRYPTOKI_NOT_INITIALIZED)
            return 1;
        if (p11.C_Initialize(nullptr) != CKR_OK)
            return 2;
        CK_SESSION_INFO sessionInfo;
        if (p11.C_GetSessionInfo(session, &sessionInfo) != CKR_SESSION_HANDLE_INVALID)
            return 3;
        if (slots().front() != slot || textIn(tokenInfo(slot).serialNumber) != padded(FIRST_DEVICE, 16))
            return 4;
        const CK_SESSION_HANDLE own = open(slot);
        ByteVector signature;
        if (login(own) != CKR_OK ||
            sign(own, {CKM_ECDSA, nullptr, 0}, privateKey(own, 5), ByteVector(32), signature) != CKR_OK)
            return 5;
        return p11.C_Finalize(nullptr) == CKR_OK ? 0 : 6;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(stateOf(session), CKS_RW_USER_FUNCTIONS);
}

TEST_F(StrictForkTest, AChildOfAFinalizingProcessMayBeginAnew)
{
    start();
    ASSERT_EQ(p11.C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(inChild([&] { return p11.C_Initialize(nullptr) == CKR_OK && slots().size() == 2 ? 0 : 1; }), 0);
}

TEST_F(StrictForkTest, SessionObjectsAreUnknownInAForkedChild)
{
    start();
    const CK_SESSION_HANDLE session = userSession();
    CK_OBJECT_CLASS objectClass = CKO_DATA;
    std::string label = "note";
    CK_ATTRIBUTE entries[] = {attribute(CKA_CLASS, objectClass), attribute(CKA_LABEL, label)};
    CK_OBJECT_HANDLE object = 0;
    ASSERT_EQ(p11.C_CreateObject(session, entries, 2, &object), CKR_OK);
    EXPECT_EQ(inChild([&] {
                  p11.C_Initialize(nullptr);
                  const CK_SESSION_HANDLE own = open(slots().front());
                  return find(own, {attribute(CKA_LABEL, label)}).empty() ? 0 : 1;
              }),
              0);
    EXPECT_EQ(find(session, {attribute(CKA_LABEL, label)}), Handles{object});
}

TEST_F(StrictForkTest, AChildGivesNoHandleThatItsParentGave)
{
    start();
    const CK_SESSION_HANDLE session = userSession();
    const CK_OBJECT_HANDLE key = privateKey(session, 5);
    EXPECT_EQ(inChild([&] {
                  p11.C_Initialize(nullptr);
                  const CK_SESSION_HANDLE own = userSession();
                  return own > session && privateKey(own, 5) > key ? 0 : 1;
              }),
              0);
}

TEST_F(StrictForkTest, AChildThatIsForkedWhileAThreadStartsTheFrontMayBeginAnew)
{
    device->isStartHeld = true;
    std::atomic<CK_RV> result = CKR_GENERAL_ERROR;
    std::thread starter([&] { result = p11.C_Initialize(nullptr); });
    EXPECT_TRUE(test_system::eventually([&] { return device->isStarting.load(); }));
    // The fork waits for the start, which ends no earlier than that: this thread's next sleep is the fork's.
    test_system::takeOverSleeps([&, forking = std::this_thread::get_id()](std::chrono::milliseconds) {
        if (std::this_thread::get_id() == forking)
            device->isStartHeld = false;
        return false;
    });
    EXPECT_EQ(
        inChild([&] {
            CK_INFO info;
            if (p11.C_GetInfo(&info) != CKR_CRYPTOKI_NOT_INITIALIZED)
                return 1;
            if (p11.C_Initialize(nullptr) != CKR_OK)
                return 2;
            const CK_SESSION_HANDLE own = userSession();
            ByteVector signature;
            return sign(own, {CKM_ECDSA, nullptr, 0}, privateKey(own, 5), ByteVector(32), signature) == CKR_OK ? 0 : 3;
        }),
        0);
    test_system::takeOverSleeps({});
    starter.join();
    EXPECT_EQ(result, CKR_OK);
    EXPECT_EQ(slots().size(), 2U);
}

TEST_F(StrictForkTest, AProcessThatExitsWaitsForNoCallForLong)
{
    constexpr std::chrono::seconds LONG{60};
    std::fflush(nullptr);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(inChild([&] {
                  start();
                  const CK_SESSION_HANDLE session = userSession();
                  ByteVector p256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
                  KeyPair pair; // Of the session: it is to be deleted as the process exits.
                  generate(session, CKM_EC_KEY_PAIR_GEN, {attribute(CKA_EC_PARAMS, p256)}, {}, pair);
                  device->signingDelayMilliseconds = static_cast<int>(std::chrono::milliseconds(LONG).count());
                  std::thread([&] {
                      ByteVector signature;
                      sign(session, {CKM_ECDSA, nullptr, 0}, pair.privateKey, ByteVector(32), signature);
                  }).detach();
                  std::exit(test_system::eventually([&] { return device->signing == 1; }) ? 0 : 1);
                  return 1;
              }),
              0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, LONG / 2);
}

TEST_F(StrictForkTest, AProcessMayForkWhileAThreadSigns)
{
    start();
    const CK_SESSION_HANDLE session = userSession();
    device->signingDelayMilliseconds = 50; // Which the fork has to wait for.
    std::thread signer([&] {
        ByteVector signature;
        EXPECT_EQ(sign(session, {CKM_ECDSA, nullptr, 0}, privateKey(session, 5), ByteVector(32), signature), CKR_OK);
    });
    EXPECT_TRUE(test_system::eventually([&] { return device->signing == 1; }));
    EXPECT_EQ(inChild([&] { return p11.C_Initialize(nullptr) == CKR_OK ? 0 : 1; }), 0);
    signer.join();
}

} // namespace
