#include "crypto/public_keys.h"

#include "crypto/public_key.h"
#include "platform/fork_guard.h"

namespace softkey
{
namespace
{

std::string_view textOf(Bytes bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

} // namespace

PublicKeys& PublicKeys::ofProcess()
{
    static auto* const keys = new PerProcess<PublicKeys>;
    return keys->get();
}

std::shared_ptr<const PublicKey> PublicKeys::find(const KeyKindTraits& traits, PublicKeyForm form, Bytes encoded)
{
    require(encoded.size() <= PUBLIC_KEY_CAPACITY, SoftkeyStatus::BadPublicKey); // No good key is longer.
    if (std::shared_ptr<const PublicKey> known = findKnown({&traits, form, textOf(encoded)}))
        return known;
    auto key = std::make_shared<const PublicKey>(form == PublicKeyForm::Info ? publicKeyFromInfo(traits, encoded)
                                                                             : publicKeyFrom(traits, encoded));
    Entry entry{{&traits, form, {}}, {encoded.begin(), encoded.end()}, key};
    entry.name.encoded = textOf(entry.encoded); // Moves along with the bytes.
    keep(std::move(entry));
    return key;
}

std::shared_ptr<const PublicKey> PublicKeys::findKnown(const Name& name)
{
    const std::lock_guard lock(mutex_);
    const auto position = positions_.find(name);
    if (position == positions_.end())
        return nullptr;
    entries_.splice(entries_.begin(), entries_, position->second);
    return position->second->key;
}

void PublicKeys::keep(Entry entry)
{
    std::list<Entry> dropped; // Released without the lock.
    const std::lock_guard lock(mutex_);
    if (positions_.contains(entry.name))
        return; // Another thread was faster.
    entries_.push_front(std::move(entry));
    positions_.emplace(entries_.front().name, entries_.begin());
    if (entries_.size() <= KEPT)
        return;
    positions_.erase(entries_.back().name);
    dropped.splice(dropped.begin(), entries_, std::prev(entries_.end()));
}

void PublicKeys::clear()
{
    std::list<Entry> dropped;
    const std::lock_guard lock(mutex_);
    positions_.clear();
    dropped.swap(entries_);
}

} // namespace softkey
