// Logs that tests write themselves, and what is read of them.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "calls.h"
#include "sources.h"
#include "test_system.h"

namespace velkor::trace::test
{

/// A fresh folder for the running test.
inline std::filesystem::path freshFolder()
{
    const auto* info = testing::UnitTest::GetInstance()->current_test_info();
    const auto folder = test_system::scratchFolder(std::string("trace.") + info->test_suite_name() + "." +
                                                   std::string(info->name()).substr(0, 60));
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    return folder;
}

inline std::filesystem::path writtenFile(const std::filesystem::path& path, const std::string& content)
{
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

/// A line of the log of 15 November.
inline std::string logLine(const std::string& clock, const std::string& level, const std::string& text)
{
    return "15/11::" + clock + "-> ->" + level + " ::=>" + text + "\n";
}

/// Lines "D text" and "E text", a millisecond apart.
inline std::string logOf(const std::vector<std::string>& lines)
{
    std::string log;
    int number = 0;
    for (const std::string& line : lines) {
        std::string milliseconds = std::to_string(1000 + number % 1000).substr(1);
        const std::string seconds = std::to_string(100 + number / 1000 % 60).substr(1);
        ++number;
        log += logLine("10:00:" + seconds + ":" + milliseconds, line[0] == 'E' ? "ERROR" : "DEBUG", line.substr(2));
    }
    return log;
}

inline std::vector<Call> callsOfLogs(const std::vector<std::filesystem::path>& logs)
{
    MergedCalls merged(logs);
    std::vector<Call> calls;
    for (Call call; merged.next(call);) {
        call.program = {};
        calls.push_back(std::move(call));
    }
    return calls;
}

inline std::vector<Call> callsOf(const std::vector<std::string>& lines)
{
    return callsOfLogs({writtenFile(freshFolder() / "host" / "2026-11-15.LOG", logOf(lines))});
}

/// A log with some bytes changed, left out, doubled or put in, or without its end.
inline std::string damaged(std::string log, std::mt19937& random)
{
    const auto below = [&](std::size_t limit) {
        return static_cast<std::size_t>(random()) % std::max<std::size_t>(limit, 1);
    };
    for (std::size_t change = below(30) + 1; change > 0 && !log.empty(); --change) {
        const std::size_t place = below(log.size());
        const std::size_t length = below(200);
        switch (below(5)) {
        case 0:
            log[place] = static_cast<char>(below(256));
            break;
        case 1:
            log.erase(place, length);
            break;
        case 2:
            log.insert(place, log.substr(below(log.size()), length));
            break;
        case 3:
            log.insert(place, std::string(length, static_cast<char>(below(256))));
            break;
        default:
            log.resize(log.size() - below(log.size() / 4));
        }
    }
    return log;
}

} // namespace velkor::trace::test
