// PIN policy: tries, locking, changing, unlocking, and the end of a remembered PIN.
#include "crypto/protection.h"
#include "eventually.h"
#include "platform/file_lock.h"
#include "store/refused_pins.h"
#include "store/schema.h"
#include "world.h"

#include <atomic>
#include <thread>

namespace softkey::test
{
namespace
{

class PinsTest : public SoftkeyTest
{
protected:
    int check(const char* pin, int userType = USER_TYPE_USER)
    {
        return velkor_validatePassword(SERIAL, pin, userType, &tries, instance);
    }
    bool change(const char* oldPin, const char* newPin)
    {
        return velkor_changeUserPassword(SERIAL, oldPin, newPin, &tries, false, false, instance);
    }
    /// A PIN that is wrong and was never tried before, since the same one is refused again without cost.
    const char* anotherWrongPin()
    {
        wrong_ = "wrong-" + std::to_string(++wrongPins_);
        return wrong_.c_str();
    }
    TokenInfo info() const { return velkor_getTokenInfo(SERIAL, instance); }

    int tries = 0;
    const Data hash = Data(32, 7);

private:
    std::string wrong_;
    int wrongPins_ = 0;
};

TEST_F(PinsTest, TheRightPinsAreRight)
{
    EXPECT_EQ(check(PIN), 0);
    EXPECT_EQ(tries, 5);
    EXPECT_EQ(check(SO_PIN, USER_TYPE_SECURITY_OFFICER), 0);
    EXPECT_EQ(tries, 5);
}

TEST_F(PinsTest, AWrongPinCostsATryAndTheRightOneGivesAllBack)
{
    EXPECT_EQ(check(WRONG_PIN), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(tries, 4);
    EXPECT_EQ(check(anotherWrongPin()), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(tries, 3);
    EXPECT_EQ(info().pinTriesLeft, 3);
    EXPECT_EQ(check(PIN), 0);
    EXPECT_EQ(info().pinTriesLeft, 5);
}

TEST_F(PinsTest, ARememberedPinGivesTriesBackToo)
{
    EXPECT_EQ(check(PIN), 0);
    EXPECT_EQ(check(WRONG_PIN), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(check(PIN), 0);
    EXPECT_EQ(info().pinTriesLeft, 5);
}

TEST_F(PinsTest, TheTwoPinsCountApart)
{
    EXPECT_EQ(check(WRONG_PIN, USER_TYPE_SECURITY_OFFICER), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(info().soPinTriesLeft, 4);
    EXPECT_EQ(info().pinTriesLeft, 5);
    EXPECT_EQ(check(PIN, USER_TYPE_SECURITY_OFFICER), code(SoftkeyStatus::PinIncorrect))
        << "the user PIN is not the SO PIN";
    EXPECT_EQ(check(SO_PIN, USER_TYPE_USER), code(SoftkeyStatus::PinIncorrect)) << "the SO PIN is not the user PIN";
}

TEST_F(PinsTest, AtZeroThePinIsLockedEvenForTheRightPin)
{
    for (int left = 4; left > 0; --left) {
        EXPECT_EQ(check(anotherWrongPin()), code(SoftkeyStatus::PinIncorrect));
        EXPECT_EQ(tries, left);
    }
    EXPECT_EQ(check(anotherWrongPin()), code(SoftkeyStatus::PinLocked));
    EXPECT_EQ(tries, 0);
    EXPECT_EQ(check(PIN), code(SoftkeyStatus::PinLocked));
    EXPECT_EQ(tries, 0);
    EXPECT_EQ(info().pinTriesLeft, 0);
    EXPECT_FALSE(change(PIN, "newpin"));
}

TEST_F(PinsTest, AnEmptyPinIsRefusedWithoutCost)
{
    EXPECT_EQ(check(""), code(SoftkeyStatus::PinRequired));
    EXPECT_EQ(tries, 5);
    EXPECT_EQ(check("", USER_TYPE_SECURITY_OFFICER), code(SoftkeyStatus::PinRequired));
    EXPECT_EQ(info().pinTriesLeft, 5);
    EXPECT_EQ(info().soPinTriesLeft, 5);
}

TEST_F(PinsTest, APinThatIsNotCheckedSaysSo)
{
    EXPECT_EQ(check(PIN, 0), STATUS_CHECK_NOT_POSSIBLE);
    EXPECT_EQ(check(PIN, 3), STATUS_CHECK_NOT_POSSIBLE);
    EXPECT_EQ(velkor_validatePassword(SERIAL, nullptr, USER_TYPE_USER, &tries, instance), STATUS_CHECK_NOT_POSSIBLE);
    EXPECT_EQ(velkor_validatePassword(SERIAL, PIN, USER_TYPE_USER, &tries, nullptr), STATUS_CHECK_NOT_POSSIBLE);
    EXPECT_EQ(velkor_validatePassword(nullptr, PIN, USER_TYPE_USER, &tries, instance), STATUS_CHECK_NOT_POSSIBLE);
    EXPECT_EQ(velkor_validatePassword("NONE", PIN, USER_TYPE_USER, &tries, instance), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(tries, -1) << "nothing is known of the tries, least of all that none is left";
    EXPECT_EQ(velkor_validatePassword(SERIAL, PIN, USER_TYPE_USER, nullptr, instance), 0);
    EXPECT_EQ(info().pinTriesLeft, 5);
}

TEST_F(PinsTest, AChangedPinReplacesTheOldOne)
{
    EXPECT_TRUE(change(PIN, "new-pin"));
    EXPECT_EQ(info().pinChanged, 1);
    EXPECT_EQ(check(PIN), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(check("new-pin"), 0);
    EXPECT_TRUE(change("new-pin", PIN));
    EXPECT_EQ(info().pinChanged, 1);
}

TEST_F(PinsTest, ChangingToTheSamePinLeavesItInitial)
{
    EXPECT_TRUE(change(PIN, PIN));
    EXPECT_EQ(info().pinChanged, 0);
}

TEST_F(PinsTest, AChangeNeedsTheOldPin)
{
    EXPECT_FALSE(change(WRONG_PIN, "new-pin"));
    EXPECT_EQ(tries, 4);
    EXPECT_FALSE(change("", "new-pin"));
    EXPECT_EQ(tries, 4);
    EXPECT_EQ(check(PIN), 0);
}

TEST_F(PinsTest, ANewPinHasFourToSixtyThreeBytes)
{
    EXPECT_FALSE(change(PIN, "123"));
    EXPECT_FALSE(change(PIN, std::string(64, '1').c_str()));
    EXPECT_FALSE(change(PIN, ""));
    EXPECT_FALSE(change(PIN, nullptr));
    EXPECT_FALSE(change(nullptr, "new-pin"));
    EXPECT_FALSE(velkor_changeUserPassword(SERIAL, PIN, "new-pin", &tries, true, false, instance));
    EXPECT_FALSE(velkor_changeUserPassword(SERIAL, PIN, "new-pin", &tries, false, true, instance));
    EXPECT_EQ(info().pinTriesLeft, 5) << "none of these may cost a try";
    EXPECT_TRUE(change(PIN, std::string(63, '1').c_str()));
    EXPECT_TRUE(change(std::string(63, '1').c_str(), "1234"));
}

TEST_F(PinsTest, AWrongPinOfAnyLengthCostsATry)
{
    EXPECT_EQ(check("1"), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(check(std::string(100'000, 'x').c_str()), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(tries, 3);
}

TEST_F(PinsTest, UnlockingSetsANewInitialPinAndLosesNoKey)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    change(PIN, "changed");
    while (check(anotherWrongPin()) != code(SoftkeyStatus::PinLocked)) {
    }
    EXPECT_EQ(trySign(key, hash, false, "changed"), code(SoftkeyStatus::PinLocked));
    otherProcess()->resetUserPin(SO_PIN, PIN);
    EXPECT_EQ(info().pinTriesLeft, 5);
    EXPECT_EQ(info().pinChanged, 0);
    EXPECT_EQ(verify(key, hash, sign(key, hash)), 0);
}

TEST_F(PinsTest, UnlockingNeedsTheSoPinWhichLocksToo)
{
    for (int i = 0; i < 5; ++i)
        EXPECT_THROW(otherProcess()->resetUserPin(anotherWrongPin(), "new-pin"), Refusal);
    EXPECT_EQ(info().soPinTriesLeft, 0);
    EXPECT_THROW(otherProcess()->resetUserPin(SO_PIN, "new-pin"), Refusal);
    EXPECT_EQ(check(PIN), 0);
}

TEST_F(PinsTest, TheSoPinCanBeChanged)
{
    otherProcess()->changePin(PinRole::SecurityOfficer, SO_PIN, "another");
    EXPECT_EQ(info().soPinChanged, 1);
    EXPECT_EQ(info().pinChanged, 0);
    EXPECT_EQ(check("another", USER_TYPE_SECURITY_OFFICER), 0);
    EXPECT_EQ(check(SO_PIN, USER_TYPE_SECURITY_OFFICER), code(SoftkeyStatus::PinIncorrect));
}

TEST_F(PinsTest, KeyUseNeedsTheRightPin)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(trySign(key, hash, false, ""), code(SoftkeyStatus::PinRequired));
    EXPECT_EQ(info().pinTriesLeft, 5);
    EXPECT_EQ(trySign(key, hash, false, WRONG_PIN), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(info().pinTriesLeft, 4) << "a wrong PIN costs a try here as well";
    EXPECT_EQ(trySign(key, hash, false, PIN), 0);
    EXPECT_EQ(trySign(key, hash, false, nullptr), code(SoftkeyStatus::BadArgument));
    EXPECT_EQ(trySign(key, hash, false, SO_PIN), code(SoftkeyStatus::PinIncorrect)) << "the SO uses no keys";
}

TEST_F(PinsTest, ARememberedPinCostsNoWrite)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(check(PIN), 0);
    const Data before = readFile(keyPath());
    const auto writtenAt = std::filesystem::last_write_time(keyPath());
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(trySign(key, hash), 0);
    EXPECT_EQ(check(PIN), 0);
    EXPECT_EQ(readFile(keyPath()), before);
    EXPECT_EQ(std::filesystem::last_write_time(keyPath()), writtenAt);
}

TEST_F(PinsTest, AChangeByAnotherProcessEndsTheUseOfTheOldPin)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(trySign(key, hash), 0);
    otherProcess()->changePin(PinRole::User, PIN, "new-pin");
    EXPECT_EQ(trySign(key, hash), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(trySign(key, hash, false, "new-pin"), 0);
}

TEST_F(PinsTest, AProcessThatGoesOnWithAnOldPinSpendsOneTry)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(trySign(key, hash), 0);
    otherProcess()->changePin(PinRole::User, PIN, "new-pin");
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(trySign(key, hash), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(check(PIN), code(SoftkeyStatus::PinIncorrect));
    EXPECT_FALSE(change(PIN, "newer-pin"));
    EXPECT_EQ(info().pinTriesLeft, 4);
    EXPECT_EQ(trySign(key, hash, false, "new-pin"), 0);
    EXPECT_EQ(info().pinTriesLeft, 5);
}

TEST_F(PinsTest, ARefusedPinIsRememberedBeyondTheInstance)
{
    EXPECT_EQ(check(WRONG_PIN), code(SoftkeyStatus::PinIncorrect));
    velkor_releaseInstance(instance);
    velkor_createInstance(&instance);
    EXPECT_EQ(check(WRONG_PIN), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(tries, 4);
    EXPECT_EQ(check(anotherWrongPin()), code(SoftkeyStatus::PinIncorrect)) << "another one is checked as ever";
    EXPECT_EQ(tries, 3);
}

TEST_F(PinsTest, ARefusedPinThatBecomesTheRightOneIsRight)
{
    EXPECT_EQ(check("new-pin"), code(SoftkeyStatus::PinIncorrect));
    otherProcess()->changePin(PinRole::User, PIN, "new-pin");
    EXPECT_EQ(check("new-pin"), 0);
    EXPECT_EQ(tries, 5);
}

TEST_F(PinsTest, ARefusedPinThatLockedTheKeyAnswersAsLocked)
{
    for (int i = 0; i < 4; ++i)
        check(anotherWrongPin());
    EXPECT_EQ(check(WRONG_PIN), code(SoftkeyStatus::PinLocked));
    EXPECT_EQ(check(WRONG_PIN), code(SoftkeyStatus::PinLocked));
    EXPECT_EQ(tries, 0);
    otherProcess()->resetUserPin(SO_PIN, PIN);
    EXPECT_EQ(check(WRONG_PIN), code(SoftkeyStatus::PinIncorrect)) << "the salt is another one";
    EXPECT_EQ(tries, 4);
}

TEST_F(PinsTest, ARefusedPinStaysRefusedWhenItsWrappingIsRenewed)
{
    EXPECT_EQ(check(WRONG_PIN), code(SoftkeyStatus::PinIncorrect));
    PinRecord record = otherProcess()->contents()->userPin;
    record.wrappedMasterKey = seal(Data(SEALING_KEY_SIZE, 1), Data(SEALING_KEY_SIZE, 2), {});
    const Data checksum = checksumOf(record);
    Database file(keyPath(), Database::Mode::Existing);
    configureConnection(file); // Windows deletes no journal that others have open.
    Statement(file, "UPDATE pin SET wrapped_master_key = ?, checksum = ? WHERE role = 1")
        .bind(Bytes(record.wrappedMasterKey))
        .bind(Bytes(checksum))
        .run();
    EXPECT_EQ(check(WRONG_PIN), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(tries, 4);
}

TEST_F(PinsTest, AWrongSoPinSpendsOneTryToo)
{
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(check(WRONG_PIN, USER_TYPE_SECURITY_OFFICER), code(SoftkeyStatus::PinIncorrect));
    EXPECT_EQ(tries, 4);
    EXPECT_THROW(otherProcess()->resetUserPin(WRONG_PIN, "new-pin"), Refusal);
    EXPECT_EQ(info().soPinTriesLeft, 3) << "that is another process";
}

TEST_F(PinsTest, EveryRefusedPinIsRememberedHoweverManyThereAre)
{
    RefusedPins& refused = RefusedPins::ofProcess();
    const PinRecord record = otherProcess()->contents()->userPin;
    for (int i = 0; i < 2'000; ++i)
        refused.add(record, "guess " + std::to_string(i));
    for (int i = 0; i < 2'000; ++i)
        EXPECT_TRUE(refused.contain(record, "guess " + std::to_string(i))) << i;
    EXPECT_FALSE(refused.contain(record, "guess"));
    EXPECT_FALSE(refused.contain(otherProcess()->contents()->soPin, "guess 1")) << "another PIN's";
}

TEST_F(PinsTest, ThreadsWithOneWrongPinSpendOneTry)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([this] {
            int left = 0;
            velkor_validatePassword(SERIAL, WRONG_PIN, USER_TYPE_SECURITY_OFFICER, &left, instance);
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(info().soPinTriesLeft, 4);
}

/// A check of the PIN gives back tries, which a remembered PIN alone does not: so tells one from the other.
class IdleKeyTest : public PinsTest
{
protected:
    bool isLocked(SoftKey& used)
    {
        EXPECT_THROW(otherProcess()->login(PinRole::User, anotherWrongPin()), Refusal);
        const int before = used.contents()->userPin.triesLeft;
        used.requireUser(PIN);
        return used.contents()->userPin.triesLeft > before;
    }

    std::unique_ptr<SoftKey> key = otherProcess();
};

TEST_F(IdleKeyTest, AKeyInUseStaysUnlocked)
{
    key->requireUser(PIN);
    key->lockWhenIdle(UptimeClock::now() + std::chrono::minutes(14));
    EXPECT_FALSE(isLocked(*key));
}

TEST_F(IdleKeyTest, AKeyThatNobodyUsesDropsWhatItHasUnlocked)
{
    key->requireUser(PIN);
    key->lockWhenIdle(UptimeClock::now() + std::chrono::minutes(15));
    EXPECT_TRUE(isLocked(*key));
}

TEST_F(IdleKeyTest, AnEmptyPinDropsWhatWasUnlocked)
{
    key->requireUser(PIN);
    EXPECT_THROW(key->requireUser(""), Refusal);
    EXPECT_TRUE(isLocked(*key));
}

TEST_F(PinsTest, LockingByAnotherProcessEndsTheUseOfThePin)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(trySign(key, hash), 0);
    for (int i = 0; i < 5; ++i)
        EXPECT_THROW(otherProcess()->login(PinRole::User, anotherWrongPin()), Refusal);
    EXPECT_EQ(trySign(key, hash), code(SoftkeyStatus::PinLocked));
    EXPECT_EQ(velkor_deleteKeyPair(SERIAL, key.keyIdentifier, PIN, false, instance), code(SoftkeyStatus::PinLocked));
}

/// Another process that checks a PIN: the last try is spent, and comes back or does not.
class LastTryTest : public PinsTest
{
protected:
    void setTries(int left) const
    {
        Database file(keyPath(), Database::Mode::Existing);
        configureConnection(file);
        Statement(file, "UPDATE pin SET tries_left = ? WHERE role = 1").bind(left).run();
    }
    /// Signs while the other one is at it, which ends with that many tries.
    int signMeanwhile(int triesAfterwards)
    {
        std::optional<FileLock> check(std::in_place, lockOfKey(keyPath()), Patience());
        setTries(0);
        EXPECT_EQ(keyPairs().size(), 1U) << "a list does not wait";
        std::atomic<bool> done{false};
        int status = -1;
        std::thread signing([&] {
            status = trySign(keyPair, hash);
            done = true;
        });
        EXPECT_TRUE(test_system::eventually([&] { return done || !FileLock::tryTake(queueOfKey(keyPath())); }));
        EXPECT_FALSE(done) << "a signature does not know yet";
        setTries(triesAfterwards);
        check.reset();
        signing.join();
        return status;
    }

    const VelkorKeyPair keyPair = generate(KEY_KIND_EC_P256);
};

TEST_F(LastTryTest, WhileItIsSpentByAnotherProcessTheKeyStaysUnlocked)
{
    EXPECT_EQ(trySign(keyPair, hash), 0);
    EXPECT_EQ(signMeanwhile(1), 0);
    EXPECT_EQ(info().pinTriesLeft, 1) << "the PIN was checked again";
    EXPECT_EQ(trySign(keyPair, hash), 0);
    EXPECT_EQ(info().pinTriesLeft, 1);
}

TEST_F(LastTryTest, WhenItDoesNotComeBackTheKeyIsLocked)
{
    EXPECT_EQ(trySign(keyPair, hash), 0);
    EXPECT_EQ(signMeanwhile(0), code(SoftkeyStatus::PinLocked));
    setTries(1);
    EXPECT_EQ(trySign(keyPair, hash), 0);
    EXPECT_EQ(info().pinTriesLeft, 5) << "what was unlocked was kept";
}

TEST_F(PinsTest, UnpluggingForgetsWhatWasUnlockedEvenUnseen)
{
    const VelkorKeyPair key = generate(KEY_KIND_EC_P256);
    EXPECT_EQ(trySign(key, hash), 0);
    // A try that another process spent is given back only by a check of the PIN.
    EXPECT_THROW(otherProcess()->login(PinRole::User, WRONG_PIN), Refusal);
    EXPECT_EQ(trySign(key, hash), 0);
    EXPECT_EQ(info().pinTriesLeft, 4) << "the PIN was remembered";
    otherProcess()->file().setPlugged(false);
    otherProcess()->file().setPlugged(true);
    EXPECT_EQ(trySign(key, hash), 0);
    EXPECT_EQ(info().pinTriesLeft, 5) << "the PIN was checked again";
}

} // namespace
} // namespace softkey::test
