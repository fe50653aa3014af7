// What all threads of a stress run share: the library, the device, what disturbs a token, and what was found wrong.
#pragma once

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cryptoki.h"
#include "monitor_sleep.h"
#include "strict_device.h"

inline constexpr std::size_t TOKENS = 2;

/// While nothing disturbs a token, the strict front has no reason to refuse.
class Disturbances
{
public:
    void begin()
    {
        ++active_; // First, so that who sees the new count sees it as well.
        ++count_;
    }
    void end() { --active_; }

    /// A count to compare with later; one that is never reached while something is going on.
    unsigned long mark() const
    {
        const unsigned long count = count_;
        return active_ == 0 ? count : ~0UL;
    }
    bool isCalmSince(unsigned long mark) const { return count_ == mark; }

private:
    std::atomic<unsigned long> count_ = 0;
    std::atomic<int> active_ = 0;
};

class StressWorld
{
public:
    /// Loads the library, and makes two devices with the same key pairs and certificates. Nothing is logged.
    explicit StressWorld(int threads);

    CK_RV initialize() { return count("C_Initialize", p11.C_Initialize(nullptr)); }
    CK_RV finalize() { return count("C_Finalize", p11.C_Finalize(nullptr)); }

    /// The slot of a token, while both are plugged in.
    CK_SLOT_ID slotOf(std::size_t token);

    /// Takes one device away for a while, and deletes what failed calls have left on it.
    void disturb(std::size_t token);

    /// Counts a call. A code that the function cannot have is wrong.
    CK_RV count(const std::string& function, CK_RV code);
    void wrong(const std::string& what);

    /// Whether each supported function has succeeded, and no PIN has cost a try.
    void checkEnd();

    const CK_FUNCTION_LIST& p11;
    const std::shared_ptr<StrictDevice> device = std::make_shared<StrictDevice>();
    MonitorSleep monitor;
    std::array<Disturbances, TOKENS> disturbances;
    std::atomic<unsigned long> calls = 0;
    std::atomic<unsigned long> mistakes = 0;
    std::atomic<unsigned long> works = 0;
    std::atomic<bool> isOver = false;

#ifdef STRICT
    static constexpr bool IS_STRICT = true;
#else
    static constexpr bool IS_STRICT = false;
#endif
    static const std::array<const char*, TOKENS> NAMES;
    static const std::array<const char*, TOKENS> PINS;
    /// The certificates that a thread makes.
    static std::vector<unsigned char> derOf(int thread, int number);
    static constexpr int DERS = 16;

private:
    void clean(std::size_t token);

    std::mutex lock_;
    std::map<std::string, std::map<CK_RV, unsigned long>> codes_;
};
