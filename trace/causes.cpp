#include "causes.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <optional>
#include <utility>

#include "base/status.h"
#include "describe.h"
#include "frame/device_status.h"
#include "names.h"

namespace velkor::trace
{
namespace
{

using Programs = std::map<std::string, Evidence, std::less<>>;

constexpr std::size_t KINDS_OF_REFUSALS = 64;

using softkey::SoftkeyStatus;

constexpr SoftkeyStatus STATUSES_OF_WRONG_KEY[] = {SoftkeyStatus::WrongKeyKind, SoftkeyStatus::DataLength,
                                                   SoftkeyStatus::DecryptionFailed};

std::string times(std::uint64_t count)
{
    return count == 1 ? "once" : count == 2 ? "twice" : std::to_string(count) + " times";
}

bool contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

/// The status of a line; nothing where it has none.
std::optional<int> statusOf(const KnownText& known)
{
    const auto number = numberOf(known.value("status"));
    return number ? std::optional(static_cast<int>(*number)) : std::nullopt;
}

bool isGone(std::optional<int> status)
{
    return status && codeOfDeviceStatus(*status) == CKR_DEVICE_REMOVED;
}

/// A number that no host means: two fields of another layout read as one.
bool isOfOtherLayout(const KnownText& known)
{
    if (contains(known.row->pattern, "wrong size for CKA_CLASS"))
        return true;
    return std::ranges::any_of(known.values, [](const TextValue& value) {
        const bool isType = value.kind == "attribute" || value.kind == "mechanism" || value.kind == "class";
        const auto number = isType ? numberOf(value.text) : std::nullopt;
        return number && *number > std::numeric_limits<std::uint32_t>::max();
    });
}

// ---- What a line adds ----

void addPinLine(Evidence& evidence, const Call& call, const KnownText& known)
{
    const std::string_view tries = known.value("tries");
    if (tries.empty())
        return;
    const bool deviceIsGone = std::ranges::any_of(call.lines, [](const CallLine& line) {
        KnownText other;
        return line.row != nullptr && findText(line.text, other) && isGone(statusOf(other));
    });
    if (deviceIsGone)
        return;
    ++evidence.pinsRefused;
    ++evidence.progress.pinsRefusedSinceAccepted;
    evidence.pinsLocked += tries == "0" ? 1U : 0U;
    evidence.triesLeft = tries;
}

void addStatus(Evidence& evidence, std::optional<int> number)
{
    if (!number)
        return;
    const auto status = static_cast<SoftkeyStatus>(*number);
    const bool isOfWrongKey = std::ranges::find(STATUSES_OF_WRONG_KEY, status) != std::end(STATUSES_OF_WRONG_KEY);
    evidence.devicesGone += isGone(number) ? 1U : 0U;
    evidence.instanceUnknown += status == SoftkeyStatus::BadInstance ? 1U : 0U;
    evidence.withoutLogin += status == SoftkeyStatus::PinRequired ? 1U : 0U;
    evidence.keyMismatches += isOfWrongKey ? 1U : 0U;
}

struct Mark {
    std::string_view part; ///< Of a row's pattern.
    std::uint64_t Evidence::*count;
};

constexpr Mark MARKS[] = {
    {"Init pkcs11 library failed", &Evidence::libraryFailures},
    {"the device library did not start", &Evidence::libraryFailures},
    {"the module is not loaded", &Evidence::libraryFailures},
    {"C_Initialize: already initialized", &Evidence::startedTwice},
    {"No valid token found", &Evidence::noTokens},
    {"Device disconnected", &Evidence::devicesGone},
    {"The token has been removed", &Evidence::devicesGone},
    {"no token in slotID", &Evidence::devicesGone},
    {"not supported on firmware", &Evidence::firmwareRefusals},
    {"not with this firmware", &Evidence::firmwareRefusals},
    {"on FIPS 140-3 token", &Evidence::fipsRefusals},
    {": buffer too small, provided=", &Evidence::keyMismatches},
    {": not as long as the key", &Evidence::keyMismatches},
    {"the signature has a wrong length", &Evidence::keyMismatches},
    {"The user PIN has been changed elsewhere", &Evidence::pinsChanged},
};

void addSearch(Evidence& evidence, const KnownText& known)
{
    if (known.row->pattern == "Find object init count : {count}")
        evidence.progress.searchedClass.clear();
    if (const auto searched = known.value("class"); !searched.empty())
        evidence.progress.searchedClass = constantName("CKO", numberOf(searched).value_or(0));
    if (known.value("found") == "0" && evidence.progress.searchedClass == "CKO_CERTIFICATE")
        ++evidence.certificateSearches;
    std::string_view handles = known.value("objects");
    while (!handles.empty()) {
        const std::string_view handle = handles.substr(0, handles.find(' '));
        handles.remove_prefix(std::min(handle.size() + 1, handles.size()));
        const std::string name = objectName(numberOf(handle).value_or(0));
        evidence.privateKeysFound += name.starts_with("private") ? 1U : 0U;
        evidence.progress.certificatesFound += name.starts_with("certificate") ? 1U : 0U;
    }
}

/// What is looked for in lines of a row.
struct Interest {
    std::vector<std::uint64_t Evidence::*> marks;
    bool inValues = false;
    bool inState = false;       ///< A session's state ends the line.
    bool inLongNumbers = false; ///< Types of another layout have more digits than 32 bits.
    std::size_t shortest = 0;   ///< Of a line that can have such a number.
};

Interest interestIn(const TextRow& row)
{
    constexpr std::string_view VALUES[] = {"{status}", "{tries}", "{version}", "{class}", "{found}", "{objects}"};
    constexpr std::string_view TYPES[] = {"{attribute}", "{mechanism}"};
    const auto hasAny = [&](const auto& kinds) {
        return std::ranges::any_of(kinds, [&](std::string_view kind) { return contains(row.pattern, kind); });
    };
    Interest interest;
    for (const Mark& mark : MARKS) {
        if (contains(row.pattern, mark.part))
            interest.marks.push_back(mark.count);
    }
    interest.inValues = hasAny(VALUES) || row.pattern.starts_with("Slot event:") ||
                        row.pattern.starts_with("Find object init count") || contains(row.pattern, "CKA_CLASS");
    interest.inState = row.pattern.ends_with("{state}");
    interest.inLongNumbers = hasAny(TYPES);
    interest.shortest = row.pattern.find('{') + std::to_string(std::numeric_limits<std::uint32_t>::max()).size();
    return interest;
}

/// The log does not tell who logs in. A session in the SO's state tells it of the login before.
void addState(Progress& progress, std::string_view text)
{
    constexpr char OF_OFFICER = static_cast<char>('0' + CKS_RW_SO_FUNCTIONS);
    if (!text.ends_with(OF_OFFICER) || progress.isSecurityOfficer || progress.loginsAccepted == 0)
        return;
    progress.isSecurityOfficer = true;
    --progress.loginsAccepted;
    progress.pinsRefusedSinceAccepted = progress.pinsRefusedBeforeAccepted;
}

void addLine(Evidence& evidence, const Call& call, const CallLine& line)
{
    if (line.row == nullptr)
        return;
    static const PerRow<Interest> interests(interestIn);
    const Interest& interest = interests[*line.row];
    for (const auto count : interest.marks)
        ++(evidence.*count);
    if (interest.inState)
        addState(evidence.progress, line.text);
    const bool mayHaveType = interest.inLongNumbers && line.text.size() >= interest.shortest;
    KnownText known;
    if ((!interest.inValues && !mayHaveType) || !findText(line.text, known))
        return;
    if (contains(known.row->pattern, "not supported on firmware"))
        evidence.firmware.emplace(printable(known.value("version")));
    // Only when it begins, the first count is the larger one.
    const bool fewerDevices = known.row->pattern.starts_with("Slot event:") && known.values.size() == 2 &&
                              numberOf(known.values[1].text) < numberOf(known.values[0].text);
    evidence.devicesGone += fewerDevices ? 1U : 0U;
    evidence.layoutMismatches += isOfOtherLayout(known) ? 1U : 0U;
    addStatus(evidence, statusOf(known));
    addPinLine(evidence, call, known);
    addSearch(evidence, known);
}

// ---- What a call adds ----

void addLifecycle(Progress& progress, const Call& call)
{
    if (call.outcome != Outcome::NoRefusalSeen)
        return;
    if (call.function == "C_Initialize" && call.hasEntry) {
        ++progress.initialized;
        progress.hasNoLibrary = false;
        progress.hasEnded = false;
    }
    if (call.function == "C_Finalize")
        progress.hasEnded = true;
    if (call.function == "C_Login") {
        ++progress.loginsAccepted;
        progress.pinsRefusedBeforeAccepted = std::exchange(progress.pinsRefusedSinceAccepted, 0);
        progress.isKeyAway = false;
        progress.isSecurityOfficer = false;
    }
}

/// What speaks for a cause of its own.
std::uint64_t countOfSpecial(const Evidence& evidence)
{
    return evidence.layoutMismatches + evidence.firmwareRefusals + evidence.fipsRefusals + evidence.keyMismatches +
           evidence.pinsRefused + evidence.devicesGone + evidence.withoutLogin + evidence.instanceUnknown +
           evidence.startedTwice + evidence.libraryFailures + evidence.pinsChanged;
}

bool isHarmless(CK_RV code)
{
    constexpr CK_RV CODES[] = {CKR_NO_EVENT, CKR_USER_ALREADY_LOGGED_IN, CKR_FUNCTION_NOT_SUPPORTED, CKR_OK};
    return std::ranges::find(CODES, code) != std::end(CODES);
}

void addRefusal(Evidence& evidence, const Call& call, bool isSpecial)
{
    if (call.outcome != Outcome::Refused || isHarmless(call.code) || isSpecial)
        return;
    const Progress& progress = evidence.progress;
    const CallLine* line = call.refusal();
    if (call.code == CKR_CRYPTOKI_NOT_INITIALIZED && call.function != "C_WaitForSlotEvent")
        ++(progress.hasEnded ? evidence.callsAfterEnd : evidence.callsBeforeStart);
    else if (line != nullptr && contains(line->row->pattern, "invalid hSession="))
        ++(progress.initialized > 1 || progress.hasEnded ? evidence.sessionsUnknownAfterEnd : evidence.sessionsUnknown);
    else if (line != nullptr && (evidence.refusals.size() < KINDS_OF_REFUSALS))
        ++evidence.refusals[std::string(call.function) + ": " + codeName(call.code) + ". " +
                            std::string(line->row->meaning) + " " + std::string(line->row->remedy)];
}

/// Without a key, slots go and logins end: what is refused then is refused for that.
void addAbsence(Evidence& evidence, const Call& call, std::uint64_t goneBefore)
{
    constexpr CK_RV CODES[] = {CKR_DEVICE_REMOVED, CKR_TOKEN_NOT_PRESENT, CKR_SLOT_ID_INVALID, CKR_USER_NOT_LOGGED_IN,
                               CKR_FUNCTION_FAILED};
    const bool isGoneNow = evidence.devicesGone != goneBefore;
    evidence.progress.isKeyAway |= isGoneNow;
    const bool isForAbsence = isGoneNow || std::ranges::find(CODES, call.code) != std::end(CODES);
    if (call.outcome == Outcome::Refused && evidence.progress.isKeyAway && isForAbsence)
        ++evidence.failedWithoutDevice;
}

/// Whether a call of a host that has just loaded the module can be this one.
bool canBeFirst(const Call& call)
{
    return !call.hasEntry || call.function == "C_GetFunctionList" || call.function == "C_Initialize" ||
           call.code == CKR_CRYPTOKI_NOT_INITIALIZED || call.isMonitor;
}

// ---- Causes ----

using Finder = std::optional<Cause> (*)(const std::string& program, const Evidence& evidence, const Programs& all);

bool isRefusedStill(const Evidence& evidence)
{
    return evidence.pinsRefused != 0 && evidence.progress.pinsRefusedSinceAccepted != 0;
}

/// The last PIN that was refused left no try, and no login was accepted since.
bool isLockedStill(const Evidence& evidence)
{
    return isRefusedStill(evidence) && evidence.pinsLocked != 0 && evidence.triesLeft == "0";
}

std::optional<Cause> twoPins(const std::string& program, const Evidence& evidence, const Programs& all)
{
    const auto other = std::ranges::find_if(
        all, [&](const auto& each) { return each.first != program && each.second.progress.loginsAccepted != 0; });
    if (!isRefusedStill(evidence) || other == all.end())
        return std::nullopt;
    return Cause{90, "Two programs use two PINs: " + program + " has an old or wrong one",
                 other->first + " logged in; the PIN of " + program + " was refused " + times(evidence.pinsRefused) +
                     (isLockedStill(evidence) ? ", and is locked now." : "."),
                 "Give " + program + " the PIN that " + other->first +
                     " uses, before it spends the tries that are left."};
}

std::optional<Cause> lockedPin(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (!isLockedStill(evidence))
        return std::nullopt;
    const std::uint64_t wrong = evidence.pinsRefused - evidence.pinsLocked;
    std::string title = "The PIN is locked";
    if (wrong != 0 && evidence.progress.loginsAccepted == 0)
        title = "PIN refused " + times(wrong) + " and then locked: " + program + " uses a wrong or an old PIN";
    return Cause{
        88, title, program + ": the last refusal left no tries.",
        "Unlock the user PIN with the SO PIN, and find out which program keeps an old PIN before it locks again."};
}

std::optional<Cause> unlockedPin(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.pinsLocked == 0 || evidence.triesLeft != "0" || isRefusedStill(evidence))
        return std::nullopt;
    return Cause{45, "The PIN was locked, and a login was accepted since",
                 program + ": it was unlocked, or the SO logged in, which the log does not tell apart.",
                 "Find out which program keeps an old PIN before it locks again."};
}

std::optional<Cause> wrongPin(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.pinsRefused == 0 || evidence.triesLeft == "0")
        return std::nullopt;
    const bool isOver = !isRefusedStill(evidence);
    return Cause{isOver ? 30 : 85, isOver ? "A wrong PIN, followed by the right one" : "Wrong PIN",
                 program + ": refused " + times(evidence.pinsRefused) + ", " + evidence.triesLeft +
                     (evidence.triesLeft == "1" ? " try left" : " tries left") +
                     (evidence.pinsLocked != 0 ? "; it was locked before, and unlocked." : "."),
                 "Give the right PIN; do not repeat a wrong one, each try counts."};
}

std::optional<Cause> changedPin(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.pinsChanged == 0)
        return std::nullopt;
    return Cause{60, "The user PIN was changed by another program", program + ": " + times(evidence.pinsChanged) + ".",
                 "Log out, and log in with the new PIN."};
}

std::optional<Cause> noLibrary(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    const bool isStillMissing = evidence.progress.hasNoLibrary && evidence.callsBeforeStart != 0;
    if (evidence.libraryFailures == 0 && !isStillMissing)
        return std::nullopt;
    return Cause{95, "No device library: it did not start",
                 program + ": C_Initialize answered CKR_OK, but every call behind it is refused as not initialized.",
                 "See that VelkorDSCLibrary lies beside the module, is the right one, and can load what it needs."};
}

std::optional<Cause> otherLayout(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.layoutMismatches == 0)
        return std::nullopt;
    return Cause{92, "Mixed-up structure layouts: host and module were built for different ones",
                 program + ": sizes or types in templates that no host means, " + times(evidence.layoutMismatches) +
                     ".",
                 "Load velkor-pkcs11.so with programs of Linux; velkor-pkcs11-packed.so is for packed structures and "
                 "32-bit numbers."};
}

std::optional<Cause> notStarted(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    const bool isRefused = evidence.callsBeforeStart != 0 && !evidence.progress.hasNoLibrary;
    if (!isRefused && evidence.instanceUnknown == 0)
        return std::nullopt;
    const std::string part = evidence.progress.initialized != 0 ? "a child process of the host" : "the host";
    return Cause{84, "C_Initialize was not called: " + part + " forgot it",
                 program + ": calls were refused as not initialized " +
                     times(std::max(evidence.callsBeforeStart, evidence.instanceUnknown)) +
                     (evidence.progress.initialized != 0
                          ? ", though another process of this name had started the module."
                          : "."),
                 "Call C_Initialize in every process; in a forked child call C_Finalize first, then C_Initialize."};
}

std::optional<Cause> forked(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.startedTwice == 0)
        return std::nullopt;
    return Cause{
        55, "C_Initialize was called twice, or in a forked child",
        program + ": refused as already initialized " + times(evidence.startedTwice) + ".",
        "Accept the code where two parts of a host share the module; in a forked child call C_Finalize first."};
}

std::optional<Cause> removed(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.devicesGone == 0)
        return std::nullopt;
    if (evidence.failedWithoutDevice == 0)
        return Cause{25, "A device was removed, and no call failed for it",
                     program + ": " + times(evidence.devicesGone) + ".", "Where that was on purpose, nothing."};
    return Cause{82, "The device was removed",
                 program + ": a key went away, or could not be reached, " + times(evidence.devicesGone) + ".",
                 "Plug the key in; then fetch the slot list and log in again."};
}

std::optional<Cause> oldFirmware(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.firmwareRefusals == 0)
        return std::nullopt;
    std::string versions;
    for (const std::string& version : evidence.firmware)
        versions += (versions.empty() ? "" : ", ") + version;
    return Cause{80, "Old firmware: the token does not do this mechanism",
                 program + ": refused " + times(evidence.firmwareRefusals) + " on firmware " + versions + ".",
                 "PSS, OAEP and ECDH need firmware 2.0.0: use another mechanism, or a token with newer firmware."};
}

std::optional<Cause> fips(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.fipsRefusals == 0)
        return std::nullopt;
    return Cause{79, "FIPS 140-3 rules: the token does not sign with SHA-1 or MD5",
                 program + ": refused " + times(evidence.fipsRefusals) + ".", "Sign with SHA-256 or stronger."};
}

std::optional<Cause> otherKey(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.keyMismatches == 0)
        return std::nullopt;
    return Cause{78, "The data or the buffer belongs to another key",
                 program +
                     ": data of a length or content that does not suit the key, or a buffer sized for another "
                     "one, " +
                     times(evidence.keyMismatches) + ".",
                 "Check which key the data was made for; look each key up right before its operation, and ask for "
                 "lengths first."};
}

std::optional<Cause> oldSession(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.sessionsUnknownAfterEnd == 0)
        return std::nullopt;
    return Cause{70, "Session handle invalid after C_Finalize",
                 program + ": " + times(evidence.sessionsUnknownAfterEnd) + ".",
                 "Sessions end with C_Finalize: open new ones after C_Initialize."};
}

std::optional<Cause> afterEnd(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.callsAfterEnd == 0)
        return std::nullopt;
    return Cause{69, "Calls after C_Finalize", program + ": " + times(evidence.callsAfterEnd) + ".",
                 "Call C_Initialize before the module is used again."};
}

std::optional<Cause> unknownSession(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.sessionsUnknown == 0)
        return std::nullopt;
    return Cause{68, "Session handle invalid", program + ": " + times(evidence.sessionsUnknown) + ".",
                 "Forget handles when sessions are closed; C_CloseAllSessions closes those of all slots."};
}

std::optional<Cause> noLogin(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.withoutLogin == 0)
        return std::nullopt;
    return Cause{66, "Nobody is logged in: the device wanted a PIN",
                 program + ": " + times(evidence.withoutLogin) + ".",
                 "Log in before keys are used. A removed key or a login on another token drops the PIN."};
}

std::optional<Cause> noKey(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.noTokens == 0)
        return std::nullopt;
    return Cause{64, "No key is plugged in", program + ": the list of keys was empty " + times(evidence.noTokens) + ".",
                 "Plug the key in, and see that the system knows it."};
}

std::optional<Cause> mostRefused(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    const auto most = std::ranges::max_element(evidence.refusals, {}, [](const auto& each) { return each.second; });
    if (most == evidence.refusals.end())
        return std::nullopt;
    return Cause{40, most->first, program + ": " + times(most->second) + ".", ""};
}

std::optional<Cause> noCertificate(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (evidence.certificateSearches == 0 || evidence.progress.certificatesFound != 0 || evidence.privateKeysFound == 0)
        return std::nullopt;
    return Cause{50, "Key without certificate: the token has a private key and no certificate",
                 program + ": private keys were found, and a search for certificates found none " +
                     times(evidence.certificateSearches) + ".",
                 "Put the key's certificate on the token."};
}

std::optional<Cause> incomplete(const std::string& program, const Evidence& evidence, const Programs& /*all*/)
{
    if (!evidence.progress.beginsInTheMiddle)
        return std::nullopt;
    return Cause{20, "Log incomplete: its first lines are lost",
                 program + ": the log begins in the middle of a program's life.",
                 "On a machine without the folders of the log the first two lines are lost; otherwise debug lines were "
                 "turned on later, or the program runs since yesterday."};
}

constexpr Finder FINDERS[] = {twoPins,     lockedPin,     unlockedPin, wrongPin,       changedPin,  noLibrary,
                              otherLayout, notStarted,    forked,      removed,        oldFirmware, fips,
                              otherKey,    oldSession,    afterEnd,    unknownSession, noLogin,     noKey,
                              mostRefused, noCertificate, incomplete};

void addCall(Evidence& evidence, const Call& call)
{
    Progress& progress = evidence.progress;
    if (progress.calls++ == 0 && !canBeFirst(call))
        progress.beginsInTheMiddle = true;
    const std::uint64_t special = countOfSpecial(evidence);
    const std::uint64_t gone = evidence.devicesGone;
    const std::uint64_t failures = evidence.libraryFailures;
    for (const CallLine& line : call.lines)
        addLine(evidence, call, line);
    progress.hasNoLibrary |= evidence.libraryFailures != failures;
    addLifecycle(progress, call);
    addAbsence(evidence, call, gone);
    addRefusal(evidence, call, countOfSpecial(evidence) != special);
}

} // namespace

Evidence& Investigation::evidenceOf(const Call& call)
{
    const auto known = programs_.find(call.program);
    return known != programs_.end() ? known->second : programs_[std::string(call.program)];
}

void Investigation::add(const Call& call)
{
    addCall(evidenceOf(call), call);
}

void Investigation::follow(const Call& call)
{
    Evidence unshown;
    Evidence& evidence = evidenceOf(call);
    std::swap(unshown.progress, evidence.progress);
    addCall(unshown, call);
    std::swap(unshown.progress, evidence.progress);
}

void Investigation::addUnwritable(const std::string& log, const std::string& why)
{
    unwritable_.push_back(log + ": " + why);
}

std::vector<Cause> Investigation::causes() const
{
    std::vector<Cause> causes;
    for (const std::string& log : unwritable_)
        causes.push_back({100, "The log cannot be written", log + "; the module's lines are lost.",
                          "Remove what stands there; see that the folder is the user's own and the disk is not full."});
    for (const auto& [program, evidence] : programs_) {
        for (const Finder find : FINDERS) {
            if (auto cause = find(program, evidence, programs_))
                causes.push_back(std::move(*cause));
        }
    }
    std::ranges::stable_sort(causes, std::ranges::greater(), &Cause::weight);
    return causes;
}

} // namespace velkor::trace
