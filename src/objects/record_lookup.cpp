#include "objects/record_lookup.h"

#include <algorithm>
#include <vector>

#include "frame/module_state.h"

namespace velkor
{
namespace
{

template <typename Record>
std::optional<Record> find(const std::vector<Record>& records, CK_ULONG id, Record& moduleWideRecord)
{
    const auto found = std::find_if(records.begin(), records.end(), [&](const Record& each) { return each.id == id; });
    if (found == records.end())
        return std::nullopt;
    const std::scoped_lock lock(moduleState().lock);
    moduleWideRecord = *found;
    return *found;
}

} // namespace

std::optional<VelkorKeyPair> findKeyPair(const SessionRecord& session, CK_ULONG id)
{
    ModuleState& state = moduleState();
    const std::vector<VelkorKeyPair> keyPairs = velkor_getKeyPairList(session.deviceId(), state.libraryInstance);
    return find(keyPairs, id, state.foundKeyPair);
}

std::optional<VelkorCertificate> findCertificate(const SessionRecord& session, CK_ULONG id)
{
    ModuleState& state = moduleState();
    const std::vector<VelkorCertificate> certificates =
        velkor_getCertificateList(session.deviceId(), state.libraryInstance);
    return find(certificates, id, state.foundCertificate);
}

} // namespace velkor
