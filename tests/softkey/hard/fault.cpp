// Preloaded into a process: counts what it asks of the operating system for files below a folder, and at one of these
// calls kills the process or lets the call fail. Told by the environment: HARD_FOLDER; HARD_AT, the number of the call;
// HARD_DO, "kill", "full" or the number of an error; HARD_CALLS, "changes" for those that write alone; HARD_HIT, a file
// to write the name of the call to.
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace
{

std::string setting(const char* name)
{
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

enum class FailingCall { Reads, Changes };
enum class Verdict { GoOn, Fail, FailHalfway };

bool isBelowFolder(const char* path)
{
    static const std::string folder = setting("HARD_FOLDER");
    return !folder.empty() && path != nullptr && std::string_view(path).starts_with(folder);
}

bool isBelowFolder(int descriptor)
{
    std::array<char, PATH_MAX> path{};
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t size = readlink(link.c_str(), path.data(), path.size() - 1);
    return size > 0 && isBelowFolder(path.data());
}

template <class Function>
Function* original(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void reportHit(const char* call)
{
    const std::string file = setting("HARD_HIT");
    const int report = original<int(const char*, int, ...)>("open")(file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    static_cast<void>(original<ssize_t(int, const void*, std::size_t)>("write")(report, call, std::strlen(call)));
    close(report);
}

/// What becomes of a call. A full disk stays full.
Verdict judge(const char* name, FailingCall call, bool grows)
{
    static const long at = std::atol(setting("HARD_AT").c_str());
    static const std::string what = setting("HARD_DO");
    static const bool onlyChanges = setting("HARD_CALLS") == "changes";
    static std::atomic<long> count{0};
    if (at == 0 || (onlyChanges && call != FailingCall::Changes))
        return Verdict::GoOn;
    const long now = ++count;
    const bool isFull = what == "full";
    if (now < at || (now > at && !isFull) || (isFull && !grows))
        return Verdict::GoOn;
    static std::atomic<bool> hit{false};
    const bool isFirst = !hit.exchange(true);
    if (isFirst)
        reportHit(name);
    if (what == "kill")
        raise(SIGKILL);
    errno = isFull ? ENOSPC : std::atoi(what.c_str());
    return isFull && isFirst ? Verdict::FailHalfway : Verdict::Fail;
}

template <class Where>
Verdict judgeAt(const Where& where, const char* name, FailingCall call, bool grows = false)
{
    return isBelowFolder(where) ? judge(name, call, grows) : Verdict::GoOn;
}

/// Half of a write is on the disk that is full after it.
std::size_t sizeToWrite(Verdict verdict, std::size_t size)
{
    return verdict == Verdict::FailHalfway ? std::max<std::size_t>(size / 2, 1) : size;
}

mode_t modeOf(int flags, va_list& arguments)
{
    return (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
}

int openCounted(const char* name, const char* path, int flags, mode_t mode)
{
    const bool makes = (flags & O_CREAT) != 0 && access(path, F_OK) != 0;
    if (judgeAt(path, "open", makes ? FailingCall::Changes : FailingCall::Reads, makes) != Verdict::GoOn)
        return -1;
    return original<int(const char*, int, ...)>(name)(path, flags, mode);
}

int lockCounted(const char* name, int descriptor, int command, void* argument)
{
    const bool locks = command == F_SETLK || command == F_SETLKW;
    if (locks && judgeAt(descriptor, "fcntl", FailingCall::Reads) != Verdict::GoOn)
        return -1;
    return original<int(int, int, ...)>(name)(descriptor, command, argument);
}

} // namespace

extern "C" {

#pragma GCC visibility push(default)
#pragma GCC diagnostic ignored "-Wshadow" // flock is a function and a structure.

int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return openCounted("open", path, flags, mode);
}

int open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return openCounted("open64", path, flags, mode);
}

int fcntl(int descriptor, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return lockCounted("fcntl", descriptor, command, argument);
}

int fcntl64(int descriptor, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return lockCounted("fcntl64", descriptor, command, argument);
}

int flock(int descriptor, int operation) noexcept
{
    if (judgeAt(descriptor, "flock", FailingCall::Reads) != Verdict::GoOn)
        return -1;
    return original<int(int, int)>("flock")(descriptor, operation);
}

ssize_t pread64(int descriptor, void* buffer, std::size_t size, off64_t offset)
{
    if (judgeAt(descriptor, "pread", FailingCall::Reads) != Verdict::GoOn)
        return -1;
    return original<ssize_t(int, void*, std::size_t, off64_t)>("pread64")(descriptor, buffer, size, offset);
}

ssize_t pwrite64(int descriptor, const void* buffer, std::size_t size, off64_t offset)
{
    const Verdict verdict = judgeAt(descriptor, "pwrite", FailingCall::Changes, true);
    if (verdict == Verdict::Fail)
        return -1;
    return original<ssize_t(int, const void*, std::size_t, off64_t)>("pwrite64")(descriptor, buffer,
                                                                                 sizeToWrite(verdict, size), offset);
}

ssize_t write(int descriptor, const void* buffer, std::size_t size)
{
    const Verdict verdict = judgeAt(descriptor, "write", FailingCall::Changes, true);
    if (verdict == Verdict::Fail)
        return -1;
    return original<ssize_t(int, const void*, std::size_t)>("write")(descriptor, buffer, sizeToWrite(verdict, size));
}

ssize_t writev(int descriptor, const iovec* parts, int count)
{
    if (judgeAt(descriptor, "writev", FailingCall::Changes, true) != Verdict::GoOn)
        return -1;
    return original<ssize_t(int, const iovec*, int)>("writev")(descriptor, parts, count);
}

int ftruncate64(int descriptor, off64_t size) noexcept
{
    if (judgeAt(descriptor, "ftruncate", FailingCall::Changes) != Verdict::GoOn)
        return -1;
    return original<int(int, off64_t)>("ftruncate64")(descriptor, size);
}

int fsync(int descriptor)
{
    if (judgeAt(descriptor, "fsync", FailingCall::Changes) != Verdict::GoOn)
        return -1;
    return original<int(int)>("fsync")(descriptor);
}

int fdatasync(int descriptor)
{
    if (judgeAt(descriptor, "fdatasync", FailingCall::Changes) != Verdict::GoOn)
        return -1;
    return original<int(int)>("fdatasync")(descriptor);
}

int link(const char* from, const char* to) noexcept
{
    if (judgeAt(to, "link", FailingCall::Changes, true) != Verdict::GoOn)
        return -1;
    return original<int(const char*, const char*)>("link")(from, to);
}

int rename(const char* from, const char* to) noexcept
{
    if (judgeAt(to, "rename", FailingCall::Changes) != Verdict::GoOn)
        return -1;
    return original<int(const char*, const char*)>("rename")(from, to);
}

int unlink(const char* path) noexcept
{
    if (judgeAt(path, "unlink", FailingCall::Changes) != Verdict::GoOn)
        return -1;
    return original<int(const char*)>("unlink")(path);
}

#pragma GCC visibility pop

} // extern "C"
