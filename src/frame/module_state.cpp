#include "frame/module_state.h"

#include <iterator>

namespace velkor
{

ModuleState& moduleState()
{
    static ModuleState& state = *new ModuleState;
    return state;
}

std::shared_ptr<SessionRecord> findSession(CK_SESSION_HANDLE hSession)
{
    ModuleState& state = moduleState();
    const std::scoped_lock lock(state.lock);
    const auto found = state.sessionMap.find(hSession);
    return found != state.sessionMap.end() ? found->second : nullptr;
}

std::optional<TokenInfo> findSlot(CK_SLOT_ID slotID)
{
    ModuleState& state = moduleState();
    const std::scoped_lock lock(state.lock);
    if (slotID < SLOT_ID_BASE || slotID - SLOT_ID_BASE >= state.slotMap.size())
        return std::nullopt;
    return std::next(state.slotMap.begin(), static_cast<std::ptrdiff_t>(slotID - SLOT_ID_BASE))->second;
}

CK_STATE stateOf(const SessionRecord& session)
{
    const std::scoped_lock lock(moduleState().lock);
    return session.state;
}

SecretText cachedPassword()
{
    ModuleState& state = moduleState();
    const std::scoped_lock lock(state.lock);
    return state.cachedUserPassword;
}

} // namespace velkor
