// What a forked child of a host meets.
#include <chrono>
#include <functional>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

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

TEST_F(StrictForkTest, AProcessMayForkWhileAThreadSigns)
{
    start();
    const CK_SESSION_HANDLE session = userSession();
    device->signingDelayMilliseconds = 50;
    std::thread signer([&] {
        ByteVector signature;
        EXPECT_EQ(sign(session, {CKM_ECDSA, nullptr, 0}, privateKey(session, 5), ByteVector(32), signature), CKR_OK);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(inChild([&] { return p11.C_Initialize(nullptr) == CKR_OK ? 0 : 1; }), 0);
    signer.join();
}

} // namespace
