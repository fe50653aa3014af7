// The folder in which the software keys of a user live: which keys it holds, and their files, opened once per
// process.
#pragma once

#include "store/soft_key.h"

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace softkey
{

/// A key that was plugged in when it was looked at.
struct PluggedKey {
    std::shared_ptr<SoftKey> key;
    Look seen;
};

class KeysFolder
{
public:
    void open(const std::filesystem::path& folder);
    /// Drops every key and what it unlocked.
    void close();

    /// Names of the keys that are plugged in, in ascending order. `refresh` looks at everything anew.
    std::vector<std::string> pluggedKeys(bool refresh);
    /// Names of all files that could be a key's, in ascending order.
    std::vector<std::string> keyNames(bool refresh = false);
    enum class Identity { Trusted, Checked };
    /// Throws DeviceRemoved when there is no such key, and the statuses of `KeyFile`. With `Trusted`, a file that was
    /// exchanged by hand may go unnoticed for a tenth of a second.
    std::shared_ptr<SoftKey> find(std::string_view name, Identity identity);
    /// The same for a key that is plugged in, else DeviceRemoved.
    PluggedKey findPlugged(std::string_view name);

private:
    struct Entry {
        std::shared_ptr<SoftKey> key;
        std::chrono::steady_clock::time_point checkedAt; ///< When the file was last seen to be the one that is open.
    };

    std::shared_ptr<SoftKey> reopen(std::string_view name);
    void lockIdleKeys();

    std::mutex mutex_;
    std::filesystem::path folder_;
    std::map<std::string, Entry, std::less<>> entries_;
    std::vector<std::string> names_;
    std::optional<std::filesystem::file_time_type>
        namesChangedAt_; ///< The folder's time of change that `names_` belong to.
};

} // namespace softkey
