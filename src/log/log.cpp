#include "log/log.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/platform.h"

namespace velkor
{

std::mutex* logLock = nullptr;
std::atomic<bool> tellsOfLostLines = true;

namespace
{

constexpr std::size_t PATH_CAPACITY = 1024;

/// The first byte of the configured value, whatever the value's type; nothing when there is no value.
std::optional<signed char> readLevel()
{
    std::array<char, 32> value{};
    if (!platform::readLogLevel(value))
        return std::nullopt;
    return static_cast<signed char>(value[0]);
}

void complain(std::string_view text)
{
    if (tellsOfLostLines)
        std::cout << text << std::flush;
}

void appendBounded(std::string& path, std::string_view text)
{
    path.append(text.substr(0, PATH_CAPACITY - 1 - path.size()));
}

std::string dateText()
{
    const platform::LocalTime now = platform::localTime();
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02d-%02d", now.year, now.month, now.day);
    return text.data();
}

std::string timeText()
{
    const platform::LocalTime now = platform::localTime();
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "%02d/%02d::%02d:%02d:%02d:%03d-> ", now.day, now.month, now.hour,
                  now.minute, now.second, now.millisecond);
    return text.data();
}

const char* tag(int code)
{
    switch (code) {
    case LOG_EXCEPTION:
        return "EXCEP ::=>";
    case LOG_ERROR:
        return "ERROR ::=>";
    case LOG_DEBUG:
        return "DEBUG ::=>";
    default:
        return "INFO  ::=>";
    }
}

void appendLine(const std::string& path, int code, std::string text)
{
    std::unique_lock<std::mutex> lock;
    if (std::mutex* installed = logLock)
        lock = std::unique_lock(*installed);
    // One piece, so that lines of several threads and processes do not mix.
    text.insert(0, timeText() + "->" + tag(code));
    if (!platform::appendToFile(path, text.append("\n")))
        complain("\nUnable to write log");
}

} // namespace

bool isLogged(LogCode code)
{
    const std::optional<signed char> level = readLevel();
    return code == LOG_DEBUG ? level == LOG_DEBUG : !level || *level >= LOG_ERROR;
}

void writeLogLine(int code, std::string text)
{
    std::array<char, PATH_CAPACITY> base{};
    if (getLogBaseFolderPath(base.data(), base.size()) != 0)
        complain("\nUnable to getLogBaseFolderPath");
    std::string path = base.data();
    appendBounded(path, "/Brenmoor/");
    appendBounded(path, getProcessBaseName());
    appendBounded(path, "/");
    // A call that has just created a level writes nothing: on a fresh machine the first two lines are lost.
    if (createFolderPath(path) == -1) {
        complain("\nUnable to write log");
        return;
    }
    appendBounded(path, dateText());
    appendBounded(path, ".LOG");
    appendLine(path, code, std::move(text));
}

int getLogBaseFolderPath(char* buffer, std::size_t size)
{
    try {
        std::memset(buffer, 0, size);
        const std::string folder = platform::temporaryFolder();
        if (folder.size() >= size || !platform::folderExists(folder))
            return -1;
        folder.copy(buffer, folder.size());
        return 0;
    } catch (const std::exception& exception) {
        complain(std::string("Exception in getLogBaseFolderPath(): ") + exception.what());
        return -1;
    }
}

int createFolderPath(const std::string& path)
{
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        if (createFolder(path.substr(0, slash)) != 0)
            return -1;
    }
    return createFolder(path);
}

int createFolder(const std::string& path)
{
    try {
        return platform::createFolder(path) ? 1 : 0;
    } catch (const std::exception& exception) {
        complain(std::string("Exception in createFolder(): ") + exception.what());
        return 0;
    }
}

std::string getProcessBaseName()
{
    const std::string name = platform::processFileName();
    return name.substr(0, name.find('.'));
}

} // namespace velkor
