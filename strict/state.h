// Everything of the strict front that is process-wide, and how a call finds it. It is never destroyed: hosts call in
// while they exit. A forked child starts with a fresh one that knows the slots and nothing else.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "cryptoki.h"
#include "strict/key_gate.h"
#include "util/secret.h"

namespace velkor::strict
{

struct Session;
struct Object;

enum class User { None, User, SecurityOfficer };

/// What the token said to the last PIN of one of its users.
struct PinAnswer {
    bool isRefused = false;
    bool isLocked = false;
};

/// A slot and the token that belongs to it, known by its serial number. Once known, both stay for the life of the
/// process.
struct Token {
    CK_SLOT_ID slotID = 0;
    std::string serialNumber; ///< As the field of CK_TOKEN_INFO has it, without its padding.

    // Under State::lock.
    bool isPresent = false;
    unsigned long insertion = 0; ///< Counts the times that the token came.
    CK_SLOT_ID moduleSlot = 0;   ///< The module's number for the slot, until it is asked for its list again.
    CK_SLOT_INFO slotInfo{};     ///< Both as the module gave them last.
    CK_TOKEN_INFO tokenInfo{};
    User user = User::None;
    SecretText pin; ///< Of the user, while logged in.
    PinAnswer answerToUser;
    PinAnswer answerToSecurityOfficer;
    unsigned long login = 0;      ///< Counts logins and logouts.
    unsigned long pinChanges = 0; ///< Counts those that this process has made.
    /// Counts what gives numbers of the module free: deleted objects, whose numbers stand in `freed` with the count,
    /// and the token's going, which frees all.
    unsigned long removals = 0;
    unsigned long allFreed = 0;
    std::map<CK_OBJECT_HANDLE, unsigned long> freed;
    std::vector<CK_SESSION_HANDLE> idleSessions;                      ///< The module's sessions that nobody uses.
    std::map<CK_OBJECT_HANDLE, std::shared_ptr<Object>> tokenObjects; ///< By the module's handle.

    /// The module's session that its logins and logouts go through. Only for who is alone behind the gate.
    CK_SESSION_HANDLE loginSession = 0;
    unsigned long loginSessionInsertion = 0;
};

enum class Phase { Ended, Running, Ending };

struct State {
    // Life. `lifeLock` guards the steps of C_Initialize and C_Finalize.
    std::mutex lifeLock;
    std::condition_variable lifeChanged;
    std::atomic<Phase> phase = Phase::Ended;
    std::atomic<int> callsInside = 0;
    std::atomic<unsigned long> life = 0;    ///< Counts the calls of C_Initialize.
    std::atomic<bool> isModuleUsed = false; ///< From before the module is started until it has ended.
    bool isModuleForked = false;            ///< The module still is as the parent of this process left it.
    CK_FUNCTION_LIST module{};              ///< The module's functions, once it is loaded.
    bool isModuleLoaded = false;

    /// Guards the module's slot table and what is read from it; taken before `lock`, and held across calls of the
    /// module.
    std::mutex slotLock;
    bool isListCounted = false; ///< The next list is the one that was counted. Under slotLock.

    /// Guards all that follows, and what is marked so in its parts. Never held across a call of the module.
    std::mutex lock;
    std::vector<std::unique_ptr<Token>> tokens; ///< In the order of their slot IDs.
    std::set<CK_SLOT_ID> slotEvents;            ///< Slots that changed since the host was told.
    std::map<CK_SESSION_HANDLE, std::shared_ptr<Session>> sessions;
    std::map<CK_OBJECT_HANDLE, std::shared_ptr<Object>> objects;
    CK_SESSION_HANDLE lastSession = 0;
    CK_OBJECT_HANDLE lastObject = 0;

    std::condition_variable eventOrEnd; ///< With `lock`: waiters for slot events are to look again.

    KeyGate gate;
};

State& state();

/// Makes all folders of the log where its lines go now: those of the process's user and temporary folder of the moment.
void createLogFolders();

/// The lock is not held where it could not be had in time.
std::unique_lock<std::mutex> lockInTime(std::mutex& mutex, std::chrono::milliseconds patience);

/// The module's function table.
inline const CK_FUNCTION_LIST& module()
{
    return state().module;
}

} // namespace velkor::strict
