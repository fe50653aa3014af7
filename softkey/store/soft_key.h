// One software key: its file, and what the right PIN has unlocked in this process. Every use of a private key and
// every change asks for the PIN; the file is asked only when this process has not seen that PIN be right, or the
// file has a new PIN since.
#pragma once

#include "crypto/keyed_digest.h"
#include "platform/uptime_clock.h"
#include "store/object_store.h"
#include "store/pin_policy.h"

#include <atomic>
#include <chrono>
#include <map>

namespace softkey
{

/// What a right PIN opens, kept while the file's PIN stays the same and the key stays plugged in.
class Unlocked
{
public:
    Unlocked(std::string_view pin, CheckedPin checked, const DeviceRecord& device);

    /// Whether the PIN is still the one that opened this, and the key was not unplugged since.
    bool belongsTo(const Contents& contents) const;
    /// The same, and the PIN is not locked.
    bool fits(const Contents& contents) const;
    bool isOpenedBy(std::string_view pin) const;
    /// Notes that it was used, now and then only: threads that use one key do not write to the same memory each time.
    void touch(UptimeClock::time_point now);
    /// Whether nobody has used it for as long as it may be kept.
    bool isIdle(UptimeClock::time_point now) const;
    /// Whether the contents are those that whoever has the master key has put there.
    bool vouchesFor(const Contents& contents) const;
    const SecretBuffer& masterKey() const { return masterKey_; }

    std::shared_ptr<const PrivateKey> find(const Identifier& identifier) const;
    void keep(const Identifier& identifier, std::shared_ptr<const PrivateKey> key);
    void keepOnly(const Contents& contents);

private:
    PinDigest digest(std::string_view pin) const;

    SecretBuffer masterKey_;
    KeyedDigest digest_;
    PinDigest pinDigest_{}; ///< Not the PIN.
    ByteVector salt_;
    std::int64_t timesUnplugged_;
    std::atomic<UptimeClock::time_point> usedAt_{UptimeClock::now()};
    mutable std::mutex mutex_;
    std::map<Identifier, std::shared_ptr<const PrivateKey>> keys_;
};

/// What a key says, and what is unlocked of it.
struct Look {
    std::shared_ptr<const Contents> contents;
    std::shared_ptr<Unlocked> unlocked; ///< It has vouched for these contents. Null when nothing is unlocked.

    /// Whether that was opened by this PIN; then it counts as used now.
    bool isOpenedBy(std::string_view pin) const;
};

class SoftKey
{
public:
    explicit SoftKey(const std::filesystem::path& path) : file_(path) {}

    KeyFile& file() { return file_; }
    Look look();
    std::shared_ptr<const Contents> contents() { return look().contents; }
    /// The same, or throws DeviceRemoved when the key is not plugged in.
    Look pluggedLook();
    std::shared_ptr<const Contents> pluggedContents() { return pluggedLook().contents; }

    /// Throws the statuses of `checkPin`.
    void login(PinRole role, std::string_view pin);
    void changePin(PinRole role, std::string_view oldPin, std::string_view newPin,
                   std::optional<ScryptCost> newCost = {});
    void rekey(std::string_view oldPin, std::string_view newPin, std::string_view soPin);
    void resetUserPin(std::string_view soPin, std::string_view newUserPin);

    /// `seen`: what the key said just now. `usage`: a bit of the usage flags that the key must have; 0 for none.
    std::shared_ptr<const PrivateKey> privateKey(Look seen, const Identifier& identifier, std::string_view pin,
                                                 std::uint32_t usage);

    /// Refuses unless the PIN is right.
    void requireUser(std::string_view pin);
    VelkorKeyPair addKeyPair(std::string_view pin, const EVP_PKEY* key, const ObjectAttributes& attributes,
                             const KeyUsage& usage);
    void addCertificate(std::string_view pin, VelkorCertificate& certificate);
    /// Runs a change of the file for which the user PIN is needed.
    void change(std::string_view pin, const std::function<void(Database&)>& work);

    /// Drops everything that was unlocked.
    void lock();
    /// The same, unless it was in use within the last quarter of an hour, or what VELKOR_SOFTKEY_IDLE says in seconds.
    void lockWhenIdle(UptimeClock::time_point now);

private:
    /// False, and nothing was done, when the file has another PIN or master key by now.
    bool changeWith(const Unlocked& unlocked, const std::function<void(Database&)>& work);
    /// Null when it was sealed anew since the contents were read.
    std::shared_ptr<const PrivateKey> load(const Unlocked& unlocked, const Contents& contents,
                                           const VelkorKeyPair& record);
    /// What those contents say, and whether what is unlocked vouches for them.
    Look lookAt(std::shared_ptr<const Contents> now);
    /// What the key says while nobody checks its PINs or changes it; null when somebody does.
    std::shared_ptr<const Contents> settledContents();
    /// When the last try is being spent: what the key says afterwards, if something is kept until then.
    void awaitLastTry(Look& seen);
    /// The unlocked key for whoever has the PIN; throws the statuses of `checkPin`. `seen` becomes what the key says by
    /// now, when that took time.
    std::shared_ptr<Unlocked> authorise(Look& seen, std::string_view pin);
    std::shared_ptr<Unlocked> unlock(std::string_view pin);

    KeyFile file_;
    std::mutex checkMutex_; ///< One thread unlocks at a time; taken before the other one.
    mutable std::mutex unlockedMutex_;
    std::shared_ptr<Unlocked> unlocked_;
    std::shared_ptr<const Contents> seen_; ///< Contents that `unlocked_` was last fitted to, and has vouched for.
};

} // namespace softkey
