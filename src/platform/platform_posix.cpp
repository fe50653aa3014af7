#include "platform/platform.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace velkor
{
namespace platform
{
namespace
{

/// Stands in for the registry: lines `name = value`, comments after '#'.
constexpr const char* CONFIGURATION_FILE = "/etc/brenmoor/velkor.conf";
constexpr std::size_t CONFIGURATION_CAPACITY = 4096;

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
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (error != std::errc() || end != value.data() + value.size())
        return std::nullopt;
    std::string data;
    for (unsigned shift = 0; shift < 32; shift += 8)
        data.push_back(static_cast<char>(number >> shift & 0xFF));
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
    const char* path = trustedEnvironment("VELKOR_CONFIG");
    const int file = open(path != nullptr ? path : CONFIGURATION_FILE, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    std::array<char, CONFIGURATION_CAPACITY> text{};
    const ssize_t length = read(file, text.data(), text.size());
    close(file);
    if (length <= 0)
        return false;
    const auto data = configuredValue({text.data(), static_cast<std::size_t>(length)}, "logLevel");
    if (!data || data->size() > value.size())
        return false;
    std::memcpy(value.data(), data->data(), data->size());
    return true;
}

std::string temporaryFolder()
{
    const char* folder = trustedEnvironment("TMPDIR");
    std::string path = folder != nullptr ? folder : "/tmp";
    if (!path.ends_with('/'))
        path += '/';
    return path;
}

bool folderExists(const std::string& path)
{
    struct stat status {
    };
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool createFolder(const std::string& path)
{
    return mkdir(path.c_str(), 0777) == 0;
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

void secureWipe(void* memory, std::size_t size)
{
    if (size != 0) // Then the memory may be null.
        explicit_bzero(memory, size);
}

} // namespace platform

} // namespace velkor
