#include "fake_platform.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

FakePlatform fakePlatform;

namespace velkor::platform
{

bool readLogLevel(std::span<char> value)
{
    ++fakePlatform.levelReads;
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
    return fakePlatform.foldersAreThere || std::filesystem::is_directory(path);
}

bool createFolder(const std::string& path)
{
    ++fakePlatform.folderCalls;
    fakePlatform.lastFolder = path;
    if (fakePlatform.foldersThrow)
        throw std::runtime_error("no room");
    if (fakePlatform.foldersAreThere)
        return false;
    std::error_code ignored;
    return path.starts_with(fakePlatform.root) && std::filesystem::create_directory(path, ignored);
}

bool appendToFile(const std::string& path, std::string_view text)
{
    std::ofstream file(path, std::ios::app | std::ios::binary);
    file << text;
    return file.good();
}

std::string processFileName()
{
    if (fakePlatform.processThrows)
        throw std::runtime_error("no name");
    return fakePlatform.processFileName;
}

LocalTime localTime()
{
    return fakePlatform.time;
}

} // namespace velkor::platform
