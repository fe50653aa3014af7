// What a forked child of a host does to a software key, which both share.
#include <cstdio>
#include <cstdlib>
#include <functional>

#include <sys/wait.h>
#include <unistd.h>

#include "softkey_fixture.h"

namespace
{

class StrictSoftkeyForkTest : public StrictSoftkeyTest
{
protected:
    /// Forks a child that does its work and exits as a program does.
    static void forkAndExit(const std::function<bool()>& work)
    {
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0)
            std::exit(work() ? 0 : 1);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
    }

    static constexpr CK_MECHANISM ECDSA = {CKM_ECDSA_SHA256, nullptr, 0};
};

TEST_F(StrictSoftkeyForkTest, AChildThatExitsLeavesItsParentsSessionPairAlone)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair pair = generateEc(session, CK_FALSE);
    forkAndExit([] { return true; });
    forkAndExit([] {
        CK_INFO info;
        return p11().C_GetInfo(&info) == CKR_CRYPTOKI_NOT_INITIALIZED && p11().C_Initialize(nullptr) == CKR_OK &&
               p11().C_Finalize(nullptr) == CKR_OK;
    });
    EXPECT_EQ(
        verify(session, ECDSA, pair.publicKey, ByteVector(9), sign(session, ECDSA, pair.privateKey, ByteVector(9))),
        CKR_OK);
}

TEST_F(StrictSoftkeyForkTest, AChildBeginsAnewAndItsSessionPairGoesWithIt)
{
    const CK_SESSION_HANDLE session = userSession();
    const KeyPair pair = generateEc(session);
    const CK_SLOT_ID first = slot(0);
    forkAndExit([&] {
        if (p11().C_Initialize(nullptr) != CKR_OK || slot(0) != first)
            return false;
        const CK_SESSION_HANDLE own = userSession();
        const KeyPair temporary = generateEc(own, CK_FALSE);
        sign(own, ECDSA, temporary.privateKey, ByteVector(9));
        return find(own, {}).size() == 4 && !HasFailure();
    });
    EXPECT_EQ(find(session, {}).size(), 2U);
    sign(session, ECDSA, pair.privateKey, ByteVector(9));
}

} // namespace
