// The beginning and the end of a key's file.
#pragma once

#include <array>
#include <filesystem>
#include <string_view>

namespace softkey
{

inline constexpr std::string_view DRAFT_SUFFIX = ".draft";

/// Where SQLite keeps what an unfinished change of the file replaced.
inline std::filesystem::path journalOf(std::filesystem::path file)
{
    return file += "-journal";
}

/// All files that SQLite may keep beside a file and take for its own again.
inline std::array<std::filesystem::path, 3> companionsOf(const std::filesystem::path& file)
{
    const auto with = [&](const char* suffix) { return std::filesystem::path(file) += suffix; };
    return {journalOf(file), with("-wal"), with("-shm")};
}

/// A key's file under construction, out of sight of every reader.
class Draft
{
public:
    /// Makes an empty file; on POSIX for its owner alone, on Windows for those whom the folder admits. Throws
    /// StorageFailed.
    explicit Draft(std::filesystem::path path);
    /// Removes the file unless it was published.
    ~Draft();
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;

    const std::filesystem::path& path() const { return path_; }

    /// Gives the file its name, once it is on the disk. The caller holds the folder's lock. Throws AlreadyExists,
    /// and leaves alone what is there; StorageFailed.
    void publish(const std::filesystem::path& destination) const;
    /// The same in the place of whatever is there, of which no journal stays behind. Throws StorageBusy while others
    /// change that, and StorageFailed; on Windows also when somebody has it open.
    void replace(const std::filesystem::path& destination) const;

private:
    std::filesystem::path path_;
};

/// Removes a key's file and what belongs to it. The caller holds the folder's lock. Throws StorageFailed and the
/// statuses of `KeyFile`.
void takeAway(const std::filesystem::path& keyFile);

} // namespace softkey
