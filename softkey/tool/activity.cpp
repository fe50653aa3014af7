#include "tool/activity.h"

#include "platform/quiet_terminal.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace softkey
{
namespace
{

constexpr std::chrono::milliseconds PATIENCE(1000);
constexpr std::chrono::milliseconds STEP(100);
constexpr int BAR_WIDTH = 20;
constexpr int MARK_WIDTH = 4;

/// How long an RSA key or the wait for another process takes nobody knows: the mark goes to and fro.
std::string barAt(int step)
{
    constexpr int WAY = BAR_WIDTH - MARK_WIDTH;
    const int place = std::abs((step + WAY) % (2 * WAY) - WAY);
    std::string bar(BAR_WIDTH, '.');
    return bar.replace(static_cast<std::size_t>(place), MARK_WIDTH, MARK_WIDTH, '=');
}

void write(const std::string& text)
{
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
}

} // namespace

Activity::Activity(const Session& session, std::string what) : what_(std::move(what))
{
    if (!session.json && isTerminal(STANDARD_ERROR))
        thread_ = std::thread([this] { show(); });
}

Activity::~Activity()
{
    {
        const std::lock_guard lock(mutex_);
        isOver_ = true;
    }
    ended_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

void Activity::show()
{
    const auto start = std::chrono::steady_clock::now();
    const auto isOver = [this] { return isOver_; };
    std::unique_lock lock(mutex_);
    if (ended_.wait_for(lock, PATIENCE, isOver))
        return;
    std::string line;
    for (int step = 0; !isOver_; ++step) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
        line = what_ + "  [" + barAt(step) + "]  " + std::to_string(seconds.count()) + " s";
        write('\r' + line);
        ended_.wait_for(lock, STEP, isOver);
    }
    write('\r' + std::string(line.size(), ' ') + '\r');
}

} // namespace softkey
