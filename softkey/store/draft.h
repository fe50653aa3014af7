// A key's file under construction, out of sight of every reader.
#pragma once

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

class Draft
{
public:
    /// Makes an empty file that only its owner can read. Throws StorageFailed.
    explicit Draft(std::filesystem::path path);
    /// Removes the file unless it was published.
    ~Draft();
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;

    const std::filesystem::path& path() const { return path_; }

    /// Gives the file its name, once it is on the disk. The caller holds the folder's lock. Throws AlreadyExists,
    /// and leaves alone what is there; StorageFailed.
    void publish(const std::filesystem::path& destination) const;

private:
    std::filesystem::path path_;
};

} // namespace softkey
