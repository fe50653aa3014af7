#include "objects/record_lookup.h"

#include <algorithm>
#include <vector>

#include "frame/module_state.h"

namespace
{

template <typename Record>
Record* keep(const std::vector<Record>& records, CK_ULONG id, Record& moduleWideRecord)
{
    const auto found = std::find_if(records.begin(), records.end(), [&](const Record& each) { return each.id == id; });
    if (found == records.end())
        return nullptr;
    const std::scoped_lock lock(moduleState().lock);
    moduleWideRecord = *found;
    return &moduleWideRecord;
}

template <typename Record>
Record lockedCopy(const Record& record)
{
    const std::scoped_lock lock(moduleState().lock);
    return record;
}

} // namespace

VelkorKeyPair* findKeyPair(const SessionRecord& session, CK_ULONG id)
{
    ModuleState& state = moduleState();
    return keep(velkor_getKeyPairList(session.deviceId(), state.libraryInstance), id, state.foundKeyPair);
}

VelkorCertificate* findCertificate(const SessionRecord& session, CK_ULONG id)
{
    ModuleState& state = moduleState();
    return keep(velkor_getCertificateList(session.deviceId(), state.libraryInstance), id, state.foundCertificate);
}

VelkorKeyPair copyOf(const VelkorKeyPair& record)
{
    return lockedCopy(record);
}

VelkorCertificate copyOf(const VelkorCertificate& record)
{
    return lockedCopy(record);
}
