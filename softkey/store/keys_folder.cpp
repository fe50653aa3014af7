#include "store/keys_folder.h"

#include "platform/exposure.h"
#include "store/key_settings.h"

#include <algorithm>
#include <optional>

namespace softkey
{
namespace
{

using FolderTime = std::filesystem::file_time_type;
using std::chrono::steady_clock;

constexpr std::chrono::milliseconds IDENTITY_TRUSTED{100};
// Two changes of a folder can bear the same time when they follow each other closely.
constexpr std::chrono::seconds TIMESTAMP_TRUSTED_AFTER{2};

/// Nothing when the folder cannot be read to its end.
std::optional<std::vector<std::string>> listKeyNames(const std::filesystem::path& folder)
{
    std::vector<std::string> names;
    std::error_code failure;
    std::filesystem::directory_iterator file(folder, failure);
    for (; !failure && file != std::filesystem::directory_iterator(); file.increment(failure)) {
        const std::filesystem::path& path = file->path();
        if (path.extension() == KEY_FILE_SUFFIX && isSerialNumber(path.stem().string()))
            names.push_back(path.stem().string());
    }
    if (failure)
        return std::nullopt;
    std::sort(names.begin(), names.end());
    return names;
}

/// What a key says; while other processes keep it busy, what it said before.
std::shared_ptr<const Contents> contentsOrLast(SoftKey& key)
{
    try {
        return key.contents();
    } catch (const Refusal& refusal) {
        return refusal.status() == SoftkeyStatus::StorageBusy ? key.file().lastContents() : nullptr;
    }
}

} // namespace

void KeysFolder::open(const std::filesystem::path& folder)
{
    decltype(entries_) dropped; // Here and below: closed without the lock, since closing a file waits for forks.
    const std::lock_guard lock(mutex_);
    folder_ = folder;
    dropped.swap(entries_);
    namesChangedAt_ = {};
}

void KeysFolder::close()
{
    open({});
}

std::vector<std::string> KeysFolder::keyNames(bool refresh)
{
    decltype(entries_) dropped;
    const std::lock_guard lock(mutex_);
    std::error_code failure;
    const FolderTime changedAt = std::filesystem::last_write_time(folder_, failure);
    if (failure)
        return {};
    if (!refresh && changedAt == namesChangedAt_)
        return names_;
    const auto age = FolderTime::clock::now() - changedAt;
    std::optional<std::vector<std::string>> names = listKeyNames(folder_);
    if (!names)
        return names_; // Keys do not go because a listing failed.
    names_ = std::move(*names);
    namesChangedAt_ = age > TIMESTAMP_TRUSTED_AFTER ? std::optional(changedAt) : std::nullopt;
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        const auto next = std::next(entry);
        if (!std::binary_search(names_.begin(), names_.end(), entry->first))
            dropped.insert(entries_.extract(entry));
        entry = next;
    }
    return names_;
}

void KeysFolder::lockIdleKeys()
{
    std::vector<std::shared_ptr<SoftKey>> open;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [name, entry] : entries_)
            open.push_back(entry.key);
    }
    for (const std::shared_ptr<SoftKey>& key : open)
        key->lockWhenIdle(UptimeClock::now());
}

std::vector<std::string> KeysFolder::pluggedKeys(bool refresh)
{
    lockIdleKeys(); // A module asks every second.
    std::vector<std::string> plugged;
    for (const std::string& name : keyNames(refresh)) {
        try {
            const std::shared_ptr<SoftKey> key = find(name, Identity::Checked);
            const std::shared_ptr<const Contents> contents = contentsOrLast(*key);
            if (contents && contents->device.plugged)
                plugged.push_back(name);
        } catch (const Refusal&) {
            continue; // Not a key's file, or gone already.
        }
    }
    return plugged;
}

std::shared_ptr<SoftKey> KeysFolder::find(std::string_view name, Identity identity)
{
    const auto now = steady_clock::now();
    decltype(entries_) dropped;
    const std::lock_guard lock(mutex_);
    const auto known = entries_.find(name);
    if (known == entries_.end())
        return reopen(name);
    if (identity == Identity::Trusted && now - known->second.checkedAt < IDENTITY_TRUSTED)
        return known->second.key;
    if (known->second.key->file().wasReplaced()) {
        dropped.insert(entries_.extract(known));
        return reopen(name);
    }
    known->second.checkedAt = now;
    return known->second.key;
}

PluggedKey KeysFolder::findPlugged(std::string_view name)
{
    std::shared_ptr<SoftKey> key = find(name, Identity::Trusted);
    Look seen = key->look();
    if (!seen.contents->device.plugged) {
        // It may have been removed, and another one made in its place.
        key = find(name, Identity::Checked);
        seen = key->pluggedLook();
    }
    return {std::move(key), std::move(seen)};
}

std::shared_ptr<SoftKey> KeysFolder::reopen(std::string_view name)
{
    require(isSerialNumber(name), SoftkeyStatus::DeviceRemoved);
    const std::filesystem::path path = folder_ / (std::string(name) + std::string(KEY_FILE_SUFFIX));
    std::error_code failure;
    const std::filesystem::file_status status = std::filesystem::status(path, failure);
    require(!folder_.empty() && std::filesystem::exists(status), SoftkeyStatus::DeviceRemoved);
    require(std::filesystem::is_regular_file(status), SoftkeyStatus::FileForeign);
    // Who may write can set PIN tries back, or put another file in the place of this one.
    for (const std::filesystem::path& each : {folder_, path})
        require(exposureOf(each) != Exposure::Writable, SoftkeyStatus::FileExposed);
    const auto now = steady_clock::now();
    return entries_.insert_or_assign(std::string(name), Entry{std::make_shared<SoftKey>(path), now}).first->second.key;
}

} // namespace softkey
