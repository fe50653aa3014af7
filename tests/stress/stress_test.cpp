// Hard use of a library, and what it leaves: many threads while devices come and go, then many sessions, then many
// beginnings and ends. Wrong results, and memory, files, threads or handles that grow, are told and end with 1.
//     stress_test [--seconds 2] [--threads 8] [--seed 1] [--sessions 20000] [--rounds 100]
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <unistd.h>

#include "eventually.h"
#include "stress_thread.h"

namespace
{

using Clock = std::chrono::steady_clock;

unsigned long option(int argc, char** argv, std::string_view name, unsigned long otherwise)
{
    for (int index = 1; index + 1 < argc; ++index) {
        if (argv[index] == name)
            return std::strtoul(argv[index + 1], nullptr, 10);
    }
    return otherwise;
}

/// A sanitizer's allocator keeps what is released.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool IS_SANITIZED = true;
#elif defined(__has_feature)
constexpr bool IS_SANITIZED = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool IS_SANITIZED = false;
#endif

/// What the process has of the system.
struct Holdings {
    long kilobytes;
    long descriptors;
    long threads;

    static Holdings now()
    {
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages >> pages;
        const auto entries = [](const char* folder) {
            return static_cast<long>(std::distance(std::filesystem::directory_iterator(folder), {}));
        };
        return {pages * (sysconf(_SC_PAGESIZE) / 1024), entries("/proc/self/fd"), entries("/proc/self/task")};
    }
};

/// Does `work` so often, and compares what the process holds after the first tenth with what it holds at the end.
template <typename Work>
void repeat(StressWorld& world, const char* what, unsigned long times, const Work& work)
{
    constexpr long GROWTH = 1024;
    if (times == 0)
        return;
    const auto begin = Clock::now();
    for (unsigned long each = 0; each < times / 10; ++each)
        work();
    const Holdings before = Holdings::now();
    for (unsigned long each = times / 10; each < times; ++each)
        work();
    // The strict front ends the module behind C_Finalize.
    test_system::eventually([&] { return Holdings::now().threads <= before.threads; });
    const Holdings after = Holdings::now();
    const std::chrono::duration<double> seconds = Clock::now() - begin;
    std::cout << times << " " << what << ", " << seconds.count() << " s: resident " << before.kilobytes << " -> "
              << after.kilobytes << " KiB, descriptors " << before.descriptors << " -> " << after.descriptors
              << ", threads " << before.threads << " -> " << after.threads << std::endl;
    if (!IS_SANITIZED && after.kilobytes > before.kilobytes + GROWTH)
        world.wrong("memory grows");
    if (after.descriptors > before.descriptors)
        world.wrong("descriptors are left open");
    if (after.threads > before.threads)
        world.wrong("threads are left");
}

void useAtOnce(StressWorld& world, unsigned long seconds, int threads, unsigned long seed)
{
    if (seconds == 0)
        return;
    world.monitor.hold();
    world.initialize();
    const std::vector<CK_SLOT_ID> slots = {world.slotOf(0), world.slotOf(1)};
    unsigned long disturbed = 0;
    {
        std::vector<std::unique_ptr<StressThread>> works;
        for (int number = 0; number < threads; ++number)
            works.push_back(
                std::make_unique<StressThread>(world, number, seed, slots[static_cast<std::size_t>(number) % TOKENS]));
        std::vector<std::thread> running;
        running.reserve(works.size());
        for (const auto& work : works)
            running.emplace_back([&] { work->run(); });
        // Works in between, by their number: then as many succeed on a slow machine.
        constexpr unsigned long BETWEEN = 200;
        const auto end = Clock::now() + std::chrono::seconds(seconds);
        for (unsigned long next = BETWEEN; Clock::now() < end;) {
            if (world.works < next) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            world.disturb(disturbed++ % TOKENS);
            next = world.works + BETWEEN;
        }
        world.isOver = true;
        for (std::thread& thread : running)
            thread.join();
    }
    world.count("C_CloseAllSessions", world.p11.C_CloseAllSessions(slots.front()));
    world.monitor.skip();
    world.finalize();
    world.checkEnd();
    std::cout << threads << " threads, " << seconds << " s: " << world.calls << " calls, " << world.works << " works, "
              << disturbed << " times a device went and came, " << world.mistakes << " wrong" << std::endl;
}

CK_SESSION_HANDLE openOne(StressWorld& world, CK_SLOT_ID slot)
{
    CK_SESSION_HANDLE session = 0;
    const CK_RV code = world.p11.C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session);
    if (code != CKR_OK)
        world.wrong("C_OpenSession answers " + std::to_string(code));
    return session;
}

/// Some are open at once; each is used once.
void openSessions(StressWorld& world, unsigned long times)
{
    constexpr std::size_t AT_ONCE = 8;
    world.initialize();
    const CK_SLOT_ID slot = world.slotOf(0);
    const CK_SESSION_HANDLE first = openOne(world, slot);
    world.p11.C_CloseSession(first);
    std::vector<CK_SESSION_HANDLE> open;
    repeat(world, "sessions", times, [&] {
        open.push_back(openOne(world, slot));
        CK_BYTE byte = 0;
        if (world.p11.C_GenerateRandom(open.back(), &byte, 1) != CKR_OK)
            world.wrong("C_GenerateRandom fails");
        if (open.size() < AT_ONCE)
            return;
        for (const CK_SESSION_HANDLE session : open) {
            if (world.p11.C_CloseSession(session) != CKR_OK)
                world.wrong("C_CloseSession fails");
        }
        open.clear();
    });
    for (const CK_SESSION_HANDLE session : open)
        world.p11.C_CloseSession(session);
    CK_TOKEN_INFO info{};
    world.p11.C_GetTokenInfo(slot, &info);
    if (info.ulSessionCount != 0)
        world.wrong("sessions are left");
    const CK_SESSION_HANDLE last = openOne(world, slot);
    std::cout << "  session handles " << first << " -> " << last << ", sessions left " << info.ulSessionCount
              << std::endl;
    if (!StressWorld::IS_STRICT && last != first) // The strict front gives no handle twice.
        world.wrong("session handles grow");
    world.finalize();
}

void beginAndEnd(StressWorld& world, unsigned long times)
{
    repeat(world, "rounds of C_Initialize and C_Finalize", times, [&] {
        if (world.initialize() != CKR_OK)
            world.wrong("C_Initialize fails");
        const CK_SESSION_HANDLE session = openOne(world, world.slotOf(0));
        std::string pin = StressWorld::PINS[0];
        if (world.p11.C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), 4) != CKR_OK)
            world.wrong("C_Login fails");
        if (world.finalize() != CKR_OK)
            world.wrong("C_Finalize fails");
    });
}

} // namespace

int main(int argc, char** argv)
{
    const int threads = static_cast<int>(option(argc, argv, "--threads", 8));
    StressWorld world(threads);
    useAtOnce(world, option(argc, argv, "--seconds", 2), threads, option(argc, argv, "--seed", 1));
    world.monitor.skip();
    openSessions(world, option(argc, argv, "--sessions", 20000));
    beginAndEnd(world, option(argc, argv, "--rounds", 100));
    std::cout << world.mistakes << " wrong" << std::endl;
    return world.mistakes == 0 ? 0 : 1;
}
