#include "fake_platform.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

FakePlatform fakePlatform;

namespace platform
{

bool readLogLevel(std::span<char> value)
{
    if (fakePlatform.logLevel)
        std::copy(fakePlatform.logLevel->begin(), fakePlatform.logLevel->end(), value.begin());
    return fakePlatform.logLevel.has_value();
}

std::string temporaryFolder()
{
    if (fakePlatform.foldersThrow)
        throw std::runtime_error("no folder");
    return fakePlatform.temporaryFolder;
}

bool folderExists(const std::string& path)
{
    return std::filesystem::is_directory(path);
}

bool createFolder(const std::string& path)
{
    if (fakePlatform.foldersThrow)
        throw std::runtime_error("no room");
    std::error_code ignored;
    return std::filesystem::create_directory(path, ignored);
}

std::string processFileName()
{
    return fakePlatform.processFileName;
}

LocalTime localTime()
{
    return fakePlatform.time;
}

} // namespace platform
