// What a piece of work reads from files: it runs in a forked child that is traced.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <ostream>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace softkey::test
{

inline constexpr std::int64_t CHANGE_COUNTER_AT = 24; ///< Where SQLite has it in a file.
inline constexpr std::int64_t OPENED = -1;
inline constexpr std::int64_t IN_A_ROW = -2;
inline constexpr std::int64_t MAPPED = -3;
#ifdef SYS_open
inline constexpr std::uint64_t OPEN = SYS_open;
#else
inline constexpr std::uint64_t OPEN = SYS_openat; // There is no other.
#endif

/// One call that opens a file or reads from one.
struct Read {
    std::int64_t at;    ///< Or one of the above.
    std::uint64_t size; ///< Bytes that were asked for.

    bool operator==(const Read&) const = default;

    friend std::ostream& operator<<(std::ostream& out, const Read& read)
    {
        return out << read.size << " bytes at " << read.at;
    }
};
using Reads = std::vector<Read>;

inline void addRead(Reads& reads, std::uint64_t number, const std::uint64_t* arguments)
{
    if (number == SYS_pread64)
        reads.push_back({static_cast<std::int64_t>(arguments[3]), arguments[2]});
    if (number == SYS_read || number == SYS_readv)
        reads.push_back({IN_A_ROW, arguments[2]});
    if (number == SYS_mmap && static_cast<int>(arguments[4]) >= 0)
        reads.push_back({MAPPED, arguments[1]});
    if (number == SYS_openat || number == OPEN)
        reads.push_back({OPENED, 0});
}

/// What `work` reads in a child, where `prepare` has run before.
inline Reads readsOf(const std::function<void()>& prepare, const std::function<void()>& work)
{
    constexpr long MARK = SYS_getppid; // Nobody else asks for that.
    const pid_t child = fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(2);
        raise(SIGSTOP);
        try {
            prepare();
            syscall(MARK);
            work();
            syscall(MARK);
        } catch (...) {
            _exit(3);
        }
        _exit(0);
    }
    Reads reads;
    int marks = 0;
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSTOPPED(status)) << "this process may trace none";
    if (WIFSTOPPED(status))
        ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    for (int signal = 0; WIFSTOPPED(status); waitpid(child, &status, 0)) {
        if (WSTOPSIG(status) == (SIGTRAP | 0x80)) {
            __ptrace_syscall_info call{};
            ptrace(static_cast<__ptrace_request>(PTRACE_GET_SYSCALL_INFO), child, sizeof call, &call);
            if (call.op == PTRACE_SYSCALL_INFO_ENTRY && call.entry.nr == MARK)
                ++marks;
            else if (call.op == PTRACE_SYSCALL_INFO_ENTRY && marks == 1)
                addRead(reads, call.entry.nr, reinterpret_cast<const std::uint64_t*>(call.entry.args));
        }
        ptrace(PTRACE_SYSCALL, child, nullptr, signal);
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(marks, 2);
    return reads;
}

} // namespace softkey::test
