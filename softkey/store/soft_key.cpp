#include "store/soft_key.h"

#include "platform/environment.h"
#include "store/authenticity.h"

#include <algorithm>
#include <charconv>

namespace softkey
{
namespace
{

/// Zero for ever.
std::chrono::seconds idleLimit()
{
    static const std::chrono::seconds limit = [] {
        constexpr std::chrono::seconds usual = std::chrono::minutes(15);
        const std::string chosen = environmentValue("VELKOR_SOFTKEY_IDLE").value_or("");
        int seconds = 0;
        const auto [end, failure] = std::from_chars(chosen.data(), chosen.data() + chosen.size(), seconds);
        const bool isNumber = failure == std::errc() && end == chosen.data() + chosen.size() && seconds >= 0;
        return isNumber ? std::chrono::seconds(seconds) : usual;
    }();
    return limit;
}

} // namespace

Unlocked::Unlocked(std::string_view pin, CheckedPin checked, const DeviceRecord& device)
    : masterKey_(std::move(checked.masterKey)),
      salt_(std::move(checked.record.salt)),
      timesUnplugged_(device.timesUnplugged)
{
    pinDigest_ = digest(pin);
}

PinDigest Unlocked::digest(std::string_view pin) const
{
    return digest_.of(salt_, bytesOf(pin));
}

bool Unlocked::belongsTo(const Contents& contents) const
{
    return contents.device.plugged && contents.device.timesUnplugged == timesUnplugged_ &&
           contents.userPin.salt == salt_;
}

bool Unlocked::fits(const Contents& contents) const
{
    return contents.userPin.triesLeft > 0 && belongsTo(contents);
}

bool Unlocked::isOpenedBy(std::string_view pin) const
{
    return sameDigest(digest(pin), pinDigest_);
}

bool Unlocked::vouchesFor(const Contents& contents) const
{
    return areAuthentic(contents, masterKey_);
}

std::shared_ptr<const PrivateKey> Unlocked::find(const Identifier& identifier) const
{
    const std::lock_guard lock(mutex_);
    const auto found = keys_.find(identifier);
    return found == keys_.end() ? nullptr : found->second;
}

void Unlocked::keep(const Identifier& identifier, std::shared_ptr<const PrivateKey> key)
{
    const std::lock_guard lock(mutex_);
    keys_[identifier] = std::move(key);
}

void Unlocked::keepOnly(const Contents& contents)
{
    const std::lock_guard lock(mutex_);
    std::erase_if(keys_, [&](const auto& entry) { return contents.findKeyPair(entry.first) == nullptr; });
}

void Unlocked::touch(UptimeClock::time_point now)
{
    constexpr std::chrono::milliseconds longest = std::chrono::seconds(1);
    if (now - usedAt_.load() >= std::min(longest, std::chrono::milliseconds(idleLimit()) / 16))
        usedAt_ = now;
}

bool Unlocked::isIdle(UptimeClock::time_point now) const
{
    return idleLimit() > std::chrono::seconds(0) && now - usedAt_.load() >= idleLimit();
}

bool Look::isOpenedBy(std::string_view pin) const
{
    const auto now = UptimeClock::now();
    if (!unlocked || unlocked->isIdle(now) || !unlocked->isOpenedBy(pin))
        return false;
    unlocked->touch(now);
    return true;
}

Look SoftKey::look()
{
    return lookAt(file_.contents());
}

std::shared_ptr<const Contents> SoftKey::settledContents()
{
    try {
        const std::optional<FileLock> turn = FileLock::tryTake(lockOfKey(file_.path()));
        return turn ? file_.contents() : nullptr;
    } catch (const Refusal&) {
        return file_.contents(); // Nobody takes turns where there can be no such file.
    }
}

Look SoftKey::lookAt(std::shared_ptr<const Contents> now)
{
    std::shared_ptr<Unlocked> unlocked; // Looked at, and perhaps dropped, without the lock.
    {
        const std::lock_guard lock(unlockedMutex_);
        if (now == seen_)
            return {std::move(now), unlocked_};
        unlocked = unlocked_;
    }
    // The last try may come back with the end of the check that spends it. Nobody waits here: lists come by.
    if (unlocked && now->userPin.triesLeft == 0 && unlocked->belongsTo(*now)) {
        std::shared_ptr<const Contents> settled = settledContents();
        if (!settled)
            return {std::move(now), nullptr};
        now = std::move(settled);
    }
    const bool stays = unlocked && unlocked->fits(*now) && unlocked->vouchesFor(*now);
    if (stays)
        unlocked->keepOnly(*now);
    const std::lock_guard lock(unlockedMutex_);
    if (unlocked_ != unlocked)
        return {std::move(now), nullptr}; // Another thread has unlocked the key meanwhile, or locked it.
    if (!stays)
        unlocked_.reset();
    seen_ = now;
    return {std::move(now), unlocked_};
}

Look SoftKey::pluggedLook()
{
    Look seen = look();
    require(seen.contents->device.plugged, SoftkeyStatus::DeviceRemoved);
    return seen;
}

std::shared_ptr<Unlocked> SoftKey::unlock(std::string_view pin)
{
    // Read before the check: a key that is unplugged meanwhile has to be unlocked again.
    const std::shared_ptr<const Contents> before = pluggedContents();
    auto unlocked = std::make_shared<Unlocked>(pin, checkPin(file_, PinRole::User, pin), before->device);
    std::shared_ptr<Unlocked> dropped = unlocked; // What it takes the place of goes without the lock.
    const std::lock_guard lock(unlockedMutex_);
    dropped.swap(unlocked_);
    seen_.reset(); // Whatever was seen meanwhile has not been held against its code.
    return unlocked;
}

void SoftKey::awaitLastTry(Look& seen)
{
    if (seen.contents->userPin.triesLeft > 0)
        return;
    {
        const std::lock_guard lock(unlockedMutex_);
        if (!unlocked_)
            return;
    }
    std::shared_ptr<const Contents> settled;
    {
        const KeyFile::Turn turn(file_);
        settled = file_.contents();
    }
    seen = lookAt(std::move(settled));
}

std::shared_ptr<Unlocked> SoftKey::authorise(Look& seen, std::string_view pin)
{
    if (pin.empty()) {
        lock(); // Whoever had the PIN has dropped it, as a logout does.
        throw Refusal::ofPin(SoftkeyStatus::PinRequired, seen.contents->userPin.triesLeft);
    }
    if (seen.isOpenedBy(pin))
        return seen.unlocked;
    lockWhenIdle(UptimeClock::now());
    const std::lock_guard lock(checkMutex_);
    // Another thread may have unlocked the key while this one waited. Only the check itself tells that a PIN is
    // locked: while someone else's last try is being checked, no tries are left either.
    seen = pluggedLook();
    awaitLastTry(seen);
    return seen.isOpenedBy(pin) ? seen.unlocked : unlock(pin);
}

void SoftKey::login(PinRole role, std::string_view pin)
{
    Look seen = pluggedLook();
    if (role == PinRole::SecurityOfficer) {
        checkPin(file_, role, pin);
        return;
    }
    authorise(seen, pin);
    // A right PIN gives back tries that others have spent, which a remembered one alone does not.
    const PinRecord& before = seen.contents->userPin;
    if (before.triesLeft < before.triesMax && contents()->userPin.triesLeft < before.triesMax)
        checkPin(file_, role, pin);
}

void SoftKey::changePin(PinRole role, std::string_view oldPin, std::string_view newPin,
                        std::optional<ScryptCost> newCost)
{
    pluggedContents();
    softkey::changePin(file_, role, oldPin, newPin, newCost);
}

void SoftKey::rekey(std::string_view oldPin, std::string_view newPin, std::string_view soPin)
{
    pluggedContents();
    softkey::rekey(file_, oldPin, newPin, soPin);
}

void SoftKey::resetUserPin(std::string_view soPin, std::string_view newUserPin)
{
    pluggedContents();
    softkey::resetUserPin(file_, soPin, newUserPin);
}

std::shared_ptr<const PrivateKey> SoftKey::load(const Unlocked& unlocked, const Contents& contents,
                                                const VelkorKeyPair& record)
{
    std::shared_ptr<const PrivateKey> key;
    try {
        file_.read([&](Database& database) {
            key = loadPrivateKey(database, record, unlocked.masterKey(), contents.device.serialNumber);
        });
    } catch (const Refusal&) {
        const std::shared_ptr<const Contents> now = pluggedContents();
        const VelkorKeyPair* present = now->findKeyPair(std::to_array(record.keyIdentifier));
        if (unlocked.fits(*now) && present != nullptr && paddingsOf(*present) == paddingsOf(record))
            throw;
    }
    return key;
}

std::shared_ptr<const PrivateKey> SoftKey::privateKey(Look seen, const Identifier& identifier, std::string_view pin,
                                                      std::uint32_t usage)
{
    for (;; seen = pluggedLook()) {
        const std::shared_ptr<Unlocked> unlocked = authorise(seen, pin);
        if (unlocked != seen.unlocked) // The contents are not what it vouched for.
            continue;
        const VelkorKeyPair* record = seen.contents->findKeyPair(identifier);
        require(record != nullptr, SoftkeyStatus::NoSuchObject);
        require((record->usageFlags & usage) == usage, SoftkeyStatus::UsageNotPermitted);
        // The same key pair may have been deleted and stored with other paddings.
        if (auto known = unlocked->find(identifier); known && known->paddings() == paddingsOf(*record))
            return known;
        if (std::shared_ptr<const PrivateKey> key = load(*unlocked, *seen.contents, *record)) {
            unlocked->keep(identifier, key);
            return key;
        }
    }
}

void SoftKey::requireUser(std::string_view pin)
{
    Look seen = pluggedLook();
    authorise(seen, pin);
}

void SoftKey::change(std::string_view pin, const std::function<void(Database&)>& work)
{
    for (bool done = false; !done;) {
        Look seen = pluggedLook();
        done = changeWith(*authorise(seen, pin), work);
    }
}

bool SoftKey::changeWith(const Unlocked& unlocked, const std::function<void(Database&)>& work)
{
    bool fits = false;
    file_.change([&](Database& database) {
        const Contents before = readContents(database);
        fits = unlocked.fits(before);
        if (!fits)
            return;
        // What was edited past the key since the PIN was looked at does not get the seal.
        require(unlocked.vouchesFor(before), SoftkeyStatus::FileDamaged);
        work(database);
        authenticate(database, unlocked.masterKey());
    });
    return fits;
}

VelkorKeyPair SoftKey::addKeyPair(std::string_view pin, const EVP_PKEY* key, const ObjectAttributes& attributes,
                                  const KeyUsage& usage)
{
    NewKeyPair keyPair;
    for (bool stored = false; !stored;) {
        Look seen = pluggedLook();
        const std::shared_ptr<Unlocked> unlocked = authorise(seen, pin);
        keyPair = prepareKeyPair(key, attributes, usage, unlocked->masterKey(), seen.contents->device.serialNumber);
        stored = changeWith(*unlocked, [&](Database& database) { storeKeyPair(database, keyPair); });
    }
    const std::shared_ptr<const Contents> after = contents();
    // As stored: a key pair that was there before keeps what the request left empty.
    const VelkorKeyPair* stored = after->findKeyPair(std::to_array(keyPair.record.keyIdentifier));
    return stored != nullptr ? *stored : keyPair.record;
}

void SoftKey::addCertificate(std::string_view pin, VelkorCertificate& certificate)
{
    change(pin, [&](Database& database) { storeCertificate(database, certificate); });
}

void SoftKey::lock()
{
    std::shared_ptr<Unlocked> dropped; // Without the lock: that of secret memory is not to be taken inside.
    const std::lock_guard lock(unlockedMutex_);
    dropped.swap(unlocked_);
}

void SoftKey::lockWhenIdle(UptimeClock::time_point now)
{
    std::shared_ptr<Unlocked> dropped;
    const std::lock_guard lock(unlockedMutex_);
    if (unlocked_ && unlocked_->isIdle(now))
        dropped.swap(unlocked_);
}

} // namespace softkey
