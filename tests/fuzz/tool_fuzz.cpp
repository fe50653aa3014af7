// Command lines of velkor-softkey, one argument a line, in a folder with a key. Whatever they say, the tool ends with
// one of its exit codes.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "base/status.h"
#include "expect.h"
#include "store/key_creation.h"
#include "surroundings.h"

/// The tool's `main`, by another name.
int toolMain(int argumentCount, char** arguments);

namespace
{

using namespace softkey;

constexpr const char* USER_PIN = "123456";
constexpr const char* OFFICER_PIN = "87654321";
constexpr std::size_t MOST_ARGUMENTS = 24;

std::filesystem::path& workingFolder()
{
    static auto& folder = *new std::filesystem::path;
    return folder;
}

/// A prompt would wait for somebody.
void leaveTerminal()
{
    const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (terminal < 0)
        return;
    ioctl(terminal, TIOCNOTTY);
    close(terminal);
}

/// The same for every input.
void makeKey()
{
    for (const auto& entry : std::filesystem::directory_iterator(workingFolder()))
        std::filesystem::remove_all(entry.path());
    KeySettings settings;
    settings.serialNumber = "FUZZ1";
    settings.cost.logN = SCRYPT_LOG_N_MIN;
    createKeyFile(workingFolder(), settings, USER_PIN, OFFICER_PIN);
    std::ofstream("file") << "-----BEGIN CERTIFICATE-----\nMAA=\n-----END CERTIFICATE-----\n";
}

bool contains(const std::vector<std::string>& arguments, std::string_view part)
{
    return std::any_of(arguments.begin(), arguments.end(),
                       [&](const std::string& each) { return each.find(part) != std::string::npos; });
}

/// Paths lead nowhere but into the working folder. What takes long by its nature is left out, and so are descriptors of
/// the fuzzer's own.
bool isFit(const std::vector<std::string>& arguments)
{
    for (const char* part : {"/", "..", "RSA-3072", "RSA-4096", "-fd", "scrypt"}) {
        if (contains(arguments, part))
            return false;
    }
    return arguments.size() <= MOST_ARGUMENTS;
}

std::vector<std::string> argumentsOf(std::string_view text)
{
    std::vector<std::string> arguments = {"velkor-softkey"};
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        arguments.emplace_back(line.substr(0, line.find('\0')));
    }
    return arguments;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argumentCount*/, char*** /*arguments*/)
{
    leaveTerminal();
    workingFolder() = fuzz::prepareSurroundings() / "keys";
    std::filesystem::create_directory(workingFolder());
    std::filesystem::permissions(workingFolder(), std::filesystem::perms::owner_all);
    std::filesystem::current_path(workingFolder());
    for (const char* name : {"XDG_DATA_HOME", "XDG_STATE_HOME", "VELKOR_SOFTKEY_MACHINE_SECRET"})
        unsetenv(name);
    setenv("VELKOR_SOFTKEY_HOME", workingFolder().c_str(), 1);
    setenv("HOME", workingFolder().c_str(), 1);
    setenv("PIN", USER_PIN, 1);
    setenv("SO_PIN", OFFICER_PIN, 1);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size)
{
    std::vector<std::string> arguments = argumentsOf({reinterpret_cast<const char*>(bytes), size});
    if (!isFit(arguments))
        return 0;
    makeKey();
    if (contains(arguments, "create"))
        arguments.emplace_back("--scrypt-cost=4");
    std::vector<char*> pointers;
    for (std::string& argument : arguments)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    const int code = toolMain(static_cast<int>(arguments.size()), pointers.data());
    fuzz::expect(code >= 0 && code <= static_cast<int>(ExitCode::NotWritten), "the exit code is one of the tool's");
    return 0;
}
