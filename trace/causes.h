// What is most likely wrong, by what the calls of each program show.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "calls.h"

namespace velkor::trace
{

struct Cause {
    int weight = 0;      ///< The larger, the likelier.
    std::string title;   ///< One line.
    std::string details; ///< What in the log speaks for it.
    std::string advice;  ///< What to do.
};

/// How far a program has come: followed through all calls, also those that are not asked for.
struct Progress {
    std::uint64_t calls = 0;
    std::uint64_t initialized = 0;
    std::uint64_t loginsAccepted = 0; ///< As far as the log tells, of the user.
    std::uint64_t pinsRefusedSinceAccepted = 0;
    std::uint64_t pinsRefusedBeforeAccepted = 0; ///< Just before the last login that was accepted.
    std::uint64_t certificatesFound = 0;
    std::string searchedClass;
    bool hasEnded = false;
    bool hasNoLibrary = false;
    bool isKeyAway = false; ///< A key went away, and nobody has logged in since.
    bool isSecurityOfficer = false;
    bool beginsInTheMiddle = false; ///< Lines of the start are missing.
};

/// What the calls of one program show.
struct Evidence {
    Progress progress;
    std::uint64_t libraryFailures = 0;
    std::uint64_t callsBeforeStart = 0; ///< Refused as not initialised, though no C_Finalize was seen.
    std::uint64_t callsAfterEnd = 0;    ///< The same after a C_Finalize.
    std::uint64_t startedTwice = 0;
    std::uint64_t instanceUnknown = 0; ///< The library knows the process's instance no more.
    std::uint64_t pinsRefused = 0;
    std::uint64_t pinsLocked = 0;
    std::uint64_t pinsChanged = 0; ///< Elsewhere, while this program was logged in.
    std::string triesLeft;         ///< After the last refused PIN.
    std::uint64_t sessionsUnknown = 0;
    std::uint64_t sessionsUnknownAfterEnd = 0;
    std::uint64_t devicesGone = 0;
    std::uint64_t failedWithoutDevice = 0; ///< Calls that were refused for a key that is gone, or since it went away.
    std::uint64_t noTokens = 0;
    std::uint64_t keyMismatches = 0; ///< Data or buffers that belong to another key.
    std::uint64_t withoutLogin = 0;  ///< The device wanted a PIN and there was none.
    std::uint64_t layoutMismatches = 0;
    std::uint64_t firmwareRefusals = 0;
    std::set<std::string> firmware; ///< That was refused for its age.
    std::uint64_t fipsRefusals = 0;
    std::uint64_t privateKeysFound = 0;
    std::uint64_t certificateSearches = 0;         ///< That found nothing.
    std::map<std::string, std::uint64_t> refusals; ///< Others, by what they mean.
};

/// Collects what speaks for a cause, call by call.
class Investigation
{
public:
    void add(const Call& call);
    /// A call that is not asked for: nothing in it is a cause, but those behind it are judged by it.
    void follow(const Call& call);
    /// A log that the module cannot write, and why.
    void addUnwritable(const std::string& log, const std::string& why);

    /// The likeliest first; empty when nothing is wrong.
    std::vector<Cause> causes() const;

private:
    Evidence& evidenceOf(const Call& call);

    std::map<std::string, Evidence, std::less<>> programs_;
    std::vector<std::string> unwritable_;
};

} // namespace velkor::trace
