#include "test_system.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <stdexcept>

#include "imported_function.h"
// Behind windows.h, which it needs.
#include <io.h>
#include <process.h>
#include <psapi.h>

namespace test_system
{
namespace
{

constexpr const char* MACHINE_KEY = "Software\\Brenmoor\\Velkor";

void require(bool condition, const char* what)
{
    if (!condition)
        throw std::runtime_error(what);
}

HKEY createKey(HKEY parent, const std::string& path, DWORD options)
{
    HKEY key = nullptr;
    require(RegCreateKeyExA(parent, path.c_str(), 0, nullptr, options, KEY_ALL_ACCESS, nullptr, &key, nullptr) ==
                ERROR_SUCCESS,
            "a key of the registry");
    return key;
}

/// What this process finds under HKEY_LOCAL_MACHINE becomes a fresh key that is gone when the user logs off.
void useOwnRegistry()
{
    const std::string path = "Software\\VelkorModuleTests\\" + std::to_string(GetCurrentProcessId());
    RegDeleteTreeA(HKEY_CURRENT_USER, path.c_str());
    const HKEY key = createKey(HKEY_CURRENT_USER, path, REG_OPTION_VOLATILE);
    require(RegOverridePredefKey(HKEY_LOCAL_MACHINE, key) == ERROR_SUCCESS, "a registry of the process");
    RegCloseKey(key);
    RegCloseKey(createKey(HKEY_LOCAL_MACHINE, MACHINE_KEY, REG_OPTION_VOLATILE)); // As whatever lies below the first.
}

void setValue(DWORD type, const void* data, std::size_t size)
{
    require(RegSetKeyValueA(HKEY_LOCAL_MACHINE, MACHINE_KEY, "logLevel", type, data, static_cast<DWORD>(size)) ==
                ERROR_SUCCESS,
            "logLevel");
}

std::optional<std::uint32_t> number(const std::string& value)
{
    std::uint32_t result = 0;
    const char* last = value.data() + value.size();
    const auto [end, error] = std::from_chars(value.data(), last, result);
    return error == std::errc() && end == last && !value.empty() ? std::optional(result) : std::nullopt;
}

/// One of the functions by which the C++ runtime brings text into a file, called by one thread at a time.
template <typename Function>
struct OneAtATime;

std::timed_mutex fileLock;

template <typename Result, typename... Parameters>
struct OneAtATime<Result(Parameters...)> {
    static inline Result (*original)(Parameters...) = nullptr;

    static Result call(Parameters... parameters)
    {
        // The end of the process may have stopped a thread inside: nobody waits for that one for ever.
        const std::unique_lock lock(fileLock, std::chrono::seconds(1));
        return original(parameters...);
    }

    static void replace(const char* name)
    {
        void** address = importedFunction(GetModuleHandleA(nullptr), name);
        if (address == nullptr || original != nullptr)
            return;
        original = reinterpret_cast<Result (*)(Parameters...)>(*address);
        replaceImportedFunction(name, reinterpret_cast<void*>(&call));
    }
};

/// The C runtime appends by a seek and a write, between which the monitor's line can come. Tests read whole lines.
void keepLinesWhole()
{
    // By `_write` with one C++ runtime, by the two others with the other.
    OneAtATime<decltype(_write)>::replace("_write");
    OneAtATime<decltype(std::fflush)>::replace("fflush");
    OneAtATime<decltype(std::fclose)>::replace("fclose");
}

/// The time zone is the machine's, so one that a test chooses takes the place of the call.
int hoursAhead = 0;

void WINAPI chosenTime(SYSTEMTIME* time)
{
    constexpr std::int64_t TICKS_OF_AN_HOUR = 36'000'000'000;
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    ULARGE_INTEGER ticks;
    ticks.LowPart = now.dwLowDateTime;
    ticks.HighPart = now.dwHighDateTime;
    ticks.QuadPart += static_cast<ULONGLONG>(hoursAhead * TICKS_OF_AN_HOUR);
    now = {ticks.LowPart, ticks.HighPart};
    FileTimeToSystemTime(&now, time);
}

using ThreadStart = decltype(&_beginthreadex);

} // namespace

std::filesystem::path program()
{
    std::array<wchar_t, 1024> path{};
    GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    return path.data();
}

void setEnvironment(const char* name, const std::string& value)
{
    SetEnvironmentVariableA(name, value.c_str());
}

void removeEnvironment(const char* name)
{
    SetEnvironmentVariableA(name, nullptr);
}

std::filesystem::path scratchFolder(const std::string& testName)
{
    // Not the working folder, whose path the emulated Wine does not know.
    return program().parent_path() / "scratch" / std::to_string(std::hash<std::string>()(testName));
}

void setTemporaryFolder(const std::filesystem::path& folder)
{
    setEnvironment("TMP", folder.string());
}

std::string loggedProgramName()
{
    std::array<char, 1024> text{};
    K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, text.data(), static_cast<DWORD>(text.size()));
    const std::string name = text.data();
    return name.substr(0, name.find('.'));
}

LogLevel::LogLevel(const std::filesystem::path& /*folder*/)
{
    keepLinesWhole();
    useOwnRegistry();
}

void LogLevel::set(const std::string& value) const
{
    if (const auto level = number(value))
        setValue(REG_DWORD, &*level, sizeof *level);
    else if (value.size() >= 2 && value.starts_with('"') && value.ends_with('"'))
        setValue(REG_SZ, (value.substr(1, value.size() - 2)).c_str(), value.size() - 1);
    else
        remove();
}

void LogLevel::remove() const
{
    RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, MACHINE_KEY, "logLevel");
}

void useMachineWideRegistry()
{
    require(RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr) == ERROR_SUCCESS, "the machine's registry");
}

void* moduleSymbol(const std::filesystem::path& file, const char* name)
{
    // Beside the program, by the path that the system running this has for it, which the build does not know.
    const std::filesystem::path path = program().replace_filename(file.filename());
    const HMODULE module = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    require(module != nullptr, "the module cannot be loaded");
    return reinterpret_cast<void*>(GetProcAddress(module, name));
}

void withoutNewThreads(const std::function<void()>& work)
{
    const ThreadStart failing = [](void*, unsigned, unsigned (*)(void*), void*, unsigned, unsigned*) -> uintptr_t {
        errno = EAGAIN; // C++ runtimes go by the one or the other.
        SetLastError(EAGAIN);
        return 0;
    };
    void* usual = nullptr; // Its name here stands for what is replaced now.
    for (const HMODULE module : ownModules()) {
        if (void** address = importedFunction(module, "_beginthreadex"))
            usual = *address;
    }
    require(replaceImportedFunction("_beginthreadex", reinterpret_cast<void*>(failing)) != 0, "the start of threads");
    work();
    replaceImportedFunction("_beginthreadex", usual);
}

bool isEmulatedArm64()
{
#if defined(__aarch64__) || defined(_M_ARM64)
    return GetProcAddress(GetModuleHandleA("ntdll"), "wine_get_version") != nullptr;
#else
    return false;
#endif
}

bool appendingIsOneStep()
{
    return false;
}

void setTimeZone(const char* zone)
{
    if (zone != nullptr)
        hoursAhead = -std::atoi(std::strpbrk(zone, "+-"));
    replaceImportedFunction("GetLocalTime", reinterpret_cast<void*>(zone != nullptr ? &chosenTime : &GetLocalTime));
}

} // namespace test_system
