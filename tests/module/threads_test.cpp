// Several application threads beside the monitor, and device calls that take their time.
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <set>
#include <utility>

#include "gate.h"
#include "session_fixture.h"

namespace
{

using testing::_;
using testing::AnyOf;
using testing::StrEq;

constexpr std::chrono::seconds LONG_ENOUGH{30};

// ---- Threads on sessions of their own ----

/// Takes every PIN and keeps none, so that it has nothing for which calls would have to wait for each other.
class TolerantDevice : public DefaultDevice
{
public:
    int velkor_validatePassword(const char*, const char*, int, int*, void*) override { return 0; }
    bool velkor_changeUserPassword(const char*, const char*, const char*, int*, bool, bool, void*) override
    {
        return true;
    }
};

/// Nothing is logged: writing would keep them in step.
class ThreadsTest : public SessionTest
{
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        setLogLevel("0");
        monitorSleep_.hold();
        setDeviceOperations(tolerantDevice_);
        ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
        listSlots();
    }

    /// Every thread does its work that often at least, and until the monitor has looked at the devices several times.
    void runBesideMonitor(int rounds, const std::vector<std::function<void()>>& works)
    {
        std::atomic<bool> over = false;
        std::vector<std::thread> threads;
        for (const auto& work : works) {
            threads.emplace_back([&work, &over, rounds] {
                for (int round = 0; round < rounds || !over; ++round)
                    work();
            });
        }
        for (int cycle = 0; cycle < 20; ++cycle)
            EXPECT_TRUE(monitorSleep_.runCycle());
        over = true;
        for (std::thread& thread : threads)
            thread.join();
    }

    static void runRounds(int rounds, const std::vector<std::function<void()>>& works)
    {
        std::vector<std::thread> threads;
        for (const auto& work : works) {
            threads.emplace_back([&work, rounds] {
                for (int round = 0; round < rounds; ++round)
                    work();
            });
        }
        for (std::thread& thread : threads)
            thread.join();
    }

    /// One session's life. Other threads and the monitor may log it in and out meanwhile, but nobody closes it.
    static void useSession(CK_SLOT_ID slotID, CK_FLAGS flags)
    {
        const CK_STATE publicState = flags & CKF_RW_SESSION;
        const auto eitherState = AnyOf(publicState, publicState + 1);
        const CK_SESSION_HANDLE handle = openSession(flags, slotID);
        EXPECT_THAT(stateOf(handle), eitherState);
        EXPECT_THAT(loginAs(CKU_USER, handle), AnyOf(CKR_OK, CKR_USER_ALREADY_LOGGED_IN));
        EXPECT_THAT(stateOf(handle), eitherState);
        EXPECT_EQ(C_SetPIN(handle, characters(USER_PIN), 4, characters(SO_PIN), 8),
                  publicState == CKS_RW_PUBLIC_SESSION ? CKR_OK : CKR_SESSION_READ_ONLY);
        EXPECT_THAT(C_Logout(handle), AnyOf(CKR_OK, CKR_USER_NOT_LOGGED_IN));
        EXPECT_EQ(C_CloseSession(handle), CKR_OK);
    }

    static void describeSlot(CK_SLOT_ID slotID, const char* label)
    {
        CK_SLOT_INFO slot{};
        CK_TOKEN_INFO token{};
        EXPECT_EQ(C_GetSlotInfo(slotID, &slot), CKR_OK);
        EXPECT_EQ(C_GetTokenInfo(slotID, &token), CKR_OK);
        EXPECT_STREQ(reinterpret_cast<const char*>(slot.slotDescription), label);
        EXPECT_STREQ(reinterpret_cast<const char*>(token.label), label);
    }

    static void pollForEvent()
    {
        CK_SLOT_ID slot = 0;
        EXPECT_THAT(C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr), AnyOf(CKR_OK, CKR_NO_EVENT));
    }

    const std::shared_ptr<TolerantDevice> tolerantDevice_ = std::make_shared<TolerantDevice>();
};

/// Works with the keys of one device, in a session of its own.
class KeyUser
{
public:
    KeyUser(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hKey, unsigned char number)
        : hSession_(hSession), hPrivateKey_(hKey), number_(number)
    {
    }

    void sign() const
    {
        CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
        CK_BYTE hash[32];
        std::fill(std::begin(hash), std::end(hash), number_);
        CK_BYTE signature[1024];
        CK_ULONG length = sizeof signature;
        ASSERT_EQ(C_SignInit(hSession_, &mechanism, hPrivateKey_), CKR_OK);
        ASSERT_EQ(C_Sign(hSession_, hash, sizeof hash, signature, &length), CKR_OK);
        EXPECT_EQ(length, CK_ULONG{sizeof hash + 2});
        EXPECT_TRUE(std::equal(std::begin(hash), std::end(hash), signature + 2)); // The double's signature.
    }

    void derive()
    {
        CK_BYTE point[] = {0x04, number_, static_cast<CK_BYTE>(handles_.size())};
        CK_ECDH1_DERIVE_PARAMS parameter = {CKD_NULL, 0, nullptr, sizeof point, point};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
        CK_OBJECT_HANDLE hKey = 0;
        ASSERT_EQ(C_DeriveKey(hSession_, &mechanism, hPrivateKey_, nullptr, 0, &hKey), CKR_OK);
        handles_.push_back(hKey);
        CK_BYTE value[2];
        CK_ATTRIBUTE attribute = {CKA_VALUE, value, sizeof value};
        ASSERT_EQ(C_GetAttributeValue(hSession_, hKey, &attribute, 1), CKR_OK);
        EXPECT_TRUE(std::equal(std::begin(value), std::end(value), point + 1)); // The double's secret.
    }

    void generateAndDelete() const
    {
        CK_MECHANISM mechanism = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
        CK_BBOOL yes = CK_TRUE;
        CK_ATTRIBUTE entry = {CKA_TOKEN, &yes, sizeof yes};
        CK_OBJECT_HANDLE hPublic = 0;
        CK_OBJECT_HANDLE hPrivate = 0;
        ASSERT_EQ(C_GenerateKeyPair(hSession_, &mechanism, &entry, 1, &entry, 1, &hPublic, &hPrivate), CKR_OK);
        EXPECT_EQ(C_DestroyObject(hSession_, hPrivate), CKR_OK);
        EXPECT_EQ(C_DestroyObject(hSession_, hPrivate), CKR_OBJECT_HANDLE_INVALID);
    }

    const std::vector<CK_OBJECT_HANDLE>& derived() const { return handles_; }

private:
    CK_SESSION_HANDLE hSession_;
    CK_OBJECT_HANDLE hPrivateKey_;
    unsigned char number_;
    std::vector<CK_OBJECT_HANDLE> handles_;
};

TEST_F(ThreadsTest, KeysAreUsedDerivedGeneratedAndDeletedAtOnce)
{
    std::vector<KeyUser> users;
    for (unsigned char number = 0; number < 6; number += 2) {
        users.emplace_back(openSession(READ_WRITE, FIRST_SLOT), privateKey(2), number);
        users.emplace_back(openSession(READ_WRITE, SECOND_SLOT), privateKey(1), number + 1);
    }
    std::vector<std::function<void()>> works;
    for (KeyUser& user : users) {
        const bool generates = works.size() < 2; // One on each device, as numbers there go on with several.
        works.emplace_back([&user, generates] {
            user.sign();
            user.derive();
            if (generates)
                user.generateAndDelete();
        });
    }
    runBesideMonitor(200, works);
    std::size_t derivations = 0;
    std::set<CK_OBJECT_HANDLE> handles;
    for (const KeyUser& user : users) {
        derivations += user.derived().size();
        handles.insert(user.derived().begin(), user.derived().end());
    }
    EXPECT_GE(derivations, users.size());
    EXPECT_EQ(handles.size(), derivations);
    EXPECT_EQ(finalize(), CKR_OK);
}

TEST_F(ThreadsTest, SessionsComeAndGoWhileDevicesDo)
{
    bool plugged = true;
    runBesideMonitor(
        2000, {[] { useSession(FIRST_SLOT, READ_WRITE); }, [] { useSession(FIRST_SLOT, READ_ONLY); },
               [] { useSession(SECOND_SLOT, READ_WRITE); }, [] { useSession(SECOND_SLOT, READ_ONLY); }, pollForEvent,
               [&] {
                   plugged = !plugged;
                   tolerantDevice_->setConnected(plugged ? std::vector<std::string>{FIRST_DEVICE, SECOND_DEVICE}
                                                         : std::vector<std::string>{});
               }});
    EXPECT_EQ(openSession(READ_ONLY), FIRST_SESSION); // All others are closed.
    EXPECT_EQ(finalize(), CKR_OK);
}

TEST_F(ThreadsTest, SlotsAreListedWhileTheyAreUsed)
{
    runBesideMonitor(2000,
                     {[] { listSlots(); }, [] { listSlots(); }, [] { useSession(FIRST_SLOT, READ_WRITE); },
                      [] { describeSlot(FIRST_SLOT, "First key"); }, [] { describeSlot(SECOND_SLOT, "Second key"); }});
    EXPECT_EQ(finalize(), CKR_OK);
}

/// One thread's session and the objects that it looks at, again and again.
class ObjectUser
{
public:
    explicit ObjectUser(CK_SLOT_ID slotID)
    {
        EXPECT_EQ(C_OpenSession(slotID, READ_ONLY, nullptr, nullptr, &handle_), CKR_OK);
    }

    void expectFound(CK_OBJECT_CLASS objectClass, const std::vector<CK_OBJECT_HANDLE>& expected) const
    {
        CK_ATTRIBUTE criterion = {CKA_CLASS, &objectClass, sizeof objectClass};
        EXPECT_EQ(C_FindObjectsInit(handle_, &criterion, 1), CKR_OK);
        std::vector<CK_OBJECT_HANDLE> found(100);
        CK_ULONG count = 0;
        EXPECT_EQ(C_FindObjects(handle_, found.data(), 100, &count), CKR_OK);
        EXPECT_EQ(C_FindObjectsFinal(handle_), CKR_OK);
        found.resize(count);
        EXPECT_EQ(found, expected);
    }

    void expectAttribute(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE type, const std::string& expected) const
    {
        char value[100];
        CK_ATTRIBUTE entry = {type, value, sizeof value};
        EXPECT_EQ(C_GetAttributeValue(handle_, hObject, &entry, 1), CKR_OK);
        ASSERT_LE(CK_ULONG{entry.ulValueLen}, sizeof value);
        EXPECT_EQ(std::string(value, entry.ulValueLen), expected);
    }

    void expectSize(CK_OBJECT_HANDLE hObject, CK_ULONG expected) const
    {
        CK_ULONG size = 0;
        EXPECT_EQ(C_GetObjectSize(handle_, hObject, &size), CKR_OK);
        EXPECT_EQ(size, expected);
    }

    /// The double's shared secret is what follows the first byte of the peer's point.
    CK_OBJECT_HANDLE derive(std::string secret) const
    {
        secret.insert(secret.begin(), '\x04');
        CK_ECDH1_DERIVE_PARAMS parameter = {CKD_NULL, 0, nullptr, lengthOf(secret), characters(secret)};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
        CK_OBJECT_HANDLE handle = 0;
        EXPECT_EQ(C_DeriveKey(handle_, &mechanism, privateKey(5), nullptr, 0, &handle), CKR_OK);
        return handle;
    }

private:
    CK_SESSION_HANDLE handle_ = 0;
};

TEST_F(ThreadsTest, ObjectsAreFoundReadAndDerivedBySeveralThreads)
{
    const auto read = [](CK_SLOT_ID slotID, const std::vector<CK_OBJECT_HANDLE>& publicKeys, CK_ULONG id,
                         const std::string& label, CK_ULONG size) {
        return [=, user = ObjectUser(slotID)] {
            user.expectFound(CKO_PUBLIC_KEY, publicKeys);
            user.expectAttribute(privateKey(id), CKA_LABEL, label);
            user.expectAttribute(publicKey(id), CKA_ID, std::string(1, static_cast<char>(id)));
            user.expectSize(privateKey(id), size);
        };
    };
    const auto readCertificate = [user = ObjectUser(FIRST_SLOT)] {
        user.expectFound(CKO_CERTIFICATE, {certificate(1), certificate(2), certificate(3)});
        user.expectAttribute(certificate(3), CKA_LABEL, "certificate 3");
        user.expectSize(certificate(3), 5);
    };
    const auto deriveAnew = [user = ObjectUser(FIRST_SLOT), round = 0]() mutable {
        const std::string secret = "secret of round " + std::to_string(round++);
        user.expectAttribute(user.derive(secret), CKA_VALUE, secret);
    };
    const std::vector<CK_OBJECT_HANDLE> ofFirst = {publicKey(1), publicKey(2), publicKey(3), publicKey(4),
                                                   publicKey(5), publicKey(6), publicKey(7)};
    runRounds(3000, {read(FIRST_SLOT, ofFirst, 2, "pair 2", 512), read(FIRST_SLOT, ofFirst, 7, "pair 7", 266),
                     read(SECOND_SLOT, {publicKey(1)}, 1, "other pair", 512), readCertificate, deriveAnew});
    EXPECT_EQ(finalize(), CKR_OK);
}

TEST_F(ThreadsTest, ClosingAllSessionsMeetsCallsOnThem)
{
    const auto openAndUse = [] {
        const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
        CK_SESSION_INFO info;
        const auto known = AnyOf(CKR_OK, CKR_SESSION_HANDLE_INVALID);
        EXPECT_THAT(C_GetSessionInfo(handle, &info), known);
        EXPECT_THAT(loginAs(CKU_USER, handle), AnyOf(known, CKR_USER_ALREADY_LOGGED_IN));
        EXPECT_THAT(C_Logout(handle), AnyOf(known, CKR_USER_NOT_LOGGED_IN));
        EXPECT_THAT(C_CloseSession(handle), known);
    };
    runBesideMonitor(2000, {openAndUse, openAndUse, [] { EXPECT_EQ(C_CloseAllSessions(FIRST_SLOT), CKR_OK); }});
    EXPECT_EQ(finalize(), CKR_OK);
}

// ---- Device calls that block ----

class BlockedDeviceTest : public SessionTest
{
protected:
    /// Runs `call`, which gets stuck at the gate, and meanwhile `others`; then lets the call go and gives its result.
    CK_RV runBeside(const std::function<CK_RV()>& call, const std::function<void()>& others)
    {
        std::future<CK_RV> held = std::async(std::launch::async, call);
        gate_.waitUntilHeld();
        std::future<void> free = std::async(std::launch::async, others);
        EXPECT_EQ(free.wait_for(LONG_ENOUGH), std::future_status::ready);
        EXPECT_EQ(held.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
        gate_.letGo();
        return held.get();
    }

    /// Everything that does not need the first device.
    void useOtherDevice() const
    {
        const CK_SESSION_HANDLE handle = openSession(READ_WRITE, SECOND_SLOT);
        EXPECT_EQ(loginAs(CKU_SO, handle), CKR_OK);
        EXPECT_EQ(stateOf(handle), CKS_RW_SO_FUNCTIONS);
        EXPECT_EQ(C_SetPIN(handle, characters(USER_PIN), 4, characters(USER_PIN), 4), CKR_OK);
        EXPECT_EQ(C_Logout(handle), CKR_OK);
        EXPECT_EQ(C_CloseSession(handle), CKR_OK);
        CK_SLOT_INFO slot;
        CK_TOKEN_INFO token;
        EXPECT_EQ(C_GetSlotInfo(FIRST_SLOT, &slot), CKR_OK);
        EXPECT_EQ(C_GetTokenInfo(FIRST_SLOT, &token), CKR_OK);
    }

    void waitForAChange()
    {
        CK_SLOT_ID slot = 0;
        EXPECT_EQ(C_WaitForSlotEvent(0, &slot, nullptr), CKR_OK); // Both devices, at the start.
        device_->defaults.setConnected({FIRST_DEVICE, SECOND_DEVICE, "VK100003"});
        monitorSleep_.skip();
        EXPECT_EQ(C_WaitForSlotEvent(0, &slot, nullptr), CKR_OK);
    }

    Gate gate_;
};

TEST_F(BlockedDeviceTest, LoginStopsNeitherEventsNorOtherSessions)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    EXPECT_CALL(*device_, velkor_validatePassword(StrEq(SECOND_DEVICE), _, _, _, _));
    EXPECT_CALL(*device_, velkor_validatePassword(StrEq(FIRST_DEVICE), _, _, _, _)).WillOnce([&] {
        gate_.hold();
        return 0;
    });
    const CK_RV result = runBeside([&] { return loginAs(CKU_USER, handle); },
                                   [&] {
                                       useOtherDevice();
                                       waitForAChange();
                                       EXPECT_EQ(stateOf(handle), CKS_RW_PUBLIC_SESSION);
                                   });
    EXPECT_EQ(result, CKR_OK);
    EXPECT_EQ(stateOf(handle), CKS_RW_USER_FUNCTIONS);
}

TEST_F(BlockedDeviceTest, PinChangeStopsNeitherEventsNorOtherSessions)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    EXPECT_CALL(*device_, velkor_changeUserPassword(StrEq(SECOND_DEVICE), _, _, _, _, _, _));
    EXPECT_CALL(*device_, velkor_changeUserPassword(StrEq(FIRST_DEVICE), _, _, _, _, _, _)).WillOnce([&] {
        gate_.hold();
        return true;
    });
    const CK_RV result = runBeside([&] { return C_SetPIN(handle, characters(USER_PIN), 4, characters(SO_PIN), 8); },
                                   [&] {
                                       useOtherDevice();
                                       waitForAChange();
                                   });
    EXPECT_EQ(result, CKR_OK);
}

TEST_F(BlockedDeviceTest, SlotListStopsNeitherEventsNorSessions)
{
    EXPECT_CALL(*device_, velkor_getTokenInfo(StrEq(SECOND_DEVICE), _));
    EXPECT_CALL(*device_, velkor_getTokenInfo(StrEq(FIRST_DEVICE), _)).WillOnce([&] {
        gate_.hold();
        return first().token;
    });
    std::array<CK_SLOT_ID, 2> slots{};
    CK_ULONG count = slots.size();
    const CK_RV result = runBeside([&] { return C_GetSlotList(CK_TRUE, slots.data(), &count); },
                                   [&] {
                                       useOtherDevice();
                                       waitForAChange();
                                   });
    EXPECT_EQ(result, CKR_OK);
    EXPECT_EQ(count, 2u);
}

TEST_F(BlockedDeviceTest, SessionThatIsClosedMeanwhileLetsItsCallEnd)
{
    const CK_SESSION_HANDLE handle = openSession(READ_WRITE);
    EXPECT_CALL(*device_, velkor_validatePassword(StrEq(FIRST_DEVICE), _, _, _, _)).WillOnce([&] {
        gate_.hold();
        return 0;
    });
    const CK_RV result =
        runBeside([&] { return loginAs(CKU_USER, handle); }, [&] { EXPECT_EQ(C_CloseSession(handle), CKR_OK); });
    EXPECT_EQ(result, CKR_OK);
    EXPECT_EQ(stateOf(openSession(READ_WRITE)), CKS_RW_USER_FUNCTIONS);
}

/// The monitor's first query of the device list blocks; those of the application do not.
class BlockedMonitorTest : public BlockedDeviceTest
{
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        EXPECT_CALL(*device_, velkor_getConnectedDeviceList)
            .WillRepeatedly([this, held = false, test = std::this_thread::get_id()](bool, void*) mutable {
                if (std::this_thread::get_id() != test && !std::exchange(held, true))
                    gate_.hold();
                return std::vector<std::string>{FIRST_DEVICE, SECOND_DEVICE};
            });
        ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
        gate_.waitUntilHeld();
        listSlots();
    }

    /// Ends the monitor before the gate.
    void TearDown() override
    {
        finalize();
        BlockedDeviceTest::TearDown();
    }

    /// Starts C_Finalize beside the test; it does not come to its end before the gate is open.
    std::future<CK_RV> finalizeBeside() const
    {
        std::future<CK_RV> finalized = std::async(std::launch::async, C_Finalize, nullptr);
        EXPECT_TRUE(waitForLine("DEBUG C_Finalize"));
        return finalized;
    }

    /// A waiter that nothing wakes gets the event of the next start, which ends the test.
    std::vector<std::future<CK_RV>> waiters_;
};

TEST_F(BlockedMonitorTest, StopsNoEntryPoint)
{
    std::future<void> free = std::async(std::launch::async, [&] {
        useOtherDevice();
        CK_SLOT_ID slot = 0;
        EXPECT_EQ(C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr), CKR_NO_EVENT);
    });
    EXPECT_EQ(free.wait_for(LONG_ENOUGH), std::future_status::ready);
    gate_.letGo();
    CK_SLOT_ID slot = 0;
    EXPECT_EQ(C_WaitForSlotEvent(0, &slot, nullptr), CKR_OK);
}

TEST_F(BlockedMonitorTest, FinalizeWakesEveryWaiterBeforeItJoins)
{
    for (int waiter = 0; waiter < 2; ++waiter) {
        waiters_.push_back(std::async(std::launch::async, [] {
            CK_SLOT_ID slot = 0;
            return C_WaitForSlotEvent(0, &slot, nullptr);
        }));
    }
    EXPECT_TRUE(waitForLine("DEBUG C_WaitForSlotEvent", 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // From the entry line to the wait.
    std::future<CK_RV> finalized = finalizeBeside();
    for (std::future<CK_RV>& waiter : waiters_) {
        EXPECT_TRUE(waiter.wait_for(LONG_ENOUGH) == std::future_status::ready &&
                    waiter.get() == CKR_CRYPTOKI_NOT_INITIALIZED);
    }
    EXPECT_EQ(timesLogged("ERROR C_WaitForSlotEvent: monitor stopped, returning CKR_CRYPTOKI_NOT_INITIALIZED"), 2);
    EXPECT_EQ(timesLogged("DEBUG Session monitor thread stopped."), 0);
    monitorSleep_.skip();
    gate_.letGo();
    EXPECT_EQ(finalized.get(), CKR_OK);
}

TEST_F(BlockedMonitorTest, FinalizeWaitsForTheQueryOfTheMonitor)
{
    std::atomic<int> releases = 0;
    EXPECT_CALL(*device_, velkor_releaseInstance).WillRepeatedly([&](void*) { ++releases; });
    std::future<CK_RV> finalized = finalizeBeside();
    EXPECT_EQ(finalized.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    EXPECT_EQ(releases, 0);
    monitorSleep_.skip();
    gate_.letGo();
    EXPECT_EQ(finalized.get(), CKR_OK);
    EXPECT_EQ(releases, 1);
}

} // namespace
