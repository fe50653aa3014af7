#include "platform/platform.h"

#include <array>
#include <fstream>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>
// Behind windows.h, which it needs.
#include <psapi.h>

namespace velkor::platform
{
namespace
{

constexpr const char* CONFIGURATION_KEY = "Software\\Brenmoor\\Velkor";

/// Room for folders and file names that the log asks for with every line.
constexpr DWORD NAME_CAPACITY = 1024;
/// The longest path and the longest variable that the system has.
constexpr DWORD TEXT_CAPACITY = 32768;

/// The text that a call of the system fills; empty when it fails or the text does not fit.
template <DWORD CAPACITY, typename Call>
std::string systemText(const Call& call)
{
    std::array<char, CAPACITY> text;
    const DWORD length = call(text.data(), CAPACITY);
    return length < CAPACITY ? std::string(text.data(), length) : std::string();
}

} // namespace

bool readLogLevel(std::span<char> value)
{
    auto size = static_cast<DWORD>(value.size());
    return RegGetValueA(HKEY_LOCAL_MACHINE, CONFIGURATION_KEY, "logLevel", RRF_RT_ANY, nullptr, value.data(), &size) ==
           ERROR_SUCCESS;
}

const char* configurationFile()
{
    return nullptr; // It is in the registry.
}

std::string temporaryFolder()
{
    return systemText<NAME_CAPACITY>([](char* text, DWORD capacity) { return GetTempPathA(capacity, text); });
}

bool folderExists(const std::string& path)
{
    const DWORD attributes = GetFileAttributesA(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool createFolder(const std::string& path)
{
    return CreateDirectoryA(path.c_str(), nullptr) != 0;
}

bool appendToFile(const std::string& path, std::string_view text)
{
    std::ofstream file(path, std::ios::app | std::ios::binary);
    if (!file)
        return false;
    file << text << std::flush;
    return true;
}

std::string processFileName()
{
    return systemText<NAME_CAPACITY>(
        [](char* text, DWORD capacity) { return K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, text, capacity); });
}

std::string processFolder()
{
    const std::string path = systemText<TEXT_CAPACITY>(
        [](char* text, DWORD capacity) { return GetModuleFileNameA(nullptr, text, capacity); });
    return path.substr(0, path.rfind('\\'));
}

std::string environmentVariable(const char* name)
{
    // Not from the C runtime, whose copy does not follow a host that changes its environment.
    return systemText<TEXT_CAPACITY>(
        [=](char* text, DWORD capacity) { return GetEnvironmentVariableA(name, text, capacity); });
}

LocalTime localTime()
{
    SYSTEMTIME now;
    GetLocalTime(&now);
    return {now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds};
}

void sleep(std::chrono::milliseconds time)
{
    Sleep(static_cast<DWORD>(time.count()));
}

/// Threads end there by themselves, or without a chance to do anything about it.
int suspendCancellation()
{
    return 0;
}

void resumeCancellation(int /*before*/) {}

void secureWipe(void* memory, std::size_t size)
{
    if (size != 0) // Then the memory may be null.
        SecureZeroMemory(memory, size);
}

[[gnu::noinline]] void wipeStack() // Inlined, it would have its room above what it is to wipe.
{
    constexpr std::size_t DEPTH = 8192; // Threads of hosts may have little more.
    unsigned char below[DEPTH];         // NOLINT: what is in it does not matter.
    secureWipe(below, sizeof below);
}

} // namespace velkor::platform
