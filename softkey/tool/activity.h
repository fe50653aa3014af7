// Shows on a terminal that work which takes longer than a second goes on: a bar that moves and the seconds so far, on a
// line that goes when the work is done.
#pragma once

#include "tool/session.h"

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace softkey
{

class Activity
{
public:
    /// Shows nothing when standard error is no terminal, nor beside JSON.
    Activity(const Session& session, std::string what);
    ~Activity();
    Activity(const Activity&) = delete;
    Activity& operator=(const Activity&) = delete;

private:
    void show();

    std::string what_;
    std::mutex mutex_;
    std::condition_variable ended_;
    bool isOver_ = false;
    std::thread thread_;
};

} // namespace softkey
