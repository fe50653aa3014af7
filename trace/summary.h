// What happened in all calls together: numbers, times, refusals, programs, tokens, logins, and what is likely wrong.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "calls.h"
#include "causes.h"

namespace velkor::trace
{

class Summary
{
public:
    void add(const Call& call);
    /// A call that is not asked for, by which those behind it are judged.
    void follow(const Call& call) { investigation_.follow(call); }
    void addUnwritable(const std::string& log, const std::string& why) { investigation_.addUnwritable(log, why); }

    std::string text() const;
    nlohmann::json json() const;
    std::vector<Cause> causes() const { return investigation_.causes(); }

private:
    struct OfFunction {
        std::uint64_t calls = 0;
        std::uint64_t refused = 0;
        Milliseconds time = 0;
    };
    struct OfProgram {
        std::uint64_t calls = 0;
        std::uint64_t refused = 0;
        std::uint64_t loginsAccepted = 0;
        std::map<std::string, std::uint64_t> loginsRefused; ///< By their code.
        Milliseconds first = 0;
        Milliseconds last = 0;
    };
    struct SlowCall {
        Milliseconds time;
        Milliseconds start;
        std::string function;
        std::string program;
    };

    void addLogin(OfProgram& program, const Call& call);
    void addSlow(const Call& call);
    void addTokens(const Call& call);
    static bool namesTokens(const TextRow& row);

    std::map<std::string, OfFunction, std::less<>> functions_;
    std::map<std::string, OfProgram, std::less<>> programs_;
    std::map<std::string, std::uint64_t> refusals_; ///< By function and code.
    std::set<std::string> slots_;
    std::set<std::string> firmware_;
    std::string devices_; ///< Their number, when last told.
    std::vector<SlowCall> slowest_;
    std::uint64_t mixed_ = 0;
    Investigation investigation_;
};

} // namespace velkor::trace
