// One key's file, opened: what it says now, and changes to it that are whole or not at all. Many threads and
// processes may have one file open.
#pragma once

#include "platform/file_lock.h"
#include "store/contents.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>

namespace softkey
{

class KeyFile
{
public:
    /// Throws FileForeign, FileDamaged, FileNewer or DeviceUnreachable; such a file is left as it is.
    explicit KeyFile(const std::filesystem::path& path);
    ~KeyFile();
    KeyFile(const KeyFile&) = delete;
    KeyFile& operator=(const KeyFile&) = delete;

    /// What the file says now: after the last change that was completed, whatever is under way. The same object as
    /// long as nothing changed; finding that out is one short read. Waits for nobody who changes the file.
    std::shared_ptr<const Contents> contents();
    /// What was read last; null before the first reading.
    std::shared_ptr<const Contents> lastContents() const;
    /// Looks for damage in the file as a whole once more if `seen`, what it said just now, is newer than that.
    void reload(const Contents& seen);

    /// While it lives, nobody else changes the file: no other process, and no other thread of this one.
    class Turn
    {
    public:
        explicit Turn(KeyFile& file);

    private:
        static FileLock queueForTurn(KeyFile& file);

        std::unique_lock<std::mutex> threads_;
        FileLock processes_;
    };

    /// Runs `work` in a transaction that is on disk when this returns, or leaves no trace when it throws. Throws
    /// DeviceRemoved when the key is not plugged in.
    void change(const std::function<void(Database&)>& work);
    /// The same, by whoever has the turn already.
    void change(const Turn& turn, const std::function<void(Database&)>& work);
    /// Runs `work` on what the file says now, for reading alone.
    void read(const std::function<void(Database&)>& work);
    void setPlugged(bool plugged);

    /// Whether the path leads to another file now, or to none.
    bool wasReplaced() const { return database_.fileWasReplaced(); }
    const std::filesystem::path& path() const { return path_; }

private:
    /// What was read last if that still holds, else null.
    std::shared_ptr<const Contents> current() const;
    std::shared_ptr<const Contents> readAnew();
    void keep(Contents fresh, std::uint32_t counter);
    void verify();
    bool wasVerifiedAt(std::uint32_t counter) const;
    void verifyNow();
    /// Looks at everything; gives the layout. What a file of the present one says is kept.
    std::int64_t lookForDamage();
    void configure();
    /// What the file says, which must be of the key that its name names.
    Contents requireOwnContents(Database& database) const;
    void transact(const Turn& turn, const std::function<void(Database&)>& work);

    std::filesystem::path path_;
    std::mutex turnMutex_;       ///< One thread of this process waits for the others' changes.
    std::mutex connectionMutex_; ///< Held while `database_` works; taken after the turn.
    Database database_;          ///< For changes. Readers ask it for bytes of the file alone.
    bool configured_ = false;
    std::mutex readingMutex_; ///< One thread reads what several want to know.
    std::atomic<bool> verified_{false};
    std::atomic<std::uint32_t> verifiedAt_{0}; ///< The change counter of that time.
    mutable std::mutex contentsMutex_;
    std::shared_ptr<const Contents> contents_;
};

} // namespace softkey
