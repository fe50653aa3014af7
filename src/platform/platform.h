// What the module needs of the operating system, and nothing more. One implementation per system; no other file of
// the module asks which system it runs on.
#pragma once

#include <chrono>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace velkor::platform
{

struct LocalTime {
    int year;  ///< Four digits.
    int month; ///< 1 to 12.
    int day;
    int hour;
    int minute;
    int second;
    int millisecond;
};

/// Reads the raw data of the machine-wide value `logLevel` into `value`. False when there is no such value, or when
/// it does not fit; `value` is then left as it was.
bool readLogLevel(std::span<char> value);

/// The file that `logLevel` is read from; null where it is none.
const char* configurationFile();

/// The user's temporary folder with a separator at its end; it need not exist. Empty when there is none that belongs to
/// the user alone.
std::string temporaryFolder();

bool folderExists(const std::string& path);

/// Creates one folder, the user's alone. False when it could not be created, also because it exists.
bool createFolder(const std::string& path);

/// Appends to a file in one piece; a new file is the user's alone. False when it could not be opened. What does not fit
/// on the disk is lost.
bool appendToFile(const std::string& path, std::string_view text);

/// File name of the program that this process runs; empty when the system does not tell.
std::string processFileName();

/// Folder of the program that this process runs, without a separator at its end.
std::string processFolder();

/// An environment variable; empty when it is not set, or when the process runs with more rights than its caller has.
std::string environmentVariable(const char* name);

LocalTime localTime();

void sleep(std::chrono::milliseconds time);

/// From here on the thread is not cancelled. Gives what it was like before.
int suspendCancellation();
void resumeCancellation(int before);

/// A call in which the thread is not cancelled: it would end there and then, with the locks that it holds.
class NoCancellation
{
public:
    NoCancellation() : before_(suspendCancellation()) {}
    ~NoCancellation() { resumeCancellation(before_); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

private:
    const int before_;
};

/// Overwrites memory with zeros in a way that the compiler does not drop.
void secureWipe(void* memory, std::size_t size);

/// Overwrites what earlier calls of the caller have left on the stack.
void wipeStack();

/// A call that leaves nothing on the stack: compilers put copies there of what loops over secrets have in registers.
class CleanStack
{
public:
    CleanStack() = default;
    ~CleanStack() { wipeStack(); }
    CleanStack(const CleanStack&) = delete;
    CleanStack& operator=(const CleanStack&) = delete;
};

} // namespace velkor::platform
