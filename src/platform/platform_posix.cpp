#include "platform/platform.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <optional>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <linux/magic.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace velkor::platform
{
namespace
{

/// Stands in for the registry: lines `name = value`, comments after '#'.
constexpr const char* CONFIGURATION_FILE = "/etc/brenmoor/velkor.conf";
constexpr std::size_t CONFIGURATION_CAPACITY = 4096;
constexpr mode_t PRIVATE_FOLDER = S_IRWXU;

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t\r";
    const std::size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

/// The data that the registry would hold: a text with its terminating zero, or a 32-bit little-endian number.
std::optional<std::string> configuredData(std::string_view value)
{
    if (value.starts_with('"')) {
        const std::size_t end = value.find('"', 1);
        if (end == std::string_view::npos)
            return std::nullopt;
        return std::string(value.substr(1, end - 1)) + '\0';
    }
    value = trimmed(value.substr(0, value.find('#')));
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (error != std::errc() || end != value.data() + value.size() ||
        number < std::numeric_limits<std::int32_t>::min() || number > std::numeric_limits<std::uint32_t>::max())
        return std::nullopt;
    std::string data;
    for (unsigned shift = 0; shift < 32; shift += 8)
        data.push_back(static_cast<char>(static_cast<std::uint32_t>(number) >> shift & 0xFF));
    return data;
}

std::optional<std::string> configuredValue(std::string_view configuration, std::string_view name)
{
    while (!configuration.empty()) {
        const std::string_view line = configuration.substr(0, configuration.find('\n'));
        configuration.remove_prefix(std::min(line.size() + 1, configuration.size()));
        const std::size_t equals = line.find('=');
        if (equals != std::string_view::npos && trimmed(line.substr(0, equals)) == name)
            return configuredData(trimmed(line.substr(equals + 1)));
    }
    return std::nullopt;
}

/// An environment variable, unless the process runs with more rights than its caller has.
const char* trustedEnvironment(const char* name)
{
    const char* value = secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

/// Whether the file could still change at that time without its stamp showing it: the clocks of file systems tick
/// coarsely.
bool isYoung(const struct stat& status, const timespec& time)
{
    constexpr std::time_t SETTLED_AFTER = 2;
    return time.tv_sec - status.st_ctim.tv_sec <= SETTLED_AFTER;
}

/// Whether an edit shows in a file's stamp at once, as on the file systems of this machine. What a network carries is
/// stamped by another machine's clock, and stamps are kept here for seconds; only opening the file asks for it.
bool showsEditsAtOnce(int file)
{
    constexpr std::array<std::uint32_t, 6> LOCAL = {EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC, BTRFS_SUPER_MAGIC,
                                                    F2FS_SUPER_MAGIC, TMPFS_MAGIC,     OVERLAYFS_SUPER_MAGIC};
    struct statfs system {
    };
    return fstatfs(file, &system) == 0 &&
           std::find(LOCAL.begin(), LOCAL.end(), static_cast<std::uint32_t>(system.f_type)) != LOCAL.end();
}

/// What tells one state of a file from another.
struct FileStamp {
    dev_t device = 0;
    ino_t file = 0;
    off_t size = 0;
    std::time_t changedSeconds = 0;
    long changedNanoseconds = 0;

    bool operator==(const FileStamp&) const = default;
};

FileStamp stampOf(const struct stat& status)
{
    return {status.st_dev, status.st_ino, status.st_size, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

/// What was read of the configuration in one state of its file. Of trivial types only: lines are also written while a
/// thread or the process ends.
struct KnownLevel {
    FileStamp stamp;      ///< Of no file while the next line has to read again.
    std::size_t size = 0; ///< Bytes of `data`; 0: there is no such value.
    std::array<char, 32> data{};
};

KnownLevel readConfiguredLevel()
{
    KnownLevel level;
    timespec before{};
    clock_gettime(CLOCK_REALTIME_COARSE, &before);
    const int file = open(configurationFile(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return level;
    struct stat status {
    };
    const bool hasStamp = showsEditsAtOnce(file) && fstat(file, &status) == 0;
    std::array<char, CONFIGURATION_CAPACITY> text{};
    const ssize_t length = read(file, text.data(), text.size());
    close(file);
    if (length < 0)
        return level;
    if (hasStamp && !isYoung(status, before)) // As it was before the contents were read.
        level.stamp = stampOf(status);
    const auto data = configuredValue({text.data(), static_cast<std::size_t>(length)}, "logLevel");
    if (data && data->size() <= level.data.size()) {
        level.size = data->size();
        std::copy(data->begin(), data->end(), level.data.begin());
    }
    return level;
}

/// A folder that nobody else can write or look into.
bool isPrivateFolder(const std::string& path)
{
    struct stat status {
    };
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
           (status.st_mode & 077) == 0;
}

bool isAbsolute(std::string_view path)
{
    return path.starts_with('/');
}

std::string withSeparator(std::string path)
{
    if (!path.ends_with('/'))
        path += '/';
    return path;
}

/// Path of the running program; empty when the system does not tell.
std::string processPath()
{
    std::array<char, 4096> path{};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    if (length <= 0)
        return {};
    std::string_view whole(path.data(), static_cast<std::size_t>(length));
    constexpr std::string_view REPLACED = " (deleted)"; // What the system adds once the file has been replaced.
    if (whole.ends_with(REPLACED))
        whole.remove_suffix(REPLACED.size());
    return std::string(whole);
}

} // namespace

bool readLogLevel(std::span<char> value)
{
    thread_local KnownLevel known;
    struct stat status {
    };
    if (stat(configurationFile(), &status) != 0)
        return false;
    if (known.stamp != stampOf(status))
        known = readConfiguredLevel();
    if (known.size == 0 || known.size > value.size())
        return false;
    std::copy_n(known.data.begin(), known.size, value.begin());
    return true;
}

const char* configurationFile()
{
    const char* path = trustedEnvironment("VELKOR_CONFIG");
    return path != nullptr ? path : CONFIGURATION_FILE;
}

std::string temporaryFolder()
{
    if (const char* folder = trustedEnvironment("TMPDIR"); folder != nullptr && isAbsolute(folder))
        return withSeparator(folder);
    const char* folder = std::getenv("XDG_RUNTIME_DIR");
    if (folder != nullptr && isAbsolute(folder) && getuid() == geteuid() && isPrivateFolder(folder))
        return withSeparator(folder);
    const std::string own = "/tmp/velkor-" + std::to_string(geteuid());
    mkdir(own.c_str(), PRIVATE_FOLDER);
    return isPrivateFolder(own) ? withSeparator(own) : "";
}

bool folderExists(const std::string& path)
{
    struct stat status {
    };
    return isAbsolute(path) && stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool createFolder(const std::string& path)
{
    return mkdir(path.c_str(), PRIVATE_FOLDER) == 0;
}

bool appendToFile(const std::string& path, std::string_view text)
{
    // Opening anything but a file could block, and what somebody else has put there is none of ours.
    constexpr int FLAGS = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const int file = open(path.c_str(), FLAGS, S_IRUSR | S_IWUSR);
    if (file < 0)
        return false;
    struct stat status {
    };
    const bool isOurs = fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid();
    if (isOurs && write(file, text.data(), text.size()) < 0) {
        // Lost: nobody is told of a full disk with every line.
    }
    close(file);
    return isOurs;
}

std::string processFileName()
{
    const std::string path = processPath();
    return path.substr(path.rfind('/') + 1);
}

std::string processFolder()
{
    const std::string path = processPath();
    return path.substr(0, path.rfind('/'));
}

std::string environmentVariable(const char* name)
{
    const char* value = trustedEnvironment(name);
    return value != nullptr ? value : "";
}

LocalTime localTime()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm broken{};
    localtime_r(&now.tv_sec, &broken);
    return {broken.tm_year + 1900,
            broken.tm_mon + 1,
            broken.tm_mday,
            broken.tm_hour,
            broken.tm_min,
            broken.tm_sec,
            static_cast<int>(now.tv_nsec / 1'000'000)};
}

void sleep(std::chrono::milliseconds time)
{
    std::this_thread::sleep_for(time);
}

int suspendCancellation()
{
    int before = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    return before;
}

void resumeCancellation(int before)
{
    pthread_setcancelstate(before, nullptr);
}

void secureWipe(void* memory, std::size_t size)
{
    if (size != 0) // Then the memory may be null.
        explicit_bzero(memory, size);
}

[[gnu::noinline]] void wipeStack() // Inlined, it would have its room above what it is to wipe.
{
    constexpr std::size_t DEPTH = 8192; // Threads of hosts may have little more.
    unsigned char below[DEPTH];         // NOLINT: what is in it does not matter.
    secureWipe(below, sizeof below);
}

} // namespace velkor::platform
