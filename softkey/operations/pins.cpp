// Checking and changing PINs.
#include "operations/boundary.h"

using namespace softkey;

namespace
{

PinRole roleOf(int userType)
{
    const auto role = static_cast<PinRole>(userType);
    require(role == PinRole::User || role == PinRole::SecurityOfficer, SoftkeyStatus::CheckNotPossible);
    return role;
}

void report(int* triesLeft, int value)
{
    if (triesLeft != nullptr)
        *triesLeft = value;
}

/// Runs a check of a PIN. Whatever keeps the PIN from being looked at, other than a key that has gone, is answered
/// with the one status that stands for it.
template <class Work>
int answerCheck(int* triesLeft, Work&& work) noexcept
{
    report(triesLeft, Refusal::TRIES_UNKNOWN);
    const int status = answer([&] {
        try {
            work();
        } catch (const Refusal& refusal) {
            if (refusal.triesLeft() != Refusal::TRIES_UNKNOWN)
                report(triesLeft, refusal.triesLeft());
            throw;
        }
    });
    switch (static_cast<SoftkeyStatus>(status)) {
    case SoftkeyStatus::Ok:
    case SoftkeyStatus::DeviceRemoved:
    case SoftkeyStatus::DeviceUnreachable:
    case SoftkeyStatus::PinRequired:
    case SoftkeyStatus::PinIncorrect:
    case SoftkeyStatus::PinLocked:
        return status;
    default:
        return STATUS_CHECK_NOT_POSSIBLE;
    }
}

} // namespace

int velkor_validatePassword(const char* deviceId, const char* pin, int userType, int* triesLeft, void* libraryInstance)
{
    return answerCheck(triesLeft, [&] {
        const PinRole role = roleOf(userType);
        const std::shared_ptr<SoftKey> key = pluggedKey(deviceId, libraryInstance);
        key->login(role, text(pin));
        report(triesLeft, key->contents()->pin(role).triesLeft);
    });
}

bool velkor_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin, int* triesLeft,
                               bool securityOfficer, bool force, void* libraryInstance)
{
    const int status = answerCheck(triesLeft, [&] {
        require(!securityOfficer && !force, SoftkeyStatus::NotSupported);
        const std::shared_ptr<SoftKey> key = pluggedKey(deviceId, libraryInstance);
        report(triesLeft, key->contents()->userPin.triesLeft);
        key->changePin(PinRole::User, text(oldPin), text(newPin));
        report(triesLeft, key->contents()->userPin.triesLeft);
    });
    return status == static_cast<int>(SoftkeyStatus::Ok);
}
