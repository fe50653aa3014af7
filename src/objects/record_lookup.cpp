#include "objects/record_lookup.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "frame/module_state.h"

namespace velkor
{
namespace
{

template <typename Record>
const Record* find(const std::vector<Record>& records, CK_ULONG id)
{
    const auto found = std::find_if(records.begin(), records.end(), [&](const Record& each) { return each.id == id; });
    return found != records.end() ? &*found : nullptr;
}

} // namespace

const VelkorKeyPair* findKeyPair(const SessionRecord& session, CK_ULONG id)
{
    ModuleState& state = moduleState();
    const VelkorKeyPair* found = find(velkor_getKeyPairList(session.deviceId(), state.libraryInstance), id);
    if (found == nullptr)
        return nullptr;
    const std::scoped_lock lock(state.lock);
    // Threads that use one key do not write to the same memory each time. Padding that differs does no harm.
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison,cert-exp42-c,cert-flp37-c)
    if (std::memcmp(&state.foundKeyPair, found, sizeof *found) != 0)
        state.foundKeyPair = *found;
    return found;
}

const VelkorCertificate* findCertificate(const SessionRecord& session, CK_ULONG id)
{
    return find(velkor_getCertificateList(session.deviceId(), moduleState().libraryInstance), id);
}

} // namespace velkor
