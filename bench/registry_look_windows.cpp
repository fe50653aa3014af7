// What one look at the log level costs on Windows: RegGetValueA of a value that is there and of one that is not, in
// nanoseconds. Built and run by itself:
//   x86_64-w64-mingw32-g++ -O2 -static bench/registry_look_windows.cpp -o registry_look.exe && ./registry_look.exe
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <array>
#include <chrono>
#include <cstdio>

namespace
{

double nanosecondsOfLook(const char* key, const char* value)
{
    constexpr int LOOKS = 20000;
    const auto begin = std::chrono::steady_clock::now();
    for (int look = 0; look < LOOKS; ++look) {
        std::array<char, 32> text{};
        DWORD size = text.size();
        RegGetValueA(HKEY_LOCAL_MACHINE, key, value, RRF_RT_ANY, nullptr, text.data(), &size);
    }
    const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - begin;
    return taken.count() / LOOKS;
}

} // namespace

int main()
{
    std::printf("a value that is there: %.0f ns\n",
                nanosecondsOfLook("Software\\Microsoft\\Windows NT\\CurrentVersion", "CurrentBuild"));
    std::printf("no key:                %.0f ns\n", nanosecondsOfLook("Software\\Brenmoor\\Velkor", "logLevel"));
    return 0;
}
