// One software key: its file, and what the right PIN has unlocked in this process. Every use of a private key and
// every change asks for the PIN; the file is asked only when this process has not seen that PIN be right, or the
// file has a new PIN since.
#pragma once

#include "crypto/keyed_digest.h"
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

    /// Whether the PIN is still the one that opened this and not locked, and the key was not unplugged since.
    bool fits(const Contents& contents) const;
    bool isOpenedBy(std::string_view pin) const;
    void touch() { usedAt_ = std::chrono::steady_clock::now(); }
    std::chrono::steady_clock::time_point usedAt() const { return usedAt_; }
    /// Whether the contents are those that whoever has the master key has put there.
    bool vouchesFor(const Contents& contents) const;
    const SecretBuffer& masterKey() const { return masterKey_; }

    std::shared_ptr<const PrivateKey> find(const Identifier& identifier) const;
    void keep(const Identifier& identifier, std::shared_ptr<const PrivateKey> key);
    void keepOnly(const Contents& contents);

private:
    ByteVector digest(std::string_view pin) const;

    SecretBuffer masterKey_;
    KeyedDigest digest_;
    ByteVector pinDigest_; ///< Not the PIN.
    ByteVector salt_;
    std::int64_t timesUnplugged_;
    std::atomic<std::chrono::steady_clock::time_point> usedAt_{std::chrono::steady_clock::now()};
    mutable std::mutex mutex_;
    std::map<Identifier, std::shared_ptr<const PrivateKey>> keys_;
};

class SoftKey
{
public:
    explicit SoftKey(const std::filesystem::path& path) : file_(path) {}

    KeyFile& file() { return file_; }
    std::shared_ptr<const Contents> contents();
    /// The same, or throws DeviceRemoved when the key is not plugged in.
    std::shared_ptr<const Contents> pluggedContents();

    /// Throws the statuses of `checkPin`.
    void login(PinRole role, std::string_view pin);
    void changePin(PinRole role, std::string_view oldPin, std::string_view newPin,
                   std::optional<ScryptCost> newCost = {});
    void rekey(std::string_view oldPin, std::string_view newPin, std::string_view soPin);
    void resetUserPin(std::string_view soPin, std::string_view newUserPin);

    /// `usage`: a bit of the usage flags that the key must have; 0 for none.
    std::shared_ptr<const PrivateKey> privateKey(const Identifier& identifier, std::string_view pin,
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
    void lockWhenIdle(std::chrono::steady_clock::time_point now);

private:
    /// False, and nothing was done, when the file has another PIN or master key by now.
    bool changeWith(const Unlocked& unlocked, const std::function<void(Database&)>& work);
    bool isStillOpen(const std::shared_ptr<Unlocked>& unlocked) const;
    /// Null when it was sealed anew since the contents were read.
    std::shared_ptr<const PrivateKey> load(const Unlocked& unlocked, const Contents& contents,
                                           const VelkorKeyPair& record);
    std::shared_ptr<Unlocked> authorise(const Contents& contents, std::string_view pin);
    std::shared_ptr<Unlocked> openedBy(std::string_view pin, const Contents& contents) const;
    std::shared_ptr<Unlocked> unlock(std::string_view pin);

    KeyFile file_;
    std::mutex checkMutex_; ///< One thread unlocks at a time; taken before the other one.
    mutable std::mutex unlockedMutex_;
    std::shared_ptr<Unlocked> unlocked_;
    std::shared_ptr<const Contents> seen_; ///< Contents that `unlocked_` was last fitted to.
};

} // namespace softkey
